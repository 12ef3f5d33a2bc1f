#include "c2ms/session/pump.h"

#include "c2ms/ring/cache.h"
#include "c2ms/core/diag.h"
#include "c2ms/fetch/node.h"
#include "c2ms/session/session.h"
#include "c2ms/session/object.h"
#include "c2ms/fetch/queue.h"
#include "c2ms/fetch/watch.h"
#include "c2ms/core/strand.h"

namespace {

using namespace c2ms;

constexpr int first_event = 1, last_event = 10;

unsigned long printable(uintptr_t id) {
  return static_cast<unsigned long>(id);
}

// Nothing listens any more to a device whose node is gone or has another one: it is removed, or
// what is readable on it would be reported for ever.
void drop_stale(rac_connection *device) {
  RemoveDevice(device);
}

int on_connected(c2ms_mgmt *mgmt, rac_connection *device, uintptr_t id) {
  node_ref ref;
  if (!find_node(mgmt, static_cast<uint32_t>(id), &ref)) {
    drop_stale(device);
    return -100;
  }
  const StrandGuard strand(ref.sess);
  if (!still_there(mgmt, ref)) {
    drop_stale(device);
    return -100;
  }
  c2ms_node *const node = ref.node;
  ref.sess->strand.spoke();
  diag("NodeID:%lu connect %s:%d successfully.\n", printable(id), node->host,
       static_cast<int>(node->port));
  if (node->device != device) {
    diag("node->pdev:%p , vboj:%p \n", static_cast<void *>(node->device),
         static_cast<void *>(device));
    drop_stale(device);
    return -130;
  }
  c2ms_node_get_connected(node);
  return 0;
}

int on_connect_failed(c2ms_mgmt *mgmt, rac_connection *device, uintptr_t id) {
  node_ref ref;
  if (!find_node(mgmt, static_cast<uint32_t>(id), &ref)) {
    diag("Connect failed, but not find node instance! %lu\n", printable(id));
    drop_stale(device);
    return -200;
  }
  const StrandGuard strand(ref.sess);
  if (!still_there(mgmt, ref)) {
    drop_stale(device);
    return -200;
  }
  c2ms_node *const node = ref.node;
  ref.sess->strand.spoke();
  diag("NodeID:%lu connect %s:%d failed, now reconnect again.\n", printable(id), node->host,
       static_cast<int>(node->port));
  if (node->device == device) {
    c2ms_node_retry(node);
  } else {
    drop_stale(device);
  }
  return 0;
}

int on_read(c2ms_mgmt *mgmt, rac_connection *device, uintptr_t id) {
  node_ref ref;
  if (!find_node(mgmt, static_cast<uint32_t>(id), &ref)) {
    diag("\nIOE_READ event recved, nodeid=%ld, but node not exist.\n\n", static_cast<long>(id));
    drop_stale(device);
    return -20;
  }
  const ReaderLast after_strand;
  StrandGuard strand(ref.sess);
  if (!still_there(mgmt, ref) || ref.node->device != device) {
    drop_stale(device);
    return -120;
  }
  return c2ms_node_recv(ref, device, strand);
}

int on_invalid_device(c2ms_mgmt *mgmt, rac_connection *device, uintptr_t id) {
  node_ref ref;
  const auto gone = [&] {
    diag("\nIOE_INVALID_DEV event recved, nodeid=%ld, but node not exist.\n\n",
         static_cast<long>(id));
    drop_stale(device);
    return -141;
  };
  if (!find_node(mgmt, static_cast<uint32_t>(id), &ref)) return gone();
  const StrandGuard strand(ref.sess);
  if (!still_there(mgmt, ref) || ref.node->device != device) return gone();
  c2ms_node *const node = ref.node;
  ref.sess->strand.spoke();
  diag("NodeID:%lu connect %s:%d, INVALID device.\n", printable(id), node->host,
       static_cast<int>(node->port));
  if (node->level == 0) c2ms_sess_set_status(node->session, 400);
  if (is_media(node)) {
    c2ms_node_retry(node);
  } else {
    c2ms_node_disconnect_dbg(node);
    c2ms_node_close(node);
  }
  return 0;
}

int on_sess_timer(c2ms_mgmt *mgmt, rac_timer *timer, uint32_t command, uintptr_t id) {
  c2ms_sess *const sess = c2ms_sess_get(mgmt, static_cast<uint32_t>(id));
  const auto gone = [&] {
    if (command == timer_sess_check) {
      diag("\nc2ms_pump: IOE_TIMEOUT recved, sessid=%ld timercmd=%d, but no node exist.\n\n",
           static_cast<long>(id), static_cast<int>(command));
    }
    return -140;
  };
  if (sess == nullptr) return gone();
  const StrandGuard strand(sess);
  if (!still_open(sess, static_cast<uint32_t>(id))) return gone();
  if (command == timer_sess_check) {
    sess->strand.spoke();
    diag("t_sess_check timeout\n");
    if (sess->check_timer != timer) return 0;
    StopTimer(timer);
    sess->check_timer = nullptr;
    c2ms_sess_check(sess);
    rearm_timers(sess);
    return 0;
  }
  if (command == timer_sess_watch) {
    if (sess->watch_timer != timer) return 0;
    StopTimer(timer);
    sess->watch_timer = nullptr;
    watch_session(sess);
    return 0;
  }
  if (sess->speed_timer != timer) return 0;
  StopTimer(timer);
  sess->speed_timer = nullptr;
  const int result = c2ms_sess_recvspeed_count(sess);
  rearm_timers(sess);
  return result;
}

int on_connect_timer(c2ms_node *node, rac_timer *timer) {
  if (node->connect_timer != timer) return 0;
  StopTimer(timer);
  node->connect_timer = nullptr;
  if (node->state == C2MS_NODE_CONNECTING) {
    node->session->strand.spoke();
    diag("t_build_node_conn timeout, now node %lu clean\n", printable(node->node_id));
    c2ms_node_retry(node);
  } else {
    c2ms_node_connect(node);  // the brake is over
  }
  return 0;
}

int on_life_timer(c2ms_node *node, rac_timer *timer) {
  if (node->life_timer != timer) return 0;
  StopTimer(timer);
  node->life_timer = nullptr;
  c2ms_node_lifecheck(node);
  return 0;
}

int on_timer(c2ms_mgmt *mgmt, rac_timer *timer) {
  const uint32_t command = GetTimeoutCmd(timer);
  const uintptr_t id = GetTimeoutPara(timer);
  if (command == timer_sess_check || command == timer_speed_count || command == timer_sess_watch) {
    return on_sess_timer(mgmt, timer, command, id);
  }
  node_ref ref;
  if (!find_node(mgmt, static_cast<uint32_t>(id), &ref)) return -22;
  const StrandGuard strand(ref.sess);
  if (!still_there(mgmt, ref)) return -22;
  if (command != timer_node_connect && command != timer_node_life) return -1;
  const int result = command == timer_node_connect ? on_connect_timer(ref.node, timer)
                                                   : on_life_timer(ref.node, timer);
  rearm_timers(ref.sess);
  return result;
}

int handle(c2ms_mgmt *mgmt, void *dev, int event, int kind) {
  if (event == IOE_TIMEOUT) return on_timer(mgmt, static_cast<rac_timer *>(dev));
  auto *const device = static_cast<rac_connection *>(dev);
  const uintptr_t id = GetDevicePara(device);
  switch (event) {
    case IOE_CONNECTED:
      return on_connected(mgmt, device, id);
    case IOE_CONNECT_FAILED:
      return on_connect_failed(mgmt, device, id);
    case IOE_ACCEPTED:
      return kind == PROBE_TCP_SERVER ? 0 : -1;
    case IOE_READ:
      return on_read(mgmt, device, id);
    case IOE_WRITE:
      return 0;
    case IOE_INVALID_DEV:
      return on_invalid_device(mgmt, device, id);
    default:
      return -1;
  }
}

}  // namespace

int c2ms_pump(void *mgmt, void *dev, int event, int kind) {
  if (mgmt == nullptr || event < first_event || event > last_event) return -1;
  const int result = handle(static_cast<c2ms_mgmt *>(mgmt), dev, event, kind);
  diag_deliver();
  c2ms_cache_yield_to_reader();
  return result;
}
