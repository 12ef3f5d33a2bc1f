// Utilities on (pointer, length) texts, which need no NUL: hexadecimal text, scanning, key=value
// parameters, quoting, multi-byte integers. The session core parses URLs and builds identity texts
// with them. They add no NUL unless they say so. Thread-safe, non-blocking.
#pragma once

#include <cstdint>

/// Writes two upper-case hexadecimal digits per byte. Returns 2 * len, also stored in `*out_len`
/// (may be null); -1 for null bytes or a length outside 1..INT32_MAX/2; -2 for null `out`.
/// `*out_len` is 0 after a failure.
int bin_to_ascii(const void *bytes, int len, char *out, int *out_len);

/// Reads pairs of hexadecimal digits, either case; an odd last character is not looked at. Returns
/// the bytes written, also stored in `*out_len` (may be null); -1 for null text or `len` < 1; -2
/// for null `out`; -100 at the first other character. `*out_len` always tells the bytes written.
int ascii_to_bin(const char *text, int len, void *out, int *out_len);

/// The first byte of the text that is in `set` (skipTo) or is not (skipOver), else text + len.
/// Null for null text; the text itself for a length or set length below 1 or a null set.
const char *skipTo(const char *text, int len, const char *set, int set_len);
const char *skipOver(const char *text, int len, const char *set, int set_len);

/// The last byte of the text that is (is not) in `set`, else null. The same rules for arguments.
const char *rskipTo(const char *text, int len, const char *set, int set_len);
const char *rskipOver(const char *text, int len, const char *set, int set_len);

/// Finds the value of `key` in free text: the first occurrence of the key's bytes, blanks and tabs,
/// "=", then a value in quotes, or the characters up to a blank, tab, comma, semicolon or the end.
///
// clang-format off
///   text                key    value   why
///   a=1, b='x y'; c=2   b      x y     given without its quotes
///   uid=7               id     7       the key counts inside a word too (meant)
///   a = 5               a      5       blanks before "=": those behind it belong to it
///   a= b=2              a      none    no blank before "=": the one behind it ends an empty value
///   a='x y              a      'x      without a closing quote the quote is a plain character
// clang-format on
///
/// `*value` and `*value_len` (each may be null) receive where the value is inside `text`; null and
/// 0 when there is none or it is empty and unquoted. Returns the value's length; -1 for null text
/// or `len` < 1; -2 for a null key; -100 when the key is not there or empty; -101 when no "="
/// follows it.
int get_value_by_key(const char *text, int len, const char *key, const char **value,
                     int *value_len);

/// The length, with both quotes, of the quoted string that the text begins with: from a single or
/// double quote to the next one of its kind; there is no escape character. 0 when the text begins
/// otherwise or the string is not closed; -1 for null text or `len` < 1.
int QuotedStrlen(const char *text, int len);

/// skipTo that steps over closed quoted strings. A quote that is never closed is a plain byte.
const char *skipQuoteTo(const char *text, int len, const char *set, int set_len);

/// Multi-byte integers, as in WAP (WAP-230-WSP, 8.1.2): 7 bits a byte, most significant first, the
/// top bit set on all bytes but the last. MBI2Uint reads at most 5 bytes, stores what it built
/// (modulo 2^32) in `*value` (may be null) and returns the bytes consumed, without an error when no
/// final byte came within them; -1 for null bytes or `len` < 1.
int MBI2Uint(const void *bytes, int len, uint32_t *value);

/// The longest form that Uint2MBI writes.
inline constexpr int MBI_MAX_BYTES = 5;

/// Writes the shortest form to `out` and returns its length, 1 to 5; -1 for null.
int Uint2MBI(uint32_t value, void *out);

/// Remove white space (blank, \t, \n, \v, \f, \r) in place from the head, the tail or both, moving
/// the rest to the front. Return the new length: 0 for `len` < 1, -1 for null.
int str_trim_head(char *text, int len);
int str_trim_tail(const char *text, int len);
int str_trim(char *text, int len);

/// Reads a decimal integer after optional white space and sign. `*value` (may be null) receives it,
/// held at INT_MIN or INT_MAX if it lies beyond. Returns the characters consumed; -1 for null text
/// or `len` < 1; -100 without a digit (`*value` untouched).
int get_int_from_str(const char *text, int len, int *value);

/// Copies min(len, size) bytes, never more than the destination holds; the two may overlap.
/// Returns the bytes copied, 0 for a size or length below 1, -1 for a null pointer.
int secure_memcpy(void *destination, int size, const void *source, int len);

/// A copy on the heap, to be released with kfree_dbg. Null for null or without memory.
char *string_dup(const char *text);

/// The upper-case hexadecimal digit of a value 0..15; '?' for any other.
char toASCIICH(int nibble);

/// Copies a NUL-terminated text to `destination` of `size` bytes, cut to fit and always terminated.
/// Null source counts as empty. Returns the characters copied; -1 for null or `size` < 1.
int winstrcpy(char *destination, int size, const char *source);
