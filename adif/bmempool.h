// The block pool recycles records of one size: sessions, nodes, units, packs, frames. It grows in
// batches, may have a limit with a fetch that waits, frees units that grew too large for reuse, and
// raises an alert at a high watermark and a recovery at a low one.
//
// Units are handed out first-in first-out, so that a record rests as long as it can before it is
// used again. New units are zeroed, recycled ones keep their bytes. All calls but BPoolInit() and
// BPoolCleanup() may be made by any thread; only blockFetchUnit() waits. Callbacks other than
// `init_fn` run with the pool's lock held and must not call the pool.
//
// Recycling hides a use after the return from sanitizers. The test modes show it (adif::pool_mode).
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "adif/sync.h"

using pool_unit_fn = int (*)(void *unit);
using pool_alert_fn = int (*)(void *arg);

/// A part of a unit that nobody may touch between its return and its next fetch.
struct pool_span {
  uint32_t offset;
  uint32_t size;
};

/// A unit at rest and, in the test modes, what its untouchable parts held when it was given back.
struct pool_slot {
  void *unit;
  uint64_t seal;
};

namespace adif {

/// What a pool does with units that are given back.
enum class pool_mode : uint8_t {
  recycle,     ///< hands them out again, the oldest first: as players get it
  quarantine,  ///< the same, but each rests until many others have been given back after it
  bypass,      ///< never again: each fetch is an allocation of its own
};

/// For tests: the mode of pools made from now on, process-wide. In the last two a unit's
/// untouchable spans (setWatchedSpans) are watched while it rests: under the address sanitizer they
/// are poisoned, otherwise a changed byte aborts when the unit is fetched or freed. A bypassed unit
/// is freed at once when all of it is untouchable, otherwise it rests until BPoolCleanup(). Pools
/// with a limit never bypass.
void pool_test_mode(pool_mode mode);

}  // namespace adif

struct block_pool {
  uint8_t owned;            ///< the record itself came from BPoolInit()
  uint8_t auto_alloc;       ///< an empty pool allocates units by itself
  int32_t unit_size;        ///< bytes
  int32_t reuse_threshold;  ///< units of at least this size are freed, not kept; below 1: no test
  int32_t escalate;         ///< units allocated at once
  pool_unit_fn init_fn;
  pool_unit_fn free_fn;
  pool_unit_fn get_size;
  uint8_t limit;  ///< `maximum` counts
  int32_t maximum;
  int32_t allocated;
  int32_t in_use;
  int32_t free_count;
  int32_t high_mark, low_mark;  ///< percent of `maximum` with a limit, units without
  pool_alert_fn alert_fn, recover_fn;
  void *alert_arg;
  int32_t alert_state;    ///< 1 after an alert, -1 after a recovery
  CRITICAL_SECTION lock;  ///< guards everything here but `changes`
  struct {
    pool_slot *slots;
    int32_t capacity;
    int32_t first;
  } free_list;  ///< ring of `free_count` units, oldest at `first`; holds all that were allocated
  event *wakeup;
  int32_t waiters;  ///< threads in blockFetchUnit() that wait
  bool closing;
  pthread_cond_t drained;          ///< with `lock`: the last waiter of a closing pool has left
  std::atomic<uint32_t> changes;   ///< moves whenever a waiter should look again
  adif::pool_mode mode;            ///< fixed by BPoolInit()
  const pool_span *watched_spans;  ///< as setWatchedSpans()
  int32_t watched_span_count;
};

/// A pool in `storage` (its old content is lost), or in a new record when null. Everything is off
/// or 0 until it is set. Null when memory has run out.
[[nodiscard]] block_pool *BPoolInit(block_pool *storage);

/// Settings; change them at any time. -1 for a null pool, else `n` or `flag` itself, 0 for
/// functions.
int setAutoAlloc(block_pool *pool, int flag);
int setUnitSize(block_pool *pool, int n);
int setUnitReuseThreshold(block_pool *pool, int n);
int setEscalate(block_pool *pool, int n);
int setLimit(block_pool *pool, int flag);
int setInitFunc(block_pool *pool, pool_unit_fn fn);  ///< called on each unit handed out, unlocked
int setFreeFunc(block_pool *pool, pool_unit_fn fn);  ///< frees a unit; null: kfree_dbg()
int setGetSizeFunc(block_pool *pool, pool_unit_fn fn);  ///< tells a unit's size in bytes
/// The parts of a unit that are untouchable while it rests; `spans` must outlive the pool. For the
/// test modes; set before the first fetch. A span of the unit's whole size says that units may be
/// freed.
int setWatchedSpans(block_pool *pool, const pool_span *spans, int count);
/// Bounds the units ever allocated, when the limit is on. Returns the bound before; -1 for null.
int setMaximum(block_pool *pool, int n);
/// Watermarks, below 1: none. 0; -1 for null.
int setThreshold(block_pool *pool, int high, int low);
/// `alert_fn(arg)` when use reaches the high mark, `recover_fn(arg)` when it falls to the low one,
/// which may happen once before any alert. 0; -1 for null.
int setAlert(block_pool *pool, pool_alert_fn alert_fn, pool_alert_fn recover_fn, void *arg);
/// The three counters; each out may be null. 0; -1 for null.
int getProfile(block_pool *pool, int *allocated_out, int *free_out, int *in_use_out);

/// A unit, or null: pool null, exhausted, or nothing to grow by (unit size below 1). When memory
/// has run out the allocation is repeated until it succeeds, with the lock held. Kept for
/// compatibility: callers need not expect a pool that grows to fail.
[[nodiscard]] void *fetchUnit(block_pool *pool);
/// The same, but waits without limit while a limited pool is exhausted. Null with `*status_out` -10
/// when the pool is being cleaned up, null with 0 as fetchUnit(). `status_out` may be null.
[[nodiscard]] void *blockFetchUnit(block_pool *pool, int *status_out);
/// Gives a unit back and wakes one waiting fetch. A unit of at least `reuse_threshold` bytes is
/// freed instead and stays counted as in use and allocated. Kept for compatibility: pools that free
/// large units report more units than there are. 0, also when one argument is null and nothing
/// happens; -1 when both are, or when a unit that the pool didn't allocate found no room (it stays
/// the caller's).
int recycleUnit(block_pool *pool, void *unit);

/// Ends the pool: waiting fetches return -10 and are waited for; free units are freed when
/// `auto_alloc` is on; the record too if BPoolInit() took it. No other call may be running. Units
/// in use stay the callers'. 0; -1 for null.
int BPoolCleanup(block_pool *pool);

namespace adif {

/// True while the counters and the free list agree. For tests and checked builds; takes the lock.
bool pool_invariant(block_pool *pool);

}  // namespace adif
