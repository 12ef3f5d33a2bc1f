// See reader.h.
#include "c2ms/player/reader.h"

#include <algorithm>
#include <cstring>

#include "c2ms.h"
#include "c2ms/core/call.h"
#include "c2ms/core/count.h"
#include "c2ms/core/strand_hold.h"
#include "c2ms/core/time.h"
#include "c2ms/fetch/dispatch.h"
#include "c2ms/fetch/seek.h"
#include "c2ms/ring/cache.h"
#include "c2ms/ring/need.h"
#include "c2ms/ring/pack.h"
#include "c2ms/ring/range.h"
#include "c2ms/ring/window.h"

namespace {

using c2ms::steady;
constexpr std::chrono::milliseconds longest_wait{1000};
constexpr std::chrono::milliseconds paused_wait{50};
constexpr int32_t longest_take = 256 * 1024;  // what a reader sleeps for at a time

enum class step { go_on, stop, wait, move_range, request };

// Nodes that had nothing to do while the ring was full find work again.
void give_work(c2ms_cache *cache) {
  if (cache->session->ready_num.load() < 1) return;
  c2ms_cache_download_all(cache);
  c2ms::dispatch_if_due(cache->session);
}

// One call of read or receive, from its position to its end.
struct reading {
  c2ms_cache *cache;
  uint8_t *out;  // NULL: skip
  int32_t len;
  int32_t least;                // bytes for which it waits, 0 to len
  bool all;                     // fewer in time are none
  steady::time_point deadline;  // min(): never waits; max(): waits without limit
  int32_t copied = 0;
  int32_t result = 0;  // when nothing is copied
  uint64_t begin = 0;  // position that the call found
  uint64_t pos = 0;
  uint64_t media_size = 0;
  uint32_t seek_count = 0;
  bool after_seek = false;  // nothing has been delivered since the last one
  int64_t waited_us = 0;
  c2ms_window window{};  // changes under the read gate alone

