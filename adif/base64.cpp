// Base64 text to bytes and back (RFC 4648, 4). See base64.h.
#include "adif/base64.h"

#include <array>
#include <string_view>

namespace {

constexpr std::string_view alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr int group_bits = 6;
constexpr uint8_t foreign = 0xFF;

// Computed by the compiler, so that a reader needs no table of 256 numbers.
constexpr std::array<uint8_t, 256> make_values() {
  std::array<uint8_t, 256> values{};
  values.fill(foreign);
  for (size_t i = 0; i < alphabet.size(); ++i) {
    values[static_cast<uint8_t>(alphabet[i])] = static_cast<uint8_t>(i);
  }
  return values;
}

constexpr std::array<uint8_t, 256> values = make_values();

bool is_skipped(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

}  // namespace

int bin_to_base64(const void *bytes, int len, char *out) {
  // Four characters for three bytes must still be countable in an int.
  constexpr int longest = INT32_MAX / 4 * 3;
  if (!bytes || len < 1 || len > longest) return -1;
  if (!out) return -2;
  const auto *in = static_cast<const uint8_t *>(bytes);
  char *at = out;
  for (int i = 0; i < len; i += 3) {
    const int present = len - i < 3 ? len - i : 3;
    uint32_t group = 0;
    for (int k = 0; k < 3; ++k) group = group << 8 | (k < present ? in[i + k] : 0U);
    for (int k = 0; k < 4; ++k) {
      *at++ = k <= present ? alphabet[group >> ((3 - k) * group_bits) & 0x3F] : '=';
    }
  }
  return static_cast<int>(at - out);
}

int base64_to_bin(const char *text, int len, void *out) {
  if (!text || len < 1) return -1;
  if (!out) return -2;
  auto *const bytes = static_cast<uint8_t *>(out);
  uint32_t bits = 0;
  int written = 0;
  int digits = 0;  // of the current group of four
  int padding = 0;
  for (int i = 0; i < len; ++i) {
    if (is_skipped(text[i])) continue;
    if (text[i] == '=') {
      ++padding;
      continue;
    }
    const uint8_t value = values[static_cast<uint8_t>(text[i])];
    if (value == foreign || padding > 0) return -100;
    bits = bits << group_bits | value;
    // Every digit but a group's first completes a byte.
    if (digits > 0) bytes[written++] = static_cast<uint8_t>(bits >> (group_bits - 2 * digits));
    digits = (digits + 1) % 4;
  }
  // One digit alone holds six bits, which is no byte; padding may only fill up a group.
  if (digits == 1 || (padding > 0 && (digits == 0 || digits + padding != 4))) return -100;
  return written;
}
