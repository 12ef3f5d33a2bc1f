// Accepting connections on a listener's worker, and the pause when no slot or descriptor is left.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "eprobe/probe_event.h"
#include "eprobe/rac_connection.h"
#include "eprobe/rac_event.h"
#include "eprobe/rac_operate.h"

namespace {

constexpr uint32_t PAUSE_MS = 100;

/// Stops watching the listener: it stays readable and would keep its worker spinning.
void pause(rac_connection *listener, bool for_slot) {
  rac_base *base = listener->base.load(std::memory_order_relaxed);
  rac_event_actions.del(base, listener->read, RAC_READ_SIDE, 0);
  rac_event_add_timer(base, listener->read, PAUSE_MS);
  if (for_slot && !listener->accept_paused) rac_pause(base, listener);
}

rac_base *end_pause(rac_connection *listener) {
  rac_base *base = listener->base.load(std::memory_order_relaxed);
  rac_event_del_timer(base, listener->read);
  if (listener->accept_paused) rac_unpause(base, listener);
  return base;
}

void resume(rac_connection *listener) {
  rac_base *base = end_pause(listener);
  if (rac_owns_fd(listener)) rac_event_actions.add(base, listener->read, RAC_READ_SIDE, 0);
}

int accept_descriptor(int listener) {
  for (;;) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0 || errno != EINTR) return fd;
  }
}

bool out_of_resources(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

/// The slot for a connection and the request that hands it to a base, taken before it is accepted:
/// without them it could only be thrown away. NULL, and the listener pauses, when one is missing.
rac_operate *take_place(rac_connection *listener) {
  rac_core *core = listener->core;
  rac_connection *c = rac_get_connection(core, -1);
  rac_operate *request = c != nullptr ? rac_operate_get(core, c) : nullptr;
  if (request != nullptr) return request;
  if (c != nullptr) rac_free_connection(core, c);
  pause(listener, c == nullptr);
  return nullptr;
}

/// Accepts one connection; false when this pass is over.
bool accept_one(rac_connection *listener) {
  rac_core *core = listener->core;
  rac_operate *request = take_place(listener);
  if (request == nullptr) return false;
  rac_connection *c = request->connection;
  const int fd = accept_descriptor(listener->fd.load(std::memory_order_relaxed));
  if (fd < 0 || fd >= PROBE_MAX_FD) {
    const int error = fd < 0 ? errno : 0;
    if (fd >= 0) close(fd);
    rac_operate_free(core, request);
    rac_free_connection(core, c);
    if (out_of_resources(error)) pause(listener, false);
    return false;
  }
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  rac_own_fd(c, fd);
  c->para.store(listener->para.load(std::memory_order_relaxed), std::memory_order_relaxed);
  c->handler = listener->handler;
  c->handler_arg = listener->handler_arg;
  c->handler_arg2 = listener->handler_arg2;
  c->device_kind = PROBE_TCP_SERVER;
  rac_dispatch_with(request, RAC_OP_ACCEPTED);
  return true;
}

}  // namespace

void process_accept_event(rac_event *event) {
  auto *listener = static_cast<rac_connection *>(event->data);
  if (event->timedout) {
    event->timedout = false;
    return resume(listener);  // the next turn accepts
  }
  while (accept_one(listener)) {
  }
}

bool probe_is_pausing(const rac_connection *listener) {
  return listener->read->timer_set;  // no other connection sets a timer on its read event
}

void probe_end_pause(rac_connection *listener) {
  end_pause(listener);
  listener->read->handler = process_read_event;
}

void probe_resume_listeners(rac_base *base) {
  if (base->paused_listeners == nullptr) return;
  // After rac_pause raised `paused`, see there.
  if (base->core->free_connection_n.load(std::memory_order_seq_cst) == 0) return;
  while (base->paused_listeners != nullptr) resume(base->paused_listeners);
}
