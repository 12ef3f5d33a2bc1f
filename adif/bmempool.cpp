// The block pool: fetching, growing, giving back, alerts and the end. See bmempool.h.
#include "adif/bmempool.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <thread>
#include <utility>

#include "adif/bmempool_watch.h"
#include "adif/kalloc.h"

using adif::section_guard;

namespace {

constexpr uint32_t kUnitFree = 4;  // values of `wakeup`
constexpr int kShutDown = -10;
constexpr int32_t kFirstSlots = 16;

// Runs `change` under the pool's lock.
template <class Change>
int setting(block_pool *pool, int result, Change change) {
  if (pool == nullptr) return -1;
  const section_guard guard(&pool->lock);
  change();
  return result;
}

// A setting that may end a wait: every waiter looks again. `change` gives the result.
template <class Change>
int waking_setting(block_pool *pool, Change change) {
  if (pool == nullptr) return -1;
  int result = 0;
  {
    const section_guard guard(&pool->lock);
    result = change();
    ++pool->changes;
  }
  SetEventAll(pool->wakeup, kUnitFree);
  return result;
}

void free_unit(pool_unit_fn free_fn, void *unit) {
  if (free_fn != nullptr) {
    free_fn(unit);
  } else {
    kfree_dbg(unit);
  }
}

// The free list takes `count` units without allocation afterwards.
bool reserve(block_pool *pool, int32_t count) {
  auto &list = pool->free_list;
  if (count <= list.capacity) return true;
  // Doubled, so that the cost of copying stays constant for each unit.
  const int64_t doubled = std::min<int64_t>(int64_t{list.capacity} * 2, INT32_MAX);
  const int64_t capacity = std::max<int64_t>({kFirstSlots, doubled, count});
  auto *const slots = static_cast<pool_slot *>(kalloc_dbg(capacity * int64_t{sizeof(pool_slot)}));
  if (slots == nullptr) return false;
  const int32_t to_end = std::min(pool->free_count, list.capacity - list.first);
  std::copy_n(list.slots + list.first, to_end, slots);
  std::copy_n(list.slots, pool->free_count - to_end, slots + to_end);
  kfree_dbg(list.slots);
  list = {slots, static_cast<int32_t>(capacity), 0};
  return true;
}

void append(block_pool *pool, void *unit) {
  auto &list = pool->free_list;
  const int64_t end = int64_t{list.first} + pool->free_count;
  list.slots[end % list.capacity] = {unit, adif::begin_watch(pool, unit)};
  ++pool->free_count;
}

void *take_first(block_pool *pool) {
  auto &list = pool->free_list;
  const pool_slot slot = list.slots[list.first];
  list.first = list.first + 1 == list.capacity ? 0 : list.first + 1;
  --pool->free_count;
  adif::end_watch(pool, slot);
  return slot.unit;
}

// Repeats an allocation until it succeeds: the pool does not give up. A test may end it.
template <class Allocate>
auto insist(Allocate allocate) {
  auto result = allocate();
  while (!result && !adif::allocations_fail_for_good()) {
    std::this_thread::yield();
    result = allocate();
  }
  return result;
}

// Room for all units that exist, so that giving one back never needs memory.
bool reserve_for_one_more(block_pool *pool) {
  const int32_t all = std::max(pool->allocated, pool->free_count) + 1;
  return insist([&] { return reserve(pool, all); });
}

void grow(block_pool *pool, int32_t batch) {
  if (pool->unit_size < 1) return;
  for (int32_t i = 0; i < batch; ++i) {
    if (pool->limit != 0 && pool->allocated >= pool->maximum) return;
    if (pool->allocated == INT32_MAX) return;
    if (!reserve_for_one_more(pool)) return;
    void *const unit = insist([&] { return kzalloc_dbg(pool->unit_size); });
    if (unit == nullptr) return;
    ++pool->allocated;
    append(pool, unit);
  }
}

// Units in use as the marks count them: percent of `maximum` with a limit, else units. False when
// there is nothing to take percents of.
bool usage(const block_pool *pool, int64_t *use) {
  if (pool->limit != 0 && pool->maximum < 1) return false;
  *use = pool->limit != 0 ? int64_t{pool->in_use} * 100 / pool->maximum : pool->in_use;
  return true;
}

void alert(block_pool *pool) {
  int64_t use = 0;
  if (pool->alert_state == 1 || pool->alert_fn == nullptr || pool->high_mark < 1) return;
  if (!usage(pool, &use) || use < pool->high_mark) return;
  // Under the lock (meant): the function must not call the pool.
  pool->alert_fn(pool->alert_arg);
  pool->alert_state = 1;
}

void recover(block_pool *pool) {
  int64_t use = 0;
  if (pool->alert_state == -1 || pool->recover_fn == nullptr || pool->low_mark < 1) return;
  if (!usage(pool, &use) || use > pool->low_mark) return;
  pool->recover_fn(pool->alert_arg);
  pool->alert_state = -1;
}

// Bypassed units at rest are not taken again.
void *take_new(block_pool *pool) {
  if (pool->unit_size < 1 || pool->allocated == INT32_MAX || !reserve_for_one_more(pool))
    return nullptr;
  void *const unit = insist([&] { return kzalloc_dbg(pool->unit_size); });
  if (unit != nullptr) ++pool->allocated;
  return unit;
}

void *take_oldest(block_pool *pool) {
  const int32_t resting = pool->mode == adif::pool_mode::quarantine ? adif::kQuarantine : 0;
  if (pool->free_count <= resting && pool->auto_alloc != 0)
    grow(pool, std::max(pool->escalate, 1) + resting - pool->free_count);
  return pool->free_count == 0 ? nullptr : take_first(pool);
}

void *take(block_pool *pool) {
  void *const unit = adif::bypasses(pool) ? take_new(pool) : take_oldest(pool);
  if (unit == nullptr) return nullptr;
  ++pool->in_use;
  alert(pool);
  return unit;
}

bool exhausted(const block_pool *pool) {
  return pool->free_count < 1 && pool->limit != 0 && pool->allocated >= pool->maximum;
}

// Waits for a change that may end the exhaustion; enters and leaves with the lock held.
void wait_for_change(block_pool *pool) {
  const uint32_t seen = pool->changes.load();
  ++pool->waiters;
  LeaveCriticalSection(&pool->lock);
  WaitEventUntil(pool->wakeup, std::chrono::steady_clock::time_point::max(),
                 [&] { return pool->changes.load() != seen; });
  EnterCriticalSection(&pool->lock);
  if (--pool->waiters == 0 && pool->closing) pthread_cond_signal(&pool->drained);
}

}  // namespace

