// Echo over TCP with every worker busy: all bytes come back, in order, and every slot too.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "engine.h"

namespace {

constexpr int kClients = 400, kRounds = 20;

/// Echoes what comes on adopted connections.
struct Server {
  rac_core *core;

  static int on_event(void *arg, void *handle, int event, int) {
    auto *self = static_cast<Server *>(arg);
    auto *device = static_cast<rac_connection *>(handle);
    if (event == IOE_ACCEPTED) {
      AcceptRemote2(self->core, device, 0, nullptr, on_event, self);
      SetNotify(device, PROBE_READ_ON);
    } else if (event == IOE_READ) {
      char buffer[4096];
      int n = 0;
      const int result = tcp_nb_receive(GetDeviceFD(device), buffer, sizeof buffer, &n);
      if (n > 0 && tcp_send(GetDeviceFD(device), buffer, n, 10000, nullptr) != n)
        ADD_FAILURE() << "echo";
      if (result < 0) RemoveDevice(device);
    }
    return 0;
  }
};

/// Sends messages, each once the echo of the last is complete, and compares.
struct Client {
  int round = 0;
  std::string sent, back;
  std::mt19937 random;
  std::atomic<bool> done{false}, wrong{false};

  void next(rac_connection *device) {
    if (round++ == kRounds) {
      RemoveDevice(device);
      done = true;
      return;
    }
    sent.resize(4 + random() % 1400);
    for (char &c : sent) c = static_cast<char>(random());
    back.clear();
    const auto n = static_cast<int>(sent.size());
    if (tcp_send(GetDeviceFD(device), sent.data(), n, 10000, nullptr) != n) wrong = true;
  }
  static int on_event(void *arg, void *handle, int event, int) {
    auto *self = static_cast<Client *>(arg);
    auto *device = static_cast<rac_connection *>(handle);
    if (event == IOE_CONNECTED) self->next(device);
    if (event == IOE_CONNECT_FAILED || event == IOE_INVALID_DEV) self->wrong = true;
    if (event != IOE_READ || self->done) return 0;
    char buffer[2048];
    int n = 0;
    tcp_nb_receive(GetDeviceFD(device), buffer, sizeof buffer, &n);
    self->back.append(buffer, static_cast<size_t>(n));
    if (self->back.size() < self->sent.size()) return 0;
    if (self->back != self->sent) self->wrong = true;
    self->next(device);
    return 0;
  }
};

TEST(Load, EchoesOnEveryWorkerAtOnce) {
  Server server{};
  std::vector<Client> clients(kClients);
  Engine engine(8);
  server.core = engine.core;
  rac_connection *listener = ListenRemote2(engine.core, 0, 0, nullptr, Server::on_event, &server);
  ASSERT_NE(listener, nullptr);
  for (Client &client : clients) {
    client.random.seed(static_cast<unsigned>(&client - clients.data()));
    ASSERT_NE(ConnectRemote2(engine.core, &loopback, GetDeviceLocalPort(listener), 0, nullptr,
                             Client::on_event, &client),
              nullptr);
  }
  for (const Client &client : clients) {
    ASSERT_TRUE(eventually([&] { return client.done || client.wrong; }));
    ASSERT_FALSE(client.wrong);
  }
  RemoveDevice(listener);
  // The removed listener alone is still taken off.
  EXPECT_TRUE(eventually([&] { return GetDeviceTCPNum(engine.core) == -1; }));
  probe_barrier(engine.core);
}

}  // namespace
