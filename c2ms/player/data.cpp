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
#include "c2ms/player/ready.h"
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
  if (!call) return call.refusal();
  c2ms_cache *const cache = sess->cache.load();
  if (cache == nullptr) return -2;
  const auto deadline = steady::now() + std::chrono::milliseconds(std::max(timeout_ms, 0));
  const GateGuard gate(sess, deadline);
  if (gate.cancelled()) return C2MS_CLOSED;
  if (!gate) return 0;
  const ReadyGuard ready(sess);
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

}  // namespace

int c2ms_sess_attr(c2ms_sess *sess, char *fid_text, char *name, uint64_t *size, uint8_t *type) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  hex_text(sess->fid, fid_text);
  if (name != nullptr) std::memcpy(name, sess->media_name, sizeof sess->media_name);
  if (size != nullptr) *size = sess->media_size;
  if (type != nullptr) *type = sess->media_type;
  return 0;
}

const char *c2ms_sess_mime(c2ms_sess *sess) {
  // By type number, as c2ms_sess_attr has them.
  static constexpr const char *types[] = {"application/octet-stream",
                                          "video/x-ms-wmv",
                                          "video/x-msvideo",
                                          "video/x-flv",
                                          "application/vnd.rn-realmedia-vbr",
                                          "application/vnd.rn-realmedia",
                                          "application/octet-stream",
                                          "video/mp4",
                                          "video/mp2t",
                                          "video/x-matroska",
                                          "application/x-7z-compressed"};
  if (sess == nullptr) return types[0];
  const CallGuard call(sess);
  return call && sess->media_type < std::size(types) ? types[sess->media_type] : types[0];
}

int c2ms_sess_idxfile(c2ms_sess *sess, char *idx_text, uint32_t *len) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  hex_text(sess->idx_fid, idx_text);
  if (len != nullptr) *len = sess->idx_len;
  return sess->idx_len != 0 ? 1 : 0;
}

int c2ms_sess_seek(c2ms_sess *sess, uint64_t pos) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  c2ms_cache *const cache = sess->cache.load();
  if (cache == nullptr) return -2;
  sess->seek_num.fetch_add(1);
  const int result = c2ms_cache_seek(cache, pos);
  dispatch_if_due(sess);
  refresh_ready_soon(sess);
  return result;
}

int c2ms_sess_read(c2ms_sess *sess, void *buf, int32_t len, int32_t nonblock) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  c2ms_cache *const cache = sess->cache.load();
  if (cache == nullptr) return -2;
  const GateGuard gate(sess, nonblock != 0 ? one_try : no_limit);
  if (gate.cancelled()) return C2MS_CLOSED;
  if (!gate) return 0;
  const ReadyGuard ready(sess);
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

namespace {

// Begins a read at `pos`, or at the read position.
int take_place(c2ms_sess *sess, c2ms_cache *cache, uint64_t pos, c2ms_place *from) {
  if (c2ms_cache_packnum(cache) < 1) return C2MS_NO_PACKS;
  if (pos == C2MS_HERE) {
    *from = c2ms_cache_here(cache);
    return 0;
  }
  const int placed = c2ms_cache_place(cache, pos, from);
  dispatch_if_due(sess);  // idle nodes begin before this thread sleeps
  return placed;
}

// What is read at a place inside the index and goes on behind it.
int read_on(c2ms_sess *sess, c2ms_cache *cache, const c2ms_place &from, uint8_t *buf, int32_t min,
            int32_t len, steady::time_point deadline) {
  const int32_t n = read_index(sess, cache, from, buf, len, false);
  if (n > 0 && n >= min) return n;
  const c2ms_place on = n > 0 ? c2ms_cache_here(cache) : from;
  uint8_t *const behind = buf != nullptr ? buf + n : nullptr;
  const int rest = c2ms_cache_read_some(cache, on, behind, min - n, len - n, deadline);
  if (n == 0 || rest >= 0) return n + rest;
  if (rest == C2MS_END) return n;
  c2ms_cache_advance(cache, from.pos, on.seek_count);  // nothing is delivered
  return rest;
}

}  // namespace

int c2ms_sess_read_some(c2ms_sess *sess, uint64_t pos, void *buf, int32_t min, int32_t len,
                        int32_t timeout_ms) {
  if (sess == nullptr) return C2MS_NO_SESSION;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  c2ms_cache *const cache = sess->cache.load();
  if (cache == nullptr) return C2MS_NO_CACHE;
  min = std::clamp(min, 0, std::max(len, 0));
  auto deadline = no_limit;
  if (timeout_ms >= 0) deadline = steady::now() + std::chrono::milliseconds(timeout_ms);
  if (timeout_ms == 0) deadline = one_try;
  const GateGuard gate(sess, min == 0 ? one_try : deadline);
  if (gate.cancelled()) return C2MS_CLOSED;
  if (!gate) return min == 0 ? 0 : static_cast<int>(C2MS_TIMED_OUT);
  const ReadyGuard ready(sess);
  if (const int32_t refusal = sess->refusal.load(); refusal != 0) return refusal;
  c2ms_place from;
  if (const int placed = take_place(sess, cache, pos, &from); placed != 0) return placed;
  const int result = read_on(sess, cache, from, static_cast<uint8_t *>(buf), min, len, deadline);
  dispatch_if_due(sess);
  return count_delivered(sess, result);
}

int c2ms_sess_cancel(c2ms_sess *sess, int on) {
  if (sess == nullptr) return -1;
  // Not a CallGuard: what that delivers may block.
  const CallCount count(sess);
  if (!is_live(sess)) return C2MS_CLOSED;
  if (on != 0) cancel_open(sess);
  // Switching on counts, so that a call that waits ends also when it is off again before it looks.
  uint32_t word = sess->cancel.load();
  uint32_t wanted;
  do {
    if (((word & 1) != 0) == (on != 0)) return 0;
    wanted = on != 0 ? word + 3 : word - 1;
  } while (!sess->cancel.compare_exchange_weak(word, wanted));
  if (on != 0) {
    c2ms_cache_wake(sess->cache.load());
    light(sess);
  } else {
    refresh_ready_soon(sess);
  }
  return 0;
}

int c2ms_sess_buffering(c2ms_sess *sess, int32_t bytes) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  c2ms_cache *const cache = sess->cache.load();
  return cache == nullptr ? -2 : c2ms_cache_buffering_size(cache, bytes);
}

int c2ms_sess_bufratio(c2ms_sess *sess, int32_t *ratio) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  c2ms_cache *const cache = sess->cache.load();
  if (cache == nullptr) return -2;
  if (ratio == nullptr) return -3;
  const int result = c2ms_cache_buffering_ratio(cache, ratio);
  if (result < 0) return result;
  const int64_t bears_us = sess->mgmt->patience.ratio_stalled_us;
  const bool stalled = sess->has_active == 0 && now_us() - sess->active_at_us > bears_us;
  return stalled ? -400 : 0;
}
