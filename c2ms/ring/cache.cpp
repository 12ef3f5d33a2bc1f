// See cache.h.
#include "c2ms/ring/cache.h"

#include <algorithm>
#include <cstring>

#include "c2ms/core/recorder.h"
#include "c2ms/ring/ends.h"
#include "c2ms/ring/pack.h"
#include "c2ms/ring/window.h"

namespace {

void give_back_packs(c2ms_cache *cache) REQUIRES(cache->lock) {
  cache->generation.fetch_add(1);
  cache->packnum = 0;
  c2ms_cache_forget_ends(cache);
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
  cache->sought_at_us = 0;
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
  c2ms_cache_forget_ends(cache);
  cache->use = use;
  // Units of the former file lose their packs here, and would not pass the generation either.
  cache->generation.fetch_add(1);
  cache->seek_count.fetch_add(1);
  for (int32_t slot = 0; slot < packnum; ++slot)
    c2ms_pack_exit_download(c2ms_cache_slot(cache, slot), slot);
  c2ms::trace_place(cache);
  return 0;
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
    if (c2ms_cache_in_window(cache, window, i)) {
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
