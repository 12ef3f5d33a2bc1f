// What the probe's face tells about devices. A handle may end at any moment: what is read is
// checked to belong to the use of the slot that the handle means, or it counts as gone.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "eprobe/probe.h"
#include "eprobe/rac_connection.h"
#include "eprobe/rac_handle.h"

namespace {

constexpr uint16_t NO_PORT = 65535;

/// The descriptor that the device owns, or -1.
int fd_of(const rac_connection *device) {
  const rac_found<rac_connection> found = rac_find(device);
  if (!found || !rac_owns_fd(found.record)) return -1;
  const int fd = found->fd.load(std::memory_order_relaxed);
  return rac_still(found) ? fd : -1;
}

using name_call = int (*)(int, sockaddr *, socklen_t *);

/// The socket's own or its peer's name; zeros if there is none.
sockaddr_in name_of(int fd, name_call call) {
  sockaddr_in name{};
  socklen_t size = sizeof name;
  if (call(fd, reinterpret_cast<sockaddr *>(&name), &size) != 0) return {};
  return name;
}

}  // namespace

int GetDeviceFD(rac_connection *device) {
  return device == nullptr ? 0 : fd_of(device);
}

uintptr_t GetDevicePara(rac_connection *device) {
  const rac_found<rac_connection> found = rac_find(device);
  if (!found) return 0;
  // Released by SetDevicePara: what the word points at is there too.
  const uintptr_t para = found->para.load(std::memory_order_acquire);
  return rac_still(found) ? para : 0;
}

int SetDevicePara(rac_connection *device, uintptr_t para) {
  const rac_found<rac_connection> found = rac_find(device);
  if (!found) return 0;
  // While the pool is locked the slot cannot pass on to a next owner.
  rac_guard guard(found->core->connection_mutex);
  if (rac_still(found)) found->para.store(para, std::memory_order_release);
  return 0;
}

uint32_t GetDeviceRemoteIP(rac_connection *device) {
  return name_of(fd_of(device), getpeername).sin_addr.s_addr;
}

uint16_t GetDeviceRemotePort(rac_connection *device) {
  return ntohs(name_of(fd_of(device), getpeername).sin_port);
}

uint32_t GetDeviceLocalIP(rac_connection *device) {
  return name_of(fd_of(device), getsockname).sin_addr.s_addr;
}

uint16_t GetDeviceLocalPort(rac_connection *device) {
  const int fd = fd_of(device);
  return fd > 0 ? ntohs(name_of(fd, getsockname).sin_port) : NO_PORT;
}

int GetDeviceTCPNum(rac_core *core) {
  if (core == nullptr) return -1;
  const uint32_t used =
      core->connection_n - core->free_connection_n.load(std::memory_order_relaxed);
  return static_cast<int>(used - core->nconn_active.load(std::memory_order_relaxed));
}
