// The player's data calls: each counts itself into the session, takes the read gate where it must
// and goes to the cache. Described in c2ms.h.
#include <algorithm>
#include <cstring>

#include "adif/strutil.h"
#include "c2ms.h"
#include "c2ms/core/call.h"
#include "c2ms/core/context.h"
#include "c2ms/core/records.h"
#include "c2ms/core/time.h"
#include "c2ms/core/wake.h"
#include "c2ms/fetch/dispatch.h"
#include "c2ms/fetch/queue.h"
#include "c2ms/fetch/seek.h"
#include "c2ms/player/gate.h"
#include "c2ms/player/reader.h"
#include "c2ms/ring/cache.h"
#include "c2ms/ring/range.h"
#include "c2ms/ring/window.h"

namespace {

using namespace c2ms;

void hex_text(const uint8_t *id, char *out) {
  if (out == nullptr) return;
  bin_to_ascii(id, 16, out, nullptr);
  out[32] = '\0';
}

int select_file(c2ms_sess *sess, const uint8_t *fid, uint64_t base_offset, uint64_t size) {
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
  return result;
}

int32_t usable_buffer_size(int32_t free_bytes, int32_t pack_size) {
  return free_bytes / pack_size * pack_size;
}

constexpr int no_memory_for_packs = -5;  // as c2ms_cache_setbuf

int set_up_cache(c2ms_sess *sess, int32_t pack_size) {
  const GateGuard gate(sess, no_limit, sess->cache.load());
  // The old buffer goes back before the free size is taken.
  c2ms_cache_clean(sess->cache.load());
  if (sess->cache_buf != nullptr) c2ms_mem_free(sess->mgmt, sess->cache_buf);
  {
    const adif::Guard lock(sess->mgmt->cut_lock);
    sess->cache_buf_size = usable_buffer_size(c2ms_mem_avail(sess->mgmt), pack_size);
    sess->cache_buf = c2ms_mem_alloc(sess->mgmt, sess->cache_buf_size);
  }
  c2ms_cache *cache = sess->cache.load();
  if (cache == nullptr) {
    cache = c2ms_cache_init(sess);
    if (cache == nullptr) return no_memory_for_packs;
    sess->cache = cache;
  }
  const int result = c2ms_cache_setbuf(cache, static_cast<uint8_t *>(sess->cache_buf),
                                       sess->cache_buf_size, pack_size);
  const double capacity =
      static_cast<double>(c2ms_cache_packnum(cache)) * c2ms_cache_packsize(cache);
  sess->cache_limit = static_cast<uint64_t>(capacity * 0.9);
  return result;
}

// Serves a call from the index in memory: bytes delivered, or 0 when it is the cache's. A read ends
// at the window's end; a receive (whole) that would leave the window is the cache's.
int32_t read_index(c2ms_sess *sess, c2ms_cache *cache, const c2ms_place &from, void *buf,
                   int32_t len, bool whole) {
  if (sess->idx_mem == 0 || len < 1) return 0;
  c2ms_window window;
  {
    const adif::Guard lock(cache->lock);
    window = c2ms_cache_window(cache);
  }
  if (!window.has(from.pos)) return 0;
  const uint64_t left = window.end - from.pos;
  if (whole && static_cast<uint64_t>(len) > left) return 0;
  const auto count = static_cast<int32_t>(std::min<uint64_t>(static_cast<uint64_t>(len), left));
  if (buf != nullptr) {
    std::memcpy(buf, sess->idx_buf + window.in_index + (from.pos - window.begin),
                static_cast<size_t>(count));
  }
  // Not by a seek, which stops at the last byte: the end of the media must be reached.
  c2ms_cache_advance(cache, from.pos + static_cast<uint64_t>(count), from.seek_count);
  return count;
}

int count_delivered(c2ms_sess *sess, int result) {
  if (result > 0)
    sess->delivered.fetch_add(static_cast<uint64_t>(result), std::memory_order_relaxed);
  return result;
}

// A receive at the read position, or at another one (then a short count at the index's end is
// fine).
int receive(c2ms_sess *sess, const uint64_t *pos, void *buf, int32_t len, int32_t timeout_ms) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return C2MS_CLOSED;
  c2ms_cache *const cache = sess->cache.load();
  if (cache == nullptr) return -2;
  const auto deadline = steady::now() + std::chrono::milliseconds(std::max(timeout_ms, 0));
  const GateGuard gate(sess, deadline);
  if (gate.cancelled()) return C2MS_CLOSED;
  if (!gate) return 0;
  if (const int32_t refusal = sess->refusal.load(); refusal != 0) return refusal;
  c2ms_place from;
  if (pos == nullptr) {
    from = c2ms_cache_here(cache);
  } else {
    if (c2ms_cache_packnum(cache) < 1) return -201;
    const int placed = c2ms_cache_place(cache, *pos, &from);
    if (placed != 0) return placed;
    dispatch_if_due(sess);  // idle nodes begin before this thread sleeps
  }
  const bool whole = pos == nullptr;
  if (const int32_t n = read_index(sess, cache, from, buf, len, whole); n > 0) {
    dispatch_if_due(sess);
    return count_delivered(sess, n);
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady::now());
  const auto left_ms = static_cast<int32_t>(std::max<int64_t>(left.count(), 0));
  return count_delivered(sess, c2ms_cache_recv_at(cache, from, buf, len, left_ms));
}

