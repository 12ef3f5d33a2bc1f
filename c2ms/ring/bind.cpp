// See bind.h.
#include "c2ms/ring/bind.h"

#include <algorithm>
#include <cstring>

#include "c2ms/core/strand_hold.h"
#include "c2ms/ring/cache.h"
#include "c2ms/ring/need.h"
#include "c2ms/ring/pack.h"

namespace {

int32_t pack_length(c2ms_cache *cache, int32_t index) REQUIRES(cache->lock) {
  return index == cache->total_packs - 1 ? cache->last_pack_len : cache->packsize.load();
}

// What every unit of a cache knows of it.
void describe(c2ms_cache *cache, c2ms_unit *unit, int32_t first, int32_t skip)
    REQUIRES(cache->lock) {
  std::memcpy(unit->fid, cache->fid, sizeof unit->fid);
  unit->pack_bytes = cache->packsize;
  unit->first_index = unit->pack_index = first;
  unit->skip = skip;
  unit->range_offset = cache->base_offset + static_cast<uint64_t>(skip) +
                       static_cast<uint64_t>(first) * static_cast<uint64_t>(unit->pack_bytes);
  unit->range_flag = cache->range_flag;
  unit->generation = cache->generation;
}

// Binds one more pack of a run; false ends the run before it.
bool bind_next(c2ms_cache *cache, c2ms_unit *unit, int32_t first, int32_t count, uint64_t *bytes)
    REQUIRES(cache->lock) {
  const int32_t index = first + count;
  if (index >= cache->total_packs) return false;
  c2ms_pack *const pack = c2ms_cache_slot(cache, index);
  const adif::Guard lock(pack->lock);
  if (pack->index != index || pack->state != pack_idle || c2ms_pack_is_paused(pack)) return false;
  const int32_t size = pack_length(cache, index);
  // A pack that holds something begins a run of its own, an empty one is one.
  if (count > 0 && (pack->len > 0 || size == 0)) return false;
  if (*bytes + static_cast<uint64_t>(size) > INT32_MAX) return false;
  if (c2ms_pack_bind_unit(pack, unit) != 0) return false;
  c2ms_pack_state_to(pack, pack_requested);
  pack->size = size;
  if (count == 0) {
    describe(cache, unit, first, pack->len);
    unit->pack.store(pack);
  }
  *bytes += static_cast<uint64_t>(size - pack->len);
  return true;
}

bool is_bound(const c2ms_pack *pack, const c2ms_unit *unit) REQUIRES(pack->lock) {
  const auto end = pack->units + pack->unit_count;
  return std::find(pack->units, end, unit) != end;
}

// A pack of a unit's run that still wants something of it, or NULL.
c2ms_pack *bound_pack(c2ms_cache *cache, const c2ms_unit *unit, int32_t index)
    REQUIRES(cache->lock) {
  if (unit->generation != cache->generation.load()) return nullptr;
  c2ms_pack *const pack = c2ms_cache_slot(cache, index);
  if (pack == nullptr) return nullptr;
  const adif::Guard lock(pack->lock);
  return pack->index == index && is_bound(pack, unit) ? pack : nullptr;
}

}  // namespace

int32_t c2ms_cache_bind(c2ms_cache *cache, c2ms_unit *unit, int32_t first, int32_t count) {
  const adif::Guard lock(cache->lock);
  if (first < 0 || cache->packnum < 1) return 0;
  unit->state = UNIT_INIT;
  uint64_t bytes = 0;
  int32_t bound = 0;
  while (bound < count && bind_next(cache, unit, first, bound, &bytes)) {
    ++bound;
    if (bytes == 0) break;
  }
  unit->run_packs = bound;
  unit->range_length = static_cast<uint32_t>(bytes);
  return bound;
}

