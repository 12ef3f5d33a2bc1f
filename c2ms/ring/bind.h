// Which units fill which packs: a unit is bound to each pack of its run, in order. A pack that has
// moved on, or that others have filled, wants nothing of the unit any more.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

/// Binds a unit to neighbouring idle packs, as many of `count` from `first` on as are still idle,
/// and tells it what to ask for. Bytes that the first one holds are not asked for again. The number
/// of packs, 0 when the first is not idle any more.
int32_t c2ms_cache_bind(c2ms_cache *cache, c2ms_unit *unit, int32_t first, int32_t count);
/// Binds a unit to neighbouring packs that others are fetching, for what they lack: as many of
/// `count` as are still under way, have room for it and no unit that has not been sent. The number
/// of packs.
int32_t c2ms_cache_bind_again(c2ms_cache *cache, c2ms_unit *unit, int32_t first, int32_t count);
/// The unit's answer goes on in pack `pack_index` of its run: finds out whether the pack wants it.
void c2ms_cache_go_on(c2ms_cache *cache, c2ms_unit *unit);
/// Takes a unit away from a pack; true when that is idle now.
bool c2ms_cache_unbind(c2ms_cache *cache, c2ms_unit *unit, int32_t index);
/// Bytes of what a unit still has to receive that some pack wants.
int64_t c2ms_cache_wanted(c2ms_cache *cache, const c2ms_unit *unit);
/// Takes a unit away from what is left of its run. A pack that is not ready and loses its last unit
/// is idle again: its reader is woken and the session looks for work. Hold neither the cache's lock
/// nor a pack's.
void c2ms_pack_release_unit(c2ms_unit *unit);
