#include "c2ms/fetch/node_record.h"

#include <cmath>
#include <cstring>

#include "adif/kalloc.h"
#include "c2ms/session/mgmt.h"
#include "c2ms/fetch/node.h"
#include "c2ms/session/object.h"
#include "c2ms/fetch/queue.h"
#include "c2ms/player/stats.h"
#include "c2ms/core/time.h"
#include "c2ms/fetch/unit.h"

namespace {

template <class T>
int three_way(T a, T b) {
  return a < b ? -1 : (a > b ? 1 : 0);
}

int compare_address(const c2ms_node *node, uint32_t ip, uint32_t port) {
  if (node->ip != ip) return node->ip < ip ? -1 : 1;
  return three_way(static_cast<int32_t>(node->port), static_cast<int32_t>(port));
}

double comparable(double speed) {
  return std::isnan(speed) ? 0.0 : speed;
}

void stop_timer(rac_timer **timer) {
  StopTimer(*timer);
  *timer = nullptr;
}

void drop_connection(c2ms_node *node) {
  RemoveDevice(node->device);
  node->device = nullptr;
  stop_timer(&node->connect_timer);
  stop_timer(&node->life_timer);
}

void reset_fields(c2ms_node *node) {
  node->level = 0;
  node->load = 0;
  node->type = 0;
  node->node_id = 0;
  node->state.store(C2MS_NODE_NULL);
  node->ip = 0;
  node->port = 0;
  std::memset(node->host, 0, sizeof node->host);
  node->times = 0;
  node->ready_times = 0;
  node->device = nullptr;
  node->connect_timer = nullptr;
  node->life_timer = nullptr;
  node->last_active_us = 0;
  node->asked_us = 0;
  node->takes_ahead = true;
  node->opened_us = 0;
  node->probed_us = 0;
  node->anew_us = 0;
  node->estimate = {};
  node->perf = {};
  node->counts = {};
  node->session_id = 0;
  node->session = nullptr;
  node->library = nullptr;
  node->backoff_ms = 0;
  node->retried = false;
  node->ready_since_us = 0;
  node->short_answers = 0;
  const adif::Guard lock(node->download_lock);
  node->download_unit = nullptr;
  node->next_unit = nullptr;
}

void give_back(c2ms_mgmt *mgmt, c2ms_node *node) {
  if (mgmt->node_pool == nullptr) {
    c2ms_node_free(node);
  } else {
    recycleUnit(mgmt->node_pool, node);
  }
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

c2ms_node *c2ms_node_fetch(c2ms_sess *session) {
  if (session == nullptr || session->mgmt == nullptr) return nullptr;
  c2ms_mgmt *const mgmt = session->mgmt;
  int status = 0;
  auto *node = static_cast<c2ms_node *>(blockFetchUnit(mgmt->node_pool, &status));
  if (node == nullptr) {
    node = static_cast<c2ms_node *>(kzalloc_dbg(sizeof(c2ms_node)));
    if (c2ms_node_init(node) != 0) return nullptr;
  }
  node->session_id = session->sess_id;
  node->session = session;
  node->library = mgmt;
  node->node_id = c2ms_nodeid(mgmt);
  if (c2ms_node_add(mgmt, node) == 0) return node;
  give_back(mgmt, node);
  return nullptr;
}

int c2ms_node_recycle(c2ms_node *node) {
  if (node == nullptr) return -1;
  c2ms_mgmt *const mgmt = node->library;
  // By id and pointer: a node that is not registered any more has been recycled.
  if (mgmt == nullptr || c2ms_node_del(mgmt, node) == nullptr) return 0;
  c2ms_sess *const session = node->session;
  drop_connection(node);
  c2ms_node_state_to(node, C2MS_NODE_NULL);
  c2ms_sess_node_del(session, node);
  if (session->entry_node == node) session->entry_node = nullptr;
  c2ms_node_download_exit(node);
  c2ms::count_departed(node);
  if (session->desc_count == 0) c2ms::wake_opener(session);  // was it the last one?
  node->session = nullptr;
  node->library = nullptr;
  give_back(mgmt, node);
  return 0;
}

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

int c2ms_node_cmp_iport(const void *node, const void *key) {
  if (node == nullptr) return -1;
  if (key == nullptr) return -2;
  const auto *const want = static_cast<const c2ms_iport_key *>(key);
  return compare_address(static_cast<const c2ms_node *>(node), want->ip, want->port);
}

int c2ms_node_cmp_node_by_iport(const void *a, const void *b) {
  if (a == nullptr) return -1;
  if (b == nullptr) return -2;
  const auto *const other = static_cast<const c2ms_node *>(b);
  return compare_address(static_cast<const c2ms_node *>(a), other->ip, other->port);
}

int c2ms_node_cmp_node_by_perf(const void *a, const void *b) {
  if (a == nullptr) return -1;
  if (b == nullptr) return -2;
  const auto *const first = *static_cast<const c2ms_node *const *>(a);
  const auto *const second = *static_cast<const c2ms_node *const *>(b);
  if (first == nullptr) return -1;
  if (second == nullptr) return -2;
  return three_way(comparable(second->perf.AvgSpeed), comparable(first->perf.AvgSpeed));
}

int c2ms_node_cmp_nodeid(const void *node, const void *key) {
  if (node == nullptr) return -1;
  if (key == nullptr) return -2;
  return three_way(static_cast<const c2ms_node *>(node)->node_id,
                   *static_cast<const uint32_t *>(key));
}

int c2ms_node_cmp_node(const void *a, const void *b) {
  if (b == nullptr) return a == nullptr ? -1 : -2;
  return c2ms_node_cmp_nodeid(a, &static_cast<const c2ms_node *>(b)->node_id);
}

const char *c2ms::node_state_name(uint32_t state) {
  static constexpr const char *names[] = {
      "C2MS_NODE_NULL",      "C2MS_NODE_DISCONNECTED",         "C2MS_NODE_CONNECTING",
      "C2MS_NODE_CONNECTED", "C2MS_NODE_WAITING_SRVLIST_RESP", "C2MS_NODE_WAITING_DESCMEDIA_RESP",
      "C2MS_NODE_READY",     "C2MS_NODE_WAITING_GETMEDIA_RESP"};
  return state < std::size(names) ? names[state] : "Unknown";
}
