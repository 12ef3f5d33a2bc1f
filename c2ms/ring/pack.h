// Packs: the slots of a session's ring. A pack is idle (0), requested (1), receiving (2) or ready
// (3), holds one media pack number and knows the units that fill it. Payload is written, read and
// reassigned under its lock; any thread.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

/// Pool init function: makes the lock once, resets the rest. 0, -1 for NULL.
int c2ms_pack_init(c2ms_pack *pack);

/// Takes a pack from the library's pool and hands it to the cache as slot `slot` over `buf`. NULL
/// without memory.
c2ms_pack *c2ms_pack_fetch(c2ms_cache *cache, int32_t slot, uint8_t *buf, int32_t size);

/// Gives a pack without units back to the pool; c2ms_pack_free releases its memory. 0, -1 for NULL.
int c2ms_pack_recycle(c2ms_mgmt *mgmt, c2ms_pack *pack);
int c2ms_pack_free(c2ms_pack *pack);

/// Stores the state.
void c2ms_pack_state_to(c2ms_pack *pack, uint8_t state) REQUIRES(pack->lock);

/// True while an idle pack is not to be asked for again yet.
bool c2ms_pack_is_paused(const c2ms_pack *pack);

/// Appends a unit: 0, -100 when it is bound already, -200 when 5 units are.
int c2ms_pack_bind_unit(c2ms_pack *pack, c2ms_unit *unit) REQUIRES(pack->lock);
/// Removes a unit, keeping the order of the others: 1 when it was there.
int c2ms_pack_unbind_unit(c2ms_pack *pack, c2ms_unit *unit) REQUIRES(pack->lock);
/// Removes all units; each then has no pack and discards what still comes for it.
void c2ms_pack_unbind_all(c2ms_pack *pack) REQUIRES(pack->lock);

/// Ends whatever the pack is doing: no units, idle, nothing received; it holds media pack `index`
/// next.
void c2ms_pack_exit_download(c2ms_pack *pack, int32_t index);

/// The pack's bytes, its size and how many of them are there; NULL or 0 for NULL.
uint8_t *c2ms_pack_buf(c2ms_pack *pack);
int32_t c2ms_pack_size(c2ms_pack *pack);
int32_t c2ms_pack_len(c2ms_pack *pack);
