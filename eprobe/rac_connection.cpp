// Pool and hand-over of connections. See rac_connection.h.
#include "eprobe/rac_connection.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "adif/check.h"
#include "eprobe/rac_event.h"
#include "eprobe/rac_handle.h"
#include "eprobe/rac_operate.h"
#include "eprobe/rac_wake.h"

namespace {

constexpr const char *SOURCE = "eprobe/rac_connection";

/// Inode of an open socket, 0 for anything else; false when it can't be told.
bool find_inode(int fd, uint64_t *inode) {
  struct stat status {};
  *inode = 0;
  if (fstat(fd, &status) != 0) return errno == EBADF;
  if (S_ISSOCK(status.st_mode)) *inode = status.st_ino;
  return true;
}

/// Whether the connection has to stay with its base.
bool settled(const rac_connection *c) {
  if (c->base.load(std::memory_order_relaxed) == nullptr) return false;
  return c->read->active.load(std::memory_order_relaxed) ||
         c->write->active.load(std::memory_order_relaxed) ||
         c->pending.load(std::memory_order_relaxed) != 0;
}

/// From here on the connection is its base's: it may be closed before this returns.
void submit(rac_connection *c, rac_operate *op) {
  // Released by rac_set_base or rac_dispatch_to.
  rac_base *base = c->base.load(std::memory_order_acquire);
  adif::check(base != nullptr, "base != ((void *)0)", SOURCE);
  c->pending.fetch_add(1, std::memory_order_relaxed);
  rac_operate_queue_push(base->operate_queue, op);
  rac_base_notify(base);
}

void submit(rac_operate *record, uint32_t op) {
  record->target = 1;
  record->op = op;
  submit(record->connection, record);
}

int request(rac_connection *c, uint32_t op) {
  rac_operate *record = rac_operate_get(c->core, c);
  if (record == nullptr) return -1;
  submit(record, op);
  return 0;
}

void reset(rac_connection *c) {
  c->data = nullptr;
  c->fd.store(-1, std::memory_order_relaxed);
  c->device_kind = 0;
  c->adopted.store(0, std::memory_order_relaxed);
  c->para.store(0, std::memory_order_relaxed);
  c->handler = nullptr;
  c->handler_arg = nullptr;
  c->handler_arg2 = nullptr;
  c->pending.store(0, std::memory_order_relaxed);
  c->accept_paused = false;
  c->counted_by = nullptr;
  c->group_next = nullptr;
  rac_event_reset(c->read, c, false);
  rac_event_reset(c->write, c, true);
}

/// Tells all bases that a slot is free if a listener somewhere waits for one.
void wake_paused(rac_core *core) {
  if (core->paused.load(std::memory_order_seq_cst) == 0) return;  // see rac_pause
  for (uint32_t i = 0; i < core->nbases; ++i) rac_base_notify(&core->bases[i]);
}

}  // namespace

int rac_connection_init(rac_core *core) {
  const uint32_t n = core->connection_n;
  core->connection_mutex = rac_mutex_init();
  core->connections.reset(new (std::nothrow) rac_connection[n]());
  core->read_events.reset(new (std::nothrow) rac_event[n]());
  core->write_events.reset(new (std::nothrow) rac_event[n]());
  if (core->connection_mutex == nullptr || core->connections == nullptr ||
      core->read_events == nullptr || core->write_events == nullptr)
    return -1;
  rac_guard guard(core->connection_mutex);
  core->free_connections = nullptr;
  // Backwards, so that the lowest slot is the first to be taken.
  for (uint32_t slot = n; slot-- > 0;) {
    rac_connection &c = core->connections[slot];
    c.read = &core->read_events[slot];
    c.write = &core->write_events[slot];
    c.read->closed = c.read->instance = c.write->closed = true;
    c.fd.store(-1, std::memory_order_relaxed);
    c.slot = slot;
    c.core = core;
    c.data = core->free_connections;
    core->free_connections = &c;
  }
  core->free_connection_n.store(n, std::memory_order_relaxed);
  return 0;
}

