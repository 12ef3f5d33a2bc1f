// Byte iterator: a bounded cursor over a caller's byte array. Every wire message is encoded and
// decoded with one. It owns nothing and never grows the array; a value that does not fit is refused
// with the array and the position untouched. No locks: one thread at a time; nothing blocks.
#pragma once

#include <cstdint>

struct byte_iter {
  uint8_t *text;  // not owned
  int32_t len;
  int32_t pos;  // next byte to read or write, 0 <= pos <= len
};

/// Results of the fixed-width operations.
inline constexpr int ITER_UNDERFLOW = -100;  // fewer bytes remain than the value is wide

namespace adif {

inline int32_t iter_left(const byte_iter *it) {
  return it->pos >= 0 && it->pos < it->len ? it->len - it->pos : 0;
}

enum class byte_order { big, little };

/// Compilers turn both loops into one load or store and a byte swap where the machine needs one.
template <class T, byte_order order>
int iter_get(byte_iter *it, T *value) {
  constexpr int width = sizeof(T);
  if (!it) return -1;
  if (iter_left(it) < width) return ITER_UNDERFLOW;
  if (value) {
    uint64_t built = 0;
    for (int i = 0; i < width; ++i) {
      const int at = order == byte_order::big ? i : width - 1 - i;
      built = built << 8 | it->text[it->pos + at];
    }
    *value = static_cast<T>(built);
  }
  it->pos += width;
  return 0;
}

template <int width, byte_order order>
int iter_set(byte_iter *it, uint64_t value) {
  if (!it) return -1;
  if (iter_left(it) < width) return ITER_UNDERFLOW;
  for (int i = 0; i < width; ++i) {
    const int at = order == byte_order::big ? width - 1 - i : i;
    it->text[it->pos + at] = static_cast<uint8_t>(value >> (8 * i));
  }
  it->pos += width;
  return 0;
}

}  // namespace adif

/// Makes an iterator over nothing. 0, or -1 for null.
int iter_init(byte_iter *it);

/// A zeroed record on the heap, to be released with iter_free; null without memory.
byte_iter *iter_alloc();

/// Releases a record of iter_alloc, not its array. 0, or -1 for null.
int iter_free(byte_iter *it);

/// Points the iterator at the beginning of `len` bytes; null bytes or a negative length count as no
/// bytes. The array stays the caller's and must outlive the use. The setters write to it: an
/// iterator over bytes that must not change may only read and scan. 0, or -1 for null.
int iter_set_text(byte_iter *it, const void *bytes, int32_t len);

/// Fixed-width values in big-endian (BE) or little-endian (LE) order. A getter with a null `value`
/// skips; a setter writes the low bits of its value. 0; -1 for a null iterator; -100 when too few
/// bytes remain, with nothing read, written or moved.
inline int iter_get_uint8(byte_iter *it, uint8_t *value) {
  return adif::iter_get<uint8_t, adif::byte_order::big>(it, value);
}
inline int iter_get_uint16BE(byte_iter *it, uint16_t *value) {
  return adif::iter_get<uint16_t, adif::byte_order::big>(it, value);
}
inline int iter_get_uint16LE(byte_iter *it, uint16_t *value) {
  return adif::iter_get<uint16_t, adif::byte_order::little>(it, value);
}
inline int iter_get_uint32BE(byte_iter *it, uint32_t *value) {
  return adif::iter_get<uint32_t, adif::byte_order::big>(it, value);
}
inline int iter_get_uint32LE(byte_iter *it, uint32_t *value) {
  return adif::iter_get<uint32_t, adif::byte_order::little>(it, value);
}
inline int iter_get_uint64BE(byte_iter *it, uint64_t *value) {
  return adif::iter_get<uint64_t, adif::byte_order::big>(it, value);
}
inline int iter_get_uint64LE(byte_iter *it, uint64_t *value) {
  return adif::iter_get<uint64_t, adif::byte_order::little>(it, value);
}
inline int iter_set_uint8(byte_iter *it, uint32_t value) {
  return adif::iter_set<1, adif::byte_order::big>(it, value);
}
inline int iter_set_uint16BE(byte_iter *it, uint32_t value) {
  return adif::iter_set<2, adif::byte_order::big>(it, value);
}
inline int iter_set_uint16LE(byte_iter *it, uint32_t value) {
  return adif::iter_set<2, adif::byte_order::little>(it, value);
}
inline int iter_set_uint32BE(byte_iter *it, uint32_t value) {
  return adif::iter_set<4, adif::byte_order::big>(it, value);
}
inline int iter_set_uint32LE(byte_iter *it, uint32_t value) {
  return adif::iter_set<4, adif::byte_order::little>(it, value);
}
inline int iter_set_uint64BE(byte_iter *it, uint64_t value) {
  return adif::iter_set<8, adif::byte_order::big>(it, value);
}
inline int iter_set_uint64LE(byte_iter *it, uint64_t value) {
  return adif::iter_set<8, adif::byte_order::little>(it, value);
}

/// Copies up to `n` bytes out; null `out` skips them. Returns the bytes passed, which may be fewer
/// than `n` (0 at the end and for a negative `n`); -1 for a null iterator.
int iter_get_bytes(byte_iter *it, void *out, int32_t n);

/// Writes up to `n` bytes; null `src` writes zeros. Results as iter_get_bytes.
int iter_set_bytes(byte_iter *it, const void *src, int32_t n);

/// Moves forward to the next byte that is one of `set`, or to the end. Returns the bytes passed;
/// 0 for a null or empty set; -1 for a null iterator.
int iter_skipTo(byte_iter *it, const void *set, int32_t set_len);

/// Moves forward while the byte equals *every* byte of `set`: a one-byte set skips a run of that
/// byte, a set of two different bytes never moves. This is meant; to skip over any of several bytes
/// use skipOver (adif/strutil.h). Results as iter_skipTo.
int iter_skipOver(byte_iter *it, const void *set, int32_t set_len);

/// Moves to the next place where `pattern` begins, or not at all. Always 0: compare the position.
int iter_skipTo_bytes(byte_iter *it, const void *pattern, int32_t pattern_len);
