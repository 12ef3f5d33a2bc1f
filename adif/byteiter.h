// Byte iterator: a bounded cursor over a caller's byte array. Every wire message is encoded and
// decoded with one. It owns nothing and never grows the array; a value that does not fit is refused
// with the array and the position untouched. No locks: one thread at a time; nothing blocks.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

struct byte_iter {
  uint8_t *text;  // not owned
  int32_t len;
  int32_t pos;  // next byte to read or write, 0 <= pos <= len
};

/// Fewer bytes remain than the value is wide.
inline constexpr int ITER_UNDERFLOW = -100;

namespace adif {

inline int32_t iter_left(const byte_iter *it) {
  return it->pos >= 0 && it->pos < it->len ? it->len - it->pos : 0;
}

/// Between this machine's byte order and `order`, either way.
template <std::endian order, class T>
T in_order(T value) {
  if constexpr (order == std::endian::native || sizeof(T) == 1) {
    return value;
  } else if constexpr (sizeof(T) == 2) {
    return __builtin_bswap16(value);
  } else if constexpr (sizeof(T) == 4) {
    return __builtin_bswap32(value);
  } else {
    return __builtin_bswap64(value);
  }
}

template <std::endian order, class T>
int iter_get(byte_iter *it, T *value) {
  constexpr int width = sizeof(T);
  if (!it) return -1;
  if (iter_left(it) < width) return ITER_UNDERFLOW;
  if (value) {
    T stored;
    std::memcpy(&stored, it->text + it->pos, sizeof stored);
    *value = in_order<order>(stored);
  }
  it->pos += width;
  return 0;
}

template <std::endian order, class T>
int iter_set(byte_iter *it, T value) {
  constexpr int width = sizeof(T);
  if (!it) return -1;
  if (iter_left(it) < width) return ITER_UNDERFLOW;
  const T stored = in_order<order>(value);
  std::memcpy(it->text + it->pos, &stored, sizeof stored);
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
  return adif::iter_get<std::endian::big>(it, value);
}
inline int iter_get_uint16BE(byte_iter *it, uint16_t *value) {
  return adif::iter_get<std::endian::big>(it, value);
}
inline int iter_get_uint16LE(byte_iter *it, uint16_t *value) {
  return adif::iter_get<std::endian::little>(it, value);
}
inline int iter_get_uint32BE(byte_iter *it, uint32_t *value) {
  return adif::iter_get<std::endian::big>(it, value);
}
inline int iter_get_uint32LE(byte_iter *it, uint32_t *value) {
  return adif::iter_get<std::endian::little>(it, value);
}
inline int iter_get_uint64BE(byte_iter *it, uint64_t *value) {
  return adif::iter_get<std::endian::big>(it, value);
}
inline int iter_get_uint64LE(byte_iter *it, uint64_t *value) {
  return adif::iter_get<std::endian::little>(it, value);
}
inline int iter_set_uint8(byte_iter *it, uint32_t value) {
  return adif::iter_set<std::endian::big>(it, static_cast<uint8_t>(value));
}
inline int iter_set_uint16BE(byte_iter *it, uint32_t value) {
  return adif::iter_set<std::endian::big>(it, static_cast<uint16_t>(value));
}
inline int iter_set_uint16LE(byte_iter *it, uint32_t value) {
  return adif::iter_set<std::endian::little>(it, static_cast<uint16_t>(value));
}
inline int iter_set_uint32BE(byte_iter *it, uint32_t value) {
  return adif::iter_set<std::endian::big>(it, value);
}
inline int iter_set_uint32LE(byte_iter *it, uint32_t value) {
  return adif::iter_set<std::endian::little>(it, value);
}
inline int iter_set_uint64BE(byte_iter *it, uint64_t value) {
  return adif::iter_set<std::endian::big>(it, value);
}
inline int iter_set_uint64LE(byte_iter *it, uint64_t value) {
  return adif::iter_set<std::endian::little>(it, value);
}

/// Copies up to `n` bytes out; null `out` skips them. Returns the bytes passed, which may be fewer
/// than `n` (0 at the end and for a negative `n`); -1 for a null iterator.
int iter_get_bytes(byte_iter *it, void *out, int32_t n);

/// Writes up to `n` bytes; null `src` writes zeros. Results as iter_get_bytes.
int iter_set_bytes(byte_iter *it, const void *src, int32_t n);

/// Moves forward to the next byte that is one of `set`, or to the end: no byte is one of a null or
/// empty set. Returns the bytes passed; -1 for a null iterator.
int iter_skipTo(byte_iter *it, const void *set, int32_t set_len);

/// Moves forward while the byte equals *every* byte of `set`: a one-byte set skips a run of that
/// byte, a set of two different bytes never moves. This is meant; to skip over any of several bytes
/// use skipOver (adif/strutil.h). Returns the bytes passed; 0 for a null or empty set; -1 for a
/// null iterator.
int iter_skipOver(byte_iter *it, const void *set, int32_t set_len);

/// Moves to the next place where `pattern` begins, or not at all. Always 0: compare the position.
int iter_skipTo_bytes(byte_iter *it, const void *pattern, int32_t pattern_len);
