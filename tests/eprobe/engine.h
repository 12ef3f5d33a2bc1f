// What the engine's tests share: a running instance and a recorder of its events.
#pragma once

#include <array>
#include <atomic>

#include "adif/tsock.h"
#include "eprobe/probe.h"
#include "support/support.h"

inline const uint32_t loopback = htonl(INADDR_LOOPBACK);

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
  /// Waits until so many have come.
  bool gets(probe_event event, int n) const {
    return eventually([&] { return of(event) == n; });
  }
  bool reads(int n) const {
    return eventually([&] { return bytes == n; });
  }

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
  uint16_t port = port_of(fd);
  ~Listener() { close(fd); }
};
