// What a waiting reader needs, and who wakes it.
//
// A reader that waits for several small packs is woken once, for the last of them: waking a thread
// costs more than receiving 8 KiB (docs/performance.md). `need_index` is the first pack that it
// lacks. Who completes that pack moves it on, past all that are there already; every other pack
// costs its receiver one look at that word.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

/// The reader needs the packs `first` to `last`, `len` bytes of the last one. True when it need not
/// sleep: all is there, or one of them waits for the reader (idle, or no longer in the range). The
/// thread that meets an urgent need makes way for the reader (core/wake.h, WakeOrder).
bool c2ms_cache_need(c2ms_cache *cache, int32_t first, int32_t last, int32_t len,
                     bool urgent = false);
/// It needs nothing any more.
void c2ms_cache_need_nothing(c2ms_cache *cache);
/// Tells that pack `index` has got bytes or changed its state: wakes the reader when that was the
/// last thing that it lacked. Hold neither the cache's lock nor a pack's. `complete`: its node will
/// ask for another pack at once; the reader is woken after that (core/wake.h, WakeOrder).
void c2ms_cache_tell_reader(c2ms_cache *cache, int32_t index, bool complete = false);
/// Tells the reader that the pack has got bytes or changed its state while it held `index`
/// (c2ms_cache_tell_reader). Hold no lock.
void c2ms_pack_ready_notify(c2ms_pack *pack, int32_t index, bool complete = false);
