// Response headers, server lists and descriptions of any bytes: what is decoded stays within what
// was given and within the limits that the rest relies on. The same bytes as a request's fields: it
// is encoded into what its length says and no less.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "adif/frame.h"
#include "adif/kalloc.h"
#include "c2ms.h"
#include "c2ms/core/records.h"
#include "c2ms/wire/pdu.h"
#include "require.h"

namespace {

c2ms_sess *session() {
  static c2ms_mgmt mgmt;
  static c2ms_sess sess;
  sess.mgmt = &mgmt;
  return &sess;
}

void request(const uint8_t *data, size_t size) {
  c2ms_pdu pdu{};
  std::memcpy(pdu.local_ip, data, std::min(size, sizeof pdu.local_ip));
  std::memcpy(pdu.hid, data + size / 2, std::min(size - size / 2, sizeof pdu.hid));
  pdu.session = session();
  pdu.command_id = size % 5;  // 1 to 3 are requests
  pdu.sequence_id = 0x01020304;
  pdu.total_length = pdu.command_id == C2MS_GET_MEDIA_REQ ? 119 : 106;
  const bool known = pdu.command_id >= C2MS_GET_SRVLIST_REQ && pdu.command_id <= C2MS_GET_MEDIA_REQ;
  uint8_t fid[16] = {};
  c2ms_pdu_build_key(&pdu, fid);
  std::vector<uint8_t> room(pdu.total_length);
  require(c2ms_pdu_encode(&pdu, room.data(), static_cast<int>(room.size()) - 1) == -100);
  const int length = c2ms_pdu_encode(&pdu, room.data(), static_cast<int>(room.size()));
  require(length == (known ? static_cast<int>(room.size()) : 14));
  require(!known || std::memcmp(&room[18], pdu.local_ip, sizeof pdu.local_ip) == 0);
  c2ms_pdu back{};
  require(c2ms_pdu_decode(&back, room.data(), length) == 14);
  require(back.command_id == pdu.command_id && back.sequence_id == pdu.sequence_id);
}

// Through a frame the same comes out.
void framed(const c2ms_pdu &pdu, const uint8_t *data, int length) {
  frame_t *frame = nullptr;
  putnLastBytes(&frame, data, length);
  c2ms_pdu again;
  std::memset(&again, 0, sizeof again);
  c2ms_pdu_decode2(&again, frame);
  require(std::memcmp(&again, &pdu, sizeof pdu) == 0);
  c2ms_pdu_print(&again);
  deleteFrame(&frame);
}

// Without memory for its frame.
bool lacks_memory() {
  c2ms_pdu pdu{};
  pdu.session = session();
  frame_t *frame = nullptr;
  c2ms_set_diag(nullptr, nullptr);
  adif::fail_allocations(1);
  require(c2ms_pdu_encode2(&pdu, &frame) == -100 && frame == nullptr);
  adif::fail_allocations(0);
  require(c2ms_pdu_encode2(&pdu, &frame) == 14 && frameLength(frame) == 14);
  deleteFrame(&frame);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool lacked = lacks_memory();
  require(lacked);
  if (size > 4096) return 0;
  const int length = static_cast<int>(size);
  c2ms_pdu pdu;
  std::memset(&pdu, 0, sizeof pdu);  // (padding is compared, too)
  const int used = c2ms_pdu_decode(&pdu, data, length);
  if (used > length || (used < 0) != (length < 14)) std::abort();
  c2ms::list_entry entries[c2ms::max_list_entries];
  const int count = c2ms::parse_server_list(data, length, entries);
  if (count > c2ms::max_list_entries || (count > 0 && count * 10 + 2 > length)) std::abort();
  c2ms::description media;
  if (c2ms::parse_description(data, length, &media)) {
    if (length < 67 || media.size > INT64_MAX || media.name[36] != '\0') std::abort();
  }
  request(data, size);
  if (size < 128) framed(pdu, data, length);
  std::vector<uint8_t> scratch(size);
  const uint8_t *plain = nullptr;
  if (size > 0 && c2ms::plain_body(pdu, 1, data, length, scratch.data(), &plain) > length)
    std::abort();
  if (c2ms::plain_body(pdu, 0, data, length, nullptr, &plain) != length || plain != data)
    std::abort();
  return 0;
}
