// A ring that becomes bigger or smaller while it plays: the packs that it holds stay where the new
// ring has them, too.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

/// Adds `size` bytes at `buffer` (not owned), whole packs, to a ring that has memory already. Needs
/// the read gate. 0; -5 no memory for packs: nothing has changed.
int c2ms_cache_extend(c2ms_cache *cache, uint8_t *buffer, int32_t size);

/// Leaves `packs` packs, which then lie in the first of the session's blocks alone. Those nearest
/// to what is read next stay. Needs the read gate. 0; -5 no memory: nothing has changed.
int c2ms_cache_reduce(c2ms_cache *cache, int32_t packs);
