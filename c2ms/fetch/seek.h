// Moving the read position, and asking for single packs: what queues units or makes them stale.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"
#include "c2ms/ring/range.h"

/// Moves the read position and asks for what is missing; nothing when the cache serves another use.
/// 0; -1.
int c2ms_cache_seek(c2ms_cache *cache, uint64_t pos, c2ms::cache_use use = c2ms::cache_use::play);
/// Moves the read position for a reader that names each position, who may read at two places in
/// turn: while they are at most half a ring apart the range follows the lower one, so that neither
/// loses what the other will need. Needs the read gate. 0, and the place in `*out`; -200 at or past
/// the end.
int c2ms_cache_place(c2ms_cache *cache, uint64_t pos, c2ms_place *out);
/// Has idle packs asked for as soon as a node can take them: 1 when there are some, else 0. What
/// asks is the dispatch (fetch/dispatch.h).
int c2ms_cache_download_all(c2ms_cache *cache);
/// Queues a unit for one idle pack. 0; -1, -2 missing cache or pack; or the result.
int c2ms_cache_download_pack(c2ms_cache *cache, c2ms_pack *pack);

/// Asks for what a pack still lacks a second time, through another unit, unless it is ready, 5
/// units have it, or one of them has not been sent. 0; -1 for NULL; the result.
int c2ms_pack_redownload(c2ms_pack *pack);
