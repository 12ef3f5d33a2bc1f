#include "c2ms/ring/cache.h"

#include <algorithm>
#include <cstring>

#include "c2ms/ring/pack.h"
#include "c2ms/fetch/queue.h"
#include "c2ms/player/stats.h"
#include "c2ms/core/time.h"
#include "c2ms/core/recorder.h"

namespace {

// A pack that need never be fetched: the index in memory holds all of it.
bool in_window(const c2ms_cache *cache, const c2ms_window &window, int32_t index) {
  const auto packsize = static_cast<uint64_t>(cache->packsize.load());
  const uint64_t from = static_cast<uint64_t>(index) * packsize;
  return window.holds(from, std::min(from + packsize, cache->media_size));
}

void give_back_packs(c2ms_cache *cache) REQUIRES(cache->lock) {
  cache->generation.fetch_add(1);
  cache->packnum = 0;
  while (auto *pack = static_cast<c2ms_pack *>(sk_pop(cache->packs))) {
    c2ms_pack_exit_download(pack, -1);
    c2ms_pack_recycle(cache->session->mgmt, pack);
  }
}

void go_to_start(c2ms_cache *cache) REQUIRES(cache->lock) {
  cache->read_index = 0;
  cache->read_pos = 0;
  cache->other_pos = c2ms::no_place;
  cache->first_index = 0;
  cache->wanted_from = 0;
  cache->idle_from = 0;
  cache->sought_us = 0;
}

// The lead that a player wants; no more than the ring can hold ahead. Without a ring it is kept as
// it is until there is one.
void set_lead(c2ms_cache *cache, int32_t bytes) REQUIRES(cache->lock) {
  const int64_t packsize = cache->packsize;
  const int32_t most = cache->packnum - cache->reserve;
  cache->buffering_size = bytes;
  cache->buffering_packs = static_cast<int32_t>((bytes + packsize - 1) / packsize);
  if (cache->packnum > 0 && cache->buffering_packs > most) {
    cache->buffering_packs = most;
    cache->buffering_size = static_cast<int32_t>(packsize * most);
  }
}

}  // namespace

c2ms_cache *c2ms_cache_init(c2ms_sess *session) {
  if (session == nullptr) return nullptr;
  c2ms_cache *const cache = &session->cache_record;
  const adif::Guard lock(cache->lock);
  if (cache->packs == nullptr) cache->packs = sk_new(nullptr);
  if (cache->event == nullptr) cache->event = CreateEvent();
  if (cache->packs == nullptr || cache->event == nullptr) return nullptr;
  std::memcpy(cache->fid, session->fid, sizeof cache->fid);
  cache->base_offset = 0;
  cache->media_size = 0;
  cache->range_flag = 0;
  cache->packsize = c2ms::default_pack_bytes;
  cache->total_packs = 0;
  cache->first_index = 0;
  cache->max_first = 0;
  cache->read_index = 0;
  cache->read_pos = 0;
  cache->other_pos = c2ms::no_place;
  cache->wanted_from = 0;
  cache->use = c2ms::cache_use::play;
  cache->buffering_size = 0;
  cache->buffering_packs = 0;
  cache->read_calls = 0;
  cache->short_reads = 0;
  cache->session_id = session->sess_id;
  cache->session = session;
  return cache;
}

int c2ms_cache_clean(c2ms_cache *cache) {
  if (cache == nullptr) return -1;
  const adif::Guard lock(cache->lock);
  give_back_packs(cache);
  cache->media_size = 0;
  cache->total_packs = 0;
  cache->max_first = 0;
  go_to_start(cache);
  cache->buffer = nullptr;
  cache->buffer_size = 0;
  return 0;
}

int c2ms_cache_setbuf(c2ms_cache *cache, uint8_t *buffer, int32_t size, int32_t packsize) {
  if (cache == nullptr) return -1;
  if (buffer == nullptr) return -2;
  if (size < 1) return -3;
  if (packsize < 1) packsize = c2ms::default_pack_bytes;
  if (size < packsize) return -4;
  const adif::Guard lock(cache->lock);
  give_back_packs(cache);
  cache->buffer = buffer;
  cache->buffer_size = size;
  cache->packsize = packsize;
  const int32_t packnum = size / packsize;
  cache->used_size = packsize * packnum;
  cache->reserve = packnum / 8;
  // Nothing is asked for until a file is selected.
  cache->total_packs = 0;
  cache->media_size = 0;
  for (int32_t slot = 0; slot < packnum; ++slot) {
    uint8_t *const at = buffer + static_cast<ptrdiff_t>(slot) * packsize;
    c2ms_pack *const pack = c2ms_pack_fetch(cache, slot, at, packsize);
    if (pack == nullptr) return -5;
    if (sk_push(cache->packs, pack) < 1) {
      c2ms_pack_recycle(cache->session->mgmt, pack);
      return -5;
    }
  }
  cache->packnum = packnum;
  set_lead(cache, cache->buffering_size);
  return 0;
}

