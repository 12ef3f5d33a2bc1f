// What comes before the first read: the session's cache, the size of its packs, and which file and
// range it serves.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

namespace c2ms {

inline constexpr int cache_too_small = -2;  // less than one pack of memory is free

/// Gives the session a cache of `bytes`, or of all that is free (0). 0; cache_too_small; -5 no
/// memory for packs; C2MS_NO_CACHE_MEMORY.
int set_up_cache(c2ms_sess *sess, uint64_t bytes, int32_t pack_size);

/// A pack size near the wish (0: what suits every network) that divides neither the range nor the
/// index: the last pack of such a file would be empty.
int32_t suitable_pack_size(const c2ms_sess *sess, uint64_t range_size, int32_t wanted);

/// Points the cache at a file: results of c2ms_sess_set_media.
int select_file(c2ms_sess *sess, const uint8_t *fid, uint64_t base_offset, uint64_t size);

}  // namespace c2ms
