// See idx.h.
#include "c2ms/player/idx.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "c2ms.h"
#include "c2ms/core/call.h"
#include "c2ms/core/diag.h"
#include "c2ms/core/time.h"
#include "c2ms/fetch/dispatch.h"
#include "c2ms/fetch/queue.h"
#include "c2ms/fetch/seek.h"
#include "c2ms/player/gate.h"
#include "c2ms/player/reader.h"
#include "c2ms/player/ready.h"
#include "c2ms/ring/cache.h"
#include "c2ms/ring/index.h"
#include "c2ms/wire/boxes.h"
#include "c2ms/wire/unpack.h"

namespace {

using namespace c2ms;

std::chrono::milliseconds open_limit(const c2ms_sess *sess) {
  const patience &patience = sess->mgmt->patience;
  // A film that is being started does without it sooner.
  return std::chrono::milliseconds(sess->opened == C2MS_OPENING ? patience.index_start_ms
                                                                : patience.index_open_ms);
}

// Whoever waits for the index is to be told so at once.
bool is_over(const c2ms_sess *sess) {
  return !is_live(sess) || cancelled(sess);
}

// The cache still serves what the incremental open pointed it at: nobody has selected a file
// meanwhile.
bool is_opening(const c2ms_sess *sess, const c2ms_cache *cache) {
  return sess->idx_started != 0 && cache->generation.load() == sess->idx_opening.generation;
}

int point_at(c2ms_sess *sess, c2ms_cache *cache, const uint8_t *fid, uint64_t base, uint64_t size,
             cache_use use) {
  const int result = c2ms_cache_setfile(cache, fid, base, size, 0, use);
  // A media that can't be selected must not leave its index in the media's place.
  if (result < 0) c2ms_cache_setfile(cache, sess->fid, 0, 0, 0);
  sess->idx_opening.generation = cache->generation;
  c2ms_sess_unit_clear(sess);
  c2ms_cache_download_all(cache);
  dispatch_if_due(sess);
  return result;
}

void begin(c2ms_sess *sess, c2ms_cache *cache) {
  uint64_t base = 0, size = sess->media_size;
  if (is_opening(sess, cache)) {
    base = sess->idx_opening.range_base;
    size = sess->idx_opening.range_size;
  } else {
    const adif::Guard lock(cache->lock);
    if (cache->media_size > 0 && std::memcmp(cache->fid, sess->fid, 16) == 0) {
      base = cache->base_offset;
      size = cache->media_size;
    }
  }
  drop_opening(sess);
  clear_index(sess, cache);
  sess->idx_opening.range_base = base;
  sess->idx_opening.range_size = size;
}

// Memory for the packed file, then the cache pointed at it.
int begin_receiving(c2ms_sess *sess, c2ms_cache *cache, int no_memory) {
  begin(sess, cache);
  if (sess->idx_len > max_index_bytes) return idx_no_memory;
  sess->idx_zbuf = static_cast<uint8_t *>(std::malloc(sess->idx_len));
  if (sess->idx_zbuf == nullptr) return no_memory;
  point_at(sess, cache, sess->idx_fid, 0, sess->idx_len, cache_use::packed_index);
  return 0;
}

void publish(c2ms_sess *sess) {
  c2ms_idx_opening &opening = sess->idx_opening;
  const bool mp4 = sess->media_type == media_type_mp4;
  sess->idx_buf = opening.buf;
  opening.buf = nullptr;
  const adif::Guard lock(sess->cache_record.lock);
  sess->idx_buf_len = opening.buf_len;
  sess->idx_box_len = mp4 ? opening.walk.box_size : opening.buf_len;
  sess->idx_offset = opening.walk.pos;
  sess->moov_at_end =
      mp4 && c2ms_idx_at_end(sess->media_size, opening.walk.pos, opening.buf_len) ? 1 : 0;
  sess->idx_mem = 1;
}

// Every way out of an open that was begun: window or none, and the media in the cache.
int finish(c2ms_sess *sess, c2ms_cache *cache, int result) {
  if (result >= 0) publish(sess);
  const c2ms_idx_opening &opening = sess->idx_opening;
  const uint64_t base = opening.range_base, size = opening.range_size;
  drop_opening(sess);
  point_at(sess, cache, sess->fid, base, size, cache_use::play);
  if (sess->moov_at_end != 0) diag("----moov at end----\n");
  return result;
}

int32_t ms_left(const c2ms_cache *cache, steady::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady::now()).count();
  return static_cast<int32_t>(
      std::clamp<int64_t>(left, 0, cache->session->mgmt->patience.index_receive_ms));
}

