// The worker's loop and its wake-up. See rac_process_cycle.h.
#include "eprobe/rac_process_cycle.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "adif/check.h"
#include "adif/tsock.h"
#include "eprobe/probe_event.h"
#include "eprobe/rac_connection.h"
#include "eprobe/rac_event.h"
#include "eprobe/rac_handle.h"
#include "eprobe/rac_operate.h"
#include "eprobe/rac_select.h"
#include "eprobe/rac_wake.h"

namespace {

constexpr const char *SOURCE = "eprobe/rac_process_cycle";
constexpr int BRAKE_MS = 10;    ///< between two waits that fail, or without a wake-up socket
constexpr int WATCH_MS = 3000;  ///< how long the first worker waits at most

/// Nobody selects on the sending end: once half of the numbers below 1024 are taken it leaves the
/// others to devices and to the workers of further instances, where the process may have higher
/// ones.
int move_up(int fd) {
  if (fd < PROBE_MAX_FD / 2) return fd;
  const int high = fcntl(fd, F_DUPFD_CLOEXEC, PROBE_MAX_FD);
  if (high < 0) return fd;
  close(fd);
  return high;
}

int open_notify_pair(rac_base *base) {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return -1;
  base->notify_send_fd = move_up(pair[0]);
  base->notify_recv_fd = pair[1];
  // A worker that blocked in its wake-up socket would be lost.
  if (rac_set_socket_nonblocking(base->notify_send_fd) != 0) return -1;
  return rac_set_socket_nonblocking(base->notify_recv_fd);
}

int watch_notify_socket(rac_core *core, rac_base *base) {
  rac_connection *c = rac_get_connection(core, base->notify_recv_fd);
  if (c == nullptr) return -1;
  core->nconn_active.fetch_add(1, std::memory_order_relaxed);
  c->base.store(base, std::memory_order_release);
  c->read->accept = true;
  c->read->handler = rac_process_base_event;
  base->notify_connection = c;
  return rac_event_actions.add(base, c->read, RAC_READ_SIDE, 0);
}

void accepted(rac_connection *c) {
  if (c->handler == nullptr) return rac_close_connection(c->core, c);  // nobody knows it
  rac_tell(c, IOE_ACCEPTED);
}

/// A connection is counted by the base that carries out its first request, whatever kind it is, and
/// taken off the same base's count.
void count_in(rac_base *base, rac_connection *c) {
  if (c->counted_by != nullptr) return;
  c->counted_by = base;
  base->nconnections.fetch_add(1, std::memory_order_relaxed);
}

void count_out(rac_connection *c) {
  if (c->counted_by != nullptr) c->counted_by->nconnections.fetch_sub(1, std::memory_order_relaxed);
}

/// Requests other than closing do nothing on a connection that is being removed or has lost its
/// descriptor.
void carry_out(rac_base *base, rac_connection *c, const rac_operate &op) {
  if (op.op == RAC_OP_CLOSE) {
    count_out(c);
    return rac_close_connection(base->core, c);
  }
  if (!rac_is_live(c) || !rac_owns_fd(c)) return;
  count_in(base, c);
  switch (op.op) {
    case RAC_OP_ADD_READ:
      rac_event_actions.add(base, c->read, RAC_READ_SIDE, 0);
      return;
    case RAC_OP_DEL_READ:
      rac_event_actions.del(base, c->read, RAC_READ_SIDE, 0);
      return;
    case RAC_OP_ADD_WRITE:
      rac_event_actions.add(base, c->write, RAC_WRITE_SIDE, 0);
      return;
    case RAC_OP_DEL_WRITE:
      rac_event_actions.del(base, c->write, RAC_WRITE_SIDE, 0);
      return;
    case RAC_OP_ACCEPTED:
      return accepted(c);
    case RAC_OP_NOTIFY:
      return probe_apply_notify(c, op.mask);
    default:
      return;
  }
}

void drain_requests(rac_base *base) {
  while (rac_operate *next = rac_operate_queue_pop(base->operate_queue)) {
    const rac_operate op = *next;  // closing ends the record that a removal lives in
    rac_operate_free(base->core, next);
    rac_connection *c = op.connection;
    // Released by rac_get_connection. A request that outlived its connection is dropped.
    if (rac_generation_of(c->ident.load(std::memory_order_acquire)) != op.generation) continue;
    c->pending.fetch_sub(1, std::memory_order_relaxed);
    if (op.target >= 1 && op.target <= 3) carry_out(base, c, op);
  }
}

/// How long this turn may wait, in ms; -1 without limit.
int32_t find_wait(rac_base *base, bool waited_for) {
  if (waited_for) return 0;
  int32_t wait = rac_event_find_timer(base);
  const bool deaf = !base->notify_connection->read->active.load(std::memory_order_relaxed);
  const int32_t longest = deaf ? BRAKE_MS : (base->index == 0 ? WATCH_MS : -1);
  return longest > 0 && (wait < 0 || wait > longest) ? longest : wait;
}

/// Wake-ups that could not be sent when they were due (no memory, say) would leave their workers
/// asleep: who is awake sends them, and the first worker wakes for that by itself.
void send_owed_wakeups(rac_core *core) {
  if (!core->wake_owed.load(std::memory_order_relaxed) || !core->wake_owed.exchange(false)) return;
  for (uint32_t i = 0; i < core->nbases; ++i) rac_base_notify(&core->bases[i]);
}

void end_turn(rac_base *base, uint32_t turn) {
  rac_core *core = base->core;
  rac_guard guard(core->state_lock);
  base->barrier_done = turn;
  rac_cond_broadcast(core->state_changed);
}

}  // namespace