int c2ms_cache_setfile(c2ms_cache *cache, const uint8_t *fid, uint64_t base_offset,
                       uint64_t media_size, uint8_t flag, c2ms::cache_use use) {
  if (cache == nullptr) return -1;
  const adif::Guard lock(cache->lock);
  const int32_t packnum = cache->packnum;
  if (packnum < 1) return -201;
  const auto packsize = static_cast<uint64_t>(cache->packsize.load());
  const uint64_t total = media_size / packsize + (media_size % packsize != 0 ? 1 : 0);
  if (total > INT32_MAX || base_offset > UINT64_MAX - media_size) return -202;
  std::memcpy(cache->fid, fid, 16);
  cache->base_offset = base_offset;
  cache->media_size = media_size;
  cache->range_flag = flag;
  cache->total_packs = static_cast<int32_t>(total);
  cache->last_pack_len = static_cast<int32_t>(media_size % packsize);
  cache->max_first = std::max(static_cast<int32_t>(total) - packnum, 0);
  go_to_start(cache);
  cache->use = use;
  // Units of the former file lose their packs here, and would not pass the generation either.
  cache->generation.fetch_add(1);
  cache->seek_count.fetch_add(1);
  for (int32_t slot = 0; slot < packnum; ++slot)
    c2ms_pack_exit_download(c2ms_cache_slot(cache, slot), slot);
  c2ms::trace_place(cache);
  return 0;
}

c2ms_window c2ms_cache_window(c2ms_cache *cache) {
  c2ms_window window{};
  const c2ms_sess *const sess = cache->session;
  if (sess->idx_mem == 0 || std::memcmp(cache->fid, sess->fid, 16) != 0) return window;
  const uint64_t base = cache->base_offset;
  const uint64_t index_begin = sess->idx_offset;
  const uint64_t index_end = index_begin + std::min<uint64_t>(sess->idx_box_len, sess->idx_buf_len);
  const uint64_t begin = std::max(index_begin, base);
  const uint64_t end = std::min(index_end, base + cache->media_size);
  if (begin >= end) return window;
  window.begin = begin - base;
  window.end = end - base;
  window.in_index = begin - index_begin;
  window.target = sess->moov_at_end == 1 ? 0 : window.end;
  window.moves_range = index_begin != 0 && sess->moov_at_end <= 1;
  return window;
}

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
         !in_window(cache, c2ms_cache_window(cache), index);
}

