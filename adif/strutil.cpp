// Texts of a given length: hexadecimal, scanning, parameters, integers. See strutil.h.
#include "adif/strutil.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>
#include <string_view>

#include "adif/kalloc.h"
#include "adif/kmp.h"

namespace {

constexpr std::string_view white_space = " \t\n\v\f\r";

bool is_white(char c) {
  return white_space.find(c) != white_space.npos;
}

/// The value of a hexadecimal digit, -1 for any other character.
int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

bool is_quote(char c) {
  return c == '"' || c == '\'';
}

bool in_set(char c, const char *set, int set_len) {
  return std::memchr(set, c, static_cast<size_t>(set_len)) != nullptr;
}

bool nothing_to_scan(int len, const char *set, int set_len) {
  return len < 1 || !set || set_len < 1;
}

const char *scan(const char *text, int len, const char *set, int set_len, bool wanted) {
  if (!text || nothing_to_scan(len, set, set_len)) return text;
  return std::find_if(text, text + len, [=](char c) { return in_set(c, set, set_len) == wanted; });
}

const char *scan_back(const char *text, int len, const char *set, int set_len, bool wanted) {
  if (!text || nothing_to_scan(len, set, set_len)) return text;
  for (const char *at = text + len; at != text;) {
    if (in_set(*--at, set, set_len) == wanted) return at;
  }
  return nullptr;
}

void store(int *where, int value) {
  if (where) *where = value;
}

}  // namespace

int bin_to_ascii(const void *bytes, int len, char *out, int *out_len) {
  store(out_len, 0);
  // Two digits a byte must be countable in an int.
  if (!bytes || len < 1 || len > INT32_MAX / 2) return -1;
  if (!out) return -2;
  const auto *in = static_cast<const uint8_t *>(bytes);
  for (int i = 0; i < len; ++i) {
    *out++ = toASCIICH(in[i] >> 4);
    *out++ = toASCIICH(in[i] & 0x0F);
  }
  store(out_len, 2 * len);
  return 2 * len;
}

int ascii_to_bin(const char *text, int len, void *out, int *out_len) {
  store(out_len, 0);
  if (!text || len < 1) return -1;
  if (!out) return -2;
  auto *bytes = static_cast<uint8_t *>(out);
  for (int i = 0; i < len / 2; ++i) {
    const int high = hex_value(text[2 * i]);
    const int low = hex_value(text[2 * i + 1]);
    // What was written up to here stays counted.
    if (high < 0 || low < 0) return -100;
    bytes[i] = static_cast<uint8_t>(high << 4 | low);
    store(out_len, i + 1);
  }
  return len / 2;
}

const char *skipTo(const char *text, int len, const char *set, int set_len) {
  return scan(text, len, set, set_len, true);
}

const char *skipOver(const char *text, int len, const char *set, int set_len) {
  return scan(text, len, set, set_len, false);
}

const char *rskipTo(const char *text, int len, const char *set, int set_len) {
  return scan_back(text, len, set, set_len, true);
}

const char *rskipOver(const char *text, int len, const char *set, int set_len) {
  return scan_back(text, len, set, set_len, false);
}

int get_value_by_key(const char *text, int len, const char *key, const char **value,
                     int *value_len) {
  if (value) *value = nullptr;
  store(value_len, 0);
  if (!text || len < 1) return -1;
  if (!key) return -2;
  const char *const end = text + len;
  const char *at = kmp_find_string(text, len, key);
  if (!at) return -100;
  at += std::strlen(key);
  const char *equals = skipOver(at, static_cast<int>(end - at), " \t", 2);
  if (equals == end || *equals != '=') return -101;
  // Blanks behind "=" belong to it only if there are some before it (meant).
  const bool spaced = equals != at;
  at = equals + 1;
  if (spaced) at = skipOver(at, static_cast<int>(end - at), " \t", 2);
  const int left = static_cast<int>(end - at);
  int found = 0;
  if (const int quoted = QuotedStrlen(at, left); quoted > 0) {
    ++at;
    // The value without its quotes; it may be empty and still be there.
    found = quoted - 2;
  } else {
    found = static_cast<int>(skipTo(at, left, " \t,;", 4) - at);
    if (found < 1) return 0;
  }
  if (value) *value = at;
  store(value_len, found);
  return found;
}