bool divides(int32_t pack_size, uint64_t size) {
  return size != 0 && size % static_cast<uint64_t>(pack_size) == 0;
}

}  // namespace

bool c2ms::enter_gate(c2ms_sess *sess, steady::time_point deadline,
                      c2ms_cache *interrupted) NO_THREAD_SAFETY_ANALYSIS {
  if (interrupted == nullptr) return sess->read_gate.enter_until(deadline);
  // For as long as it takes: a reader that comes in between must give way as well.
  interrupted->gate_seekers.fetch_add(1);
  c2ms_cache_wake(interrupted);
  const bool entered = sess->read_gate.enter_until(deadline);
  interrupted->gate_seekers.fetch_sub(1);
  return entered;
}

int c2ms_sess_cache_init(c2ms_sess *sess, int32_t pack_size) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return C2MS_CLOSED;
  if (sess->mgmt == nullptr) return -2;
  const int result = set_up_cache(sess, std::max(pack_size, min_pack_bytes));
  c2ms_sess_unit_purge(sess);
  return result;
}

int c2ms_sess_attr(c2ms_sess *sess, char *fid_text, char *name, uint64_t *size, uint8_t *type) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return C2MS_CLOSED;
  hex_text(sess->fid, fid_text);
  if (name != nullptr) std::memcpy(name, sess->media_name, sizeof sess->media_name);
  if (size != nullptr) *size = sess->media_size;
  if (type != nullptr) *type = sess->media_type;
  return 0;
}

int c2ms_sess_idxfile(c2ms_sess *sess, char *idx_text, uint32_t *len) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return C2MS_CLOSED;
  hex_text(sess->idx_fid, idx_text);
  if (len != nullptr) *len = sess->idx_len;
  return sess->idx_len != 0 ? 1 : 0;
}

int32_t c2ms_sess_pack_size(c2ms_sess *sess, int32_t wanted) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return C2MS_CLOSED;
  constexpr int32_t step = min_pack_bytes;
  if (wanted < 1) wanted = chosen_pack_bytes;
  constexpr int32_t largest = INT32_MAX / step * step;
  // Multiples of the step above a file's size divide it no more, so the search is short; only files
  // that are multiples of many page counts need a look beyond a few steps.
  int64_t size =
      std::max<int64_t>((int64_t{std::max(wanted, step)} + step - 1) / step * step, step);
  for (; size <= largest; size += step) {
    const auto candidate = static_cast<int32_t>(size);
    if (!divides(candidate, sess->media_size) && !divides(candidate, sess->idx_len))
      return candidate;
  }
  // No multiple of the step serves: any odd size near the wanted one that does.
  int32_t odd = std::max(wanted, step) | 1;
  while (divides(odd, sess->media_size) || divides(odd, sess->idx_len)) odd -= 2;
  return odd;
}

