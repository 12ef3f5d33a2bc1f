// See pump.h.
#include "c2ms/session/pump.h"

#include "c2ms/core/diag.h"
#include "c2ms/core/records.h"
#include "c2ms/core/registry.h"
#include "c2ms/core/timer.h"
#include "c2ms/core/wake.h"
#include "c2ms/fetch/dispatch.h"
#include "c2ms/fetch/node.h"
#include "c2ms/fetch/node_list.h"
#include "c2ms/fetch/node_recv.h"
#include "c2ms/fetch/watch.h"
#include "c2ms/session/check.h"
#include "c2ms/session/entry.h"
#include "c2ms/session/timers.h"

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

// The door: finds an event's node by its id, enters its session's strand and looks again. What is
// not there any more is `gone`, which is told whether the registry still knew it.
template <class Handle, class Gone>
int at_the_door(c2ms_mgmt *mgmt, uintptr_t id, Handle handle, Gone gone) {
  node_ref ref;
  if (!find_node(mgmt, static_cast<uint32_t>(id), &ref)) return gone(false);
  Turn turn(ref.sess);
  if (!still_there(mgmt, ref)) return gone(true);
  const int result = handle(ref, turn);
  // (While payload was received the strand was free: the session may have ended.)
  if (turn.inside() && still_open(ref.sess, ref.sess_id)) ask_entry_if_due(ref.sess);
  return result;
}

// Something that the operator reads, in the order in which it happened.
template <class... Values>
void say(c2ms_node *node, const char *format, Values... values) {
  node->session->strand.spoke();
  diag(format, values...);
}

int on_connected(c2ms_mgmt *mgmt, rac_connection *device, uintptr_t id) {
  const auto gone = [device](bool) {
    drop_stale(device);
    return -100;
  };
  const auto handle = [&](const node_ref &ref, Turn &) {
    c2ms_node *const node = ref.node;
    say(node, "NodeID:%lu connect %s:%d successfully.\n", printable(id), node->host,
        static_cast<int>(node->port));
    if (node->device != device) {
      diag("node->pdev:%p , vboj:%p \n", static_cast<void *>(node->device),
           static_cast<void *>(device));
      drop_stale(device);
      return -130;
    }
    c2ms_node_get_connected(node);
    return 0;
  };
  return at_the_door(mgmt, id, handle, gone);
}

int on_connect_failed(c2ms_mgmt *mgmt, rac_connection *device, uintptr_t id) {
  const auto gone = [&](bool known) {
    if (!known) diag("Connect failed, but not find node instance! %lu\n", printable(id));
    drop_stale(device);
    return -200;
  };
  const auto handle = [&](const node_ref &ref, Turn &) {
    c2ms_node *const node = ref.node;
    say(node, "NodeID:%lu connect %s:%d failed, now reconnect again.\n", printable(id), node->host,
        static_cast<int>(node->port));
    if (node->device == device) {
      c2ms_node_retry(node);
    } else {
      drop_stale(device);
    }
    return 0;
  };
  return at_the_door(mgmt, id, handle, gone);
}

int on_read(c2ms_mgmt *mgmt, rac_connection *device, uintptr_t id) {
  const auto gone = [&](bool known) {
    drop_stale(device);
    if (known) return -120;
    diag("\nIOE_READ event recved, nodeid=%ld, but node not exist.\n\n", static_cast<long>(id));
    return -20;
  };
  const auto handle = [&](const node_ref &ref, Turn &turn) {
    return ref.node->device == device ? c2ms_node_recv(ref, device, turn) : gone(true);
  };
  return at_the_door(mgmt, id, handle, gone);
}

int on_invalid_device(c2ms_mgmt *mgmt, rac_connection *device, uintptr_t id) {
  const auto gone = [&](bool) {
    diag("\nIOE_INVALID_DEV event recved, nodeid=%ld, but node not exist.\n\n",
         static_cast<long>(id));
    drop_stale(device);
    return -141;
  };
  const auto handle = [&](const node_ref &ref, Turn &) {
    c2ms_node *const node = ref.node;
    if (node->device != device) return gone(true);
    say(node, "NodeID:%lu connect %s:%d, INVALID device.\n", printable(id), node->host,
        static_cast<int>(node->port));
    if (node->level == 0) c2ms_sess_set_status(node->session, 400);
    if (is_media(node)) {
      c2ms_node_retry(node);
    } else {
      c2ms_node_disconnect_dbg(node);
      c2ms_node_close(node);
    }
    return 0;
  };
  return at_the_door(mgmt, id, handle, gone);
}

// True when this is the timer that `own` points at: it has fired, and is forgotten.
bool take_timer(rac_timer **own, rac_timer *fired) {
  if (*own != fired) return false;
  stop_timer(own);
  return true;
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
  const Turn turn(sess);
  if (!still_open(sess, static_cast<uint32_t>(id))) return gone();
  int result = 0;
  if (command == timer_sess_check) {
    sess->strand.spoke();
    diag("t_sess_check timeout\n");
    if (!take_timer(&sess->check_timer, timer)) return 0;
    c2ms_sess_check(sess);
  } else if (command == timer_sess_watch) {
    if (!take_timer(&sess->watch_timer, timer)) return 0;
    watch_session(sess);
  } else {
    if (!take_timer(&sess->speed_timer, timer)) return 0;
    result = c2ms_sess_recvspeed_count(sess);
  }
  ask_entry_if_due(sess);
  if (command != timer_sess_watch) rearm_timers(sess);
  return result;
}

int on_connect_timer(c2ms_node *node, rac_timer *timer) {
  if (!take_timer(&node->connect_timer, timer)) return 0;
  if (node->state == C2MS_NODE_CONNECTING) {
    say(node, "t_build_node_conn timeout, now node %lu clean\n", printable(node->node_id));
    c2ms_node_retry(node);
  } else {
    c2ms_node_connect(node);  // the brake is over
  }
  return 0;
}

int on_life_timer(c2ms_node *node, rac_timer *timer) {
  if (take_timer(&node->life_timer, timer)) c2ms_node_lifecheck(node);
  return 0;
}

int on_timer(c2ms_mgmt *mgmt, rac_timer *timer) {
  const uint32_t command = GetTimeoutCmd(timer);
  const uintptr_t id = GetTimeoutPara(timer);
  if (command == timer_sess_check || command == timer_speed_count || command == timer_sess_watch) {
    return on_sess_timer(mgmt, timer, command, id);
  }
  const auto handle = [&](const node_ref &ref, Turn &) {
    if (command != timer_node_connect && command != timer_node_life) return -1;
    const int result = command == timer_node_connect ? on_connect_timer(ref.node, timer)
                                                     : on_life_timer(ref.node, timer);
    rearm_timers(ref.sess);
    return result;
  };
  return at_the_door(mgmt, id, handle, [](bool) { return -22; });
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
  WakeOrder wakes;
  const int result = handle(static_cast<c2ms_mgmt *>(mgmt), dev, event, kind);
  wakes.finish();  // first: a player's function for lines may take its time
  diag_deliver();
  return result;
}