block_pool *BPoolInit(block_pool *storage) {
  void *const place = storage != nullptr ? storage : kalloc_dbg(sizeof(block_pool));
  if (place == nullptr) return nullptr;
  auto *const pool = new (place) block_pool{};
  pool->owned = storage == nullptr;
  pool->mode = adif::current_pool_mode();
  pool->wakeup = CreateEvent();
  if (pool->wakeup == nullptr) {
    if (pool->owned) kfree_dbg(pool);
    return nullptr;
  }
  InitializeCriticalSection(&pool->lock);
  pthread_cond_init(&pool->drained, nullptr);
  return pool;
}

int setAutoAlloc(block_pool *pool, int flag) {
  return setting(pool, flag, [=] { pool->auto_alloc = flag != 0; });
}

int setUnitSize(block_pool *pool, int n) {
  return setting(pool, n, [=] { pool->unit_size = n; });
}

int setUnitReuseThreshold(block_pool *pool, int n) {
  return setting(pool, n, [=] { pool->reuse_threshold = n; });
}

int setEscalate(block_pool *pool, int n) {
  return setting(pool, n, [=] { pool->escalate = n; });
}

int setInitFunc(block_pool *pool, pool_unit_fn fn) {
  return setting(pool, 0, [=] { pool->init_fn = fn; });
}

int setFreeFunc(block_pool *pool, pool_unit_fn fn) {
  return setting(pool, 0, [=] { pool->free_fn = fn; });
}

int setGetSizeFunc(block_pool *pool, pool_unit_fn fn) {
  return setting(pool, 0, [=] { pool->get_size = fn; });
}

int setWatchedSpans(block_pool *pool, const pool_span *spans, int count) {
  return setting(pool, 0, [=] {
    pool->watched_spans = spans;
    pool->watched_span_count = count;
  });
}

int setLimit(block_pool *pool, int flag) {
  return waking_setting(pool, [=] { return pool->limit = flag != 0, flag; });
}

int setMaximum(block_pool *pool, int n) {
  return waking_setting(pool, [=] { return std::exchange(pool->maximum, n); });
}

int setThreshold(block_pool *pool, int high, int low) {
  return setting(pool, 0, [=] {
    pool->high_mark = high;
    pool->low_mark = low;
  });
}

