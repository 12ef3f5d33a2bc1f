// Strings and codecs: hexadecimal, base64, key=value, searches, scanning, multi-byte integers.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "adif/base64.h"
#include "adif/kalloc.h"
#include "adif/kmp.h"
#include "adif/strutil.h"

namespace {

int len_of(std::string_view text) {
  return static_cast<int>(text.size());
}

template <class T>
std::string_view as_view(const T *text, const std::string &end_of) {
  const auto *from = reinterpret_cast<const char *>(text);
  return {from, static_cast<size_t>(end_of.data() + end_of.size() - from)};
}

}  // namespace

TEST(strutil, hexadecimal) {
  char text[8];
  uint8_t bytes[8] = {};
  int n = -1;
  EXPECT_EQ(bin_to_ascii("\x0A\xFF", 2, text, &n), 4);
  EXPECT_EQ(std::string(text, 4), "0AFF");
  EXPECT_EQ(n, 4);
  EXPECT_EQ(ascii_to_bin("0aFf1", 5, bytes, &n), 2);
  EXPECT_EQ(n, 2);
  EXPECT_EQ(bytes[0], 0x0A);
  EXPECT_EQ(bytes[1], 0xFF);
  const struct {
    const char *text;
    int len, result, written;
  } refused[] = {{"0G", 2, -100, 0}, {"12G4", 4, -100, 1}, {"@0", 2, -100, 0}, {"`0", 2, -100, 0},
                 {"0g", 2, -100, 0}, {"/0", 2, -100, 0},   {":0", 2, -100, 0}, {"Z", 1, 0, 0},
                 {"12", 0, -1, 0},   {"12", -1, -1, 0},    {nullptr, 2, -1, 0}};
  for (const auto &c : refused) {
    EXPECT_EQ(ascii_to_bin(c.text, c.len, bytes, &n), c.result) << c.text;
    EXPECT_EQ(n, c.written);
  }
  EXPECT_EQ(bytes[0], 0x12);
  EXPECT_EQ(ascii_to_bin("12", 2, nullptr, &n), -2);
  EXPECT_EQ(bin_to_ascii("x", 1, nullptr, &n), -2);
  for (int len : {-1, 0, INT_MAX}) EXPECT_EQ(bin_to_ascii("x", len, text, &n), -1);
  EXPECT_EQ(bin_to_ascii(nullptr, 1, text, nullptr), -1);
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
  const struct {
    const char *text;
    int result;
  } cases[] = {{" Zm 9v\t\r\nYg = = ", 4},
               {"Zg", 1},
               {"Zm8", 2},
               {"Zg=", -100},
               {"Z", -100},
               {"Z===", -100},
               {"Zm9v=", -100},
               {"Zg==Zg==", -100},
               {"Zg=g", -100},
               {"Zg-_", -100},
               {"Zm8==", -100},
               {"=", -100},
               {"  ", 0},
               {"\x80m9v", -100},
               {"", -1}};
  for (const auto &c : cases) {
    EXPECT_EQ(base64_to_bin(c.text, len_of(c.text), out), c.result) << c.text;
  }
  EXPECT_EQ(base64_to_bin(nullptr, 4, out), -1);
  EXPECT_EQ(base64_to_bin("Zg==", 4, nullptr), -2);
  for (int len : {-1, 0, INT_MAX}) EXPECT_EQ(bin_to_base64("x", len, out), -1);
  EXPECT_EQ(bin_to_base64("x", 1, nullptr), -2);
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
  EXPECT_EQ(get_value_by_key(nullptr, 3, "x", nullptr, nullptr), -1);
  EXPECT_EQ(get_value_by_key("x=1", 0, "x", nullptr, nullptr), -1);
  EXPECT_EQ(get_value_by_key("x=1", -1, "x", nullptr, nullptr), -1);
  EXPECT_EQ(get_value_by_key("x=1", 3, nullptr, nullptr, nullptr), -2);
}

