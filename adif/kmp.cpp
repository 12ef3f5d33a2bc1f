// Byte search after Knuth, Morris and Pratt, and the plain one. See kmp.h.
#include "adif/kmp.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "adif/kalloc.h"

namespace {

using reversed = std::reverse_iterator<const uint8_t *>;

/// Iterators stand for a pattern read forwards or backwards; one table and one search serve both.
template <class It>
void fill_fail(It pattern, int len, int *fail) {
  fail[0] = 0;
  for (int i = 1, matched = 0; i < len; ++i) {
    while (matched > 0 && pattern[i] != pattern[matched]) matched = fail[matched - 1];
    if (pattern[i] == pattern[matched]) ++matched;
    fail[i] = matched;
  }
}

/// Where the first occurrence ends, or `last` without one (`found` tells).
template <class It>
It search(It first, It last, It pattern, int len, const int *fail, bool *found) {
  *found = false;
  for (int matched = 0; first != last; ++first) {
    while (matched > 0 && *first != pattern[matched]) matched = fail[matched - 1];
    if (*first == pattern[matched]) ++matched;
    if (matched < len) continue;
    *found = true;
    return ++first;
  }
  return last;
}

/// A pattern's failure table, on the stack for the usual short pattern.
class fail_table {
 public:
  explicit fail_table(int len)
      : table_(len <= short_pattern ? short_
                                    : static_cast<int *>(kalloc_dbg(len * int64_t{sizeof(int)}))) {}
  ~fail_table() {
    if (table_ != short_) kfree_dbg(table_);
  }
  fail_table(const fail_table &) = delete;
  fail_table &operator=(const fail_table &) = delete;

  int *get() { return table_; }

 private:
  static constexpr int short_pattern = 256;
  int short_[short_pattern];
  int *table_;
};

bool can_match(const void *text, int len, const void *pattern, int pattern_len) {
  return text && pattern && pattern_len > 0 && len >= pattern_len;
}

int length_of(const char *pattern) {
  if (!pattern) return 0;
  return static_cast<int>(std::min<size_t>(std::strlen(pattern), INT32_MAX));
}

}  // namespace

int kmp_fail_func(const void *pattern, int len, int *fail) {
  if (!pattern || len < 1 || !fail) return -1;
  fill_fail(static_cast<const uint8_t *>(pattern), len, fail);
  return 0;
}

int kmp_str_fail_func(const char *pattern, int *fail) {
  return kmp_fail_func(pattern, length_of(pattern), fail);
}

const uint8_t *kmp_find_bytes(const void *text, int len, const void *pattern, int pattern_len) {
  if (!can_match(text, len, pattern, pattern_len)) return nullptr;
  fail_table fail(pattern_len);
  // Without memory for the table the plain search finds the same, more slowly.
  if (!fail.get()) return str_find_bytes(text, len, pattern, pattern_len);
  const auto *first = static_cast<const uint8_t *>(text);
  const auto *wanted = static_cast<const uint8_t *>(pattern);
  fill_fail(wanted, pattern_len, fail.get());
  bool found;
  const uint8_t *end = search(first, first + len, wanted, pattern_len, fail.get(), &found);
  return found ? end - pattern_len : nullptr;
}

const uint8_t *kmp_rfind_bytes(const void *text, int len, const void *pattern, int pattern_len) {
  if (!can_match(text, len, pattern, pattern_len)) return nullptr;
  fail_table fail(pattern_len);
  if (!fail.get()) return str_rfind_bytes(text, len, pattern, pattern_len);
  const auto *first = static_cast<const uint8_t *>(text);
  const reversed wanted(static_cast<const uint8_t *>(pattern) + pattern_len);
  fill_fail(wanted, pattern_len, fail.get());
  bool found;
  const reversed end =
      search(reversed(first + len), reversed(first), wanted, pattern_len, fail.get(), &found);
  return found ? end.base() : nullptr;
}

const char *kmp_find_string(const char *text, int len, const char *pattern) {
  return reinterpret_cast<const char *>(kmp_find_bytes(text, len, pattern, length_of(pattern)));
}

const char *kmp_rfind_string(const char *text, int len, const char *pattern) {
  return reinterpret_cast<const char *>(kmp_rfind_bytes(text, len, pattern, length_of(pattern)));
}

const uint8_t *str_find_bytes(const void *text, int len, const void *pattern, int pattern_len) {
  if (!can_match(text, len, pattern, pattern_len)) return nullptr;
  return static_cast<const uint8_t *>(
      memmem(text, static_cast<size_t>(len), pattern, static_cast<size_t>(pattern_len)));
}

const uint8_t *str_rfind_bytes(const void *text, int len, const void *pattern, int pattern_len) {
  if (!can_match(text, len, pattern, pattern_len)) return nullptr;
  const auto *first = static_cast<const uint8_t *>(text);
  const auto *wanted = static_cast<const uint8_t *>(pattern);
  const uint8_t *found = std::find_end(first, first + len, wanted, wanted + pattern_len);
  return found == first + len ? nullptr : found;
}
