// See need.h.
#include "c2ms/ring/need.h"

#include <atomic>

#include "c2ms/core/wake.h"
#include "c2ms/ring/pack.h"

namespace {

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
  c2ms::WakeOrder *const order = c2ms::WakeOrder::current();
  if (order != nullptr && complete && !urgent) return order->wake_last(cache);
  c2ms_cache_wake(cache);
  if (order != nullptr && urgent) order->make_way();
}

void c2ms_pack_ready_notify(c2ms_pack *pack, int32_t index, bool complete) {
  c2ms_cache *cache;
  {
    // Under the lock: the record may have become another session's.
    const adif::Guard lock(pack->lock);
    if (pack->index != index) return;  // who has moved it wakes its reader
    cache = pack->cache;
  }
  c2ms_cache_tell_reader(cache, index, complete);
}
