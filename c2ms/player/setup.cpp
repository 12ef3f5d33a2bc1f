// See setup.h; the calls are described in c2ms.h.
#include "c2ms/player/setup.h"

#include <algorithm>

#include "c2ms.h"
#include "c2ms/fetch/dispatch.h"
#include "c2ms/fetch/queue.h"
#include "c2ms/fetch/seek.h"
#include "c2ms/player/gate.h"
#include "c2ms/player/ready.h"
#include "c2ms/ring/cache.h"
#include "c2ms/ring/memory.h"
#include "c2ms/ring/resize.h"

namespace {

using namespace c2ms;

constexpr int no_memory_for_packs = -5;  // as c2ms_cache_setbuf
constexpr int32_t fewest_packs = 16;     // of a cache that is resized
constexpr uint32_t most_weight = 1000;

bool divides(int32_t pack_size, uint64_t size) {
  return size != 0 && size % static_cast<uint64_t>(pack_size) == 0;
}

// The first blocks of the session's memory become the ring, then one after the other is added.
int lay_out(c2ms_sess *sess, c2ms_cache *cache, int32_t pack_size) {
  const cache_block *const blocks = sess->cache_block;
  const cache_block first = sess->cache_blocks > 0 ? blocks[0] : cache_block{};
  int result = c2ms_cache_setbuf(cache, first.at, first.bytes, pack_size);
  for (int32_t i = 1; i < sess->cache_blocks && result == 0; ++i)
    result = c2ms_cache_extend(cache, blocks[i].at, blocks[i].bytes);
  return result;
}

// Speeds are judged by nine tenths of the cache.
void note_limit(c2ms_sess *sess, c2ms_cache *cache) {
  const double capacity =
      static_cast<double>(c2ms_cache_packnum(cache)) * c2ms_cache_packsize(cache);
  sess->cache_limit = static_cast<uint64_t>(capacity * 0.9);
}

// A cache of these many bytes, of whole packs.
int resize(c2ms_sess *sess, c2ms_cache *cache, int64_t bytes) {
  const int64_t have = memory_of(sess);
  if (bytes < have) {
    const int result =
        c2ms_cache_reduce(cache, static_cast<int32_t>(bytes / c2ms_cache_packsize(cache)));
    if (result == 0) keep_memory(sess, bytes);
    return result;
  }
  const int32_t blocks = sess->cache_blocks;
  if (!take_memory(sess, bytes - have, c2ms_cache_packsize(cache))) return C2MS_NO_CACHE_MEMORY;
  for (int32_t i = blocks; i < sess->cache_blocks; ++i) {
    const int result =
        c2ms_cache_extend(cache, sess->cache_block[i].at, sess->cache_block[i].bytes);
    if (result == 0) continue;
    c2ms_cache_reduce(cache, static_cast<int32_t>(have / c2ms_cache_packsize(cache)));
    keep_memory(sess, have);
    return result;
  }
  return 0;
}

}  // namespace

int c2ms::select_file(c2ms_sess *sess, const uint8_t *fid, uint64_t base_offset, uint64_t size) {
  c2ms_cache *const cache = sess->cache.load();
  if (cache == nullptr) return -2;
  int result;
  {
    const GateGuard gate(sess, no_limit, cache);
    result = c2ms_cache_setfile(cache, fid, base_offset, size, 0);
  }
  c2ms_sess_unit_purge(sess);
  c2ms_cache_download_all(cache);
  dispatch_if_due(sess);
  refresh_ready_soon(sess);
  return result;
}

int c2ms::set_up_cache(c2ms_sess *sess, uint64_t bytes, int32_t pack_size) {
  const GateGuard gate(sess, no_limit, sess->cache.load());
  // The old memory goes back before what is free is looked at.
  c2ms_cache_clean(sess->cache.load());
  keep_memory(sess, 0);
  if (bytes == 0) {
    take_all_memory(sess, pack_size);
  } else {
    const auto wanted = static_cast<int64_t>(std::min<uint64_t>(bytes, INT32_MAX));
    if (!take_memory(sess, wanted / pack_size * pack_size, pack_size)) return C2MS_NO_CACHE_MEMORY;
  }
  c2ms_cache *cache = sess->cache.load();
  if (cache == nullptr) {
    cache = c2ms_cache_init(sess);
    if (cache == nullptr) return no_memory_for_packs;
    sess->cache = cache;
  }
  const int result = lay_out(sess, cache, pack_size);
  note_limit(sess, cache);
  return result;
}

int32_t c2ms::suitable_pack_size(const c2ms_sess *sess, uint64_t range_size, int32_t wanted) {
  constexpr int32_t step = min_pack_bytes;
  if (wanted < 1) wanted = chosen_pack_bytes;
  constexpr int32_t largest = INT32_MAX / step * step;
  const auto unsuitable = [&](int32_t size) {
    return divides(size, range_size) || divides(size, sess->idx_len);
  };
  // Multiples of the step above a file's size divide it no more, so the search is short; only files
  // that are multiples of many page counts need a look beyond a few steps.
  int64_t size =
      std::max<int64_t>((int64_t{std::max(wanted, step)} + step - 1) / step * step, step);
  for (; size <= largest; size += step) {
    if (!unsuitable(static_cast<int32_t>(size))) return static_cast<int32_t>(size);
  }
  // No multiple of the step serves: any odd size near the wanted one that does.
  int32_t odd = std::max(wanted, step) | 1;
  while (unsuitable(odd)) odd -= 2;
  return odd;
}

int c2ms_sess_cache_init(c2ms_sess *sess, int32_t pack_size) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  if (sess->mgmt == nullptr) return -2;
  const int result = set_up_cache(sess, 0, std::max(pack_size, min_pack_bytes));
  c2ms_sess_unit_purge(sess);
  refresh_ready_soon(sess);
  return result;
}

int c2ms_sess_resize(c2ms_sess *sess, uint64_t bytes) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  c2ms_cache *const cache = sess->cache.load();
  if (cache == nullptr) return C2MS_NO_CACHE;
  int result;
  {
    const GateGuard gate(sess, no_limit, cache);
    if (c2ms_cache_packnum(cache) < 1) return C2MS_NO_CACHE;
    const int64_t pack_size = c2ms_cache_packsize(cache);
    const auto most = static_cast<int64_t>(std::min<uint64_t>(bytes, INT32_MAX));
    result = resize(sess, cache, std::max<int64_t>(most / pack_size, fewest_packs) * pack_size);
    note_limit(sess, cache);
  }
  c2ms_cache_download_all(cache);
  dispatch_if_due(sess);
  refresh_ready_soon(sess);
  return result == no_memory_for_packs ? C2MS_NO_MEMORY : result;
}

int c2ms_sess_weight(c2ms_sess *sess, uint32_t weight) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  if (weight < 1 || weight > most_weight) return C2MS_INVALID_PARAMETER;
  sess->weight = weight;
  mark_dispatch_due(sess);
  dispatch_if_due(sess);
  return 0;
}

int32_t c2ms_sess_pack_size(c2ms_sess *sess, int32_t wanted) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  return suitable_pack_size(sess, sess->media_size, wanted);
}

int c2ms_sess_set_media(c2ms_sess *sess, int which, uint64_t base_offset, uint64_t size) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  if (which == 0) return select_file(sess, sess->fid, base_offset, size);
  if (sess->idx_len == 0) return -100;
  return select_file(sess, sess->idx_fid, base_offset, size);
}

int c2ms_sess_range(c2ms_sess *sess, uint64_t base_offset, uint64_t size) {
  return c2ms_sess_set_media(sess, 0, base_offset, size);
}