void rac_connection_destroy(rac_core *core) {
  core->connections.reset();
  core->read_events.reset();
  core->write_events.reset();
  rac_mutex_destroy(core->connection_mutex);
  core->connection_mutex = nullptr;
}

rac_connection *rac_get_connection(rac_core *core, int fd) {
  if (fd >= PROBE_MAX_FD) return nullptr;
  rac_connection *c = nullptr;
  {
    rac_guard guard(core->connection_mutex);
    c = core->free_connections;
    if (c == nullptr) return nullptr;
    core->free_connections = c->data;
    core->free_connection_n.fetch_sub(1, std::memory_order_relaxed);
  }
  reset(c);
  const uint32_t ident = c->ident.load(std::memory_order_relaxed);
  const uint32_t generation = rac_next_generation(rac_generation_of(ident));
  // Last: who finds the handle (rac_find, drain_requests) sees the record made fresh.
  c->ident.store(rac_ident(generation, RAC_LIVE), std::memory_order_release);
  if (fd >= 0) rac_own_fd(c, fd);
  return c;
}

void rac_free_connection(rac_core *core, rac_connection *c) {
  const uint32_t generation = rac_generation_of(c->ident.load(std::memory_order_relaxed));
  // First: rac_still finds the use over before the slot can serve the next one.
  c->ident.store(rac_ident(generation, RAC_FREE), std::memory_order_release);
  {
    rac_guard guard(core->connection_mutex);
    c->data = core->free_connections;
    core->free_connections = c;
    core->free_connection_n.fetch_add(1, std::memory_order_seq_cst);  // before wake_paused looks
  }
  wake_paused(core);
}

void rac_close_connection(rac_core *core, rac_connection *c) {
  const int fd = c->fd.load(std::memory_order_relaxed);
  if (fd == -1) return;
  rac_base *base = c->base.load(std::memory_order_acquire);
  for (rac_event *event : {c->read, c->write}) {
    if (event->timer_set) rac_event_del_timer(base, event);
    if (rac_event_actions.del_conn == nullptr && event->active.load(std::memory_order_relaxed))
      rac_event_actions.del(base, event, event->write ? RAC_WRITE_SIDE : RAC_READ_SIDE,
                            RAC_CLOSING);
  }
  if (rac_event_actions.del_conn != nullptr) rac_event_actions.del_conn(base, c, RAC_CLOSING);
  for (rac_event *event : {c->read, c->write}) {
    rac_unpost_event(event);
    event->closed = true;
  }
  if (c->accept_paused) rac_unpause(base, c);
  // Disowned before it is closed: the number may be anybody's right after.
  const bool own_socket = rac_has_socket(c);
  rac_disown_fd(c);
  c->fd.store(-1, std::memory_order_relaxed);
  if (own_socket) close(fd);
  rac_free_connection(core, c);
}

void rac_pause(rac_base *base, rac_connection *listener) {
  listener->accept_paused = true;
  listener->data = base->paused_listeners;
  base->paused_listeners = listener;
  // The listener raises `paused`, then looks for a free slot (probe_resume_listeners, before the
  // base waits); who frees a slot raises `free_connection_n`, then looks at `paused`. In one order
  // for all threads, so that one of the two sees the other: no pause outlasts the lack of a slot.
  base->core->paused.fetch_add(1, std::memory_order_seq_cst);
}

void rac_unpause(rac_base *base, rac_connection *listener) {
  rac_connection **link = &base->paused_listeners;
  while (*link != listener) link = &(*link)->data;
  *link = listener->data;
  listener->data = nullptr;
  listener->accept_paused = false;
  base->core->paused.fetch_sub(1, std::memory_order_relaxed);
}