// Small alphabets and repetitive patterns bring out a wrong failure table.
TEST(strutil, searches_agree_with_the_standard_ones) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const auto draw = [&random](size_t most, unsigned letters) {
    std::string text(random() % (most + 1), ' ');
    for (char &c : text) c = static_cast<char>('a' + random() % letters);
    return text;
  };
  for (int round = 0; round < 20'000; ++round) {
    const unsigned letters = 1 + random() % 3;
    const bool is_long = round % 200 == 0;  // with a table on the heap, or without one
    std::string pattern = draw(is_long ? 600 : 8, letters);
    if (is_long) pattern.append(300, 'a');
    const std::string text = draw(60, letters) + (random() % 2 ? pattern : "") + draw(20, letters);
    const int n = len_of(pattern);
    size_t first = pattern.empty() ? text.npos : text.find(pattern);
    size_t last = pattern.empty() ? text.npos : text.rfind(pattern);
    const auto at = [&text](const void *found) {
      return found ? static_cast<size_t>(static_cast<const char *>(found) - text.data())
                   : text.npos;
    };
    if (round % 400 == 0) adif::fail_allocations(1, 2);
    ASSERT_EQ(at(kmp_find_bytes(text.data(), len_of(text), pattern.data(), n)), first);
    ASSERT_EQ(at(kmp_rfind_bytes(text.data(), len_of(text), pattern.data(), n)), last);
    adif::fail_allocations(0);
    ASSERT_EQ(at(kmp_find_string(text.data(), len_of(text), pattern.c_str())), first);
    ASSERT_EQ(at(kmp_rfind_string(text.data(), len_of(text), pattern.c_str())), last);
    ASSERT_EQ(at(str_find_bytes(text.data(), len_of(text), pattern.data(), n)), first);
    ASSERT_EQ(at(str_rfind_bytes(text.data(), len_of(text), pattern.data(), n)), last);
  }
  int fail[7];
  EXPECT_EQ(kmp_str_fail_func("abacaba", fail), 0);
  EXPECT_EQ(std::vector<int>(fail, fail + 7), (std::vector<int>{0, 0, 1, 0, 1, 2, 3}));
  EXPECT_EQ(kmp_fail_func("a", 0, fail), -1);
  EXPECT_EQ(kmp_str_fail_func(nullptr, fail), -1);
  for (const auto find : {kmp_find_bytes, kmp_rfind_bytes, str_find_bytes, str_rfind_bytes}) {
    EXPECT_EQ(find(nullptr, 1, "a", 1), nullptr);
    EXPECT_EQ(find("a", 1, nullptr, 1), nullptr);
    EXPECT_EQ(find("a", -1, "a", 1), nullptr);
    EXPECT_EQ(find("a", 1, "a", -1), nullptr);
  }
  EXPECT_EQ(kmp_find_string("a", 1, nullptr), nullptr);
}

TEST(strutil, scans) {
  const std::string text = "  a=b  ";
  const auto view = [&text](const char *at) { return as_view(at, text); };
  const int n = len_of(text);
  EXPECT_EQ(view(skipOver(text.data(), n, " \t", 2)), "a=b  ");
  EXPECT_EQ(view(skipTo(text.data(), n, "=;", 2)), "=b  ");
  EXPECT_EQ(view(skipTo(text.data(), n, "#", 1)), "");
  EXPECT_EQ(view(skipOver(text.data(), n, " a=b", 4)), "");
  EXPECT_EQ(view(rskipOver(text.data(), n, " ", 1)), "b  ");
  EXPECT_EQ(view(rskipTo(text.data(), n, "a", 1)), "a=b  ");
  EXPECT_EQ(rskipTo(text.data(), n, "#", 1), nullptr);
  for (const auto scan : {skipTo, skipOver, rskipTo, rskipOver, skipQuoteTo}) {
    EXPECT_EQ(scan(nullptr, 3, " ", 1), nullptr);
    EXPECT_EQ(scan(text.data(), 0, " ", 1), text.data());
    EXPECT_EQ(scan(text.data(), -1, " ", 1), text.data());
    EXPECT_EQ(scan(text.data(), n, " ", 0), text.data());
    EXPECT_EQ(scan(text.data(), n, nullptr, 1), text.data());
  }
  const std::string quoted = "a';'b\";'\";c";
  EXPECT_EQ(as_view(skipQuoteTo(quoted.data(), len_of(quoted), ";", 1), quoted), ";c");
  const std::string open = "a\"b;c";
  EXPECT_EQ(as_view(skipQuoteTo(open.data(), len_of(open), ";", 1), open), ";c");
  EXPECT_EQ(QuotedStrlen("'a\"b' c", 7), 5);
  EXPECT_EQ(QuotedStrlen("'ab", 3), 0);
  EXPECT_EQ(QuotedStrlen("'", 1), 0);
  EXPECT_EQ(QuotedStrlen("ab'", 3), 0);
  EXPECT_EQ(QuotedStrlen("'", 0), -1);
}

