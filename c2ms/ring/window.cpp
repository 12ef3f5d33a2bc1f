// See window.h.
#include "c2ms/ring/window.h"

#include <algorithm>
#include <cstring>

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

bool c2ms_cache_in_window(const c2ms_cache *cache, const c2ms_window &window, int32_t index) {
  const auto packsize = static_cast<uint64_t>(cache->packsize.load());
  const uint64_t from = static_cast<uint64_t>(index) * packsize;
  return window.holds(from, std::min(from + packsize, cache->media_size));
}
