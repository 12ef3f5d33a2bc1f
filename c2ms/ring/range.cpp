// See range.h.
#include "c2ms/ring/range.h"

#include <algorithm>

#include "c2ms/core/recorder.h"
#include "c2ms/core/time.h"
#include "c2ms/ring/cache.h"
#include "c2ms/ring/ends.h"
#include "c2ms/ring/pack.h"
#include "c2ms/ring/window.h"

ahead_packs c2ms_cache_ahead(c2ms_cache *cache) {
  const int64_t range_end = int64_t{cache->first_index} + cache->packnum;
  auto end = static_cast<int32_t>(std::min<int64_t>(range_end, cache->total_packs));
  // Of a walk over the boxes only the header at the position is asked for.
  if (cache->use == c2ms::cache_use::box_headers) {
    const uint64_t last = cache->read_pos + c2ms::box_header_bytes - 1;
    const uint64_t header_end = last / static_cast<uint64_t>(cache->packsize.load()) + 1;
    end = static_cast<int32_t>(std::min<uint64_t>(header_end, static_cast<uint64_t>(end)));
  }
  return {std::max(cache->wanted_from, cache->idle_from), end};
}

bool c2ms_cache_may_ask(c2ms_cache *cache, int32_t index) {
  c2ms_pack *const pack = c2ms_cache_slot(cache, index);
  if (pack->state != pack_idle || c2ms_pack_is_paused(pack)) return false;
  return cache->use == c2ms::cache_use::box_headers ||
         !c2ms_cache_in_window(cache, c2ms_cache_window(cache), index);
}

int64_t c2ms_cache_lead(c2ms_cache *cache) {
  if (cache->packnum < 1) return 0;
  const auto packsize = static_cast<uint64_t>(cache->packsize.load());
  const c2ms_window window = c2ms_cache_window(cache);
  const int64_t range_end = int64_t{cache->first_index} + cache->packnum;
  const auto end = static_cast<int32_t>(std::min<int64_t>(range_end, cache->total_packs));
  int32_t i = cache->read_index;
  if (i < cache->first_index) return 0;
  while (i < end &&
         (c2ms_cache_slot(cache, i)->state == pack_ready || c2ms_cache_in_window(cache, window, i)))
    ++i;
  const uint64_t there = std::min(static_cast<uint64_t>(i) * packsize, cache->media_size);
  return there > cache->read_pos ? static_cast<int64_t>(there - cache->read_pos) : 0;
}

c2ms_pack *c2ms_cache_get_idle_pack(c2ms_cache *cache) {
  if (cache == nullptr || cache->packnum < 1) return nullptr;
  const adif::Guard lock(cache->lock);
  const ahead_packs ahead = c2ms_cache_ahead(cache);
  bool paused = false;  // an idle pack was passed over: the next search begins at it again
  for (int32_t i = ahead.first; i < ahead.end; ++i) {
    c2ms_pack *const pack = c2ms_cache_slot(cache, i);
    if (c2ms_cache_may_ask(cache, i)) {
      if (!paused) cache->idle_from = i;
      return pack;
    }
    if (pack->state != pack_idle || paused || !c2ms_pack_is_paused(pack)) continue;
    cache->idle_from = i;
    paused = true;
  }
  if (!paused) cache->idle_from = std::max(ahead.end, cache->wanted_from);
  return nullptr;
}

