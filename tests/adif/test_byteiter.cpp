// The byte iterator at every width, order and truncation.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "adif/byteiter.h"

namespace {

byte_iter over(const void *bytes, int32_t len) {
  byte_iter it;
  iter_init(&it);
  iter_set_text(&it, bytes, len);
  return it;
}

// Sets and gets a value in room for it, for less and for one byte more; `stored` are its bytes.
template <class T, class V>
void expect_width(int (*get)(byte_iter *, T *), int (*set)(byte_iter *, V), std::string stored) {
  const uint64_t value = 0xF102'0304'0506'0708;  // of which the low bits go
  const int width = static_cast<int>(stored.size());
  for (int len = 0; len <= width + 1; ++len) {
    SCOPED_TRACE(testing::Message() << width << " over " << len << " bytes");
    const bool fits = len >= width;
    const int status = fits ? 0 : -100, passed = fits ? width : 0;
    std::string bytes(9, 'x');
    byte_iter it = over(bytes.data(), len);
    EXPECT_EQ(set(&it, static_cast<V>(value)), status);
    EXPECT_EQ(it.pos, passed);
    EXPECT_EQ(bytes, (fits ? stored + std::string(9 - stored.size(), 'x') : std::string(9, 'x')));
    T read = 42;
    for (T *const to : {&read, static_cast<T *>(nullptr)}) {
      it.pos = 0;
      EXPECT_EQ(get(&it, to), status);
      EXPECT_EQ(it.pos, passed);
    }
    EXPECT_EQ(read, fits ? static_cast<T>(value) : 42);
  }
}

}  // namespace

TEST(byte_iter, every_width_at_every_truncation) {
  expect_width(iter_get_uint8, iter_set_uint8, "\x08");
  expect_width(iter_get_uint16BE, iter_set_uint16BE, "\x07\x08");
  expect_width(iter_get_uint16LE, iter_set_uint16LE, "\x08\x07");
  expect_width(iter_get_uint32BE, iter_set_uint32BE, "\x05\x06\x07\x08");
  expect_width(iter_get_uint32LE, iter_set_uint32LE, "\x08\x07\x06\x05");
  expect_width(iter_get_uint64BE, iter_set_uint64BE, "\xF1\x02\x03\x04\x05\x06\x07\x08");
  expect_width(iter_get_uint64LE, iter_set_uint64LE, "\x08\x07\x06\x05\x04\x03\x02\xF1");
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

// The other scans: fuzz/strcodec.cpp, beside the standard searches.
TEST(byte_iter, skips_over_what_equals_every_byte_of_the_set) {
  const struct {
    std::string text, set;
    int over;
  } cases[] = {{"abc", "c", 0},  {"aab", "a", 2}, {"aab", "aa", 2},
               {"aab", "ab", 0}, {"aaa", "a", 3}, {"abc", "", 0}};
  for (const auto &[text, set, passed] : cases) {
    byte_iter it = over(text.data(), static_cast<int32_t>(text.size()));
    EXPECT_EQ(iter_skipOver(&it, set.data(), static_cast<int32_t>(set.size())), passed) << text;
    EXPECT_EQ(it.pos, passed) << text << " with " << set;
  }
}
