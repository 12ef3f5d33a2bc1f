// Connecting, disconnecting, states. Receiving stands in fetch/node_recv.cpp.
#include "c2ms/fetch/node.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "adif/tsock.h"
#include "c2ms/core/count.h"
#include "c2ms/core/diag.h"
#include "c2ms/core/identity.h"
#include "c2ms/core/pooled.h"
#include "c2ms/core/recorder.h"
#include "c2ms/core/registry.h"
#include "c2ms/core/servers.h"
#include "c2ms/core/strand_hold.h"
#include "c2ms/core/time.h"
#include "c2ms/core/timer.h"
#include "c2ms/core/wake.h"
#include "c2ms/fetch/choice.h"
#include "c2ms/fetch/node_list.h"
#include "c2ms/fetch/node_record.h"
#include "c2ms/fetch/queue.h"
#include "c2ms/fetch/unit.h"
#include "c2ms/fetch/work.h"

namespace {

using namespace c2ms;

rac_timer *start_node_timer(c2ms_node *node, uint32_t msec, uint32_t command) {
  return start_timer(node->library, msec, command, node->node_id);
}

uint32_t connect_timeout_ms(const c2ms_node *node) {
  return static_cast<uint32_t>(node->library->build_tcp_max_time.load()) * 1000;
}

void start_life_timer(c2ms_node *node) {
  const auto period_ms = static_cast<uint32_t>(node->library->conn_check_time.load()) * 1000;
  stop_timer(&node->life_timer);
  node->life_timer = start_node_timer(node, period_ms, timer_node_life);
}

void drop_device(c2ms_node *node) {
  RemoveDevice(node->device);
  node->device = nullptr;
  stop_timer(&node->connect_timer);
}

// The few attempts of an entry server follow each other at once; media nodes have a brake.
uint32_t next_delay_ms(c2ms_node *node) {
  if (!is_media(node)) return 0;
  if (!node->retried) {
    node->retried = true;
    return 0;
  }
  const uint32_t doubled = node->backoff_ms == 0 ? first_backoff_ms : node->backoff_ms * 2;
  node->backoff_ms = std::min(doubled, std::max(connect_timeout_ms(node), first_backoff_ms));
  return node->backoff_ms;
}

int give_up(c2ms_node *node) {
  // (An open that asked for another list goes on with the servers of the one it has.)
  const c2ms_sess *const sess = node->session;
  const bool has_list = sess->desc_count == 0 && sess->entry_asks > 0;
  if (node->level == 0 && !has_list) c2ms_sess_set_status(node->session, 400);
  c2ms_node_close(node);
  return -100;
}

int send_control(c2ms_node *node, c2ms_unit *unit, uint32_t waiting_state) {
  const int result = c2ms_unit_send(unit, GetDeviceFD(node->device));
  if (result < 0) return result;
  c2ms_node_state_to(node, waiting_state);
  return 0;
}

}  // namespace

c2ms_node *c2ms_node_open(c2ms_sess *session, const char *host, uint32_t ip, uint32_t port,
                          uint8_t type, uint16_t load, uint32_t level) {
  if (session == nullptr || ip == 0 || ip == SOCK_NO_ADDRESS) return nullptr;
  check_inside(session);
  const bool media = (type & node_serves_media) != 0;
  if (!has_room(session, media)) return nullptr;
  c2ms_node *const node = c2ms_node_fetch(session);
  if (node == nullptr) return nullptr;
  node->ip = ip;
  node->port = port;
  node->type = type;
  node->load = load;
  node->level = level;
  if (host != nullptr && *host != '\0') {
    std::strncpy(node->host, host, sizeof node->host - 1);
  } else {
    inet_ntop(AF_INET, &ip, node->host, sizeof node->host);
  }
  if (c2ms_sess_node_add(session, node) != 0) {
    c2ms_node_recycle(node);
    return nullptr;
  }
  c2ms_sess_server_add(session, node->host, ip, port, type);
  c2ms_node_state_to(node, C2MS_NODE_DISCONNECTED);
  return c2ms_node_connect(node) == 0 ? node : nullptr;
}

int c2ms_node_connect(c2ms_node *node) {
  if (node == nullptr) return -1;
  check_inside(node->session);
  if (node->state != C2MS_NODE_DISCONNECTED) return 0;
  c2ms_node_state_to(node, C2MS_NODE_CONNECTING);
  node->opened_at_us = now_us();
  if (!is_media(node) && node->failures > max_failed_attempts) return give_up(node);
  stop_timer(&node->life_timer);
  drop_device(node);
  // All nodes of a session on one worker: answers that come together cost one wake-up.
  node->device = ConnectRemoteAt(node->library->probe, node->session_id, &node->ip,
                                 static_cast<uint16_t>(node->port), node->node_id,
                                 node->library->on_event, node->library);
  if (node->device == nullptr) {
    c2ms_node_retry(node);
    return 0;
  }
  node->session->strand.spoke();
  diag("NodeID:%lu dev:%p\n", static_cast<unsigned long>(node->node_id),
       static_cast<void *>(node->device));
  node->connect_timer = start_node_timer(node, connect_timeout_ms(node), timer_node_connect);
  return 0;
}

