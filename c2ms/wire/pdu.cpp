// See pdu.h.
#include "c2ms/wire/pdu.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "adif/byteiter.h"
#include "adif/kalloc.h"
#include "c2ms.h"
#include "c2ms/core/identity.h"
#include "crypto/des.h"

namespace {

constexpr uint32_t control_request_bytes = 106;
constexpr uint32_t media_request_bytes = 119;
constexpr int description_bytes = 67;  // up to the load; the count behind it is optional

bool is_request(uint32_t command) {
  return command >= C2MS_GET_SRVLIST_REQ && command <= C2MS_GET_MEDIA_REQ;
}

// Two groups of one shape: (auth, stamp, keyid), (fid, range offset, range length).
void set_group(byte_iter *it, const uint8_t (&bytes)[16], uint64_t wide, uint32_t narrow) {
  iter_set_bytes(it, bytes, sizeof bytes);
  iter_set_uint64BE(it, wide);
  iter_set_uint32BE(it, narrow);
}

void set_request_body(byte_iter *it, const c2ms_pdu &pdu) {
  iter_set_uint32BE(it, pdu.client_version);
  iter_set_bytes(it, pdu.local_ip, sizeof pdu.local_ip);
  iter_set_bytes(it, pdu.hid, sizeof pdu.hid);
  iter_set_uint64BE(it, pdu.uid);
  set_group(it, pdu.auth, static_cast<uint64_t>(pdu.stamp), pdu.keyid);
  if (pdu.command_id != C2MS_GET_MEDIA_REQ) {
    iter_set_bytes(it, pdu.fid, sizeof pdu.fid);
    return;
  }
  set_group(it, pdu.fid, pdu.range_offset, pdu.range_length);
  iter_set_uint8(it, pdu.range_flag);
}

// The number behind the first '.' met in the last four characters: 3 for 1.2.3.4, 200
// for 10.1.1.200.
uint8_t tail_octet(const char *text) {
  const size_t length = strnlen(text, 15);
  if (length < 5) return 0;
  for (size_t i = length - 4; i < length; ++i) {
    if (text[i] == '.') return static_cast<uint8_t>(std::atoi(text + i + 1));
  }
  return 0;
}

void decode_media_part(byte_iter *it, c2ms_pdu *pdu) {
  if (adif::iter_left(it) <= 13) return;
  iter_get_uint16BE(it, &pdu->media_load);
  iter_get_uint64BE(it, &pdu->media_position);
  iter_get_uint32BE(it, &pdu->media_aux);
  iter_get_uint32BE(it, &pdu->payload_length);
  iter_get_uint8(it, &pdu->payload_flag);
}

}  // namespace

int c2ms_pdu_init(c2ms_sess *session, c2ms_pdu *pdu, uint32_t command) {
  if (session == nullptr) return -1;
  if (pdu == nullptr) return -2;
  c2ms_mgmt *const mgmt = session->mgmt;
  if (mgmt == nullptr) return -3;
  const c2ms::identity who = c2ms::current_identity(mgmt);
  *pdu = {};
  pdu->command_id = command;
  pdu->session = session;
  if (!is_request(command)) return 0;
  pdu->total_length = command == C2MS_GET_MEDIA_REQ ? media_request_bytes : control_request_bytes;
  pdu->sequence_id = c2ms_sess_pduid(session);
  pdu->prot_version = mgmt->proto_ver;
  pdu->client_version = c2ms_version(mgmt);
  std::memcpy(pdu->local_ip, who.local_ip, sizeof pdu->local_ip);
  std::memcpy(pdu->hid, who.hid, sizeof pdu->hid);
  pdu->uid = c2ms_uid(mgmt);
  std::memcpy(pdu->auth, session->auth, sizeof pdu->auth);
  pdu->stamp = static_cast<int32_t>(session->stamp);  // signed on the wire, as servers know it
  pdu->keyid = session->keyid;
  std::memcpy(pdu->fid, session->fid, sizeof pdu->fid);
  c2ms_pdu_build_key(pdu, session->fid);
  return 0;
}

void c2ms_pdu_build_key(c2ms_pdu *pdu, const uint8_t *session_fid) {
  const auto low = [](uint64_t value) { return static_cast<uint8_t>(value); };
  pdu->key[0] = low(uint64_t{pdu->sequence_id} + pdu->total_length);
  pdu->key[1] = low(static_cast<uint64_t>(std::atoi(pdu->local_ip)));
  pdu->key[2] = tail_octet(pdu->local_ip);
  pdu->key[3] = low(uint64_t{pdu->hid[0]} + session_fid[0]);
  pdu->key[4] = low(uint64_t{pdu->hid[1]} + session_fid[1]);
  pdu->key[5] = low(pdu->uid);
  pdu->key[6] = session_fid[7];
  pdu->key[7] = session_fid[8];
}

