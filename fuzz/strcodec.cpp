// String codecs on foreign text: what is decoded stays in bounds, what is encoded decodes back, and
// every result lies inside the text that it was found in.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "adif/base64.h"
#include "adif/byteiter.h"
#include "adif/frame.h"
#include "adif/kalloc.h"
#include "adif/kmp.h"
#include "adif/strutil.h"
#include "adif/timetext.h"
#include "require.h"

namespace {

void base64(const char *text, int len) {
  std::string bytes(static_cast<size_t>((len + 3) / 4 * 3), '\0');
  const int n = base64_to_bin(text, len, bytes.data());
  require(n == -100 || (n >= 0 && n <= static_cast<int>(bytes.size())));
  if (n < 1) return;
  std::string encoded(static_cast<size_t>((n + 2) / 3 * 4), '\0');
  require(bin_to_base64(bytes.data(), n, encoded.data()) == static_cast<int>(encoded.size()));
  std::string again(encoded.size() / 4 * 3, '\0');
  require(base64_to_bin(encoded.data(), static_cast<int>(encoded.size()), again.data()) == n);
  require(std::memcmp(bytes.data(), again.data(), static_cast<size_t>(n)) == 0);
}

void hexadecimal(const char *text, int len) {
  std::string bytes(static_cast<size_t>(len / 2 + 1), '\0');
  int written = 0;
  const int n = ascii_to_bin(text, len, bytes.data(), &written);
  require(written >= 0 && written <= len / 2 && (n == -100 || n == written));
  std::string digits(static_cast<size_t>(len) * 2, '\0');
  require(bin_to_ascii(text, len, digits.data(), nullptr) == 2 * len);
  std::string again(static_cast<size_t>(len), '\0');
  require(ascii_to_bin(digits.data(), 2 * len, again.data(), nullptr) == len);
  require(again == std::string_view(text, static_cast<size_t>(len)));
}

void integers(const char *text, int len) {
  uint32_t value = 0;
  const int n = MBI2Uint(text, len, &value);
  require(n >= 1 && n <= std::min(len, MBI_MAX_BYTES));
  uint8_t form[MBI_MAX_BYTES];
  uint32_t again = 0;
  const int written = Uint2MBI(value, form);
  require(MBI2Uint(form, written, &again) == written && again == value);
  int number = 0;
  const int used = get_int_from_str(text, len, &number);
  require(used == -100 || (used > 0 && used <= len));
}

/// The first byte tells how long the key is that the text begins with.
void key_and_search(const char *text, int len) {
  const int key_len = std::min<int>(static_cast<uint8_t>(text[0]) % 16, len - 1);
  const std::string key(text + 1, static_cast<size_t>(key_len));
  const char *rest = text + 1 + key_len;
  const int rest_len = len - 1 - key_len;
  const char *value = nullptr;
  int value_len = 0;
  const int n = get_value_by_key(rest, rest_len, key.c_str(), &value, &value_len);
  require(n < 0 ? !value : n == value_len);
  if (value) require(value > rest && value + value_len <= rest + rest_len);

  const std::string_view view(rest, static_cast<size_t>(rest_len));
  const size_t first = key.empty() ? view.npos : view.find(key);
  const size_t last = key.empty() ? view.npos : view.rfind(key);
  const auto at = [rest](const uint8_t *found) {
    return found ? static_cast<size_t>(reinterpret_cast<const char *>(found) - rest)
                 : std::string_view::npos;
  };
  require(at(kmp_find_bytes(rest, rest_len, key.data(), key_len)) == first);
  require(at(kmp_rfind_bytes(rest, rest_len, key.data(), key_len)) == last);
  require(at(str_rfind_bytes(rest, rest_len, key.data(), key_len)) == last);

  const char *back = rskipTo(rest, rest_len, key.data(), key_len);
  if (rest_len > 0 && key_len > 0) {
    const size_t found = view.find_last_of(key);
    require(back == (found == view.npos ? nullptr : rest + found));
    const size_t other = view.find_last_not_of(key);
    require(rskipOver(rest, rest_len, key.data(), key_len) ==
            (other == view.npos ? nullptr : rest + other));
  }
  const char *stop = skipQuoteTo(rest, rest_len, key.data(), key_len);
  require(stop >= rest && stop <= rest + rest_len);
  if (rest_len > 0 && key_len > 0 && stop < rest + rest_len) require(key.find(*stop) != key.npos);
  const int quoted = QuotedStrlen(rest, rest_len);
  require(quoted <= rest_len && (quoted < 1 || (quoted > 1 && rest[0] == rest[quoted - 1])));
}

/// A pattern that is longer than the search's own table, in front of its end and behind it; without
/// memory for a table the search does without.
void long_pattern(const char *text, int len) {
  const std::string_view view(text, static_cast<size_t>(len));
  std::string pattern;
  while (pattern.size() < 300) pattern += view;
  const std::string whole = pattern + "|" + pattern;
  const auto n = static_cast<int>(pattern.size()), whole_n = static_cast<int>(whole.size());
  const auto *const begin = reinterpret_cast<const uint8_t *>(whole.data());
  const size_t last = whole.rfind(pattern);
  for (const int failing : {0, 1}) {
    adif::fail_allocations(failing);
    const uint8_t *const forwards = kmp_find_bytes(begin, whole_n, pattern.data(), n);
    adif::fail_allocations(failing);
    const uint8_t *const backwards = kmp_rfind_bytes(begin, whole_n, pattern.data(), n);
    adif::fail_allocations(0);
    require(forwards == begin && backwards == begin + last);
  }
}

/// Whatever is read as a time is written, and that is read as the same.
void times(const char *text, int len) {
  const time_t t = get_time_from_string(text, len);
  char room[64];
  const int n = time_to_string(t, room, sizeof room);
  if (n == 19 && t >= 0) require(get_time_from_string(room, -1) == t);
  require(time_to_string(t, room, 4) == 0 && room[0] == '\0');
}

/// Copies end inside their room, with a NUL where one is due.
void copies(const std::string &text) {
  const std::string head(text.c_str());
  char room[8];
  const int n = winstrcpy(room, sizeof room, text.c_str());
  require(n == std::min(static_cast<int>(head.size()), 7) && head.compare(0, 7, room) == 0);
  const int copied = secure_memcpy(room, sizeof room, text.data(), static_cast<int>(text.size()));
  require(copied == std::min(static_cast<int>(text.size()), 8));
  require(std::memcmp(room, text.data(), static_cast<size_t>(copied)) == 0);
  char *const twin = string_dup(text.c_str());
  require(head == twin);
  kfree_dbg(twin);
}

/// The byte iterator's moves, beside the same on a view.
void iterate(const char *text, int len) {
  const std::string_view view(text, static_cast<size_t>(len));
  const int set_len = static_cast<uint8_t>(text[0]) % 4;
  const std::string_view set = view.substr(0, static_cast<size_t>(std::min(set_len, len)));
  const int n = static_cast<int>(set.size());
  byte_iter it;
  const auto move = [&](auto &&step) {
    iter_set_text(&it, text, len);
    iter_get_bytes(&it, nullptr, n);
    step();
    return static_cast<size_t>(it.pos);
  };
  const auto from = [&](size_t found) { return found == view.npos ? view.size() : found; };
  const size_t at = set.size();
  const size_t to = move([&] { iter_skipTo(&it, set.data(), n); });
  require(to == from(view.find_first_of(set, at)));
  const size_t pattern = move([&] { iter_skipTo_bytes(&it, set.data(), n); });
  const size_t found = n == 0 ? view.npos : view.find(set, at);
  require(pattern == (found == view.npos ? at : found));
  const size_t over = move([&] { iter_skipOver(&it, set.data(), n); });
  if (n == 1) require(over == from(view.find_first_not_of(set, at)));
  std::string copy(view);
  iter_set_text(&it, copy.data(), len);
  require(iter_set_bytes(&it, nullptr, n) == n && iter_set_bytes(&it, text, len) == len - n);
  require(it.pos == len && copy.compare(at, copy.npos, view.substr(0, view.size() - at)) == 0);
  require(iter_set_bytes(&it, text, 1) == 0 && iter_skipTo(&it, "x", 1) == 0);
}

/// Lengths whose coded form no int tells, no memory, no room.
bool refuses_the_impossible() {
  setenv("TZ", "UTC", 1);  // without hours that do not exist, or exist twice
  char byte = 'x';
  int n = 9;
  require(bin_to_base64("x", INT32_MAX, &byte) == -1);
  require(bin_to_ascii("x", INT32_MAX, &byte, &n) == -1);
  require(winstrcpy(&byte, 0, "y") == -1 && secure_memcpy(&byte, 0, "y", 1) == 0 && byte == 'x');
  adif::fail_allocations(1);
  require(!string_dup("y"));
  adif::fail_allocations(0);
  char room[4];
  frame_t *frame = nullptr;
  constexpr time_t beyond = std::numeric_limits<time_t>::max();
  require(convert_time_to_string(beyond, room, 4) == -1 && time_to_frame(beyond, &frame) == -1);
  require(convert_time_to_string2(0, room, 4) == 0 && time_to_datestring(0, room, 4) == 0);
  byte_iter it;
  iter_set_text(&it, room, 4);
  it.pos = -1;  // a caller's own arithmetic
  require(iter_get_uint8(&it, nullptr) != 0);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool refused = refuses_the_impossible();
  require(refused);
  const auto *text = reinterpret_cast<const char *>(data);
  const int len = static_cast<int>(std::min<size_t>(size, 4096));
  if (len < 1) return 0;
  iterate(text, len);
  base64(text, len);
  hexadecimal(text, len);
  integers(text, len);
  key_and_search(text, len);
  times(text, len);
  if (len % 16 == 7) long_pattern(text, std::min(len, 64));
  std::string copy(text, static_cast<size_t>(len));
  const int trimmed = str_trim(copy.data(), len);
  require(trimmed >= 0 && trimmed <= len);
  copies(copy);
  return 0;
}
