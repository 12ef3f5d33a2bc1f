// See recorder.h.
#include "c2ms/core/recorder.h"

#include <algorithm>
#include <cstdlib>

#include "c2ms.h"
#include "c2ms/core/time.h"

namespace c2ms {

namespace {

// The media that flows by has driven the ring out of the nearest cache, and the unlock waits for
// the stores before it: without this an event costs twice as much.
void fetch_ahead(c2ms_trace_event *event) {
  constexpr int to_write = 1;
  __builtin_prefetch(event, to_write);
  __builtin_prefetch(&event->reserved, to_write);  // its other end, maybe on a line of its own
}

// Records an event that ended at `ended_us` on the session core's clock; `fill` writes the rest.
template <class Fill>
void record_in(c2ms_sess *sess, uint32_t kind, int64_t ended_us, Fill fill)
    REQUIRES(sess->speed_lock) {
  recorder &trace = sess->trace;
  if (trace.events == nullptr) return;  // switched off meanwhile
  c2ms_trace_event &event = trace.events[trace.next];
  event = {};
  event.kind = kind;
  fill(event);
  event.time_us = std::max<int64_t>(ended_us - event.duration_us - trace.start_us, 0);
  if (++trace.next == trace.size) trace.next = 0;
  fetch_ahead(&trace.events[trace.next]);
  if (trace.count < trace.size) {
    ++trace.count;
  } else {
    ++trace.lost;
  }
}

template <class Fill>
void record(c2ms_sess *sess, uint32_t kind, int64_t ended_us, Fill fill) {
  const adif::Guard lock(sess->speed_lock);
  record_in(sess, kind, ended_us, fill);
}

void set_node(const c2ms_node *node, c2ms_trace_event *event) {
  if (node == nullptr) return;
  event->node = node->node_id;
  event->address = node->ip;
  event->port = node->port;
}

// A picture needs some places for each turn of the ring, and some for each second.
constexpr int places_per_ring = 16;
constexpr int64_t places_apart_us = 50'000;

bool far_from_last_place(const c2ms_cache *cache) REQUIRES(cache->lock) {
  const uint64_t a = cache->traced_pos, b = cache->read_pos;
  const uint64_t packs = static_cast<uint64_t>(std::max(cache->packnum / places_per_ring, 1));
  return (a < b ? b - a : a - b) >= packs * static_cast<uint64_t>(cache->packsize.load());
}

}  // namespace

void trace_unit(const c2ms_unit &unit, uint32_t outcome) {
  if (!tracing(unit.session)) return;
  const int64_t ended_us = is_set(unit.end_time) ? to_us(unit.end_time) : now_us();
  record_in(unit.session, C2MS_TRACE_REQUEST, ended_us, [&](c2ms_trace_event &event) {
    event.detail = outcome;
    event.duration_us = std::max<int64_t>(ended_us - to_us(unit.sent_time), 0);
    event.pos = unit.range_offset;
    event.bytes = static_cast<uint64_t>(std::max(unit.received.load(), 0));
    set_node(unit.node, &event);
  });
}

void trace_node(const c2ms_node *node, uint32_t state) {
  if (!tracing(node->session)) return;
  record(node->session, C2MS_TRACE_NODE, now_us(), [&](c2ms_trace_event &event) {
    event.detail = state;
    set_node(node, &event);
  });
}

void trace_wait(c2ms_cache *cache, wait_cause cause, int64_t waited_us) {
  if (!tracing(cache->session)) return;
  const uint64_t pos = cache->base_offset + cache->read_pos;
  record(cache->session, C2MS_TRACE_WAIT, now_us(), [&](c2ms_trace_event &event) {
    event.detail = static_cast<uint32_t>(cause);
    event.duration_us = waited_us;
    event.pos = pos;
  });
}

void trace_seek(c2ms_cache *cache) {
  if (!tracing(cache->session)) return;
  const uint64_t pos = cache->base_offset + cache->read_pos;
  record(cache->session, C2MS_TRACE_SEEK, now_us(),
         [&](c2ms_trace_event &event) { event.pos = pos; });
}

void trace_place(c2ms_cache *cache) {
  if (!tracing(cache->session)) return;
  const auto packsize = static_cast<uint64_t>(cache->packsize.load());
  const uint64_t ring_begin = static_cast<uint64_t>(cache->first_index.load()) * packsize;
  const uint64_t ring_bytes = static_cast<uint64_t>(cache->packnum.load()) * packsize;
  const uint64_t base = cache->base_offset, pos = base + cache->read_pos;
  const uint64_t bytes = std::min(ring_begin + ring_bytes, cache->media_size) - ring_begin;
  cache->traced_pos = cache->read_pos;
  cache->traced_at_us = now_us();
  record(cache->session, C2MS_TRACE_PLACE, cache->traced_at_us, [&](c2ms_trace_event &event) {
    event.pos = pos;
    event.begin = base + ring_begin;
    event.bytes = bytes;
  });
}

void trace_move(c2ms_cache *cache) {
  if (!tracing(cache->session)) return;
  if (cache->read_pos == cache->traced_pos) return;
  if (far_from_last_place(cache) || cache->read_pos == cache->media_size ||
      now_us() - cache->traced_at_us >= places_apart_us) {
    trace_place(cache);
  }
}

void trace_stop(c2ms_sess *sess) {
  sess->tracing = false;
  const adif::Guard lock(sess->speed_lock);
  std::free(sess->trace.events);
  sess->trace.events = nullptr;
  sess->trace.next = sess->trace.count = sess->trace.size = 0;
}

}  // namespace c2ms
