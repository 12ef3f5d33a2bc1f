// The iterator's calls that are not in the header: byte runs and scanning. See byteiter.h.
#include "adif/byteiter.h"

#include <algorithm>
#include <cstring>

#include "adif/kalloc.h"
#include "adif/kmp.h"

namespace {

/// The bytes from the position to the end; null for an empty rest.
uint8_t *rest(const byte_iter *it) {
  return adif::iter_left(it) > 0 ? it->text + it->pos : nullptr;
}

template <class Passes>
int advance_while(byte_iter *it, Passes passes) {
  uint8_t *begin = rest(it);
  if (!begin) return 0;
  uint8_t *stop = std::find_if_not(begin, it->text + it->len, passes);
  it->pos += static_cast<int32_t>(stop - begin);
  return static_cast<int>(stop - begin);
}

}  // namespace

int iter_init(byte_iter *it) {
  if (!it) return -1;
  *it = {};
  return 0;
}

byte_iter *iter_alloc() {
  return static_cast<byte_iter *>(kzalloc_dbg(sizeof(byte_iter)));
}

int iter_free(byte_iter *it) {
  if (!it) return -1;
  kfree_dbg(it);
  return 0;
}

int iter_set_text(byte_iter *it, const void *bytes, int32_t len) {
  if (!it) return -1;
  it->text = static_cast<uint8_t *>(const_cast<void *>(bytes));
  it->len = bytes ? std::max(len, 0) : 0;
  it->pos = 0;
  return 0;
}

int iter_get_bytes(byte_iter *it, void *out, int32_t n) {
  if (!it) return -1;
  const int32_t count = std::clamp(n, 0, adif::iter_left(it));
  if (out && count > 0) std::memcpy(out, rest(it), static_cast<size_t>(count));
  it->pos += count;
  return count;
}

int iter_set_bytes(byte_iter *it, const void *src, int32_t n) {
  if (!it) return -1;
  const int32_t count = std::clamp(n, 0, adif::iter_left(it));
  if (count < 1) return 0;
  if (src) {
    // The source may be a part of the iterator's own array.
    std::memmove(rest(it), src, static_cast<size_t>(count));
  } else {
    std::memset(rest(it), 0, static_cast<size_t>(count));
  }
  it->pos += count;
  return count;
}

int iter_skipTo(byte_iter *it, const void *set, int32_t set_len) {
  if (!it) return -1;
  const size_t members = set && set_len > 0 ? static_cast<size_t>(set_len) : 0;
  return advance_while(
      it, [=](uint8_t byte) { return members == 0 || !std::memchr(set, byte, members); });
}

int iter_skipOver(byte_iter *it, const void *set, int32_t set_len) {
  if (!it) return -1;
  if (!set || set_len < 1) return 0;
  const auto *members = static_cast<const uint8_t *>(set);
  // Equal to every byte of the set, not to any (meant, see the header).
  return advance_while(it, [=](uint8_t byte) {
    return std::all_of(members, members + set_len, [=](uint8_t member) { return member == byte; });
  });
}

int iter_skipTo_bytes(byte_iter *it, const void *pattern, int32_t pattern_len) {
  if (!it) return 0;
  const uint8_t *found = kmp_find_bytes(rest(it), adif::iter_left(it), pattern, pattern_len);
  if (found) it->pos = static_cast<int32_t>(found - it->text);
  return 0;
}