  // Nothing is waited for any more.
  bool expired() const { return copied >= least || out_of_time(); }
  bool out_of_time() const {
    if (deadline == steady::time_point::max()) return false;
    return deadline == steady::time_point::min() || steady::now() >= deadline;
  }
};

struct place {
  c2ms_pack *pack;
  int32_t index;
  int32_t in_pack;
};

place where(const reading &call) {
  const auto packsize = static_cast<uint64_t>(call.cache->packsize.load());
  const auto index = static_cast<int32_t>(call.pos / packsize);
  return {c2ms_cache_slot(call.cache, index), index, static_cast<int32_t>(call.pos % packsize)};
}

// What else than bytes ends a call.
bool ended(reading &call, bool about_to_wait) {
  c2ms_sess *const sess = call.cache->session;
  if (!c2ms::is_live(sess) || c2ms::cancelled(sess)) {
    call.copied = 0;
    call.result = C2MS_CLOSED;
    return true;
  }
  if (const int32_t refusal = sess->refusal.load(); refusal != 0) {
    call.copied = 0;
    call.result = refusal;
    return true;
  }
  if (call.cache->seek_count.load() != call.seek_count) return true;
  if (call.cache->gate_seekers.load() > 0 && call.cache->gives_way) return true;
  if (!about_to_wait || sess->has_active.load() != 0) return false;
  const int32_t status = sess->status.load();
  if (status > C2MS_MEDIA_NOT_EXIST || status < C2MS_IN_DEBT) return false;
  call.result = status;
  return true;
}

int32_t wanted_of(const reading &call, const c2ms_pack *pack, int32_t in_pack)
    REQUIRES(pack->lock) {
  return std::min(call.len - call.copied, std::max(pack->size - in_pack, 0));
}

// Copies what the pack has for this call; tells what to do next.
step take(reading &call, const place &at) {
  c2ms_pack *const pack = at.pack;
  const adif::Guard lock(pack->lock);
  if (pack->index != at.index) return step::move_range;
  const int32_t wanted = wanted_of(call, pack, at.in_pack);
  const bool asked_for = pack->state != pack_idle || pack->not_before_at_us != 0;
  if (asked_for && wanted == 0) return step::stop;  // a last pack of size 0
  const int32_t there = std::clamp(pack->len - at.in_pack, 0, wanted);
  const bool enough = there == wanted || pack->state == pack_ready;
  const bool serves = enough || call.copied + there >= call.least;
  if (!serves && !call.expired()) return pack->state == pack_idle ? step::request : step::wait;
  if (there > 0 && call.out != nullptr) {
    std::memcpy(call.out + call.copied, pack->buf + at.in_pack, static_cast<size_t>(there));
  }
  call.copied += there;
  call.pos += static_cast<uint64_t>(there);
  if (enough && there > 0) return step::go_on;
  return pack->state == pack_idle ? step::request : step::stop;
}

// Copies a pack that the index in memory holds as a whole; true when it does.
bool take_from_index(reading &call, const place &at) {
  const uint64_t begin = call.pos - static_cast<uint64_t>(at.in_pack);
  const uint64_t end =
      std::min(begin + static_cast<uint64_t>(call.cache->packsize.load()), call.media_size);
  if (!call.window.holds(begin, end)) return false;
  const auto wanted = static_cast<int32_t>(
      std::min<uint64_t>(static_cast<uint64_t>(call.len - call.copied), end - call.pos));
  if (call.out != nullptr) {
    const uint8_t *const from = call.cache->session->idx_buf + call.window.in_index;
    std::memcpy(call.out + call.copied, from + (call.pos - call.window.begin),
                static_cast<size_t>(wanted));
  }
  call.copied += wanted;
  call.pos += static_cast<uint64_t>(wanted);
  return true;
}

// Moves the range behind the reader, unless somebody has seeked meanwhile.
bool advance(const reading &call) {
  return c2ms_cache_advance(call.cache, call.pos, call.seek_count);
}

// What a call lacks, from the pack at its position on: all that it can take in one go.
struct lack {
  int32_t first, last;
  int32_t len;  // of the last pack
};

lack lack_of(const reading &call, const place &at) {
  const c2ms_cache *const cache = call.cache;
  const int32_t packsize = cache->packsize;
  const uint64_t end =
      std::min(call.pos + static_cast<uint64_t>(call.least - call.copied), call.media_size);
  const auto final = static_cast<int32_t>((end - 1) / static_cast<uint64_t>(packsize));
  // Few packs of a small ring: it must move on while they are read.
  const int32_t most = std::min(longest_take / packsize, cache->packnum / 8);
  int32_t last = std::min(final, at.index + std::max(most, 1) - 1);
  // What the index in memory holds is never fetched.
  for (int32_t i = at.index + 1; i <= last; ++i) {
    if (c2ms_cache_in_window(cache, call.window, i)) last = i - 1;
  }
  const uint64_t final_len = end - static_cast<uint64_t>(final) * static_cast<uint64_t>(packsize);
  return {at.index, last, last == final ? static_cast<int32_t>(final_len) : INT32_MAX};
}

// A paused pack is asked for again soon after its pause.
std::chrono::milliseconds longest_wait_at(const place &at) {
  const adif::Guard lock(at.pack->lock);
  return c2ms_pack_is_paused(at.pack) ? paused_wait : longest_wait;
}

// Sleeps until what is needed here is there, at most a second.
void wait(reading &call, const place &at) {
  c2ms_cache *const cache = call.cache;
  const lack needed = lack_of(call, at);
  const bool first_byte = call.after_seek && call.copied == 0;
  const uint32_t seen = cache->wake_count.load();
  const bool there = c2ms_cache_need(cache, needed.first, needed.last, needed.len, first_byte);
  if (!there && !ended(call, true)) {
    const auto until = std::min(call.deadline, steady::now() + longest_wait_at(at));
    WaitEventUntil(cache->event, until, [&] { return cache->wake_count.load() != seen; });
  }
  c2ms_cache_need_nothing(cache);
}

// Counts the time for which a call waits for one pack, when the scope ends.
class Waiting {
 public:
  explicit Waiting(reading &call) : call_(call) {}
  ~Waiting() {
    if (since_us_ == 0) return;
    const int64_t waited = c2ms::now_us() - since_us_;
    call_.waited_us += waited;
    const adif::Guard lock(call_.cache->lock);
    c2ms::count_wait(call_.cache, cause(), waited);
  }
  Waiting(const Waiting &) = delete;
  Waiting &operator=(const Waiting &) = delete;
  void begin() {
    if (since_us_ != 0) return;
    since_us_ = c2ms::now_us();
    for_seek_ = call_.after_seek && call_.copied == 0;
  }
  // As long as no node can deliver, that is the reason, whatever comes before or after.
  void look() { no_node_ = no_node_ || call_.cache->session->has_active.load() == 0; }

