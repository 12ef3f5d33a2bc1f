// Response headers, server lists and descriptions of any bytes: what is decoded stays within what
// was given and within the limits that the rest relies on.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "c2ms/c2ms_pdu.h"

// What is no pointer and what is too short is refused, and no key is an empty one.
static bool refuses_nothing() {
  c2ms_pdu pdu{};
  uint8_t bytes[256] = {};
  return c2ms_pdu_decode(nullptr, bytes, 256) == -1 && c2ms_pdu_decode(&pdu, nullptr, 256) == -2 &&
         c2ms_pdu_encode(nullptr, bytes, 256) == -1 && c2ms_pdu_encode(&pdu, nullptr, 256) == -2 &&
         c2ms_pdu_encode(&pdu, bytes, 0) == -2 && c2ms_pdu_encode(&pdu, bytes, 256) == -3 &&
         c2ms_pdu_init(nullptr, &pdu, 1) == -1 && c2ms_pdu_free(nullptr) == -1 &&
         c2ms_pdu_key(nullptr)[0] == 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool refused = refuses_nothing();
  if (!refused) std::abort();
  if (size > 4096) return 0;
  const int length = static_cast<int>(size);
  c2ms_pdu pdu{};
  const int used = c2ms_pdu_decode(&pdu, data, length);
  if (used > length || (used < 0) != (length < 14)) std::abort();
  c2ms::list_entry entries[c2ms::max_list_entries];
  const int count = c2ms::parse_server_list(data, length, entries);
  if (count > c2ms::max_list_entries || (count > 0 && count * 10 + 2 > length)) std::abort();
  c2ms::description media;
  if (c2ms::parse_description(data, length, &media)) {
    if (length < 67 || media.size > INT64_MAX || media.name[36] != '\0') std::abort();
  }
  std::vector<uint8_t> scratch(size);
  const uint8_t *plain = nullptr;
  if (size > 0 && c2ms::plain_body(pdu, 1, data, length, scratch.data(), &plain) > length)
    std::abort();
  if (c2ms::plain_body(pdu, 0, data, length, nullptr, &plain) != length || plain != data)
    std::abort();
  return 0;
}