void rac_own_fd(rac_connection *c, int fd) {
  rac_core *core = c->core;
  c->fd.store(fd, std::memory_order_relaxed);
  c->inode_known = find_inode(fd, &c->inode);
  uint32_t previous = 0;
  {
    rac_guard guard(core->connection_mutex);
    previous = core->fd_owner[fd].load(std::memory_order_relaxed);
    core->fd_owner[fd].store(static_cast<uint16_t>(c->slot + 1), std::memory_order_relaxed);
  }
  if (previous == 0) return;
  rac_base *base = core->connections[previous - 1].base.load(std::memory_order_acquire);
  if (base == nullptr) return;
  // Acquired by the base's next turn, which then sees the new owner of the number.
  base->repair_due.store(true, std::memory_order_release);
  rac_base_notify(base);
}

bool rac_owns_fd(const rac_connection *c) {
  const int fd = c->fd.load(std::memory_order_relaxed);
  return fd >= 0 && c->core->fd_owner[fd].load(std::memory_order_relaxed) == c->slot + 1;
}

bool rac_has_socket(const rac_connection *c) {
  if (!rac_owns_fd(c)) return false;
  uint64_t inode = 0;
  const bool told = find_inode(c->fd.load(std::memory_order_relaxed), &inode);
  // Where the kernel does not tell, the number is believed.
  return !told || !c->inode_known || inode == c->inode;
}

void rac_disown_fd(rac_connection *c) {
  rac_guard guard(c->core->connection_mutex);
  if (rac_owns_fd(c))
    c->core->fd_owner[c->fd.load(std::memory_order_relaxed)].store(0, std::memory_order_relaxed);
}

void rac_set_base(rac_core *core, rac_connection *c) {
  c->base.store(rac_next_base(core, &core->conn_rr), std::memory_order_release);
}

int rac_dispatch_connection(rac_core *core, rac_connection *c, int op) {
  adif::check(core != nullptr, "core != ((void *)0)", SOURCE);
  adif::check(c != nullptr, "c != ((void *)0)", SOURCE);
  if (op < 0 || op > static_cast<int>(RAC_OP_LAST)) return -1;
  if (settled(c))
    rac_next_base(core, &core->conn_rr);
  else
    rac_set_base(core, c);

  if (op == static_cast<int>(RAC_OP_CLOSE)) {
    const uint32_t generation = rac_generation_of(c->ident.load(std::memory_order_relaxed));
    if (rac_mark_removing(c, generation)) rac_dispatch_removal(c);
    return 0;
  }
  return request(c, static_cast<uint32_t>(op));
}

int rac_dispatch_to(rac_base *base, rac_connection *c, rac_op op) {
  rac_next_base(base->core, &base->core->conn_rr);
  // Acquired by submit and by whoever finds the handle.
  c->base.store(base, std::memory_order_release);
  return request(c, op);
}

void rac_dispatch_with(rac_operate *request, rac_op op) {
  rac_set_base(request->connection->core, request->connection);
  submit(request, op);
}

int rac_dispatch_notify(rac_connection *c, uint32_t generation, uint32_t mask) {
  rac_operate *request = rac_operate_get(c->core, c);
  if (request == nullptr) return -1;
  request->target = 1;
  request->op = RAC_OP_NOTIFY;
  request->generation = generation;
  request->mask = mask;
  submit(c, request);
  return 0;
}

void rac_dispatch_removal(rac_connection *c) {
  const uint32_t generation = rac_generation_of(c->ident.load(std::memory_order_relaxed));
  c->removal = {RAC_NO_SLOT, c, 1, RAC_OP_CLOSE, generation, 0, nullptr};
  submit(c, &c->removal);
}

void rac_tell(rac_connection *c, int event) {
  if (c->handler == nullptr || !rac_is_live(c)) return;
  const auto kind = static_cast<int>(c->device_kind);
  c->handler(c->handler_arg, rac_handle_of(c), event, kind);
}
