// Devices of the probe's face: making them, removing them and what they watch.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "adif/check.h"
#include "adif/tsock.h"
#include "eprobe/probe.h"
#include "eprobe/probe_event.h"
#include "eprobe/rac_connection.h"
#include "eprobe/rac_handle.h"

namespace {

constexpr const char *SOURCE = "eprobe/probe";

/// What the caller of a creating function gives.
struct owner {
  uintptr_t para;
  probe_handler handler;
  void *arg;
};

uint32_t address_at(const void *address) {
  uint32_t value = 0;
  if (address != nullptr) std::memcpy(&value, address, sizeof value);
  return value;
}

void set_result(int *result, int value) {
  if (result != nullptr) *result = value;
}

/// A connection on `fd`, which it owns from here on; NULL with `fd` closed if there is no slot for
/// it.
rac_connection *make_device(rac_core *core, int fd, probe_kind kind, const owner &who) {
  rac_connection *c = rac_get_connection(core, fd);
  if (c == nullptr) {
    close(fd);
    return nullptr;
  }
  c->para.store(who.para, std::memory_order_relaxed);
  c->handler = who.handler;
  c->handler_arg = who.arg;
  c->handler_arg2 = who.arg;
  c->device_kind = kind;
  return c;
}

/// Hands the device to a base and gives its handle; without a request to do so all is given back.
rac_connection *hand_over(rac_core *core, rac_connection *c, rac_op op, int *result) {
  rac_connection *handle = rac_handle_of(c);
  if (rac_dispatch_connection(core, c, static_cast<int>(op)) != 0) {
    rac_close_connection(core, c);
    return nullptr;
  }
  set_result(result, 0);
  return handle;
}

struct udp_group {
  std::array<rac_connection *, PROBE_MAX_THREADS> members;
  uint32_t count = 0;
};

/// One device per base, each on a descriptor of its own for the one socket: descriptor and slot
/// then go together as everywhere else. False, with all given back, if one cannot be made.
bool make_udp_group(rac_core *core, int fd, const owner &who, udp_group *group) {
  for (uint32_t i = 0; i < core->nbases; ++i) {
    const bool last = i + 1 == core->nbases;
    const int member_fd = last ? fd : fcntl(fd, F_DUPFD_CLOEXEC, 1);
    rac_connection *c =
        member_fd < 0 ? nullptr : make_device(core, member_fd, PROBE_UDP_SERVER, who);
    if (c == nullptr) {
      if (!last) close(fd);
      for (uint32_t made = 0; made < group->count; ++made)
        rac_close_connection(core, group->members[made]);
      return false;
    }
    c->read->handler = process_read_event;
    group->members[group->count++] = c;
  }
  for (uint32_t i = 0; i < group->count; ++i)
    group->members[i]->group_next = rac_handle_of(group->members[(i + 1) % group->count]);
  return true;
}

/// A connection under way that no base has yet.
rac_connection *start_connecting(rac_core *core, const void *address, uint16_t port,
                                 const owner &who) {
  if (core == nullptr || address == nullptr) return nullptr;
  int status = 0;
  const int fd = tcp_nb_connect2(address_at(address), port, &status);
  if (fd == -1 || status < 0) return nullptr;
  rac_connection *c = make_device(core, fd, PROBE_TCP_CLIENT, who);
  if (c == nullptr) return nullptr;
  c->write->accept = true;
  c->write->handler = process_connect_event;
  return c;
}

}  // namespace

rac_connection *ConnectRemote2(rac_core *core, const void *address, uint16_t port, uintptr_t para,
                               int *result, probe_handler handler, void *arg) {
  set_result(result, -1);
  rac_connection *c = start_connecting(core, address, port, {para, handler, arg});
  return c == nullptr ? nullptr : hand_over(core, c, RAC_OP_ADD_WRITE, result);
}

rac_connection *ConnectRemoteAt(rac_core *core, uint32_t worker, const void *address, uint16_t port,
                                uintptr_t para, probe_handler handler, void *arg) {
  rac_connection *c = start_connecting(core, address, port, {para, handler, arg});
  if (c == nullptr) return nullptr;
  rac_connection *handle = rac_handle_of(c);
  if (rac_dispatch_to(&core->bases[worker % core->nbases], c, RAC_OP_ADD_WRITE) == 0) return handle;
  rac_close_connection(core, c);
  return nullptr;
}

rac_connection *ListenRemote2(rac_core *core, uint16_t port, uintptr_t para, int *result,
                              probe_handler handler, void *arg) {
  set_result(result, -1);
  if (core == nullptr) return nullptr;
  const int fd = tcp_server_create("0.0.0.0", port);
  if (fd == -1) return nullptr;
  set_socket_nonblocking(fd);
  rac_connection *c = make_device(core, fd, PROBE_TCP_SERVER, {para, handler, arg});
  if (c == nullptr) return nullptr;
  core->nconn_active.fetch_add(1, std::memory_order_relaxed);
  c->read->accept = true;
  c->read->handler = process_accept_event;
  return hand_over(core, c, RAC_OP_ADD_READ, result);
}