int QuotedStrlen(const char *text, int len) {
  if (!text || len < 1) return -1;
  if (!is_quote(*text)) return 0;
  const void *close = std::memchr(text + 1, *text, static_cast<size_t>(len - 1));
  return close ? static_cast<int>(static_cast<const char *>(close) - text) + 1 : 0;
}

const char *skipQuoteTo(const char *text, int len, const char *set, int set_len) {
  if (!text || nothing_to_scan(len, set, set_len)) return text;
  const char *const end = text + len;
  while (text != end && !in_set(*text, set, set_len)) {
    // A quote that is never closed counts as one byte.
    text += std::max(QuotedStrlen(text, static_cast<int>(end - text)), 1);
  }
  return text;
}

int MBI2Uint(const void *bytes, int len, uint32_t *value) {
  if (!bytes || len < 1) return -1;
  const auto *in = static_cast<const uint8_t *>(bytes);
  uint32_t built = 0;
  int used = 0;
  // More bytes would shift the first ones out again.
  while (used < std::min(len, MBI_MAX_BYTES)) {
    const uint8_t byte = in[used++];
    built = built << 7 | (byte & 0x7FU);
    if (byte < 0x80) break;
  }
  if (value) *value = built;
  return used;
}

int Uint2MBI(uint32_t value, void *out) {
  if (!out) return -1;
  auto *bytes = static_cast<uint8_t *>(out);
  int len = 1;
  for (uint32_t left = value >> 7; left > 0; left >>= 7) ++len;
  for (int i = 0; i < len; ++i) {
    const uint32_t group = value >> (7 * (len - 1 - i)) & 0x7F;
    bytes[i] = static_cast<uint8_t>(i + 1 < len ? group | 0x80 : group);
  }
  return len;
}

int str_trim_head(char *text, int len) {
  if (!text) return -1;
  if (len < 1) return 0;
  char *const first = std::find_if_not(text, text + len, is_white);
  const auto left = text + len - first;
  std::memmove(text, first, static_cast<size_t>(left));
  return static_cast<int>(left);
}

int str_trim_tail(const char *text, int len) {
  if (!text) return -1;
  while (len > 0 && is_white(text[len - 1])) --len;
  return std::max(len, 0);
}

int str_trim(char *text, int len) {
  return str_trim_head(text, str_trim_tail(text, len));
}

int get_int_from_str(const char *text, int len, int *value) {
  if (!text || len < 1) return -1;
  const char *const end = text + len;
  const char *at = std::find_if_not(text, end, is_white);
  const bool negative = at != end && *at == '-';
  // from_chars reads a minus itself, but no plus.
  if (at != end && *at == '+') {
    ++at;
    if (at != end && *at == '-') return -100;
  }
  int read = 0;
  const auto [stop, error] = std::from_chars(at, end, read);
  if (error == std::errc::invalid_argument) return -100;
  if (error == std::errc::result_out_of_range) {
    read = negative ? std::numeric_limits<int>::min() : std::numeric_limits<int>::max();
  }
  store(value, read);
  return static_cast<int>(stop - text);
}

int secure_memcpy(void *destination, int size, const void *source, int len) {
  if (!destination || !source) return -1;
  const int count = std::min(size, len);
  if (count < 1) return 0;
  // The two may overlap.
  std::memmove(destination, source, static_cast<size_t>(count));
  return count;
}

char *string_dup(const char *text) {
  if (!text) return nullptr;
  const size_t size = std::strlen(text) + 1;
  auto *copy = static_cast<char *>(kalloc_dbg(static_cast<int64_t>(size)));
  if (copy) std::memcpy(copy, text, size);
  return copy;
}

char toASCIICH(int nibble) {
  return nibble >= 0 && nibble < 16 ? "0123456789ABCDEF"[nibble] : '?';
}

int winstrcpy(char *destination, int size, const char *source) {
  if (!destination || size < 1) return -1;
  const size_t count = source ? strnlen(source, static_cast<size_t>(size - 1)) : 0;
  if (count > 0) std::memmove(destination, source, count);
  destination[count] = '\0';
  return static_cast<int>(count);
}
