// Strings and codecs: hexadecimal, base64, key=value, searches, scanning, multi-byte integers.
#include <gtest/gtest.h>

#include <climits>
#include <string_view>
#include <utility>

#include "adif/base64.h"
#include "adif/kmp.h"
#include "adif/strutil.h"
#include "random_inputs.h"

namespace {

int len_of(std::string_view text) {
  return static_cast<int>(text.size());
}

}  // namespace

TEST(strutil, hexadecimal) {
  char text[8];
  uint8_t bytes[8] = {};
  int n = -1;
  EXPECT_EQ(bin_to_ascii("\x0A\xFF", 2, text, &n), 4);
  EXPECT_EQ(std::string(text, static_cast<size_t>(n)), "0AFF");
  EXPECT_EQ(ascii_to_bin("0aFf1", 5, bytes, &n), 2);
  EXPECT_EQ(to_hex(bytes, static_cast<size_t>(n)), "0aff");
  for (const char *refused : {"12G4", "12@0", "12`0", "120g", "12/0", "12:0"}) {
    EXPECT_EQ(ascii_to_bin(refused, 4, bytes, &n), -100) << refused;
    EXPECT_EQ(to_hex(bytes, static_cast<size_t>(n)), "12");
  }
  EXPECT_EQ(bin_to_ascii("x", INT_MAX, text, &n), -1);
  EXPECT_EQ(n, 0);
}

TEST(strutil, base64) {
  const char *vectors[][2] = {{"f", "Zg=="},        {"fo", "Zm8="},        {"foo", "Zm9v"},
                              {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
                              {"\xFB\xFF", "+/8="}};  // RFC 4648, 10, and the last two digits
  char out[16];
  for (const auto &[bytes, text] : vectors) {
    ASSERT_EQ(bin_to_base64(bytes, len_of(bytes), out), len_of(text));
    EXPECT_EQ(std::string(out, len_of(text)), text);
    ASSERT_EQ(base64_to_bin(text, len_of(text), out), len_of(bytes));
    EXPECT_EQ(std::string(out, len_of(bytes)), bytes);
  }
  EXPECT_EQ(base64_to_bin(" Zm 9v\t\r\nYg = = ", 15, out), 4);
  EXPECT_EQ(base64_to_bin("Zg", 2, out) + base64_to_bin("Zm8", 3, out), 1 + 2);
  EXPECT_EQ(base64_to_bin("  ", 2, out), 0);
  for (const char *refused :
       {"Zg=", "Z", "Z===", "Zm9v=", "Zg==Zg==", "Zg=g", "Zg-_", "Zm8==", "=", "\x80m9v"})
    EXPECT_EQ(base64_to_bin(refused, len_of(refused), out), -100) << refused;
}

TEST(strutil, value_by_key) {
  const struct {
    const char *text, *key;
    int result;
    const char *value;
  } cases[] = {{"a = 5;b=6", "a", 1, "5"},
               {"a = 5;b=6", "b", 1, "6"},
               {"a = 5;b=6", "c", -100, nullptr},
               {"a =5", "a", 1, "5"},
               {"a= b=2", "a", 0, nullptr},
               {"a\t= 'b c'", "a", 3, "b c"},
               {"a = ", "a", 0, nullptr},
               {"a 5", "a", -101, nullptr},
               {"a", "a", -101, nullptr},
               {"a \t", "a", -101, nullptr},
               {"a=;", "a", 0, nullptr},
               {"a=", "a", 0, nullptr},
               {"x='p q'", "x", 3, "p q"},
               {"x=\"p'q\";y=1", "x", 3, "p'q"},
               {"x=''", "x", 0, ""},
               {"x='", "x", 1, "'"},
               {"x='p q", "x", 2, "'p"},
               {"x='p\" q", "x", 3, "'p\""},
               {"uid=7,id=8", "id", 1, "7"},  // not only at a word's start
               {"k=v", "", -100, nullptr},
               {"k=one two", "k", 3, "one"},
               {"k=one\ttwo", "k", 3, "one"},
               {"k=one,two", "k", 3, "one"}};
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.text) + " key " + c.key);
    const char *value = "unset";
    int n = -7;
    EXPECT_EQ(get_value_by_key(c.text, len_of(c.text), c.key, &value, &n), c.result);
    EXPECT_EQ(value != nullptr, c.value != nullptr);
    EXPECT_EQ(std::string(value ? value : "", static_cast<size_t>(n)), c.value ? c.value : "");
  }
  EXPECT_EQ(get_value_by_key("x='p'", 4, "x", nullptr, nullptr), 2);  // the close is outside
}