int c2ms_node_disconnect_dbg(c2ms_node *node, adif::source_place) {
  if (node == nullptr) return -1;
  check_inside(node->session);
  const bool open = node->state != C2MS_NODE_NULL;
  if (open) c2ms_node_state_to(node, C2MS_NODE_DISCONNECTED);
  c2ms_node_download_exit(node);
  drop_device(node);
  stop_timer(&node->life_timer);
  return 0;
}

namespace {

// A connection that fails with a request ahead of its answer may have failed for that: its server
// is not asked ahead again.
void note_ahead_failure(c2ms_node *node) {
  const adif::Guard lock(node->download_lock);
  const c2ms_unit *const unit = node->download_unit;
  const bool unanswered = unit != nullptr && unit->ahead && unit->state <= UNIT_GETHDR;
  if (node->next_unit != nullptr || unanswered) node->takes_ahead = false;
}

}  // namespace

int c2ms_node_retry(c2ms_node *node) {
  if (node == nullptr) return -1;
  check_inside(node->session);
  ++node->failures;
  count_failure(node);
  note_ahead_failure(node);
  c2ms_node_disconnect_dbg(node);
  node->connect_timer = start_node_timer(node, next_delay_ms(node), timer_node_connect);
  if (is_media(node)) node->session->list_due = true;
  return 0;
}

int c2ms::connect_anew(c2ms_node *node) {
  check_inside(node->session);
  node->anew_at_us = now_us();
  c2ms_node_disconnect_dbg(node);
  return c2ms_node_connect(node);
}

void c2ms::rearm(c2ms_node *node) {
  check_inside(node->session);
  const uint32_t state = node->state;
  if (state == C2MS_NODE_NULL) return;
  if (state >= C2MS_NODE_CONNECTED) {
    if (node->life_timer == nullptr) start_life_timer(node);
  } else if (node->connect_timer == nullptr) {
    const bool waits = state == C2MS_NODE_DISCONNECTED;
    const uint32_t msec = waits ? node->backoff_ms : connect_timeout_ms(node);
    node->connect_timer = start_node_timer(node, msec, timer_node_connect);
  }
}

int c2ms_node_get_connected(c2ms_node *node) {
  if (node == nullptr) return -1;
  if (node->session == nullptr) return -2;
  check_inside(node->session);
  c2ms_node_state_to(node, C2MS_NODE_CONNECTED);
  stop_timer(&node->connect_timer);
  node->last_active_at_us = now_us();
  start_life_timer(node);
  int result = 0;
  if ((node->type & node_serves_list) != 0) {
    result = c2ms_node_get_srvlist(node);
  } else if (is_media(node)) {
    result = c2ms_node_desc_media(node);
  } else {
    c2ms_node_state_to(node, C2MS_NODE_READY);
  }
  if (result < 0) c2ms_node_retry(node);
  return result;
}

int c2ms_node_get_srvlist(c2ms_node *node) {
  if (node == nullptr) return -1;
  check_inside(node->session);
  if (node->state < C2MS_NODE_CONNECTED) return -2;
  c2ms_unit_init_srvlist(node, &node->srvlist_unit);
  return send_control(node, &node->srvlist_unit, C2MS_NODE_WAITING_SRVLIST_RESP);
}

int c2ms_node_desc_media(c2ms_node *node) {
  if (node == nullptr) return -1;
  check_inside(node->session);
  if (node->state < C2MS_NODE_CONNECTED) return -2;
  c2ms_unit_init_descmedia(node, &node->descmedia_unit);
  return send_control(node, &node->descmedia_unit, C2MS_NODE_WAITING_DESCMEDIA_RESP);
}

namespace {

int send_download(c2ms_node *node, c2ms_unit *unit) REQUIRES(node->download_lock) {
  unit->node = node;
  unit->node_id = node->node_id;
  const int result = c2ms_unit_send(unit, GetDeviceFD(node->device));
  if (result == 0) count_sent(node, unit);
  return result;
}

}  // namespace

bool c2ms::may_ask_ahead(c2ms_node *node) {
  check_inside(node->session);
  if (!node->takes_ahead || node->state != C2MS_NODE_WAITING_GETMEDIA_RESP) return false;
  {
    const adif::Guard lock(node->download_lock);
    if (node->download_unit == nullptr || node->next_unit != nullptr) return false;
  }
  const session_lanes known = lanes_of(node->session);
  const size_t who = known.find(node);
  c2ms_cache *const cache = node->session->cache.load();
  return cache != nullptr && who < known.count && asks_ahead(known.all(), who, reader_of(cache));
}

