// Buffer calls over the Lzma86 container: argument checks, and the unpacking that allocates.
#include "compress/buffer_7z.h"

#include <Types.h>

#include <algorithm>
#include <cstdlib>

#include "compress/lzma86.h"

int buffer_7z(void *dst, size_t *dst_len, const void *src, size_t src_len, int level,
              uint32_t dict_size) {
  if (!dst || !dst_len || !src) return SZ_ERROR_PARAM;
  return Lzma86_Encode(static_cast<uint8_t *>(dst), dst_len, static_cast<const uint8_t *>(src),
                       src_len, level, dict_size, SZ_FILTER_AUTO);
}

int buffer_un7z_size(const void *src, size_t src_len, uint64_t *size) {
  if (!src || !size || src_len == 0) return SZ_ERROR_PARAM;
  return Lzma86_GetUnpackSize(static_cast<const uint8_t *>(src), src_len, size);
}

int buffer_un7z(void *dst, size_t *dst_len, const void *src, size_t src_len) {
  return buffer_un7z_until(dst, dst_len, src, src_len, {});
}

int buffer_un7z_until(void *dst, size_t *dst_len, const void *src, size_t src_len,
                      const std::function<bool()> &stop) {
  if (!dst || !dst_len || !src || src_len == 0) return SZ_ERROR_PARAM;
  return Lzma86_DecodeUntil(static_cast<uint8_t *>(dst), dst_len, static_cast<const uint8_t *>(src),
                            &src_len, stop);
}

void *buffer_un7z_auto(size_t *out_len, const void *src, size_t src_len, uint64_t max_size) {
  uint64_t size = 0;
  if (!out_len || buffer_un7z_size(src, src_len, &size) != SZ_OK) return nullptr;
  if (size > std::min<uint64_t>(max_size, SIZE_MAX)) return nullptr;

  size_t length = static_cast<size_t>(size);
  void *const buffer = std::malloc(std::max<size_t>(length, 1));  // malloc(0) may be null
  if (!buffer) return nullptr;
  // A freed pointer has no value that may be read: what a failure returns is kept as a number.
  const auto address = reinterpret_cast<uintptr_t>(buffer);
  if (buffer_un7z(buffer, &length, src, src_len) != SZ_OK) {
    std::free(buffer);
    return reinterpret_cast<void *>(address);
  }
  *out_len = length;
  return buffer;
}
