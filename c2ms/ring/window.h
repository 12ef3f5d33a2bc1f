// The window: the index in memory, laid over the part of the media that it stands for.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

/// The part of the selected file that an index in memory holds, in positions of reads. While the
/// position lies in it the range is placed for `target` instead: behind the window, or at the
/// beginning when the window is the file's end. Packs that lie wholly in it are not prefetched;
/// readers copy them from the index.
struct c2ms_window {
  uint64_t begin, end;  // equal: none
  uint64_t in_index;    // where in the index the window's first byte lies
  uint64_t target;
  bool moves_range;

  bool has(uint64_t pos) const { return pos >= begin && pos < end; }
  bool holds(uint64_t from, uint64_t to) const { return begin < end && from >= begin && to <= end; }
};

/// The window of the index in memory; an empty one when the cache serves another file than the
/// media.
c2ms_window c2ms_cache_window(c2ms_cache *cache) REQUIRES(cache->lock);

/// True for a pack that need never be fetched: the index in memory holds all of it.
bool c2ms_cache_in_window(const c2ms_cache *cache, const c2ms_window &window, int32_t index);
