#include "c2ms/c2ms_trace.h"

#include <algorithm>
#include <cstdlib>

#include "c2ms/c2ms_strand.h"
#include "c2ms/c2ms_time.h"

namespace c2ms {

namespace {

// `event.time_us` is when it happened, on the session core's clock.
void record(c2ms_sess *sess, c2ms_trace_event event) {
  recorder &trace = sess->trace;
  const adif::Guard lock(trace.lock);
  if (trace.events == nullptr) return;  // switched off meanwhile
  event.time_us = std::max<int64_t>(event.time_us - trace.start_us, 0);
  trace.events[(trace.first + trace.count) % trace.size] = event;
  if (trace.count < trace.size) {
    ++trace.count;
  } else {
    trace.first = (trace.first + 1) % trace.size;
    ++trace.lost;
  }
}

void set_node(const c2ms_node *node, c2ms_trace_event *event) {
  if (node == nullptr) return;
  event->node = node->node_id;
  event->address = node->ip;
  event->port = node->port;
}

c2ms_trace_event begin(uint32_t kind, uint32_t detail = 0) {
  c2ms_trace_event event{};
  event.kind = kind;
  event.detail = detail;
  event.time_us = now_us();
  return event;
}

}  // namespace

void trace_unit(const c2ms_unit &unit, uint32_t outcome) {
  if (!tracing(unit.session)) return;
  c2ms_trace_event event = begin(C2MS_TRACE_REQUEST, outcome);
  event.duration_us = std::max<int64_t>(event.time_us - to_us(unit.sent_time), 0);
  event.time_us -= event.duration_us;
  event.pos = unit.range_offset;
  event.bytes = static_cast<uint64_t>(std::max(unit.received.load(), 0));
  set_node(unit.node, &event);
  record(unit.session, event);
}

void trace_pack(const c2ms_unit &unit) {
  if (!tracing(unit.session)) return;
  c2ms_trace_event event = begin(C2MS_TRACE_PACK);
  event.pos = unit.range_offset;
  event.bytes = unit.range_length;
  set_node(unit.node, &event);
  record(unit.session, event);
}

void trace_node(const c2ms_node *node, uint32_t state) {
  if (!tracing(node->session)) return;
  c2ms_trace_event event = begin(C2MS_TRACE_NODE, state);
  set_node(node, &event);
  record(node->session, event);
}

void trace_wait(c2ms_cache *cache, wait_cause cause, int64_t waited_us) {
  if (!tracing(cache->session)) return;
  c2ms_trace_event event = begin(C2MS_TRACE_WAIT, static_cast<uint32_t>(cause));
  event.duration_us = waited_us;
  event.time_us -= waited_us;
  event.pos = cache->base_offset + cache->read_pos;
  record(cache->session, event);
}

void trace_seek(c2ms_cache *cache) {
  if (!tracing(cache->session)) return;
  c2ms_trace_event event = begin(C2MS_TRACE_SEEK);
  event.pos = cache->base_offset + cache->read_pos;
  record(cache->session, event);
}

void trace_place(c2ms_cache *cache) {
  if (!tracing(cache->session)) return;
  const auto packsize = static_cast<uint64_t>(cache->packsize.load());
  const uint64_t ring_begin = static_cast<uint64_t>(cache->first_index.load()) * packsize;
  const uint64_t ring_bytes = static_cast<uint64_t>(cache->packnum.load()) * packsize;
  c2ms_trace_event event = begin(C2MS_TRACE_PLACE);
  event.pos = cache->base_offset + cache->read_pos;
  event.begin = cache->base_offset + ring_begin;
  event.bytes = std::min(ring_begin + ring_bytes, cache->media_size) - ring_begin;
  record(cache->session, event);
}

void trace_stop(c2ms_sess *sess) {
  sess->trace.on = false;
  const adif::Guard lock(sess->trace.lock);
  std::free(sess->trace.events);
  sess->trace.events = nullptr;
  sess->trace.first = sess->trace.count = sess->trace.size = 0;
}

}  // namespace c2ms

int c2ms_sess_trace(c2ms_sess *sess, int events) {
  using namespace c2ms;
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return C2MS_CLOSED;
  trace_stop(sess);
  if (events < 1) return 0;
  const auto size = static_cast<size_t>(std::min(events, C2MS_TRACE_MOST));
  auto *const ring = static_cast<c2ms_trace_event *>(std::calloc(size, sizeof(c2ms_trace_event)));
  if (ring == nullptr) return C2MS_NO_MEMORY;
  const adif::Guard lock(sess->trace.lock);
  std::free(sess->trace.events);  // of a start by another thread
  sess->trace.events = ring;
  sess->trace.size = static_cast<uint32_t>(size);
  sess->trace.first = sess->trace.count = 0;
  sess->trace.lost = 0;
  sess->trace.start_us = now_us();
  sess->trace.on = true;
  return 0;
}

int c2ms_sess_trace_read(c2ms_sess *sess, c2ms_trace_event *events, int max, uint64_t *lost) {
  using namespace c2ms;
  if (sess == nullptr) return -1;
  if (events == nullptr) return -2;
  const CallGuard call(sess);
  if (!call) return C2MS_CLOSED;
  recorder &trace = sess->trace;
  const adif::Guard lock(trace.lock);
  if (lost != nullptr) *lost = trace.lost;
  const int count = std::clamp(max, 0, static_cast<int>(trace.count));
  for (int i = 0; i < count; ++i) {
    events[i] = trace.events[trace.first];
    trace.first = (trace.first + 1) % trace.size;
  }
  trace.count -= static_cast<uint32_t>(count);
  return count;
}