int setAlert(block_pool *pool, pool_alert_fn alert_fn, pool_alert_fn recover_fn, void *arg) {
  return setting(pool, 0, [=] {
    pool->alert_fn = alert_fn;
    pool->recover_fn = recover_fn;
    pool->alert_arg = arg;
  });
}

int getProfile(block_pool *pool, int *allocated_out, int *free_out, int *in_use_out) {
  return setting(pool, 0, [=] {
    if (allocated_out != nullptr) *allocated_out = pool->allocated;
    if (free_out != nullptr) *free_out = pool->free_count;
    if (in_use_out != nullptr) *in_use_out = pool->in_use;
  });
}

void *fetchUnit(block_pool *pool) {
  if (pool == nullptr) return nullptr;
  void *unit = nullptr;
  pool_unit_fn init_fn = nullptr;
  {
    const section_guard guard(&pool->lock);
    unit = take(pool);
    init_fn = pool->init_fn;
  }
  // Outside the lock: a unit may fetch from other pools while it is made.
  if (unit != nullptr && init_fn != nullptr) init_fn(unit);
  return unit;
}

void *blockFetchUnit(block_pool *pool, int *status_out) {
  if (status_out != nullptr) *status_out = 0;
  if (pool == nullptr) return nullptr;
  void *unit = nullptr;
  pool_unit_fn init_fn = nullptr;
  {
    const section_guard guard(&pool->lock);
    while (exhausted(pool) && !pool->closing) wait_for_change(pool);
    if (pool->closing) {
      if (status_out != nullptr) *status_out = kShutDown;
      return nullptr;
    }
    unit = take(pool);
    init_fn = pool->init_fn;
  }
  if (unit != nullptr && init_fn != nullptr) init_fn(unit);
  return unit;
}

int recycleUnit(block_pool *pool, void *unit) {
  if (pool == nullptr || unit == nullptr) return pool == nullptr && unit == nullptr ? -1 : 0;
  bool wake = false;
  {
    const section_guard guard(&pool->lock);
    // Too large to keep. The counts stay as they are (meant, see the header).
    if (pool->reuse_threshold >= 1 && pool->get_size != nullptr &&
        pool->get_size(unit) >= pool->reuse_threshold) {
      free_unit(pool->free_fn, unit);
      return 0;
    }
    if (adif::frees_on_return(pool)) {
      free_unit(pool->free_fn, unit);
      --pool->allocated;
    } else {
      if (!reserve(pool, pool->free_count + 1)) return -1;
      append(pool, unit);
    }
    --pool->in_use;
    ++pool->changes;
    wake = pool->waiters > 0;
    recover(pool);
  }
  // An event forgets a signal that nobody waits for, so it is only made when somebody does.
  if (wake) SetEvent(pool->wakeup, kUnitFree);
  return 0;
}

int BPoolCleanup(block_pool *pool) {
  if (pool == nullptr) return -1;
  {
    const section_guard guard(&pool->lock);
    pool->closing = true;
    ++pool->changes;
  }
  // Every waiter leaves before the lock goes: they are counted, the last one tells.
  SetEventAll(pool->wakeup, static_cast<uint32_t>(kShutDown));
  {
    const section_guard guard(&pool->lock);
    while (pool->waiters > 0) pthread_cond_wait(&pool->drained, &pool->lock);
  }
  pthread_cond_destroy(&pool->drained);
  DeleteCriticalSection(&pool->lock);
  while (pool->free_count > 0) {
    void *const unit = take_first(pool);
    // Units of a pool that does not grow by itself are the caller's.
    if (pool->auto_alloc != 0) free_unit(pool->free_fn, unit);
  }
  kfree_dbg(pool->free_list.slots);
  DestroyEvent(pool->wakeup);
  if (pool->owned != 0) kfree_dbg(pool);
  return 0;
}

namespace adif {

bool pool_invariant(block_pool *pool) {
  const section_guard guard(&pool->lock);
  const auto &list = pool->free_list;
  if (pool->free_count < 0 || pool->waiters < 0 || pool->free_count > list.capacity) return false;
  if (list.capacity < pool->allocated || list.first < 0) return false;
  if (list.capacity > 0 && list.first >= list.capacity) return false;
  for (int32_t i = 0; i < pool->free_count; ++i) {
    if (list.slots[(int64_t{list.first} + i) % list.capacity].unit == nullptr) return false;
  }
  return true;
}

}  // namespace adif
