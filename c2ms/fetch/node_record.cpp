// See node_record.h.
#include "c2ms/fetch/node_record.h"

#include <cmath>
#include <cstring>

#include "adif/kalloc.h"
#include "c2ms/core/registry.h"
#include "c2ms/core/strand_hold.h"
#include "c2ms/core/time.h"
#include "c2ms/core/timer.h"
#include "c2ms/fetch/node_list.h"
#include "c2ms/fetch/unit.h"

namespace {

using namespace c2ms;

void reset_fields(c2ms_node *node) {
  node->level = 0;
  node->load = 0;
  node->type = 0;
  node->remembered = c2ms::from_memory::no;
  node->node_id = 0;
  node->state.store(C2MS_NODE_NULL);
  node->ip = 0;
  node->port = 0;
  std::memset(node->host, 0, sizeof node->host);
  node->failures = 0;
  node->ready_times = 0;
  node->device = nullptr;
  node->connect_timer = nullptr;
  node->life_timer = nullptr;
  node->last_active_at_us = 0;
  node->asked_at_us = 0;
  node->takes_ahead = true;
  node->opened_at_us = 0;
  node->probed_at_us = 0;
  node->anew_at_us = 0;
  node->estimate = {};
  node->perf = {};
  node->counts = {};
  node->session_id = 0;
  node->session = nullptr;
  node->library = nullptr;
  node->backoff_ms = 0;
  node->retried = false;
  node->ready_at_us = 0;
  node->short_answers = 0;
  const adif::Guard lock(node->download_lock);
  node->download_unit = nullptr;
  node->next_unit = nullptr;
}

}  // namespace

int c2ms_node_init(c2ms_node *node) {
  if (node == nullptr) return -1;
  c2ms::construct_once(node);
  reset_fields(node);
  c2ms_unit_init(&node->srvlist_unit);
  c2ms_unit_init(&node->descmedia_unit);
  return 0;
}

namespace c2ms {

void drop_connection(c2ms_node *node) {
  RemoveDevice(node->device);
  node->device = nullptr;
  stop_timer(&node->connect_timer);
  stop_timer(&node->life_timer);
}

}  // namespace c2ms

int c2ms_node_free(c2ms_node *node) {
  if (node == nullptr) return -1;
  if (node->library != nullptr) c2ms_node_del(node->library, node);
  if (node->session != nullptr) c2ms_sess_node_del(node->session, node);
  drop_connection(node);
  c2ms_unit *unit = nullptr, *next = nullptr;
  {
    const adif::Guard lock(node->download_lock);
    std::swap(unit, node->download_unit);
    std::swap(next, node->next_unit);
  }
  c2ms_unit_recycle(unit);
  c2ms_unit_recycle(next);
  deleteFrame(&node->srvlist_unit.frame);
  deleteFrame(&node->descmedia_unit.frame);
  node->~c2ms_node();
  kfree_dbg(node);
  return 0;
}

int c2ms_node_perf_statistic(c2ms_node *node, c2ms_unit *unit) {
  if (node == nullptr) return -1;
  if (unit == nullptr) return -2;
  check_inside(node->session);
  // A transfer longer than about 2147 s wraps here; that is meant, servers' figures are built the
  // same way.
  const auto seconds_us = [](const timeval &a, const timeval &b) {
    const auto seconds = static_cast<uint32_t>(a.tv_sec - b.tv_sec);
    return int64_t{static_cast<int32_t>(seconds * 1'000'000u)} + (a.tv_usec - b.tv_usec);
  };
  const adif::Guard lock(node->session->list_lock);
  c2ms_node_perf &perf = node->perf;
  perf.TN += 1;
  perf.RTT = seconds_us(unit->first_time, unit->sent_time);
  if (unit->end_time.tv_sec < 1) unit->end_time = c2ms::now_tv();
  if (unit->end_time.tv_sec > 0) {
    const int64_t total = seconds_us(unit->end_time, unit->sent_time);
    if (total > 0) perf.RTT = total;
  }
  perf.AccRTT += perf.RTT;
  perf.AvgRTT = perf.AccRTT / perf.TN;
  const int64_t bytes = int64_t{unit->received.load()} + frameLength(unit->frame);
  perf.Speed =
      perf.RTT <= 0 ? 0 : static_cast<double>(bytes) * 1000.0 / static_cast<double>(perf.RTT);
  perf.AccTime += perf.RTT;
  perf.AccBytes += bytes;
  perf.AvgSpeed = static_cast<double>(perf.AccBytes) * 1000.0 / static_cast<double>(perf.AccTime);
  return 0;
}

const char *c2ms::node_state_name(uint32_t state) {
  static constexpr const char *names[] = {
      "C2MS_NODE_NULL",      "C2MS_NODE_DISCONNECTED",         "C2MS_NODE_CONNECTING",
      "C2MS_NODE_CONNECTED", "C2MS_NODE_WAITING_SRVLIST_RESP", "C2MS_NODE_WAITING_DESCMEDIA_RESP",
      "C2MS_NODE_READY",     "C2MS_NODE_WAITING_GETMEDIA_RESP"};
  return state < std::size(names) ? names[state] : "Unknown";
}
