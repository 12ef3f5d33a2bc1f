// The pack cache: a ring of packs over one buffer that follows the read position (drawn in
// core/records.h): its buffer and its file. Where the ring lies stands in range.h, which unit fills
// which pack in bind.h, what a waiting reader needs in need.h.
//
// A file's bytes are numbered in packs of packsize bytes from its base offset; every pack number
// fits an int32, sizes and positions are 64-bit and never become a size_t.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

/// The pack in whose slot pack number `index` belongs, whatever it holds now; NULL without a ring.
inline c2ms_pack *c2ms_cache_slot(const c2ms_cache *cache, int32_t index) {
  const int32_t packnum = cache->packnum.load();
  return packnum < 1 ? nullptr : static_cast<c2ms_pack *>(sk_value(cache->packs, index % packnum));
}

/// Readies a session's cache record: no buffer, no file. The record; NULL for NULL.
c2ms_cache *c2ms_cache_init(c2ms_sess *session);

/// Gives back every pack; later units find no place. The event stays with the record. 0, -1 for
/// NULL.
int c2ms_cache_clean(c2ms_cache *cache);

/// Cuts `buffer` (not owned) into packs; drops what was there. Needs the read gate. 0; -1, -2
/// missing cache or buffer; -3 size below 1; -4 size below packsize (0 or less means 8192); -5 no
/// memory for packs.
int c2ms_cache_setbuf(c2ms_cache *cache, uint8_t *buffer, int32_t size, int32_t packsize);

/// Selects a file; drops what was there, position 0. Of box headers nothing is prefetched: only
/// what a reader waits for is asked for. Needs the read gate. 0; -1; -201 the cache has no pack;
/// -202 more packs than an int32 counts.
int c2ms_cache_setfile(c2ms_cache *cache, const uint8_t *fid, uint64_t base_offset,
                       uint64_t media_size, uint8_t flag,
                       c2ms::cache_use use = c2ms::cache_use::play);

int c2ms_cache_buffering_size(c2ms_cache *cache, int32_t bytes);
int c2ms_cache_buffering_ratio(c2ms_cache *cache, int32_t *ratio);

uint64_t c2ms_cache_readpos(c2ms_cache *cache);
uint64_t c2ms_cache_offset(c2ms_cache *cache);
int32_t c2ms_cache_packsize(c2ms_cache *cache);
int32_t c2ms_cache_packnum(c2ms_cache *cache);