int receive_all(c2ms_sess *sess, c2ms_cache *cache, steady::time_point deadline) {
  const auto wanted = static_cast<int32_t>(sess->idx_len);
  int failures = 0;
  for (int32_t received = 0; steady::now() < deadline;) {
    if (received == wanted) return 0;
    const int32_t n = c2ms_cache_recv(cache, sess->idx_zbuf + received,
                                      std::min(c2ms_cache_packsize(cache), wanted - received),
                                      ms_left(cache, deadline));
    if (n == C2MS_CLOSED) return n;
    if (n >= 1) {
      received += n;
    } else if (++failures == max_index_failures) {
      return idx_receive_failed;
    }
  }
  return idx_timed_out;
}

int unpack(c2ms_sess *sess, uint32_t *len) {
  c2ms_idx_opening &opening = sess->idx_opening;
  const auto stop = [sess] { return is_over(sess); };  // a big index takes its time
  const int result = c2ms_idx_unpack(sess->idx_zbuf, sess->idx_len, max_index_bytes, &opening.buf,
                                     &opening.buf_len, stop);
  if (result != 0 && is_over(sess)) return C2MS_CLOSED;  // an incremental open unpacks it later
  drop_packed(sess);
  if (result == 0 && len != nullptr) *len = opening.buf_len;
  return result;
}

void begin_walk(c2ms_sess *sess, c2ms_cache *cache) {
  sess->idx_opening.walk = {};
  sess->idx_opening.walk.media_size = sess->media_size;
  point_at(sess, cache, sess->fid, 0, sess->media_size, cache_use::box_headers);
}

// More of the header that the walk wants: C2MS_CACHING while it may still come.
int receive_header(c2ms_cache *cache, c2ms_box_walk *walk, steady::time_point deadline) {
  constexpr int32_t size = sizeof walk->header;
  if (walk->have == 0) c2ms_cache_seek(cache, walk->pos, cache_use::box_headers);
  uint8_t *const to = walk->header + walk->have;
  const int32_t n = deadline == one_try
                        ? c2ms_cache_read(cache, to, size - walk->have, 1)
                        : c2ms_cache_recv(cache, to, size - walk->have, ms_left(cache, deadline));
  if (n < 0) return n;
  walk->have += n;
  if (walk->have == size) return 0;
  const bool may_come = deadline == one_try && walk->pos + size <= walk->media_size;
  return may_come ? static_cast<int>(C2MS_CACHING) : static_cast<int>(box_not_found);
}

int walk_on(c2ms_sess *sess, c2ms_cache *cache, steady::time_point deadline) {
  c2ms_box_walk *const walk = &sess->idx_opening.walk;
  for (;;) {
    const int received = receive_header(cache, walk, deadline);
    if (received < 0) return received;
    walk->have = 0;
    const c2ms_box_result box = c2ms_idx_box(walk);
    if (box != box_passed) return box == box_is_moov ? 0 : static_cast<int>(box);
  }
}

// What an open makes of the walk's result.
int walk_result(int result) {
  return result == 0 || result == C2MS_CLOSED || result == C2MS_CACHING ? result : idx_no_moov;
}

int open_waiting(c2ms_sess *sess, c2ms_cache *cache, steady::time_point t0, uint32_t *len) {
  int result = begin_receiving(sess, cache, idx_no_memory);
  cache->gives_way = false;
  if (result == 0) result = receive_all(sess, cache, t0 + open_limit(sess));
  if (result == 0) result = unpack(sess, len);
  if (result == 0 && sess->media_type == media_type_mp4) {
    result = walk_result(c2ms_sess_idx_parse_moov(sess, t0));
  }
  cache->gives_way = true;
  return finish(sess, cache, result);
}

// Takes what is there of the packed file. Any result is added to the count, a negative one too;
// while the count lies outside the buffer bytes are passed over.
int receive_some(c2ms_sess *sess, c2ms_cache *cache) {
  const int64_t missing = int64_t{sess->idx_len} - sess->idx_zrecv;
  const auto wanted = static_cast<int32_t>(std::min<int64_t>(missing, INT32_MAX));
  uint8_t *const to = sess->idx_zrecv < 0 ? nullptr : sess->idx_zbuf + sess->idx_zrecv;
  const int32_t n = c2ms_cache_read(cache, to, wanted, 1);
  if (n == C2MS_CLOSED) return n;
  sess->idx_zrecv += n;
  sess->idx_opening.last_read = n;
  return n < missing ? static_cast<int>(C2MS_CACHING) : 0;
}

int receive_and_unpack(c2ms_sess *sess, c2ms_cache *cache, uint32_t *len) {
  const bool received = sess->idx_zrecv == int64_t{sess->idx_len};
  int result = received ? 0 : receive_some(sess, cache);
  if (result == 0) result = unpack(sess, len);
  if (result == 0 && sess->media_type == media_type_mp4) begin_walk(sess, cache);
  return result;
}

