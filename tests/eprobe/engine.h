// What the engine's tests share: a running instance, a recorder of its events, waits with a bound.
#pragma once

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <thread>

#include "adif/tsock.h"
#include "eprobe/probe.h"

inline uint32_t loopback() {
  return htonl(INADDR_LOOPBACK);
}

/// Waits until `holds()`, at most 20 s; false if it never did.
template <typename Predicate>
bool eventually(Predicate holds) {
  for (int i = 0; i < 20000; ++i) {
    if (holds()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return holds();
}

inline void pause_ms(int ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

/// An instance whose workers run, for the length of a test. Made after what its callbacks use, so
/// that it ends first.
struct Engine {
  rac_core *core;
  explicit Engine(uint32_t threads = 4) : core(probe_create(threads)) { StartProbe(core, 1); }
  ~Engine() { probe_cleanup(core); }
  Engine(const Engine &) = delete;
  Engine &operator=(const Engine &) = delete;
};

/// Counts events by kind; swallows what is readable and keeps the number of bytes.
struct Recorder {
  std::array<std::atomic<int>, 11> count{};
  std::atomic<int> bytes{0};
  std::atomic<rac_connection *> latest{nullptr};
  std::atomic<bool> removes{true};  ///< a device whose read fails

  int of(probe_event event) const { return count[event].load(); }

  static int on_event(void *arg, void *handle, int event, int) {
    auto *self = static_cast<Recorder *>(arg);
    auto *device = static_cast<rac_connection *>(handle);
    if (event == IOE_READ) {
      char buffer[256];
      int n = 0;
      if (tcp_nb_receive(GetDeviceFD(device), buffer, sizeof buffer, &n) < 0 && self->removes)
        RemoveDevice(device);
      self->bytes += n;
    }
    self->latest = device;
    ++self->count[static_cast<size_t>(event)];
    return 0;
  }
};

/// A TCP listener outside the engine.
struct Listener {
  int fd = tcp_server_create("127.0.0.1", 0);
  ~Listener() { close(fd); }
  uint16_t port() const {
    sockaddr_in name{};
    socklen_t size = sizeof name;
    getsockname(fd, reinterpret_cast<sockaddr *>(&name), &size);
    return ntohs(name.sin_port);
  }
};

inline int open_descriptors() {
  int n = 0;
  DIR *dir = opendir("/proc/self/fd");
  while (readdir(dir) != nullptr) ++n;
  closedir(dir);
  return n;
}