namespace {

// Places the range so that it holds `target`'s pack. The first pack that was not in the range
// before, or INT32_MAX when it has not moved.
int32_t place_range(c2ms_cache *cache, uint64_t target) REQUIRES(cache->lock) {
  const int32_t packnum = cache->packnum;
  const int32_t old_first = cache->first_index;
  if (old_first < cache->read_index && old_first == cache->max_first) return INT32_MAX;
  const int64_t old_end = int64_t{old_first} + packnum;
  const auto index = static_cast<int32_t>(target / static_cast<uint64_t>(cache->packsize.load()));
  const int32_t back = std::max(index - cache->reserve, 0);
  int32_t new_first = back;
  if (index < old_first || index >= old_end) {
    const bool runs_out_ahead = index >= old_end && back < old_end;
    if (!runs_out_ahead) new_first = index;
  } else if (index - old_first <= cache->reserve) {
    return INT32_MAX;
  }
  new_first = std::min(new_first, cache->max_first);
  // Packs that were in the range keep their data; only the slots that it enters are reset.
  int32_t reset_from = new_first;
  auto reset_to = static_cast<int32_t>(std::min<int64_t>(int64_t{new_first} + packnum, INT32_MAX));
  if (new_first >= old_first && new_first < old_end) reset_from = static_cast<int32_t>(old_end);
  if (new_first < old_first) reset_to = std::min(reset_to, old_first);
  for (int32_t i = reset_from; i < reset_to; ++i)
    c2ms_cache_turn_over(cache, c2ms_cache_slot(cache, i), i);
  cache->first_index = new_first;
  return reset_from < reset_to ? reset_from : INT32_MAX;
}

uint64_t distance(uint64_t a, uint64_t b) {
  return a < b ? b - a : a - b;
}

// The second place still counts: it is at most half a ring away.
bool has_other(const c2ms_cache *cache, uint64_t pos) REQUIRES(cache->lock) {
  return cache->other_pos != c2ms::no_place &&
         distance(cache->other_pos, pos) <= static_cast<uint64_t>(cache->used_size / 2);
}

// What the range follows: the lower of two places. One that is left too far behind is given up.
uint64_t followed(c2ms_cache *cache, uint64_t pos) REQUIRES(cache->lock) {
  if (cache->other_pos == c2ms::no_place) return pos;
  if (!has_other(cache, pos)) cache->other_pos = c2ms::no_place;
  return std::min(pos, cache->other_pos);
}

bool move_to(c2ms_cache *cache, uint64_t pos, const c2ms_window &window) REQUIRES(cache->lock) {
  if (cache->packnum < 1) return false;
  pos = std::min(pos, cache->media_size);
  cache->read_pos = pos;
  cache->read_index = static_cast<int32_t>(pos / static_cast<uint64_t>(cache->packsize.load()));
  const bool elsewhere = window.moves_range && window.has(pos);
  const uint64_t target = elsewhere ? window.target : followed(cache, pos);
  const int32_t new_from = place_range(cache, target);
  c2ms::trace_move(cache);
  const auto wanted = static_cast<int32_t>(target / static_cast<uint64_t>(cache->packsize.load()));
  const int32_t wanted_from = elsewhere ? cache->first_index.load() : wanted;
  const bool goes_back = wanted_from < cache->wanted_from;
  cache->wanted_from = wanted_from;
  if (goes_back) cache->idle_from = std::min(cache->idle_from, wanted_from);
  cache->idle_from = std::min(cache->idle_from, new_from);
  return goes_back || new_from != INT32_MAX;
}

}  // namespace

bool c2ms_cache_seek_to(c2ms_cache *cache, uint64_t pos) {
  return move_to(cache, pos, c2ms_cache_window(cache));
}

bool c2ms_cache_seek_exactly(c2ms_cache *cache, uint64_t pos) {
  return move_to(cache, pos, {});
}

void c2ms_cache_take_place(c2ms_cache *cache, uint64_t pos) REQUIRES(cache->lock) {
  const auto near = static_cast<uint64_t>(cache->packsize.load());
  if (distance(pos, cache->read_pos) <= near) return;
  const bool two = has_other(cache, cache->read_pos);
  const bool goes_on = two && distance(pos, cache->other_pos) <= near;
  // With blocks of two streams in turn, who jumps is the lower one: it has come to the end of its
  // block and passes over the other's, where the other stands.
  const bool other_jumps = two && cache->other_pos < cache->read_pos;
  if (!two) cache->sought_at_us = c2ms::now_us();
  if (!two || goes_on || other_jumps) cache->other_pos = cache->read_pos;
}

c2ms_place c2ms_cache_here(c2ms_cache *cache) {
  const adif::Guard lock(cache->lock);
  return {cache->read_pos, cache->seek_count};
}

void c2ms_cache_window_changed(c2ms_cache *cache) {
  c2ms_cache_seek_to(cache, cache->read_pos);
  cache->idle_from = cache->wanted_from;  // packs that were passed over may be wanted now
}

void c2ms_cache_note_idle(c2ms_cache *cache, int32_t index) {
  const adif::Guard lock(cache->lock);
  cache->idle_from = std::min(cache->idle_from, index);
}
