// The select model of a base: registration by swap-with-last, one select per turn. See
// rac_select.h.
#include "eprobe/rac_select.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include "eprobe/rac_connection.h"
#include "eprobe/rac_event.h"
#include "eprobe/rac_handle.h"
#include "eprobe/rac_time.h"

const rac_event_action_table rac_event_actions = {
    .add = rac_select_add_event,
    .del = rac_select_del_event,
    .enable = rac_select_add_event,
    .disable = rac_select_del_event,
    .add_conn = nullptr,
    .del_conn = nullptr,
    .process_changes = nullptr,
    .process_events = rac_select_process_events,
    .init = rac_select_init,
    .done = rac_select_done,
};

namespace {

constexpr int32_t UNKNOWN = -1;

rac_connection *connection_of(const rac_event *event) {
  return static_cast<rac_connection *>(event->data);
}

int32_t fd_of(const rac_event *event) {
  return connection_of(event)->fd.load(std::memory_order_relaxed);
}

/// Takes the event out of the index; the sets keep its bit.
void forget_event(rac_base *base, rac_event *event) {
  event->active.store(false, std::memory_order_relaxed);
  if (event->index == RAC_UNREGISTERED) return;
  // The last one takes its place: constant time, and the order means nothing.
  rac_event *last = base->event_index[--base->nevents];
  base->event_index[event->index] = last;
  last->index = event->index;
  event->index = RAC_UNREGISTERED;
}

void rebuild_sets(rac_base *base) {
  FD_ZERO(&base->read_set);
  FD_ZERO(&base->write_set);
  for (uint32_t i = 0; i < base->nevents; ++i) {
    const rac_event *event = base->event_index[i];
    FD_SET(fd_of(event), event->write ? &base->write_set : &base->read_set);
  }
  base->max_fd = UNKNOWN;
}

/// A registered connection whose descriptor is gone or somebody else's by now.
rac_connection *find_lost(const rac_base *base) {
  for (uint32_t i = 0; i < base->nevents; ++i) {
    rac_connection *c = connection_of(base->event_index[i]);
    if (!rac_has_socket(c)) return c;
  }
  return nullptr;
}

int32_t find_max_fd(const rac_base *base) {
  int32_t max_fd = UNKNOWN;
  for (uint32_t i = 0; i < base->nevents; ++i)
    max_fd = std::max(max_fd, fd_of(base->event_index[i]));
  return max_fd;
}

/// Posts the ready ones of the registered events; how many there were.
int post_ready(rac_base *base) {
  int found = 0;
  for (uint32_t i = 0; i < base->nevents; ++i) {
    rac_event *event = base->event_index[i];
    const rac_connection *c = connection_of(event);
    const int32_t fd = c->fd.load(std::memory_order_relaxed);
    if (fd < 0 || FD_ISSET(fd, event->write ? &base->work_write_set : &base->work_read_set) == 0)
      continue;
    if (!rac_owns_fd(c)) {
      base->repair_due.store(true, std::memory_order_relaxed);
      continue;
    }
    ++found;
    event->ready = true;
    if (event->prev != nullptr) continue;
    rac_post_event(event, event->accept ? &base->posted_accept_events : &base->posted_events);
  }
  return found;
}

}  // namespace

int rac_select_init(rac_base *base) {
  if (base->event_index == nullptr) {
    FD_ZERO(&base->read_set);
    FD_ZERO(&base->write_set);
  }
  std::unique_ptr<rac_event *[]> index(new (std::nothrow) rac_event *[RAC_SELECT_SLOTS]());
  if (index == nullptr) return -1;
  if (base->event_index != nullptr)
    std::copy_n(base->event_index.get(), RAC_SELECT_SLOTS, index.get());
  base->event_index = std::move(index);
  base->nevents = 0;
  base->max_fd = UNKNOWN;
  base->select_ready = 1;
  return 0;
}

void rac_select_done(rac_base *base) {
  base->event_index.reset();
}

int rac_select_add_event(rac_base *base, rac_event *event, int which, uint32_t) {
  if (event->index != RAC_UNREGISTERED) return 0;
  if (event->write != (which == RAC_WRITE_SIDE)) return -1;
  const int32_t fd = fd_of(event);
  FD_SET(fd, event->write ? &base->write_set : &base->read_set);
  if (base->max_fd != UNKNOWN && base->max_fd < fd) base->max_fd = fd;
  event->active.store(true, std::memory_order_relaxed);
  event->index = base->nevents;
  base->event_index[base->nevents++] = event;
  return 0;
}

int rac_select_del_event(rac_base *base, rac_event *event, int which, uint32_t) {
  const bool registered = event->index != RAC_UNREGISTERED;
  forget_event(base, event);
  if (!registered) return 0;
  if (!rac_owns_fd(connection_of(event))) {
    rebuild_sets(base);  // the bit may be another connection's by now
    return 0;
  }
  const int32_t fd = fd_of(event);
  FD_CLR(fd, which == RAC_WRITE_SIDE ? &base->write_set : &base->read_set);
  // Found anew before the next wait, once for all removals until then.
  if (base->max_fd == fd) base->max_fd = UNKNOWN;
  return 0;
}

int rac_select_process_events(rac_base *base, int32_t timer, uint32_t flags) {
  if (base->max_fd == UNKNOWN) base->max_fd = find_max_fd(base);
  if (base->max_fd == UNKNOWN) return -1;

  timeval wait{timer / 1000, timer % 1000 * 1000};
  base->work_read_set = base->read_set;
  base->work_write_set = base->write_set;
  const int ready = select(base->max_fd + 1, &base->work_read_set, &base->work_write_set, nullptr,
                           timer == -1 ? nullptr : &wait);
  const int error = ready < 0 ? errno : 0;
  if ((flags & RAC_UPDATE_TIME) != 0) rac_time_update(0, 0);

  if (error == EINTR) return 0;
  if (error == EBADF) rac_select_repair_fd_sets(base);
  if (error != 0) return -1;
  // Ready without limit of time and with nothing: a broken descriptor, the caller brakes.
  if (ready == 0) return timer == -1 ? -1 : 0;
  if (post_ready(base) != ready) rac_select_repair_fd_sets(base);
  return 0;
}

void rac_select_repair_fd_sets(rac_base *base) {
  base->repair_due.store(false, std::memory_order_relaxed);
  // From the start again after each one: its callback may change any registration.
  while (rac_connection *c = find_lost(base)) {
    for (rac_event *event : {c->read, c->write}) {
      rac_unpost_event(event);
      forget_event(base, event);
    }
    rac_disown_fd(c);
    rebuild_sets(base);
    rac_tell(c, IOE_INVALID_DEV);
  }
  base->max_fd = UNKNOWN;
}