int c2ms_sess_set_media(c2ms_sess *sess, int which, uint64_t base_offset, uint64_t size) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return C2MS_CLOSED;
  if (which == 0) return select_file(sess, sess->fid, base_offset, size);
  if (sess->idx_len == 0) return -100;
  return select_file(sess, sess->idx_fid, base_offset, size);
}

int c2ms_sess_range(c2ms_sess *sess, uint64_t base_offset, uint64_t size) {
  return c2ms_sess_set_media(sess, 0, base_offset, size);
}

int c2ms_sess_seek(c2ms_sess *sess, uint64_t pos) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return C2MS_CLOSED;
  c2ms_cache *const cache = sess->cache.load();
  if (cache == nullptr) return -2;
  sess->seek_num.fetch_add(1);
  const int result = c2ms_cache_seek(cache, pos);
  dispatch_if_due(sess);
  return result;
}

int c2ms_sess_read(c2ms_sess *sess, void *buf, int32_t len, int32_t nonblock) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return C2MS_CLOSED;
  c2ms_cache *const cache = sess->cache.load();
  if (cache == nullptr) return -2;
  const GateGuard gate(sess, nonblock != 0 ? one_try : no_limit);
  if (gate.cancelled()) return C2MS_CLOSED;
  if (!gate) return 0;
  if (const int32_t refusal = sess->refusal.load(); refusal != 0) return refusal;
  if (const int32_t n = read_index(sess, cache, c2ms_cache_here(cache), buf, len, false); n > 0)
    return count_delivered(sess, n);
  return count_delivered(sess, c2ms_cache_read(cache, buf, len, nonblock));
}

int c2ms_sess_recv(c2ms_sess *sess, void *buf, int32_t len, int32_t timeout_ms) {
  return receive(sess, nullptr, buf, len, timeout_ms);
}

int c2ms_sess_read_at(c2ms_sess *sess, uint64_t pos, void *buf, int32_t len, int32_t timeout_ms) {
  return receive(sess, &pos, buf, len, timeout_ms);
}

int c2ms_sess_cancel(c2ms_sess *sess, int on) {
  if (sess == nullptr) return -1;
  // Not a CallGuard: what that delivers may block.
  const CallCount count(sess);
  if (!is_live(sess)) return C2MS_CLOSED;
  // Switching on counts, so that a call that waits ends also when it is off again before it looks.
  uint32_t word = sess->cancel.load();
  uint32_t wanted;
  do {
    if (((word & 1) != 0) == (on != 0)) return 0;
    wanted = on != 0 ? word + 3 : word - 1;
  } while (!sess->cancel.compare_exchange_weak(word, wanted));
  if (on != 0) c2ms_cache_wake(sess->cache.load());
  return 0;
}

int c2ms_sess_buffering(c2ms_sess *sess, int32_t bytes) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return C2MS_CLOSED;
  c2ms_cache *const cache = sess->cache.load();
  return cache == nullptr ? -2 : c2ms_cache_buffering_size(cache, bytes);
}

int c2ms_sess_bufratio(c2ms_sess *sess, int32_t *ratio) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return C2MS_CLOSED;
  c2ms_cache *const cache = sess->cache.load();
  if (cache == nullptr) return -2;
  if (ratio == nullptr) return -3;
  const int result = c2ms_cache_buffering_ratio(cache, ratio);
  if (result < 0) return result;
  const int64_t bears_us = sess->mgmt->patience.ratio_stalled_us;
  const bool stalled = sess->has_active == 0 && now_us() - sess->active_at_us > bears_us;
  return stalled ? -400 : 0;
}