 private:
  c2ms::wait_cause cause() const {
    if (call_.result == C2MS_CLOSED) return c2ms::wait_cause::cancelled;
    if (no_node_) return c2ms::wait_cause::no_node;
    return for_seek_ ? c2ms::wait_cause::seek : c2ms::wait_cause::late;
  }
  reading &call_;
  int64_t since_us_ = 0;
  bool no_node_ = false, for_seek_ = false;
};

bool move_range(reading &call, const place &at) {
  {
    const adif::Guard lock(call.cache->lock);
    if (call.cache->seek_count.load() != call.seek_count) return false;
    c2ms_cache_seek_exactly(call.cache, call.pos);
  }
  give_work(call.cache);
  const adif::Guard lock(at.pack->lock);
  if (at.pack->index == at.index) return true;
  call.result = -201;
  return false;
}

// An idle pack is asked for. When that can't be done now (no memory for a unit, say) the pack is
// paused and the wait that follows ends in time for the next attempt.
step request(reading &call, const place &at) {
  bool ahead;
  {
    const adif::Guard lock(call.cache->lock);
    ahead = at.index >= call.cache->wanted_from;
    call.cache->idle_from = std::min(call.cache->idle_from, at.index);
  }
  if (!ahead && c2ms_cache_download_pack(call.cache, at.pack) == -100) {
    at.pack->not_before_at_us = c2ms::now_us() + c2ms::no_memory_pause_us;
  }
  c2ms::mark_dispatch_due(call.cache->session);
  c2ms::dispatch_if_due(call.cache->session);
  return call.expired() ? step::stop : step::wait;
}

// Delivers from the pack at the position: false when the call ends.
bool read_pack(reading &call) {
  const place at = where(call);
  if (at.pack == nullptr) {
    call.result = -201;
    return false;
  }
  if (ended(call, false)) return false;
  if (take_from_index(call, at)) return advance(call);
  Waiting waiting(call);
  for (;;) {
    if (ended(call, false)) return false;
    const uint64_t before = call.pos;
    step next = take(call, at);
    if (call.pos != before && !advance(call)) return false;
    if (next == step::request) next = request(call, at);
    switch (next) {
      case step::go_on:
        return true;
      case step::stop:
        // A pack of size 0: who calls again at once must not spin.
        if (!call.expired() && call.copied == 0) wait(call, at);
        return false;
      case step::move_range:
        if (!move_range(call, at)) return false;
        break;
      default:
        if (ended(call, true)) return false;
        waiting.begin();
        wait(call, at);
        waiting.look();
        break;
    }
  }
}

// Begins a call at its place.
reading begin_at(c2ms_cache *cache, const c2ms_place &from) REQUIRES(cache->lock) {
  reading call{};
  call.cache = cache;
  call.begin = call.pos = from.pos;
  call.seek_count = from.seek_count;
  call.media_size = cache->media_size;
  call.after_seek = cache->served_seek != call.seek_count;
  call.window = c2ms_cache_window(cache);
  return call;
}

// The end of the packs that the first read after a seek needs, 0 for a later one.
int32_t urgent_end_of(const reading &call) {
  if (!call.after_seek) return 0;
  const auto packsize = static_cast<uint64_t>(call.cache->packsize.load());
  const uint64_t end = call.pos + static_cast<uint64_t>(std::clamp(call.least, 0, longest_take));
  return static_cast<int32_t>((end + packsize - 1) / packsize);
}

// A call that has waited in vain, and is to deliver all it waited for or nothing.
bool in_vain(const reading &call) {
  return call.all && call.copied < call.least && call.pos < call.media_size && call.result == 0 &&
         call.out_of_time() && call.cache->seek_count.load() == call.seek_count;
}

int read_until(c2ms_cache *cache, const c2ms_place &from, void *buf, int32_t len,
               steady::time_point deadline, int32_t least, bool all) {
  reading call{};
  {
    const adif::Guard lock(cache->lock);
    ++cache->read_calls;
    call = begin_at(cache, from);
    call.out = static_cast<uint8_t *>(buf);
    call.len = len;
    call.least = least;
    call.all = all;
    call.deadline = deadline;
    cache->urgent_end = urgent_end_of(call);
  }
  if (cache->packnum < 1) return -201;
  if (call.pos >= call.media_size) return -200;
  if (len < 1) return 0;
  while (call.copied < len && call.pos < call.media_size && read_pack(call)) {
  }
  if (in_vain(call)) {
    call.copied = 0;
    call.result = C2MS_TIMED_OUT;
  }
  // A call that delivers nothing leaves the position: the next one finds the same bytes.
  if (call.copied == 0 && call.pos != call.begin) {
    c2ms_cache_advance(cache, call.begin, call.seek_count);
  }
  {
    const adif::Guard lock(cache->lock);
    if (call.copied < least) ++cache->short_reads;
    if (call.copied > 0) cache->served_seek = call.seek_count;
    cache->pace.delivered(c2ms::now_us(), call.copied, call.waited_us);
  }
  c2ms_cache_download_all(cache);
  c2ms::dispatch_if_due(cache->session);
  return call.copied > 0 ? call.copied : call.result;
}

}  // namespace