rac_connection *AcceptRemote2(rac_core *core, rac_connection *device, uintptr_t para, int *result,
                              probe_handler handler, void *arg) {
  adif::check(core != nullptr, "vpcore != ((void *)0)", SOURCE);
  adif::check(device != nullptr, "vld != ((void *)0)", SOURCE);
  set_result(result, -1);
  const rac_found<rac_connection> found = rac_find(device);
  // Of two adopters the word itself tells who was first.
  if (!found || (found->adopted.fetch_or(1, std::memory_order_acq_rel) & 1) != 0) return nullptr;
  found->para.store(para, std::memory_order_relaxed);
  found->handler = handler;
  found->handler_arg = arg;
  found->handler_arg2 = arg;
  found->device_kind = PROBE_TCP_ADOPTED;
  found->read->handler = process_read_event;
  set_result(result, 0);
  return device;
}

rac_connection *ListenUDP3(rac_core *core, const void *address, uint16_t port, uintptr_t para,
                           int *result, probe_handler handler, void *arg) {
  set_result(result, -1);
  if (core == nullptr) return nullptr;
  const uint32_t local = address_at(address);
  const int fd = udp_server_create(address != nullptr ? &local : nullptr, port);
  if (fd == -1) return nullptr;
  set_socket_nonblocking(fd);
  udp_group group;
  if (!make_udp_group(core, fd, {para, handler, arg}, &group)) return nullptr;
  core->nconn_active.fetch_add(core->nbases, std::memory_order_relaxed);

  const auto &members = group.members;
  rac_connection *handle = rac_handle_of(members[group.count - 1]);
  for (uint32_t i = 0; i < group.count; ++i) {
    if (rac_dispatch_to(&core->bases[i], members[i], RAC_OP_ADD_READ) == 0) continue;
    // Those that a base has are removed by it, the others are still ours alone.
    for (uint32_t own = i; own < group.count; ++own) rac_close_connection(core, members[own]);
    for (uint32_t given = 0; given < i; ++given) RemoveDevice(rac_handle_of(members[given]));
    return nullptr;
  }
  set_result(result, 0);
  return handle;
}

rac_connection *ListenUDP2(rac_core *core, uint16_t port, uintptr_t para, int *result,
                           probe_handler handler, void *arg) {
  return ListenUDP3(core, nullptr, port, para, result, handler, arg);
}

rac_connection *UDPClient(rac_core *core, const void *address, uint16_t port, uintptr_t para,
                          int *result, probe_handler handler, void *arg) {
  set_result(result, -1);
  if (core == nullptr) return nullptr;
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd == -1) return nullptr;
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_addr.s_addr = address_at(address);
  peer.sin_port = htons(port);
  // Without a whole address the owner names the peer with each datagram.
  const bool named = peer.sin_addr.s_addr != 0 && port != 0;
  if (named && connect(fd, reinterpret_cast<sockaddr *>(&peer), sizeof peer) != 0) {
    close(fd);
    return nullptr;
  }
  rac_connection *c = make_device(core, fd, PROBE_UDP_CLIENT, {para, handler, arg});
  if (c == nullptr) return nullptr;
  core->nconn_active.fetch_add(1, std::memory_order_relaxed);
  c->read->handler = process_read_event;
  return hand_over(core, c, RAC_OP_ADD_READ, result);
}

int RemoveDevice(rac_connection *device) {
  if (device == nullptr) return -1;
  // Round the group until one is met that is gone or being removed; a single device is its own end.
  for (const void *next = device; next != nullptr;) {
    const rac_found<rac_connection> found = rac_find(static_cast<const rac_connection *>(next));
    if (!found || !rac_mark_removing(found.record, found.generation)) break;
    adif::check(found->base.load(std::memory_order_acquire) != nullptr, "base != ((void *)0)",
                SOURCE);
    adif::check(found->core != nullptr, "pcore != ((void *)0)", SOURCE);
    next = found->group_next;  // read while the slot is still ours to end
    rac_dispatch_removal(found.record);
  }
  return 0;
}

int SetNotify(rac_connection *device, uint32_t mask) {
  const bool read_clash = (mask & PROBE_READ_ON) != 0 && (mask & PROBE_READ_OFF) != 0;
  const bool write_clash = (mask & PROBE_WRITE_ON) != 0 && (mask & PROBE_WRITE_OFF) != 0;
  if (device == nullptr || read_clash || write_clash) return -1;
  const rac_found<rac_connection> found = rac_find(device);
  if (!found || !rac_owns_fd(found.record)) return -1;
  // Released by rac_set_base. Only the own worker may touch what select watches.
  if (found->base.load(std::memory_order_acquire) != rac_this_base)
    return rac_dispatch_notify(found.record, found.generation, mask);
  if (rac_is_live(found.record)) probe_apply_notify(found.record, mask);
  return 0;
}
