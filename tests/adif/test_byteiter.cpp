// The byte iterator at every width, order and truncation.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "adif/byteiter.h"

namespace {

struct width_case {
  int width;
  bool big;
  int (*get)(byte_iter *, uint64_t *);  // null value: the getter's null
  int (*set)(byte_iter *, uint64_t);
};

template <class T, auto get, auto set, bool big>
constexpr width_case width_of() {
  return {sizeof(T), big,
          [](byte_iter *it, uint64_t *value) {
            T read{};
            const int result = get(it, value ? &read : nullptr);
            if (value && result == 0) *value = read;
            return result;
          },
          [](byte_iter *it, uint64_t value) {
            return set(it, static_cast<std::conditional_t<sizeof(T) == 8, T, uint32_t>>(value));
          }};
}

const width_case widths[] = {width_of<uint8_t, iter_get_uint8, iter_set_uint8, true>(),
                             width_of<uint16_t, iter_get_uint16BE, iter_set_uint16BE, true>(),
                             width_of<uint16_t, iter_get_uint16LE, iter_set_uint16LE, false>(),
                             width_of<uint32_t, iter_get_uint32BE, iter_set_uint32BE, true>(),
                             width_of<uint32_t, iter_get_uint32LE, iter_set_uint32LE, false>(),
                             width_of<uint64_t, iter_get_uint64BE, iter_set_uint64BE, true>(),
                             width_of<uint64_t, iter_get_uint64LE, iter_set_uint64LE, false>()};

byte_iter over(const void *bytes, int32_t len) {
  byte_iter it;
  iter_init(&it);
  iter_set_text(&it, bytes, len);
  return it;
}

using iter_ptr = std::unique_ptr<byte_iter, decltype([](byte_iter *it) { iter_free(it); })>;

}  // namespace

TEST(byte_iter, every_width_at_every_truncation) {
  for (const width_case &c : widths) {
    for (int len = 0; len <= c.width + 1; ++len) {
      SCOPED_TRACE(testing::Message() << c.width << c.big << " over " << len << " bytes");
      uint8_t bytes[9];
      std::fill(std::begin(bytes), std::end(bytes), uint8_t{0xEE});
      byte_iter it = over(bytes, len);
      const bool fits = len >= c.width;
      const int status = fits ? 0 : -100;
      ASSERT_EQ(c.set(&it, 0xF102'0304'0506'0708), status);
      EXPECT_EQ(it.pos, fits ? c.width : 0);
      for (int i = 0; i < 9; ++i) {
        const int value = c.big ? 8 - (c.width - 1 - i) : 8 - i;  // by significance, 8 the least
        const int written = fits && i < c.width ? (value == 1 ? 0xF1 : value) : 0xEE;
        EXPECT_EQ(bytes[i], written) << "byte " << i;
      }
      it.pos = 0;
      uint64_t read = 42;
      ASSERT_EQ(c.get(&it, &read), status);
      const uint64_t mask = UINT64_MAX >> (64 - 8 * c.width);
      EXPECT_EQ(read, fits ? 0xF102'0304'0506'0708 & mask : 42);
      EXPECT_EQ(it.pos, fits ? c.width : 0);
      it.pos = 0;
      EXPECT_EQ(c.get(&it, nullptr), status);
      EXPECT_EQ(it.pos, fits ? c.width : 0);
    }
    EXPECT_EQ(c.get(nullptr, nullptr), -1);
    EXPECT_EQ(c.set(nullptr, 0), -1);
  }
}

TEST(byte_iter, runs_are_cut_at_the_end) {
  uint8_t bytes[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  uint8_t out[10] = {};
  byte_iter it = over(bytes, 10);
  EXPECT_EQ(iter_get_bytes(&it, nullptr, 6), 6);
  EXPECT_EQ(iter_get_bytes(&it, out, -1), 0);
  EXPECT_EQ(iter_get_bytes(&it, out, INT_MAX), 4);
  EXPECT_EQ(std::string(out, out + 5), std::string("\x07\x08\x09\x0A\0", 5));
  EXPECT_EQ(it.pos, 10);
  EXPECT_EQ(iter_get_bytes(&it, out, 10), 0);

  it = over(bytes, 10);
  EXPECT_EQ(iter_set_bytes(&it, nullptr, 6), 6);
  EXPECT_EQ(iter_set_bytes(&it, "abcdefgh", 8), 4);
  EXPECT_EQ(iter_set_bytes(&it, "x", 1), 0);
  EXPECT_EQ(std::string(bytes, bytes + 10), std::string("\0\0\0\0\0\0abcd", 10));
}

TEST(byte_iter, scans) {
  const struct {
    const char *text, *set;
    int to, over;  // bytes passed by iter_skipTo and iter_skipOver
  } cases[] = {
      {"abc", "c", 2, 0}, {"abc", "xy", 3, 0}, {"", "x", 0, 0},
      {"aab", "a", 0, 2}, {"aab", "aa", 0, 2}, {"aab", "ab", 0, 0},  // every byte of the set
      {"aaa", "a", 0, 3}, {"abc", "", 0, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.text) + " with " + c.set);
    const auto len = static_cast<int32_t>(std::string(c.text).size());
    const auto set_len = static_cast<int32_t>(std::string(c.set).size());
    byte_iter it = over(c.text, len);
    EXPECT_EQ(iter_skipTo(&it, c.set, set_len), c.to);
    EXPECT_EQ(it.pos, c.to);
    it.pos = 0;
    EXPECT_EQ(iter_skipOver(&it, c.set, set_len), c.over);
    EXPECT_EQ(it.pos, c.over);
  }
  byte_iter it = over("abcabd", 6);
  for (const auto &[pattern, pos] : {std::pair{"abd", 3}, {"abc", 3}, {"bd", 4}, {"", 4}}) {
    EXPECT_EQ(iter_skipTo_bytes(&it, pattern, static_cast<int32_t>(std::string(pattern).size())),
              0);
    EXPECT_EQ(it.pos, pos) << pattern;
  }
}

TEST(byte_iter, refuses_bad_arguments_without_harm) {
  for (int result : {iter_init(nullptr), iter_set_text(nullptr, "x", 1),
                     iter_get_bytes(nullptr, nullptr, 1), iter_skipTo(nullptr, "x", 1)})
    EXPECT_EQ(result, -1);
  EXPECT_EQ(iter_skipTo_bytes(nullptr, "x", 1), 0);
  for (byte_iter it : {over(nullptr, 5), over("x", -1), over("x", 0), *iter_ptr(iter_alloc())}) {
    for (const width_case &c : widths) EXPECT_EQ(c.get(&it, nullptr) + c.set(&it, 1), -200);
    for (int result : {iter_get_bytes(&it, nullptr, 1), iter_skipOver(&it, "x", -1),
                       iter_skipTo_bytes(&it, nullptr, 3), it.pos})
      EXPECT_EQ(result, 0);
  }
  for (int n : {-1, 0, 1}) {
    byte_iter it = over("x", 1);
    EXPECT_EQ(iter_get_bytes(&it, nullptr, n), n == 1 ? 1 : 0);
  }
}