namespace {

// Binds one more pack that others are fetching; false ends the run before it.
bool bind_again_next(c2ms_cache *cache, c2ms_unit *unit, int32_t first, int32_t count,
                     uint64_t *bytes) REQUIRES(cache->lock) {
  const int32_t index = first + count;
  if (index >= cache->total_packs) return false;
  c2ms_pack *const pack = c2ms_cache_slot(cache, index);
  const adif::Guard lock(pack->lock);
  const bool in_flight = pack->state == pack_requested || pack->state == pack_receiving;
  if (pack->index != index || !in_flight || pack->len >= pack->size) return false;
  if (count > 0 && pack->len > 0) return false;
  const bool unsent = std::any_of(pack->units, pack->units + pack->unit_count,
                                  [](const c2ms_unit *other) { return other->state == UNIT_INIT; });
  if (unsent || c2ms_pack_bind_unit(pack, unit) != 0) return false;
  if (count == 0) {
    describe(cache, unit, first, pack->len);
    unit->pack.store(pack);
    unit->range_flag = pack->flag;
  }
  *bytes += static_cast<uint64_t>(pack->size - pack->len);
  return true;
}

}  // namespace

int32_t c2ms_cache_bind_again(c2ms_cache *cache, c2ms_unit *unit, int32_t first, int32_t count) {
  const adif::Guard lock(cache->lock);
  if (first < 0 || cache->packnum < 1) return 0;
  uint64_t bytes = 0;
  int32_t bound = 0;
  while (bound < count && bind_again_next(cache, unit, first, bound, &bytes)) ++bound;
  unit->state = UNIT_INIT;
  unit->redundant = true;
  unit->run_packs = bound;
  unit->range_length = static_cast<uint32_t>(bytes);
  return bound;
}

void c2ms_cache_go_on(c2ms_cache *cache, c2ms_unit *unit) {
  const adif::Guard lock(cache->lock);
  if (unit->pack_index >= unit->first_index + unit->run_packs) {
    unit->pack.store(nullptr);
    return;
  }
  if (unit->generation != cache->generation.load()) return unit->pack.store(nullptr);
  c2ms_pack *const pack = c2ms_cache_slot(cache, unit->pack_index);
  if (pack == nullptr) return unit->pack.store(nullptr);
  const adif::Guard pack_lock(pack->lock);
  const bool wants = pack->index == unit->pack_index && is_bound(pack, unit);
  unit->pack.store(wants ? pack : nullptr);
}

bool c2ms_cache_unbind(c2ms_cache *cache, c2ms_unit *unit, int32_t index) {
  const adif::Guard lock(cache->lock);
  c2ms_pack *const pack = c2ms_cache_slot(cache, index);
  if (pack == nullptr) return false;
  const adif::Guard pack_lock(pack->lock);
  if (c2ms_pack_unbind_unit(pack, unit) == 0) return false;
  if (pack->unit_count > 0 || pack->state == pack_ready) return false;
  c2ms_pack_state_to(pack, pack_idle);
  cache->idle_from = std::min(cache->idle_from, index);
  return true;
}

int64_t c2ms_cache_wanted(c2ms_cache *cache, const c2ms_unit *unit) {
  const adif::Guard lock(cache->lock);
  int64_t sum = 0;
  for (int32_t i = unit->pack_index; i < unit->first_index + unit->run_packs; ++i) {
    c2ms_pack *const pack = bound_pack(cache, unit, i);
    if (pack == nullptr) continue;
    const adif::Guard pack_lock(pack->lock);
    sum += pack->size - pack->len;
  }
  return sum;
}

void c2ms_pack_release_unit(c2ms_unit *unit) {
  if (unit->session == nullptr || unit->run_packs < 1) return;
  c2ms_cache *const cache = &unit->session->cache_record;
  const int32_t end = unit->first_index + unit->run_packs;
  bool idle = false;
  for (int32_t index = unit->pack_index; index < end; ++index) {
    if (!c2ms_cache_unbind(cache, unit, index)) continue;
    idle = true;
    c2ms_cache_tell_reader(cache, index);
  }
  unit->pack.store(nullptr);
  if (idle) c2ms::mark_dispatch_due(cache->session);
}
