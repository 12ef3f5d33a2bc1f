// See count.h.
#include "c2ms/core/count.h"

#include <algorithm>
#include <iterator>

#include "c2ms.h"
#include "c2ms/core/recorder.h"
#include "c2ms/core/time.h"

namespace c2ms {

void add_tally(tally &sum, const tally &more) {
  sum.received += more.received;
  sum.grown += more.grown;
  sum.sent += more.sent;
  sum.completed += more.completed;
  sum.given_up += more.given_up;
  sum.redundant += more.redundant;
  sum.won += more.won;
  sum.wasted += more.wasted;
  sum.failures += more.failures;
}

namespace {

// Where a unit's transfer is counted.
tally &counts_of(const c2ms_unit &unit) REQUIRES(unit.session->speed_lock) {
  return unit.node != nullptr ? unit.node->counts : unit.session->departed;
}

// A state's weight in the session's counters.
struct weight {
  bool ready, usable, downloading;
  explicit weight(uint32_t state)
      : ready(state == C2MS_NODE_READY),
        usable(state >= C2MS_NODE_READY),
        downloading(state >= C2MS_NODE_WAITING_GETMEDIA_RESP) {}
};

void count_ready(c2ms_sess *sess, const weight &before, const weight &after)
    REQUIRES(sess->counter_lock) {
  if (after.ready && !before.ready) ++sess->ready_num;
  if (before.ready && !after.ready) sess->ready_num = std::max(sess->ready_num - 1, 0);
}

void count_usable(c2ms_sess *sess, const weight &before, const weight &after)
    REQUIRES(sess->counter_lock) {
  if (after.usable && !before.usable) {
    if (sess->usable_num < 1) {
      sess->active_at_us = now_us();
      sess->has_active = 1;
    }
    ++sess->usable_num;
  } else if (before.usable && !after.usable) {
    if (sess->usable_num < 2) {
      sess->active_at_us = now_us();
      sess->has_active = 0;
    }
    sess->usable_num = std::max(sess->usable_num - 1, 0);
  }
}

// Accounts the time spent downloading when a download ends.
void count_downloading(c2ms_sess *sess, const weight &before, const weight &after)
    REQUIRES(sess->counter_lock) {
  if (after.downloading && !before.downloading) {
    if (sess->download_num < 1) sess->download_at_us = now_us();
    ++sess->download_num;
  } else if (before.downloading && !after.downloading) {
    const int64_t now = now_us();
    const int64_t spent = now - sess->download_at_us;
    sess->download_at_us = now;
    sess->download_num = std::max(sess->download_num - 1, 0);
    if (spent > 0) sess->recv_time += static_cast<uint64_t>(spent);
  }
}

}  // namespace

void count_payload(c2ms_unit *unit, int32_t got, int32_t grown) {
  const adif::Guard lock(unit->session->speed_lock);
  c2ms_sess_recv_byte(unit->session, got);
  if (unit->node != nullptr) unit->node->estimate.received(now_us(), got);
  tally &counts = counts_of(*unit);
  counts.received += static_cast<uint64_t>(got);
  counts.grown += static_cast<uint64_t>(grown);
  unit->session->twice += static_cast<uint64_t>(got - grown);
}

void count_forgotten(c2ms_sess *sess, int32_t bytes) {
  if (bytes < 1) return;
  const adif::Guard lock(sess->speed_lock);
  sess->forgotten += static_cast<uint64_t>(bytes);
}

void count_sent(c2ms_node *node, c2ms_unit *unit) {
  const adif::Guard lock(node->session->speed_lock);
  ++node->counts.sent;
  node->estimate.asked(to_us(unit->sent_time), unit->range_length);
  node->counts.redundant += unit->redundant ? 1 : 0;
  unit->is_out = true;
}

void count_completed(c2ms_unit *unit) {
  const adif::Guard lock(unit->session->speed_lock);
  if (!unit->is_out) return;
  trace_unit(*unit, unit->filled_pack ? 0 : 1);
  const int64_t short_by = int64_t{unit->range_length} - unit->received;
  if (unit->node != nullptr && short_by > 0) unit->node->estimate.let_off(short_by);
  tally &counts = counts_of(*unit);
  ++counts.completed;
  counts.won += unit->redundant && unit->filled_pack ? 1 : 0;
  counts.wasted += unit->filled_pack ? 0 : 1;
  unit->is_out = false;
}

void count_given_up(c2ms_node *node, c2ms_unit *unit) {
  const adif::Guard lock(unit->session->speed_lock);
  if (!unit->is_out) return;
  ++node->counts.given_up;
  trace_unit(*unit, 2);
  unit->is_out = false;
}

void count_failure(c2ms_node *node) {
  const adif::Guard lock(node->session->speed_lock);
  ++node->counts.failures;
}

void count_departed(c2ms_node *node) {
  const adif::Guard lock(node->session->speed_lock);
  add_tally(node->session->departed, node->counts);
  node->counts = {};
}

void count_wait(c2ms_cache *cache, wait_cause cause, int64_t waited_us) {
  wait_count &waits = cache->waits[static_cast<size_t>(cause)];
  const auto waited = static_cast<uint64_t>(std::max<int64_t>(waited_us, 0));
  trace_wait(cache, cause, waited_us);
  ++waits.count;
  waits.total_us += waited;
  waits.longest_us = std::max(waits.longest_us, waited);
}

void reset_stats(c2ms_sess *sess) {
  sess->delivered = 0;
  {
    const adif::Guard lock(sess->cache_record.lock);
    std::fill(std::begin(sess->cache_record.waits), std::end(sess->cache_record.waits),
              wait_count{});
  }
  const adif::Guard lock(sess->speed_lock);
  sess->departed = {};
  sess->forgotten = 0;
  sess->twice = 0;
}

// True when the last usable node went: who waits for bytes must look at the status.
bool count_states(c2ms_sess *sess, uint32_t from, uint32_t to) REQUIRES(sess->counter_lock) {
  const weight before(from), after(to);
  const bool had = sess->has_active != 0;
  count_ready(sess, before, after);
  count_usable(sess, before, after);
  count_downloading(sess, before, after);
  return had && sess->has_active == 0;
}

void count_speed(c2ms_sess *sess) {
  const adif::Guard lock(sess->speed_lock);
  const int64_t now = now_us();
  const double elapsed_ms = static_cast<double>(now - sess->window_at_us) / 1000.0;
  const auto bytes = static_cast<double>(sess->window_bytes.exchange(0));
  sess->realtime_speed = elapsed_ms > 0 ? bytes / elapsed_ms : 0;
  sess->window_at_us = now;
}

}  // namespace c2ms

using namespace c2ms;

int c2ms_sess_recv_byte(c2ms_sess *sess, int64_t n) {
  if (sess == nullptr) return -1;
  sess->window_bytes += static_cast<uint64_t>(n);
  sess->total_bytes += static_cast<uint64_t>(n);
  return 0;
}

double c2ms_sess_realtime_recvspeed(c2ms_sess *sess) {
  if (sess == nullptr) return 0;
  const adif::Guard lock(sess->speed_lock);
  return sess->realtime_speed;
}

double c2ms_sess_average_recvspeed(c2ms_sess *sess) {
  if (sess == nullptr) return -1.0;
  const uint64_t time_us = sess->recv_time;
  if (time_us == 0) return 0;
  return static_cast<double>(sess->total_bytes) / (static_cast<double>(time_us) / 1000.0);
}