int rac_set_socket_nonblocking(int fd) {
  int on = 1;
  return ioctl(fd, FIONBIO, &on) == 0 ? 0 : -1;
}

int rac_base_init(rac_core *core, rac_base *base) {
  base->core = core;
  base->notify_recv_fd = base->notify_send_fd = -1;
  base->connections_per_base = core->connection_n / core->nbases;
  if (base->connections_per_base > PROBE_MAX_FD)
    std::fprintf(stderr,
                 "[WARN] rac_base_init : base connections must less 1024 in select model\n");
  if (open_notify_pair(base) != 0) return -1;
  base->operate_queue = rac_operate_queue_init();
  if (base->operate_queue == nullptr) return -1;
  if (rac_event_process_init(base) != 0) return -1;
  return watch_notify_socket(core, base);
}

void rac_base_done(rac_base *base) {
  rac_connection *c = base->notify_connection;
  const bool own_socket = c == nullptr || rac_has_socket(c);
  if (c != nullptr) rac_disown_fd(c);
  if (base->notify_recv_fd >= 0 && own_socket) close(base->notify_recv_fd);
  if (base->notify_send_fd >= 0) close(base->notify_send_fd);
  base->notify_recv_fd = base->notify_send_fd = -1;
  rac_event_process_done(base);
  rac_operate_queue_destroy(base->operate_queue);
  base->operate_queue = nullptr;
}

int rac_base_cycle(rac_base *base) {
  if (base == nullptr || base->core == nullptr) return -1;
  rac_core *core = base->core;
  rac_this_base = base;
  // Both released by StopProbe.
  while (core->stop.load(std::memory_order_acquire) == 0) {
    const bool exiting = core->exiting.load(std::memory_order_acquire) != 0;
    if (exiting && base->ntimers.load(std::memory_order_acquire) == 0) break;
    rac_process_events_and_timers(base);
  }
  rac_this_base = nullptr;
  return 0;
}

void rac_process_events_and_timers(rac_base *base) {
  // Read first: what was asked for before this point is served by this turn.
  const uint32_t turn = base->barrier_asked.load(std::memory_order_acquire);
  const bool waited_for = turn != base->turn_served;
  drain_requests(base);
  if (base->repair_due.load(std::memory_order_acquire)) rac_select_repair_fd_sets(base);
  send_owed_wakeups(base->core);
  probe_resume_listeners(base);

  const int32_t wait = find_wait(base, waited_for);
  if (rac_event_actions.process_events(base, wait, RAC_UPDATE_TIME | RAC_POST_EVENTS) < 0)
    poll(nullptr, 0, BRAKE_MS);
  rac_event_process_posted(base, &base->posted_accept_events);
  rac_event_expire_timers(base);
  rac_event_process_posted(base, &base->posted_events);
  probe_run_hook(base->core);

  base->turn_served = turn;
  if (waited_for) end_turn(base, turn);
}

void rac_process_base_event(rac_event *event) {
  const auto *c = static_cast<const rac_connection *>(event->data);
  rac_base *base = c->base.load(std::memory_order_relaxed);
  adif::check(base != nullptr, "base != ((void *)0)", SOURCE);
  adif::check(base->core != nullptr, "core != ((void *)0)", SOURCE);
  char bytes[512];
  if (recv(base->notify_recv_fd, bytes, sizeof bytes, 0) < 1) return;
  // Cleared before the queue is looked at: a request after this look sends a byte of its own.
  base->wake_pending.exchange(false, std::memory_order_acq_rel);
  drain_requests(base);
}
