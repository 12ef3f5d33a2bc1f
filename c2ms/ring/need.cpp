// What a waiting reader needs, and who wakes it. Part of ring/cache.h.
//
// A reader that waits for several small packs is woken once, for the last of them: waking a thread
// costs more than receiving 8 KiB (docs/performance.md). `need_index` is the first pack that it
// lacks. Who completes that pack moves it on, past all that are there already; every other pack
// costs its receiver one look at that word.
#include <sched.h>

#include <atomic>
#include <utility>

#include "c2ms/ring/cache.h"
#include "c2ms/ring/pack.h"
#include "c2ms/core/time.h"

namespace {

// This thread has woken a reader that is in a hurry.
thread_local bool yield_due = false;
// Inside a ReaderLast, and whose reader is to be woken at its end.
thread_local bool reader_last = false;
thread_local c2ms_cache *held_back = nullptr;

enum class look { missing, there, odd };

look look_at(c2ms_cache *cache, int32_t index, int32_t len) REQUIRES(cache->lock) {
  const int32_t packnum = cache->packnum.load();
  if (packnum < 1) return look::odd;
  auto *const pack = static_cast<c2ms_pack *>(sk_value(cache->packs, index % packnum));
  const adif::Guard lock(pack->lock);
  if (pack->index != index) return look::odd;
  if (pack->state == pack_ready || pack->len >= len) return look::there;
  // Of the packs from wanted_from on the dispatch takes care.
  const bool reader_asks =
      pack->state == pack_idle && index < cache->wanted_from && !c2ms_pack_is_paused(pack);
  return reader_asks ? look::odd : look::missing;
}

// Moves the need past what is there. True: the reader has something to do.
bool follow(c2ms_cache *cache) REQUIRES(cache->lock) {
  for (;;) {
    const int32_t index = cache->need_index.load();
    const bool last = index >= cache->need_last;
    const look found = look_at(cache, index, last ? cache->need_len : INT32_MAX);
    if (found != look::there || last) return found != look::missing;
    cache->need_index.store(index + 1);
    // The word first, then the look under the pack's lock: who completes that pack does it under
    // the same lock and reads the word after, so that one of the two sees the other.
  }
}

}  // namespace

bool c2ms_cache_need(c2ms_cache *cache, int32_t first, int32_t last, int32_t len, bool urgent) {
  const adif::Guard lock(cache->lock);
  cache->need_urgent.store(urgent, std::memory_order_relaxed);
  cache->need_last = last;
  cache->need_len = len;
  cache->need_index.store(first);
  return follow(cache);
}

void c2ms_cache_need_nothing(c2ms_cache *cache) {
  const adif::Guard lock(cache->lock);
  cache->need_index.store(-1);
}

void c2ms_cache_tell_reader(c2ms_cache *cache, int32_t index, bool complete) {
  if (cache == nullptr || index < 0) return;
  if (cache->need_index.load() != index) return;
  bool due;
  {
    const adif::Guard lock(cache->lock);
    due = cache->need_index.load() == index && follow(cache);
  }
  if (!due) return;
  const bool urgent = cache->need_urgent.load(std::memory_order_relaxed);
  if (complete && reader_last && !urgent) {
    held_back = cache;
    return;
  }
  c2ms_cache_wake(cache);
  yield_due = yield_due || urgent;
}

ReaderLast::ReaderLast() {
  reader_last = true;
}

// (A cache's memory stays until the context is cleaned: at worst nobody waits there any more.)
ReaderLast::~ReaderLast() {
  reader_last = false;
  c2ms_cache_wake(std::exchange(held_back, nullptr));
}

void c2ms_cache_wake(c2ms_cache *cache) {
  if (cache == nullptr) return;
  cache->wake_count.fetch_add(1);
  adif::signal_lasting_event(cache->event, 1);
}

void c2ms_cache_yield_to_reader() {
  if (!yield_due) return;
  yield_due = false;
  sched_yield();
}
