// The beginning and the end of the file, kept beside the ring: a demuxer that looks at the file's
// end and comes back fetches nothing twice. A complete pack of either end is copied when the range
// leaves it, and back when the range comes to it again.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

/// Forgets what is kept: another file, other packs, or no cache any more.
void c2ms_cache_forget_ends(c2ms_cache *cache) REQUIRES(cache->lock);

/// A slot of the ring is turned over to pack number `index` (-1: none). What it holds is dropped,
/// or kept as part of an end; the new number's bytes are put in when they are kept.
void c2ms_cache_turn_over(c2ms_cache *cache, c2ms_pack *pack, int32_t index) REQUIRES(cache->lock);
