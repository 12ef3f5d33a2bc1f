// The player's calls of the recorder; c2ms.h describes them.
#include <algorithm>
#include <cstdlib>

#include "c2ms.h"
#include "c2ms/core/call.h"
#include "c2ms/core/recorder.h"
#include "c2ms/core/records.h"
#include "c2ms/core/time.h"

int c2ms_sess_trace(c2ms_sess *sess, int events) {
  using namespace c2ms;
  if (sess == nullptr) return -1;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  trace_stop(sess);
  if (events < 1) return 0;
  const auto size = static_cast<size_t>(std::min(events, C2MS_TRACE_MOST));
  auto *const ring = static_cast<c2ms_trace_event *>(std::calloc(size, sizeof(c2ms_trace_event)));
  if (ring == nullptr) return C2MS_NO_MEMORY;
  const adif::Guard lock(sess->speed_lock);
  std::free(sess->trace.events);  // of a start by another thread
  sess->trace.events = ring;
  sess->trace.size = static_cast<uint32_t>(size);
  sess->trace.next = sess->trace.count = 0;
  sess->trace.lost = 0;
  sess->trace.start_us = now_us();
  sess->tracing = true;
  return 0;
}

int c2ms_sess_trace_read(c2ms_sess *sess, c2ms_trace_event *events, int max, uint64_t *lost) {
  using namespace c2ms;
  if (sess == nullptr) return -1;
  if (events == nullptr) return -2;
  const CallGuard call(sess);
  if (!call) return call.refusal();
  const adif::Guard lock(sess->speed_lock);
  recorder &trace = sess->trace;
  if (lost != nullptr) *lost = trace.lost;
  const int count = std::clamp(max, 0, static_cast<int>(trace.count));
  const uint32_t behind = trace.size - trace.count;  // slots that hold nothing, before the oldest
  for (int i = 0; i < count; ++i) {
    events[i] = trace.events[(trace.next + behind + static_cast<uint32_t>(i)) % trace.size];
  }
  trace.count -= static_cast<uint32_t>(count);
  return count;
}
