// Where the ring lies: the range of the file's packs that it holds, which follows the read
// position, and what of it is still to be asked for.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

/// The packs from which a session asks ahead: from the reader's position (the range's first pack
/// while the range is placed elsewhere) to the end of range or file.
struct ahead_packs {
  int32_t first, end;
};
ahead_packs c2ms_cache_ahead(c2ms_cache *cache) REQUIRES(cache->lock);
/// True when a pack is idle and may be asked for now.
bool c2ms_cache_may_ask(c2ms_cache *cache, int32_t index) REQUIRES(cache->lock);
/// Bytes ahead of the reader without a hole.
int64_t c2ms_cache_lead(c2ms_cache *cache) REQUIRES(cache->lock);

/// The first idle pack at or above the read position (above the range's first pack while the range
/// is placed elsewhere) that may be asked for now, or NULL.
c2ms_pack *c2ms_cache_get_idle_pack(c2ms_cache *cache);
/// The window has changed: places the range for the read position again.
void c2ms_cache_window_changed(c2ms_cache *cache) REQUIRES(cache->lock);

/// Moves position and range. Packs that stay inside keep their data. True when there are new packs
/// to ask for.
bool c2ms_cache_seek_to(c2ms_cache *cache, uint64_t pos) REQUIRES(cache->lock);
/// The same with the range placed for the position itself, wherever the window lies: for a reader
/// who needs bytes of the media there.
bool c2ms_cache_seek_exactly(c2ms_cache *cache, uint64_t pos) REQUIRES(cache->lock);
/// Where a call reads: the position, and the count of seeks when it was taken, both under one hold
/// of the cache's lock. A seek afterwards makes the count differ, and the call ends.
struct c2ms_place {
  uint64_t pos;
  uint32_t seek_count;
};
/// The read position.
c2ms_place c2ms_cache_here(c2ms_cache *cache);
/// A read begins at `pos`: it goes on at one of two places, or somebody has jumped. The other place
/// is kept in mind.
void c2ms_cache_take_place(c2ms_cache *cache, uint64_t pos) REQUIRES(cache->lock);
/// Tells that a pack has become idle outside a move of the range. Hold no pack's lock.
void c2ms_cache_note_idle(c2ms_cache *cache, int32_t index);
