// Strings and codecs: hexadecimal, base64, key=value, searches, scanning, multi-byte integers.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <string>
#include <string_view>
#include <vector>

#include "../support.h"
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

// Each call with null for its text, with null for its other pointer, and at lengths -1, 0 and 1;
// p: a pointer into the text, by its offset.
TEST(strutil_family, results_for_bad_and_smallest_arguments) {
  static char out[16], key[] = "1";
  static uint32_t number;
  struct arguments {
    char *t;  // "1"
    int n;
    char *o, *k;  // room, "1"; null when the other pointer is
    uint32_t *u = o != nullptr ? &number : nullptr;
    int offset(const void *at) const {
      return at == nullptr ? -9 : static_cast<int>(static_cast<const char *>(at) - t);
    }
  };
  using A = const arguments &;
  const struct {
    const char *results;
    int (*call)(A);
  } rows[] = {
      {"-1 -2 -1 -1 2", [](A a) { return bin_to_ascii(a.t, a.n, a.o, nullptr); }},
      {"-1 -2 -1 -1 0", [](A a) { return ascii_to_bin(a.t, a.n, a.o, nullptr); }},
      {"-1 -2 -1 -1 4", [](A a) { return bin_to_base64(a.t, a.n, a.o); }},
      {"-1 -2 -1 -1 -100", [](A a) { return base64_to_bin(a.t, a.n, a.o); }},
      {"-9 0 0 0 0", [](A a) { return a.offset(skipTo(a.t, a.n, a.k, 1)); }},
      {"-9 0 0 0 1", [](A a) { return a.offset(skipOver(a.t, a.n, a.k, 1)); }},
      {"-9 0 0 0 0", [](A a) { return a.offset(rskipTo(a.t, a.n, a.k, 1)); }},
      {"-9 0 0 0 -9", [](A a) { return a.offset(rskipOver(a.t, a.n, a.k, 1)); }},
      {"-9 0 0 0 0", [](A a) { return a.offset(skipQuoteTo(a.t, a.n, a.k, 1)); }},
      {"-9 0 0 0 1", [](A a) { return a.offset(skipOver(a.t, 1, a.k, a.n)); }},
      {"-1 -2 -1 -1 -101", [](A a) { return get_value_by_key(a.t, a.n, a.k, nullptr, nullptr); }},
      {"-1 0 -1 -1 0", [](A a) { return QuotedStrlen(a.t, a.n); }},
      {"-1 1 -1 -1 1", [](A a) { return MBI2Uint(a.t, a.n, a.u); }},
      {"1 -1 1 1 1", [](A a) { return Uint2MBI(1, a.o); }},
      {"-1 1 0 0 1", [](A a) { return str_trim_head(a.t, a.n); }},
      {"-1 1 0 0 1", [](A a) { return str_trim(a.t, a.n); }},
      {"-1 1 -1 -1 1",
       [](A a) { return get_int_from_str(a.t, a.n, reinterpret_cast<int *>(a.u)); }},
      {"-1 -1 0 0 1", [](A a) { return secure_memcpy(a.o, 1, a.t, a.n); }},
      {"-1 -1 0 0 1", [](A a) { return secure_memcpy(a.o, a.n, a.t, 1); }},
      {"0 -1 -1 -1 0", [](A a) { return winstrcpy(a.o, a.n, a.t); }},
      {"0 1 1 1 1", [](A a) { return adif::kptr<char>(string_dup(a.t)) == nullptr ? 0 : 1; }},
      {"-1 -1 -1 -1 0", [](A a) { return kmp_fail_func(a.t, a.n, reinterpret_cast<int *>(a.u)); }},
      {"-1 -1 0 0 0", [](A a) { return kmp_str_fail_func(a.t, reinterpret_cast<int *>(a.u)); }},
      {"-9 -9 -9 -9 0", [](A a) { return a.offset(kmp_find_bytes(a.t, a.n, a.k, 1)); }},
      {"-9 -9 -9 -9 0", [](A a) { return a.offset(kmp_rfind_bytes(a.t, a.n, a.k, 1)); }},
      {"-9 -9 -9 -9 0", [](A a) { return a.offset(str_find_bytes(a.t, a.n, a.k, 1)); }},
      {"-9 -9 -9 -9 0", [](A a) { return a.offset(str_rfind_bytes(a.t, a.n, a.k, 1)); }},
      {"-9 -9 -9 -9 0", [](A a) { return a.offset(str_find_bytes(a.t, 1, a.k, a.n)); }},
      {"-9 -9 -9 -9 0", [](A a) { return a.offset(kmp_find_string(a.t, a.n, a.k)); }},
  };
  for (const auto &row : rows) {
    std::string results;
    for (int column = 0; column < 5; ++column) {
      char text[] = "1";
      const bool other = column != 1;
      const int n = column < 2 ? 1 : column - 3;
      const int result =
          row.call({column == 0 ? nullptr : text, n, other ? out : nullptr, other ? key : nullptr});
      results += (column > 0 ? " " : "") + std::to_string(result);
      EXPECT_STREQ(text, "1");
    }
    EXPECT_EQ(results, row.results) << "row " << &row - rows;
  }
}

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
  for (const char *refused : {"12G4", "12@0", "12`0", "120g", "12/0", "12:0"}) {
    EXPECT_EQ(ascii_to_bin(refused, 4, bytes, &n), -100) << refused;
    EXPECT_EQ(n, 1);
    EXPECT_EQ(bytes[0], 0x12);
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
  EXPECT_EQ(bin_to_base64("x", INT_MAX, out), -1);
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

// Small alphabets and repetitive patterns bring out a wrong failure table.
TEST(strutil, searches_agree_with_the_standard_ones) {
  Random random;
  const auto draw = [&random](int most, int letters) {
    std::string text(static_cast<size_t>(random.below(most + 1)), ' ');
    for (char &c : text) c = static_cast<char>('a' + random.below(letters));
    return text;
  };
  for (int round = 0; round < 20'000; ++round) {
    const int letters = 1 + random.below(3);
    const bool is_long = round % 200 == 0;  // with a table on the heap, or without one
    std::string pattern = draw(is_long ? 600 : 8, letters);
    if (is_long) pattern.append(300, 'a');
    const std::string text =
        draw(60, letters) + (random.below(2) ? pattern : "") + draw(20, letters);
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
  const std::string quoted = "a';'b\";'\";c";
  EXPECT_EQ(as_view(skipQuoteTo(quoted.data(), len_of(quoted), ";", 1), quoted), ";c");
  const std::string open = "a\"b;c";
  EXPECT_EQ(as_view(skipQuoteTo(open.data(), len_of(open), ";", 1), open), ";c");
  EXPECT_EQ(QuotedStrlen("'a\"b' c", 7), 5);
  EXPECT_EQ(QuotedStrlen("'ab", 3), 0);
  EXPECT_EQ(QuotedStrlen("'", 1), 0);
  EXPECT_EQ(QuotedStrlen("ab'", 3), 0);
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
                 {"  ", -100, 1}};
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
  char buffer[4] = "zzz";
  EXPECT_EQ(secure_memcpy(buffer, 2, "abcd", 4), 2);
  EXPECT_STREQ(buffer, "abz");
  EXPECT_EQ(winstrcpy(buffer, 4, "12345"), 3);
  EXPECT_STREQ(buffer, "123");
  EXPECT_EQ(winstrcpy(buffer, 1, "12345"), 0);
  EXPECT_STREQ(buffer, "");
  char *copy = string_dup("copy");
  EXPECT_STREQ(copy, "copy");
  kfree_dbg(copy);
}