bool c2ms::ask_ahead(c2ms_node *node) {
  check_inside(node->session);
  c2ms_unit *const unit = c2ms_sess_unit_get(node->session, node);
  if (unit == nullptr) return true;
  int result;
  {
    const adif::Guard lock(node->download_lock);
    unit->ahead = true;
    result = send_download(node, unit);
    if (result == 0) node->next_unit = unit;
  }
  if (result != 0) c2ms_sess_unit_requeue(node->session, unit);
  return result != unit_socket_failed;
}

int c2ms_node_download_start_dbg(c2ms_node *node, adif::source_place) {
  if (node == nullptr) return -1;
  check_inside(node->session);
  if (!is_media(node) || node->state != C2MS_NODE_READY) return 0;
  const bool asked_ahead = node->asked_at_us != 0;  // its request is out
  if (asked_ahead) return c2ms_node_state_to(node, C2MS_NODE_WAITING_GETMEDIA_RESP);
  c2ms_unit *const unit = c2ms_sess_unit_get(node->session, node);
  if (unit == nullptr) return -100;
  c2ms_node_state_to(node, C2MS_NODE_WAITING_GETMEDIA_RESP);
  int result;
  {
    const adif::Guard lock(node->download_lock);
    node->download_unit = unit;
    result = send_download(node, unit);
  }
  if (result == 0) {
    node->asked_at_us = node->last_active_at_us;
    return 0;
  }
  if (result == unit_socket_failed) {
    c2ms_node_retry(node);
    return result;
  }
  // The range moved on between taking and sending: another unit, at the next look.
  c2ms_node_download_exit(node);
  c2ms_node_state_to(node, C2MS_NODE_READY);
  mark_dispatch_due(node->session);
  return result;
}

namespace {

// What was asked for ahead moves up.
c2ms_unit *detach_download(c2ms_node *node) {
  const adif::Guard lock(node->download_lock);
  c2ms_unit *const unit = node->download_unit;
  node->download_unit = std::exchange(node->next_unit, nullptr);
  node->asked_at_us = node->download_unit == nullptr ? 0 : to_us(node->download_unit->sent_time);
  if (unit == nullptr) return nullptr;
  count_given_up(node, unit);  // unless it is complete, or was never sent
  unit->node = nullptr;
  unit->node_id = 0;
  return unit;
}

}  // namespace

int c2ms_node_download_exit(c2ms_node *node) {
  if (node == nullptr) return -1;
  if (node->session != nullptr) {
    const adif::Guard lock(node->session->speed_lock);
    node->estimate.disconnected();
  }
  int result = 0;
  while (c2ms_unit *const unit = detach_download(node)) {
    result = c2ms_sess_unit_requeue(node->session, unit);
  }
  return result;
}

int c2ms_node_download_end(c2ms_node *node) {
  if (node == nullptr) return -1;
  check_inside(node->session);
  c2ms_unit *const unit = detach_download(node);
  return unit == nullptr ? -2 : c2ms_unit_recycle(unit);
}

int c2ms_node_state_to(c2ms_node *node, uint32_t state) {
  if (node == nullptr) return -1;
  c2ms_sess *const sess = node->session;
  if (sess == nullptr) return -2;
  bool lost_last = false;
  uint32_t before;
  {
    const adif::Guard lock(sess->counter_lock);
    before = node->state;
    if (before == state) return 0;
    if (is_media(node)) lost_last = count_states(sess, before, state);
    if (state == C2MS_NODE_READY && before < C2MS_NODE_READY) node->ready_at_us = now_us();
    node->state = state;
  }
  if (lost_last) c2ms_cache_wake(sess->cache.load());
  // (Between ready and downloading: the requests tell it.)
  const bool told = before >= C2MS_NODE_READY && state >= C2MS_NODE_READY;
  if (!told) trace_node(node, state);
  return 0;
}

c2ms_node *c2ms_node_fetch(c2ms_sess *session) {
  if (session == nullptr || session->mgmt == nullptr) return nullptr;
  check_inside(session);
  c2ms_mgmt *const mgmt = session->mgmt;
  c2ms_node *const node = fetch_record(mgmt->node_pool, c2ms_node_init);
  if (node == nullptr) return nullptr;
  node->session_id = session->sess_id;
  node->session = session;
  node->library = mgmt;
  node->node_id = c2ms_nodeid(mgmt);
  if (c2ms_node_add(mgmt, node) == 0) return node;
  return_record(mgmt->node_pool, node, c2ms_node_free);
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
  count_departed(node);
  if (session->desc_count == 0) wake_opener(session);  // was it the last one?
  node->session = nullptr;
  node->library = nullptr;
  return_record(mgmt->node_pool, node, c2ms_node_free);
  return 0;
}

int c2ms_node_close(c2ms_node *node) {
  return c2ms_node_recycle(node);
}
