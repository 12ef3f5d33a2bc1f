// See unpack.h.
#include "c2ms/wire/unpack.h"

#include "adif/kalloc.h"
#include "compress/buffer_7z.h"

int c2ms_idx_unpack(const uint8_t *packed, size_t len, uint64_t bound, uint8_t **out,
                    uint32_t *out_len, const std::function<bool()> &stop) {
  uint64_t size = 0;
  if (buffer_un7z_size(packed, len, &size) != 0) return idx_not_readable;
  if (size == 0) return idx_empty;
  if (size > bound || size > UINT32_MAX) return idx_no_memory;
  auto *const buf = static_cast<uint8_t *>(kalloc_dbg(static_cast<int64_t>(size)));
  if (buf == nullptr) return idx_no_memory;
  auto unpacked = static_cast<size_t>(size);
  if (buffer_un7z_until(buf, &unpacked, packed, len, stop) != 0) {
    kfree_dbg(buf);
    return idx_damaged;
  }
  *out = buf;
  *out_len = static_cast<uint32_t>(unpacked);
  return 0;
}
