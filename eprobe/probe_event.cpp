// Event handlers of connecting, reading and writing devices and of timers. See probe_event.h.
#include "eprobe/probe_event.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include "eprobe/rac_connection.h"
#include "eprobe/rac_event.h"
#include "eprobe/rac_handle.h"
#include "eprobe/rac_timer.h"

namespace {

rac_connection *connection_of(const rac_event *event) {
  return static_cast<rac_connection *>(event->data);
}

rac_base *base_of(const rac_connection *c) {
  return c->base.load(std::memory_order_relaxed);
}

void watch(rac_event *event, bool on) {
  const int side = event->write ? RAC_WRITE_SIDE : RAC_READ_SIDE;
  rac_base *base = base_of(connection_of(event));
  if (on)
    rac_event_actions.add(base, event, side, 0);
  else
    rac_event_actions.del(base, event, side, 0);
}

/// The pending error alone does not do: it reads only once, and a socket without peer has none.
bool is_connected(int fd) {
  int error = 0;
  socklen_t size = sizeof error;
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0) return false;
  sockaddr_in peer{};
  size = sizeof peer;
  return getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size) == 0;
}

/// Tells the device's owner; a device without one is not watched any more, or it would be ready for
/// ever.
void tell_ready(rac_event *event, int kind) {
  rac_connection *c = connection_of(event);
  if (c->handler == nullptr) return watch(event, false);
  rac_tell(c, kind);
}

void switch_event(rac_event *event, bool on, bool off, void (*handler)(rac_event *)) {
  const bool active = event->active.load(std::memory_order_relaxed);
  if ((!on || active) && (!off || !active)) return;
  event->handler = handler;
  watch(event, on);
}

}  // namespace

void process_connect_event(rac_event *event) {
  rac_connection *c = connection_of(event);
  // Unregistered before anybody is told: a failed socket stays writable.
  watch(event, false);
  if (c->handler == nullptr) return;
  if (!is_connected(c->fd.load(std::memory_order_relaxed))) return rac_tell(c, IOE_CONNECT_FAILED);
  event->handler = nullptr;
  event->accept = false;
  c->read->handler = process_read_event;
  watch(c->read, true);
  rac_tell(c, IOE_CONNECTED);
}

void process_read_event(rac_event *event) {
  tell_ready(event, IOE_READ);
}

void process_write_event(rac_event *event) {
  tell_ready(event, IOE_WRITE);
}

void process_timer_event(rac_event *event) {
  auto *t = static_cast<rac_timer *>(event->data);
  rac_base *base = t->base.load(std::memory_order_relaxed);
  rac_timer_words words{};
  {
    rac_guard guard(base->timer_lock);
    words = t->words;
  }
  // Marked as running when it left the tree: until it is closed here nobody else changes it.
  base->expiring = t;
  if (words.handler != nullptr)
    words.handler(words.arg, rac_handle_of(t), IOE_TIMEOUT, PROBE_TIMER);
  base->expiring = nullptr;
  rac_close_timer(t->core, t);
}

void probe_apply_notify(rac_connection *c, uint32_t mask) {
  // A listener in its pause is switched on as far as its owner knows: only "off" changes anything.
  if (!probe_is_pausing(c))
    switch_event(c->read, mask & PROBE_READ_ON, mask & PROBE_READ_OFF, process_read_event);
  else if ((mask & PROBE_READ_OFF) != 0)
    probe_end_pause(c);
  switch_event(c->write, mask & PROBE_WRITE_ON, mask & PROBE_WRITE_OFF, process_write_event);
}
