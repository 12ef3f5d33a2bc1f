// Replies to reports, as a peer sent them. Part of report/report.h.
#include "adif/byteiter.h"
#include "c2ms/report/report.h"

namespace c2ms {

namespace {

constexpr uint32_t reply_bit = 0x80000000;

}  // namespace

int decode_report_reply(report_kind kind, const void *buf, int len) {
  constexpr int not_understood = -100;
  if (buf == nullptr) return not_understood;
  byte_iter in;
  iter_set_text(&in, buf, len);
  uint32_t type = 0, result = 0;
  iter_get_bytes(&in, nullptr, 4);
  iter_get_uint32BE(&in, &type);
  iter_get_bytes(&in, nullptr, report_header_bytes - 8);
  if (iter_get_uint32BE(&in, &result) != 0) return not_understood;
  return type == (static_cast<uint32_t>(kind) | reply_bit) ? static_cast<int>(result)
                                                           : not_understood;
}

uint32_t report_sequence(const void *message) {
  byte_iter in;
  iter_set_text(&in, message, report_header_bytes);
  uint32_t sequence = 0;
  iter_get_bytes(&in, nullptr, 8);
  iter_get_uint32BE(&in, &sequence);
  return sequence;
}

bool answers_report(const void *datagram, int64_t size, uint32_t sequence) {
  if (size < report_header_bytes || size > report_buffer_bytes) return false;
  byte_iter in;
  iter_set_text(&in, datagram, static_cast<int32_t>(size));
  uint32_t total = 0;
  iter_get_uint32BE(&in, &total);
  return total == static_cast<uint32_t>(size) && report_sequence(datagram) == sequence;
}

int reply_bytes_left(const uint8_t (&length)[report_length_bytes]) {
  byte_iter in;
  iter_set_text(&in, length, sizeof length);
  uint32_t total = 0;
  iter_get_uint32BE(&in, &total);
  if (total <= sizeof length) return reply_too_short;
  if (total > report_buffer_bytes) return reply_too_long;
  return static_cast<int>(total - sizeof length);
}

}  // namespace c2ms
