// See share.h.
#include "c2ms/fetch/share.h"

#include <algorithm>
#include <array>

#include "c2ms.h"
#include "c2ms/ring/range.h"

namespace c2ms {

namespace {

constexpr size_t most_looked_at = 32;

struct greater_sessions {
  std::array<c2ms_sess *, most_looked_at> sessions;
  size_t count = 0;
};

// Their records stay readable after we leave the registry (core/records.h).
greater_sessions greater_than(const c2ms_sess *sess) {
  greater_sessions found;
  c2ms_mgmt *const mgmt = sess->mgmt;
  const adif::Guard lock(mgmt->sess_lock);
  for (int i = 0; i < sk_num(mgmt->sessions) && found.count < most_looked_at; ++i) {
    auto *const other = static_cast<c2ms_sess *>(sk_value(mgmt->sessions, i));
    if (other != sess && other->weight > sess->weight) found.sessions[found.count++] = other;
  }
  return found;
}

// Three quarters of what the cache can hold ahead, or the rest of the file.
bool has_enough(c2ms_cache *cache) {
  const adif::Guard lock(cache->lock);
  if (cache->packnum < 1 || cache->media_size == 0) return true;
  const int64_t ahead = int64_t{cache->packnum - cache->reserve} * cache->packsize;
  const auto left = static_cast<int64_t>(cache->media_size - cache->read_pos);
  return c2ms_cache_lead(cache) >= std::min(ahead / 4 * 3, left);
}

// Needs the line and can use it.
bool needs_more(c2ms_sess *sess) {
  if (sess->life.load() != c2ms_life::live) return false;
  if (sess->opened == C2MS_OPENING) return true;
  c2ms_cache *const cache = sess->cache.load();
  return cache != nullptr && sess->has_active != 0 && !has_enough(cache);
}

}  // namespace

standing standing_of(const c2ms_sess *sess) {
  const greater_sessions greater = greater_than(sess);
  const auto end = greater.sessions.begin() + static_cast<ptrdiff_t>(greater.count);
  return {std::any_of(greater.sessions.begin(), end, needs_more), greater.count > 0};
}

}  // namespace c2ms