int c2ms_pdu_encode(c2ms_pdu *pdu, void *buffer, int size) {
  if (pdu == nullptr) return -1;
  if (buffer == nullptr || size < 1) return -2;
  if (pdu->session == nullptr) return -3;
  if (pdu->session->mgmt == nullptr) return -4;
  if (static_cast<uint32_t>(size) < std::max(pdu->total_length, c2ms::pdu_header_bytes))
    return -100;
  byte_iter it;
  iter_set_text(&it, buffer, size);
  iter_set_uint32BE(&it, 0);
  iter_set_uint32BE(&it, pdu->command_id);
  iter_set_uint32BE(&it, pdu->sequence_id);
  iter_set_uint16BE(&it, pdu->prot_version);
  if (is_request(pdu->command_id)) set_request_body(&it, *pdu);
  const int length = it.pos;
  iter_set_text(&it, buffer, size);
  iter_set_uint32BE(&it, static_cast<uint32_t>(length));
  return length;
}

int c2ms_pdu_decode(c2ms_pdu *pdu, const void *buffer, int length) {
  if (pdu == nullptr) return -1;
  if (buffer == nullptr || length < static_cast<int>(c2ms::pdu_header_bytes)) return -2;
  byte_iter it;
  iter_set_text(&it, buffer, length);
  iter_get_uint32BE(&it, &pdu->total_length);
  iter_get_uint32BE(&it, &pdu->command_id);
  iter_get_uint32BE(&it, &pdu->sequence_id);
  iter_get_uint16BE(&it, &pdu->prot_version);
  switch (pdu->command_id) {
    case C2MS_GET_SRVLIST_RESP:
    case C2MS_DESC_MEDIA_RESP:
      iter_get_uint32BE(&it, &pdu->result);
      break;
    case C2MS_GET_MEDIA_RESP:
      iter_get_uint32BE(&it, &pdu->result);
      decode_media_part(&it, pdu);
      break;
    default:
      break;
  }
  return it.pos;
}

const uint8_t *c2ms_pdu_key(const c2ms_pdu *pdu) {
  static const uint8_t none[8] = {};
  return pdu == nullptr ? none : pdu->key;
}

int c2ms_pdu_free(c2ms_pdu *pdu) {
  if (pdu == nullptr) return -1;
  kfree_dbg(pdu);
  return 0;
}

namespace c2ms {

int parse_server_list(const uint8_t *body, int length, list_entry *out) {
  byte_iter it;
  iter_set_text(&it, body, length);
  uint16_t count = 0;
  if (iter_get_uint16BE(&it, &count) != 0) return -1;
  const int wanted = std::min<int>(count, max_list_entries);
  constexpr int entry_bytes = 10;
  int used = 0;
  for (; used < wanted && adif::iter_left(&it) >= entry_bytes; ++used) {
    list_entry &entry = out[used];
    iter_get_uint32BE(&it, &entry.address);
    iter_get_uint16BE(&it, &entry.port);
    iter_get_uint8(&it, &entry.type);
    iter_get_uint16BE(&it, &entry.load);
    iter_get_uint8(&it, nullptr);
  }
  return used;
}

bool parse_description(const uint8_t *body, int length, description *out) {
  if (length < description_bytes) return false;
  *out = {};
  byte_iter it;
  iter_set_text(&it, body, length);
  iter_get_bytes(&it, out->name, 36);
  iter_get_uint64BE(&it, &out->size);
  iter_get_uint8(&it, &out->type);
  iter_get_uint32BE(&it, &out->idx_len);
  iter_get_bytes(&it, out->idx_fid, sizeof out->idx_fid);
  iter_get_uint16BE(&it, &out->load);
  return out->size <= INT64_MAX;
}

int plain_body(const c2ms_pdu &request, uint32_t result, const uint8_t *body, int length,
               uint8_t *scratch, const uint8_t **plain) {
  if (result != 1) {
    *plain = body;
    return length;
  }
  des_context cipher;
  DesSetKey(&cipher, c2ms_pdu_key(&request));  // a weak key serves as well
  int plain_length = 0;
  if (DesDecrypt(&cipher, body, length, scratch, &plain_length) != 0) return -1;
  *plain = scratch;
  return plain_length;
}

}  // namespace c2ms
