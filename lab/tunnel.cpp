// See tunnel.h.
#include "lab/tunnel.h"

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace lab {

tunnel::tunnel(const char *device) {
  const char *const failed = make(device);
  if (failed != nullptr) problem_ = std::string(failed) + ": " + std::strerror(errno);
}

const char *tunnel::make(const char *device) {
  if (unshare(CLONE_NEWNET) != 0) return "a new network namespace";
  space_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  if (space_ < 0) return "/proc/thread-self/ns/net";
  device_ = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (device_ < 0) return "/dev/net/tun";
  ifreq request{};
  std::strncpy(request.ifr_name, device, sizeof request.ifr_name - 1);
  request.ifr_flags = IFF_TUN | IFF_NO_PI;  // no offload: every packet is one
  return ioctl(device_, TUNSETIFF, &request) == 0 ? nullptr : "TUNSETIFF";
}

tunnel::~tunnel() {
  if (device_ >= 0) close(device_);
  if (space_ >= 0) close(space_);
}

}  // namespace lab