int64_t c2ms_cache_lead(c2ms_cache *cache) {
  if (cache->packnum < 1) return 0;
  const auto packsize = static_cast<uint64_t>(cache->packsize.load());
  const c2ms_window window = c2ms_cache_window(cache);
  const int64_t range_end = int64_t{cache->first_index} + cache->packnum;
  const auto end = static_cast<int32_t>(std::min<int64_t>(range_end, cache->total_packs));
  int32_t i = cache->read_index;
  if (i < cache->first_index) return 0;
  while (i < end && (c2ms_cache_slot(cache, i)->state == pack_ready || in_window(cache, window, i)))
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

int c2ms_cache_download_pack(c2ms_cache *cache, c2ms_pack *pack) {
  if (cache == nullptr) return -1;
  if (pack == nullptr) return -2;
  int32_t index;
  {
    const adif::Guard lock(pack->lock);
    index = pack->index;
  }
  c2ms_unit *const unit = c2ms_sess_unit_issue(cache->session, index, 1);
  return unit == nullptr ? -100 : c2ms_sess_unit_put(cache->session, unit);
}

int c2ms_cache_download_all(c2ms_cache *cache) {
  if (cache == nullptr || cache->session == nullptr) return 0;
  if (c2ms_cache_get_idle_pack(cache) == nullptr) return 0;
  c2ms::mark_dispatch_due(cache->session);
  return 1;
}

int c2ms_cache_seek(c2ms_cache *cache, uint64_t pos, c2ms::cache_use use) {
  if (cache == nullptr) return -1;
  {
    const adif::Guard lock(cache->lock);
    if (cache->media_size == 0 || cache->use != use) return 0;
    pos = std::min(pos, cache->media_size - 1);
    if (pos == cache->read_pos) return 0;
    cache->seek_count.fetch_add(1);
    cache->sought_us = c2ms::now_us();
    cache->other_pos = c2ms::no_place;
    c2ms_cache_seek_to(cache, pos);
    c2ms::trace_seek(cache);
  }
  c2ms_cache_wake(cache);
  c2ms_sess_unit_purge(cache->session);
  c2ms_cache_download_all(cache);
  return 0;
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
    c2ms_pack_exit_download(c2ms_cache_slot(cache, i), i);
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

namespace {

// Whose read begins at `pos`: it goes on at one of the two places, or somebody has jumped.
void take_place(c2ms_cache *cache, uint64_t pos) REQUIRES(cache->lock) {
  const auto near = static_cast<uint64_t>(cache->packsize.load());
  if (distance(pos, cache->read_pos) <= near) return;
  const bool two = has_other(cache, cache->read_pos);
  const bool goes_on = two && distance(pos, cache->other_pos) <= near;
  // With blocks of two streams in turn, who jumps is the lower one: it has come to the end of its
  // block and passes over the other's, where the other stands.
  const bool other_jumps = two && cache->other_pos < cache->read_pos;
  if (!two || goes_on || other_jumps) cache->other_pos = cache->read_pos;
}

}  // namespace

c2ms_place c2ms_cache_here(c2ms_cache *cache) {
  const adif::Guard lock(cache->lock);
  return {cache->read_pos, cache->seek_count};
}

int c2ms_cache_place(c2ms_cache *cache, uint64_t pos, c2ms_place *out) {
  bool moved = false;
  {
    const adif::Guard lock(cache->lock);
    if (pos >= cache->media_size) return -200;
    if (pos != cache->read_pos) {
      take_place(cache, pos);
      cache->seek_count.fetch_add(1);
      moved = c2ms_cache_seek_to(cache, pos);
    }
    *out = {pos, cache->seek_count};
  }
  if (!moved) return 0;
  c2ms_sess_unit_purge(cache->session);
  c2ms_cache_download_all(cache);
  return 0;
}

void c2ms_cache_window_changed(c2ms_cache *cache) {
  c2ms_cache_seek_to(cache, cache->read_pos);
  cache->idle_from = cache->wanted_from;  // packs that were passed over may be wanted now
}

int c2ms_cache_buffering_size(c2ms_cache *cache, int32_t bytes) {
  if (cache == nullptr) return -1;
  const adif::Guard lock(cache->lock);
  bytes = std::max(bytes, 0);
  if (bytes != cache->buffering_size) set_lead(cache, bytes);
  return 0;
}

int c2ms_cache_buffering_ratio(c2ms_cache *cache, int32_t *ratio) {
  if (cache == nullptr) return -1;
  const adif::Guard lock(cache->lock);
  *ratio = 0;
  if (cache->buffering_size < 1) {
    *ratio = 100;
    return 0;
  }
  if (cache->packnum < 1) return 0;  // no ring, nothing buffered
  const c2ms_window window = c2ms_cache_window(cache);
  const int64_t range_end = int64_t{cache->first_index} + cache->packnum;
  int64_t sum = 0;
  int32_t i = cache->wanted_from;
  for (; i < range_end && i < cache->total_packs && sum < cache->buffering_size; ++i) {
    if (in_window(cache, window, i)) {
      if (i >= cache->read_index) sum += cache->packsize;
      continue;
    }
    c2ms_pack *const pack = c2ms_cache_slot(cache, i);
    const adif::Guard pack_lock(pack->lock);
    sum += pack->len;
    if (pack->state != pack_ready || pack->len < pack->size) break;
  }
  if (sum >= cache->buffering_size || i >= cache->total_packs) {
    *ratio = 100;
  } else {
    const double have = static_cast<float>(sum);
    *ratio = static_cast<int32_t>(have * 100.0 / static_cast<float>(cache->buffering_size));
  }
  return 0;
}

uint64_t c2ms_cache_readpos(c2ms_cache *cache) {
  if (cache == nullptr) return 0;
  const adif::Guard lock(cache->lock);
  return cache->read_pos;
}

uint64_t c2ms_cache_offset(c2ms_cache *cache) {
  if (cache == nullptr) return 0;
  const adif::Guard lock(cache->lock);
  return cache->base_offset;
}

int32_t c2ms_cache_packsize(c2ms_cache *cache) {
  return cache == nullptr ? 0 : cache->packsize.load();
}

int32_t c2ms_cache_packnum(c2ms_cache *cache) {
  return cache == nullptr ? 0 : cache->packnum.load();
}

void c2ms_cache_note_idle(c2ms_cache *cache, int32_t index) {
  const adif::Guard lock(cache->lock);
  cache->idle_from = std::min(cache->idle_from, index);
}
