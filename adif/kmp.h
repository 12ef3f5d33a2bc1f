// Byte-sequence search: Knuth-Morris-Pratt (D. E. Knuth, J. H. Morris, V. R. Pratt, "Fast pattern
// matching in strings", SIAM J. Comput. 6, 1977), linear in the text whatever the pattern, and
// direct comparison. The byte iterator and the key lookup use it.
//
// All take (pointer, length) texts and return the address of a match in the text, or null: also for
// a null argument and for an empty pattern or text. Thread-safe; none blocks. The KMP calls put the
// failure table of a pattern above 256 bytes on the heap, and compare directly without memory.
#pragma once

#include <cstdint>

/// Fills `fail[i]`, for each of the pattern's `len` bytes, with the length of the longest proper
/// prefix of the pattern that ends at byte i. 0, or -1 for null arguments or `len` < 1.
int kmp_fail_func(const void *pattern, int len, int *fail);

/// The same for a NUL-terminated pattern.
int kmp_str_fail_func(const char *pattern, int *fail);

/// The first and the last occurrence.
const uint8_t *kmp_find_bytes(const void *text, int len, const void *pattern, int pattern_len);
const uint8_t *kmp_rfind_bytes(const void *text, int len, const void *pattern, int pattern_len);

/// The same for a NUL-terminated pattern.
const char *kmp_find_string(const char *text, int len, const char *pattern);
const char *kmp_rfind_string(const char *text, int len, const char *pattern);

/// The same as the KMP calls by direct comparison: quicker on short patterns, never allocating.
const uint8_t *str_find_bytes(const void *text, int len, const void *pattern, int pattern_len);
const uint8_t *str_rfind_bytes(const void *text, int len, const void *pattern, int pattern_len);
