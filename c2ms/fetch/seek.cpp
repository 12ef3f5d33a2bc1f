// See seek.h.
#include "c2ms/fetch/seek.h"

#include <algorithm>

#include "c2ms/core/recorder.h"
#include "c2ms/core/strand_hold.h"
#include "c2ms/core/time.h"
#include "c2ms/core/wake.h"
#include "c2ms/fetch/queue.h"
#include "c2ms/ring/range.h"

int c2ms_cache_seek(c2ms_cache *cache, uint64_t pos, c2ms::cache_use use) {
  if (cache == nullptr) return -1;
  {
    const adif::Guard lock(cache->lock);
    if (cache->media_size == 0 || cache->use != use) return 0;
    pos = std::min(pos, cache->media_size - 1);
    if (pos == cache->read_pos) return 0;
    cache->seek_count.fetch_add(1);
    cache->sought_at_us = c2ms::now_us();
    cache->other_pos = c2ms::no_place;
    c2ms_cache_seek_to(cache, pos);
    c2ms::trace_seek(cache);
  }
  c2ms_cache_wake(cache);
  c2ms_sess_unit_purge(cache->session);
  c2ms_cache_download_all(cache);
  return 0;
}

int c2ms_cache_place(c2ms_cache *cache, uint64_t pos, c2ms_place *out) {
  bool moved = false;
  {
    const adif::Guard lock(cache->lock);
    if (pos >= cache->media_size) return -200;
    if (pos != cache->read_pos) {
      c2ms_cache_take_place(cache, pos);
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

int c2ms_pack_redownload(c2ms_pack *pack) {
  if (pack == nullptr) return -1;
  c2ms_cache *cache;
  int32_t index;
  {
    const adif::Guard lock(pack->lock);
    cache = pack->cache;
    index = pack->index;
  }
  if (cache == nullptr) return 0;
  c2ms_unit *const unit = c2ms_sess_unit_issue_again(cache->session, index, 1);
  return unit == nullptr ? 0 : c2ms_sess_unit_put(cache->session, unit);
}