// Beside the standard searches, and with long patterns: fuzz/strcodec.cpp.
TEST(strutil, searches) {
  const struct {
    std::string text, pattern;
    int first, last;
  } rows[] = {
      {"aaab", "aab", 1, 1}, {"abababc", "ababc", 2, 2}, {"abaaba", "aba", 0, 3},
      {"aaa", "aa", 0, 1},   {"ab", "abc", -1, -1},      {"abcabd", "abe", -1, -1},
  };
  for (const auto &[text, pattern, first, last] : rows) {
    SCOPED_TRACE(text + " " + pattern);
    const char *const t = text.data(), *const p = pattern.c_str();
    const int n = len_of(text), m = len_of(pattern);
    const char *const begin = first < 0 ? nullptr : t + first;
    EXPECT_EQ(kmp_find_string(t, n, p), begin);
    EXPECT_EQ(str_find_bytes(t, n, p, m), reinterpret_cast<const uint8_t *>(begin));
    EXPECT_EQ(kmp_rfind_string(t, n, p), last < 0 ? nullptr : t + last);
  }
  int fail[7];
  EXPECT_EQ(kmp_str_fail_func("abacaba", fail), 0);
  EXPECT_EQ(std::vector<int>(fail, fail + 7), (std::vector<int>{0, 0, 1, 0, 1, 2, 3}));
}

TEST(strutil, scans_and_quotes) {
  const struct {
    const char *(*scan)(const char *, int, const char *, int);
    std::string text, set;
    int passed;
  } rows[] = {
      {skipOver, "  a=b", " \t", 2},
      {skipOver, "a=b ", " a=b", 4},
      {skipTo, "  a=b", "=;", 3},
      {skipTo, "a=b", "#", 3},
      {skipQuoteTo, "a';'b\";'\";c", ";", 9},
      {skipQuoteTo, "a\"b;c", ";", 3},
  };
  for (const auto &[scan, text, set, passed] : rows)
    EXPECT_EQ(scan(text.data(), len_of(text), set.data(), len_of(set)), text.data() + passed)
        << text;
  const std::pair<const char *, int> quoted[] = {{"'a\"b' c", 5}, {"'ab", 0}, {"'", 0}, {"ab'", 0}};
  for (const auto &[text, length] : quoted) EXPECT_EQ(QuotedStrlen(text, len_of(text)), length);
}

TEST(strutil, multi_byte_integers) {
  const std::pair<uint32_t, const char *> rows[] = {{0, "00"},
                                                    {0x7F, "7f"},
                                                    {0x80, "8100"},
                                                    {0x3FFF, "ff7f"},
                                                    {0x4000, "818000"},
                                                    {0x1FFFFF, "ffff7f"},
                                                    {0x200000, "81808000"},
                                                    {0xFFFFFFF, "ffffff7f"},
                                                    {0x10000000, "8180808000"},
                                                    {UINT32_MAX, "8fffffff7f"}};
  uint32_t read = 0;
  for (const auto &[value, hex] : rows) {
    uint8_t bytes[MBI_MAX_BYTES];
    const int n = Uint2MBI(value, bytes);
    EXPECT_EQ(to_hex(bytes, static_cast<size_t>(n)), hex);
    EXPECT_EQ(MBI2Uint(bytes, n, &read), n);
    EXPECT_EQ(read, value);
    if (n < 2) continue;  // without its last byte: what there is, and no error
    EXPECT_EQ(MBI2Uint(bytes, n - 1, &read), n - 1);
    EXPECT_EQ(read, value >> 7);
  }
  EXPECT_EQ(MBI2Uint("\xFF\xFF\xFF\xFF\xFF\x01", 6, &read), 5);
  EXPECT_EQ(read, UINT32_MAX);
}

TEST(strutil, numbers_and_trimming) {
  const struct {
    const char *text;
    int used, value;
  } numbers[] = {{" \t-12x", 5, -12},
                 {"+7", 2, 7},
                 {"99999999999", 11, INT_MAX},
                 {"-99999999999", 12, INT_MIN},
                 {"-", -100, 1},
                 {"+-5", -100, 1},
                 {"x", -100, 1},
                 {"  ", -100, 1}};
  for (const auto &c : numbers) {
    int value = 1;
    EXPECT_EQ(get_int_from_str(c.text, len_of(c.text), &value), c.used) << c.text;
    EXPECT_EQ(value, c.value) << c.text;
  }
  EXPECT_EQ(get_int_from_str("123", 2, nullptr), 2);

  const struct {
    int (*trim)(char *, int);
    const char *trimmed;
  } rows[] = {{str_trim_head, "ab c\t\v\f"},
              {[](char *text, int n) { return str_trim_tail(text, n); }, " \r\n ab c"},
              {str_trim, "ab c"}};
  for (const auto &row : rows) {
    for (const std::string all : {" \r\n ab c\t\v\f", "   ", "x"}) {
      std::string text = all;
      text.resize(static_cast<size_t>(row.trim(text.data(), len_of(text))));
      EXPECT_EQ(text, all == "x" ? "x" : all == "   " ? "" : row.trimmed);
    }
  }
}

// Whatever is decoded, found, copied or read as a time: fuzz/strcodec.cpp.
TEST(strutil, behaves_as_the_standard_calls) {
  expect_model_holds(30'000, 100);
}