TEST(strutil, multi_byte_integers) {
  uint8_t bytes[MBI_MAX_BYTES + 1];
  for (int bit = 0; bit <= 32; ++bit) {  // both sides of every length's limit
    for (int64_t around : {-1, 0}) {
      const auto value = static_cast<uint32_t>(std::max<int64_t>((int64_t{1} << bit) + around, 0));
      const int n = Uint2MBI(value, bytes);
      int bits = 1;
      while (bits < 32 && value >> bits) ++bits;
      EXPECT_EQ(n, (bits + 6) / 7) << value;
      uint32_t read = ~value;
      EXPECT_EQ(MBI2Uint(bytes, MBI_MAX_BYTES, &read), n);
      EXPECT_EQ(read, value);
      if (n > 1) {  // without its last byte: what there is, and no error
        EXPECT_EQ(MBI2Uint(bytes, n - 1, &read), n - 1);
        EXPECT_EQ(read, value >> 7);
      }
    }
  }
  uint32_t value = 0;
  EXPECT_EQ(MBI2Uint("\x81\x00", 2, &value), 2);
  EXPECT_EQ(value, 128U);
  EXPECT_EQ(MBI2Uint("\xFF\xFF\xFF\xFF\xFF\x01", 6, &value), 5);
  EXPECT_EQ(value, UINT32_MAX);
  EXPECT_EQ(MBI2Uint(nullptr, 1, &value), -1);
  EXPECT_EQ(MBI2Uint("\x01", 0, &value), -1);
  EXPECT_EQ(MBI2Uint("\x01", -1, &value), -1);
  EXPECT_EQ(MBI2Uint("\x01", 1, nullptr), 1);
  EXPECT_EQ(Uint2MBI(1, nullptr), -1);
}

TEST(strutil, numbers_trimming_and_copies) {
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
                 {"  ", -100, 1},
                 {"", -1, 1}};
  for (const auto &c : numbers) {
    int value = 1;
    EXPECT_EQ(get_int_from_str(c.text, len_of(c.text), &value), c.used) << c.text;
    EXPECT_EQ(value, c.value) << c.text;
  }
  EXPECT_EQ(get_int_from_str("123", 2, nullptr), 2);

  for (const char *text : {" \r\n ab c\t\v\f", "", "   ", "x"}) {
    std::string head = text, both = text;
    const int len = len_of(head);
    const size_t first = std::min(head.find_first_not_of(" \t\n\v\f\r"), head.size());
    const size_t end = head.find_last_not_of(" \t\n\v\f\r") + 1;
    EXPECT_EQ(str_trim_tail(text, len), static_cast<int>(end));
    ASSERT_EQ(str_trim_head(head.data(), len), len - static_cast<int>(first));
    EXPECT_EQ(head.substr(0, head.size() - first), std::string(text).substr(first));
    const int kept = str_trim(both.data(), len);
    EXPECT_EQ(both.substr(0, static_cast<size_t>(kept)),
              end > first ? std::string(text).substr(first, end - first) : "");
  }
  EXPECT_EQ(str_trim(nullptr, 3), -1);

  char buffer[4] = "zzz";
  EXPECT_EQ(str_trim(buffer, -1), 0);
  EXPECT_EQ(secure_memcpy(buffer, 2, "abcd", 4), 2);
  EXPECT_STREQ(buffer, "abz");
  EXPECT_EQ(secure_memcpy(buffer, -1, "abcd", 4), 0);
  EXPECT_EQ(secure_memcpy(buffer, 4, nullptr, 4), -1);
  EXPECT_EQ(winstrcpy(buffer, 4, "12345"), 3);
  EXPECT_STREQ(buffer, "123");
  EXPECT_EQ(winstrcpy(buffer, 1, "12345"), 0);
  EXPECT_STREQ(buffer, "");
  EXPECT_EQ(winstrcpy(buffer, 0, "x"), -1);
  EXPECT_EQ(string_dup(nullptr), nullptr);
  char *copy = string_dup("copy");
  EXPECT_STREQ(copy, "copy");
  kfree_dbg(copy);
}
