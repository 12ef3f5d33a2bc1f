// Echo over TCP with every worker busy: all bytes come back, in order, and every slot too.
#include <gtest/gtest.h>

#include <algorithm>
#include <string_view>

#include "engine.h"

namespace {

constexpr int kClients = 400, kRounds = 20;

/// One end, which sends back what it gets: the server, for all the connections that it adopts, or a
/// client, which is given its message to send and ends when that has come back often enough.
struct Peer {
  rac_core *core = nullptr;
  std::string message;
  size_t got = 0;
  std::atomic<int> adopted{0};
  std::atomic<bool> done{false}, wrong{false};

  void send(rac_connection *device, std::string_view bytes) {
    const int n = static_cast<int>(bytes.size()), fd = GetDeviceFD(device);
    if (n > 0 && tcp_send(fd, bytes.data(), n, 10000, nullptr) != n) wrong = true;
  }
  void read(rac_connection *device) {
    char buffer[4096];
    int n = 0;
    const int result = tcp_nb_receive(GetDeviceFD(device), buffer, sizeof buffer, &n);
    const size_t all = message.size() * kRounds, until = all - message.size();
    const size_t last = message.empty() ? SIZE_MAX : until - std::min(got, until);
    for (int i = 0; i < n && !message.empty(); ++i, ++got)
      if (buffer[i] != message[got % message.size()]) wrong = true;
    send(device, {buffer, std::min(static_cast<size_t>(n), last)});
    done = !message.empty() && got == all;
    if (result < 0 && !done && !message.empty()) wrong = true;
    if (result < 0 || done) RemoveDevice(device);
  }
  static int on_event(void *arg, void *handle, int event, int) {
    auto *self = static_cast<Peer *>(arg);
    auto *device = static_cast<rac_connection *>(handle);
    if (event == IOE_ACCEPTED) {
      AcceptRemote2(self->core, device, 0, nullptr, on_event, self);
      SetNotify(device, PROBE_READ_ON);
      ++self->adopted;
    }
    if (event == IOE_CONNECT_FAILED || event == IOE_INVALID_DEV) self->wrong = true;
    if (event == IOE_READ && !self->done) self->read(device);
    return 0;
  }
};

TEST(Load, EchoesOnEveryWorkerAtOnce) {
  Random random;
  Peer server;
  std::vector<Peer> clients(kClients);
  Engine engine(8);
  server.core = engine.core;
  rac_connection *listener = ListenRemote2(engine.core, 0, 0, nullptr, Peer::on_event, &server);
  std::vector<rac_connection *> devices;
  for (Peer &client : clients) {
    client.message.resize(static_cast<size_t>(4 + random.below(1400)));
    for (char &c : client.message) c = static_cast<char>(random.below(256));
    devices.push_back(ConnectRemote2(engine.core, &loopback, GetDeviceLocalPort(listener), 0,
                                     nullptr, Peer::on_event, &client));
    // More at a time could ask for more than the engine's 512 requests.
    const auto made = static_cast<int>(devices.size());
    ASSERT_TRUE(made % 100 != 0 || eventually([&] { return server.adopted == made; }));
  }
  for (size_t i = 0; i < kClients; ++i) clients[i].send(devices[i], clients[i].message);
  for (const Peer &client : clients) {
    ASSERT_TRUE(eventually([&] { return client.done || client.wrong; }));
    ASSERT_FALSE(client.wrong);
  }
  EXPECT_FALSE(server.wrong);
  RemoveDevice(listener);
  // The removed listener alone is still taken off.
  EXPECT_TRUE(eventually([&] { return GetDeviceTCPNum(engine.core) == -1; }));
  probe_barrier(engine.core);
}

}  // namespace