bool c2ms_cache_advance(c2ms_cache *cache, uint64_t pos, uint32_t seek_count) {
  bool more_to_fetch;
  {
    const adif::Guard lock(cache->lock);
    if (cache->seek_count.load() != seek_count) return false;
    more_to_fetch = c2ms_cache_seek_to(cache, pos);
  }
  if (more_to_fetch) give_work(cache);
  return true;
}

int c2ms_cache_read(c2ms_cache *cache, void *buf, int32_t len, int32_t nonblock) {
  if (cache == nullptr) return -1;
  const auto deadline = nonblock != 0 ? steady::time_point::min() : steady::time_point::max();
  return read_until(cache, c2ms_cache_here(cache), buf, len, deadline, len, false);
}

int c2ms_cache_recv(c2ms_cache *cache, void *buf, int32_t len, int32_t timeout_ms) {
  if (cache == nullptr) return -1;
  return c2ms_cache_recv_at(cache, c2ms_cache_here(cache), buf, len, timeout_ms);
}

int c2ms_cache_recv_at(c2ms_cache *cache, const c2ms_place &from, void *buf, int32_t len,
                       int32_t timeout_ms) {
  const auto deadline = timeout_ms > 0 ? steady::now() + std::chrono::milliseconds(timeout_ms)
                                       : steady::time_point::min();
  return read_until(cache, from, buf, len, deadline, len, false);
}

int c2ms_cache_read_some(c2ms_cache *cache, const c2ms_place &from, void *buf, int32_t least,
                         int32_t len, steady::time_point deadline) {
  return read_until(cache, from, buf, len, deadline, least, true);
}

bool c2ms_cache_poll(c2ms_cache *cache) {
  reading call{};
  const c2ms_place here = c2ms_cache_here(cache);
  {
    const adif::Guard lock(cache->lock);
    call = begin_at(cache, here);
  }
  call.len = call.least = 1;
  if (cache->packnum < 1 || call.pos >= call.media_size || call.window.has(call.pos)) return true;
  const place at = where(call);
  if (at.pack == nullptr || ended(call, true)) return true;
  bool elsewhere, idle;
  {
    const adif::Guard lock(at.pack->lock);
    elsewhere = at.pack->index != at.index;
    idle = at.pack->state == pack_idle;
    if (!elsewhere && (at.pack->len > at.in_pack || at.pack->state == pack_ready)) return true;
  }
  if (elsewhere && !move_range(call, at)) return true;
  if (elsewhere || idle) request(call, at);
  return c2ms_cache_need(cache, at.index, at.index, at.in_pack + 1, false);
}
