// The recorder of a session (c2ms_sess_trace, described in c2ms.h): a bounded ring of events, the
// oldest of which give way. Off, a place that records costs one relaxed load.
#pragma once

#include <cstdint>

#include "c2ms.h"
#include "c2ms/core/records.h"

namespace c2ms {

inline bool tracing(const c2ms_sess *sess) {
  return sess->tracing.load(std::memory_order_relaxed);
}

/// Records; nothing when off. Any thread, under any lock of a lower rank than the speed lock's.
void trace_unit(const c2ms_unit &unit, uint32_t outcome) REQUIRES(unit.session->speed_lock);
void trace_node(const c2ms_node *node, uint32_t state);
void trace_wait(c2ms_cache *cache, wait_cause cause, int64_t waited_us) REQUIRES(cache->lock);
void trace_seek(c2ms_cache *cache) REQUIRES(cache->lock);
void trace_place(c2ms_cache *cache) REQUIRES(cache->lock);
/// The same after a move, unless a place near by was recorded a moment ago.
void trace_move(c2ms_cache *cache) REQUIRES(cache->lock);

/// Ends recording and gives the ring's memory back.
void trace_stop(c2ms_sess *sess);

}  // namespace c2ms