int open_step(c2ms_sess *sess, c2ms_cache *cache, uint32_t *len) {
  const bool mp4 = sess->media_type == media_type_mp4;
  if (!is_opening(sess, cache)) {
    const int begun = begin_receiving(sess, cache, C2MS_NO_MEMORY);
    if (begun < 0) return finish(sess, cache, begun);
    sess->idx_started = 1;
  }
  c2ms_idx_opening &opening = sess->idx_opening;
  int result = 0;
  if (opening.buf == nullptr) {
    result = receive_and_unpack(sess, cache, len);
  } else if (len != nullptr) {
    *len = opening.buf_len;
  }
  if (result == 0 && mp4) result = walk_result(walk_on(sess, cache, one_try));
  if (result == C2MS_CACHING || result == C2MS_CLOSED) return result;
  if (result == 0 && mp4) result = opening.last_read;
  return finish(sess, cache, result);
}

}  // namespace

int c2ms_sess_idx_parse_moov(c2ms_sess *sess, steady::time_point t0) {
  c2ms_cache *const cache = sess->cache.load();
  begin_walk(sess, cache);
  return walk_on(sess, cache, t0 + open_limit(sess));
}

int c2ms_sess_idx_open(c2ms_sess *sess, uint32_t *len) {
  if (len != nullptr) *len = 0;
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  return call ? open_index(sess, len) : call.refusal();
}

int c2ms::open_index(c2ms_sess *sess, uint32_t *len) {
  c2ms_cache *const cache = sess->cache.load();
  if (c2ms_cache_packsize(cache) < 1) return -2;
  if (cancelled_since(sess, sess->cancel)) return C2MS_CLOSED;
  if (sess->idx_len == 0 || sess->idx_mem != 0) return 0;
  const auto t0 = steady::now();
  const GateGuard gate(sess, t0 + open_limit(sess), cache);
  if (gate.cancelled()) return C2MS_CLOSED;
  if (!gate) return idx_timed_out;
  const ReadyGuard ready(sess);
  return sess->idx_mem != 0 ? 0 : open_waiting(sess, cache, t0, len);
}

int c2ms_sess_idx_open_asyn(c2ms_sess *sess, uint32_t *len) {
  if (len != nullptr) *len = 0;
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  c2ms_cache *const cache = sess->cache.load();
  if (c2ms_cache_packsize(cache) < 1) return -2;
  if (cancelled_since(sess, sess->cancel)) return C2MS_CLOSED;
  if (sess->idx_len == 0 || sess->idx_mem != 0) return 0;
  const GateGuard gate(sess, one_try);
  if (gate.cancelled()) return C2MS_CLOSED;
  if (!gate) return C2MS_CACHING;
  const ReadyGuard ready(sess);
  return sess->idx_mem != 0 ? 0 : open_step(sess, cache, len);
}

int c2ms_sess_idx_read(c2ms_sess *sess, void *buf, int32_t len, uint32_t off) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  const GateGuard gate(sess, no_limit);
  if (sess->idx_mem == 0) return idx_not_open;
  if (sess->idx_buf == nullptr) return idx_no_buffer;
  if (len <= 0 || off >= sess->idx_buf_len) return 0;
  const uint32_t count = std::min(static_cast<uint32_t>(len), sess->idx_buf_len - off);
  if (buf != nullptr)
    std::memcpy(buf, sess->idx_buf, count);  // the offset limits the count alone: meant
  return static_cast<int>(count);
}

int c2ms_sess_idx_offset(c2ms_sess *sess, uint64_t *offset) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  if (offset != nullptr) *offset = sess->idx_offset;
  return 0;
}

uint32_t c2ms_sess_idx_size(c2ms_sess *sess) {
  if (sess == nullptr) return 0;
  const CallGuard call(sess);
  return call ? sess->idx_buf_len.load() : 0;
}

int c2ms_sess_idx_attr(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  if (sess->idx_len == 0) return 0;
  const uint32_t at_end = sess->moov_at_end;
  return at_end <= 1 ? static_cast<int>(at_end) + 1 : -2;
}

int c2ms_sess_is_in_idx(c2ms_sess *sess, uint64_t pos) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  const uint64_t offset = sess->idx_offset;
  return offset != 0 && pos >= offset && pos - offset < sess->idx_buf_len ? 1 : 0;
}

int c2ms_sess_idx_close(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  c2ms_cache *const cache = sess->cache.load();
  const GateGuard gate(sess, no_limit, cache);
  const ReadyGuard ready(sess);
  clear_index(sess, cache);
  if (cache == nullptr) return 0;
  if (is_opening(sess, cache)) {
    finish(sess, cache, C2MS_CLOSED);  // an incremental open is given up
  } else {
    drop_opening(sess);
    c2ms_cache_download_all(cache);
    dispatch_if_due(sess);
  }
  return 0;
}
