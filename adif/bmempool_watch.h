// What the block pool's test modes watch: units at rest. Of bmempool.cpp alone; each call is made
// with the pool's lock held. In the mode that players get all of it is a comparison.
#pragma once

#include "adif/bmempool.h"

namespace adif {

/// Units that rest in each pool in quarantine: one that is given back is the next to be handed out
/// only after this many others.
inline constexpr int32_t kQuarantine = 128;

pool_mode current_pool_mode();

/// Starts the watch over a unit that is given back; its seal.
uint64_t begin_watch(const block_pool *pool, void *unit);

/// Ends it; aborts when an untouchable span has changed.
void end_watch(const block_pool *pool, const pool_slot &slot);

inline bool bypasses(const block_pool *pool) {
  return pool->mode == pool_mode::bypass && pool->auto_alloc != 0 && pool->limit == 0;
}

/// Nobody looks at units at rest, so that none need stay.
bool frees_on_return(const block_pool *pool);

}  // namespace adif
