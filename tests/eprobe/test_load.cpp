// Echo over TCP and UDP with every worker busy: all bytes come back, in order, and every slot too.
#include <gtest/gtest.h>

#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "engine.h"

namespace {

/// Echoes what comes on adopted connections and on a UDP listener.
struct Server {
  rac_core *core;

  static int on_tcp(void *arg, void *handle, int event, int) {
    auto *self = static_cast<Server *>(arg);
    auto *device = static_cast<rac_connection *>(handle);
    if (event == IOE_ACCEPTED) {
      AcceptRemote2(self->core, device, 0, nullptr, on_tcp, self);
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
  static int on_udp(void *, void *handle, int, int) {
    const int fd = GetDeviceFD(static_cast<rac_connection *>(handle));
    char buffer[2048];
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    auto *name = reinterpret_cast<sockaddr *>(&peer);
    const ssize_t n = recvfrom(fd, buffer, sizeof buffer, 0, name, &size);
    if (n > 0) sendto(fd, buffer, static_cast<size_t>(n), 0, name, size);
    return 0;
  }
};

/// Sends `rounds` messages, each once the echo of the last is complete, and compares.
struct Client {
  std::mutex lock;  // an echo may come while the first message's send still returns
  int rounds = 0;
  std::string sent;
  std::string back;
  std::mt19937 random;
  std::atomic<bool> done{false};
  std::atomic<bool> wrong{false};

  void next(rac_connection *device) {
    if (rounds-- == 0) {
      done = true;
      RemoveDevice(device);
      return;
    }
    sent.assign(1 + random() % 1400, static_cast<char>(random()));
    sent[0] = static_cast<char>(rounds);
    back.clear();
    const auto n = static_cast<int>(sent.size());
    if (tcp_send(GetDeviceFD(device), sent.data(), n, 10000, nullptr) != n) wrong = true;
  }
  static int on_event(void *arg, void *handle, int event, int) {
    auto *self = static_cast<Client *>(arg);
    auto *device = static_cast<rac_connection *>(handle);
    std::lock_guard guard(self->lock);
    if (event == IOE_CONNECTED) self->next(device);
    if (event == IOE_CONNECT_FAILED || event == IOE_INVALID_DEV) self->wrong = true;
    if (event != IOE_READ || self->done) return 0;
    char buffer[2048];
    int n = 0;
    if (tcp_nb_receive(GetDeviceFD(device), buffer, sizeof buffer, &n) < 0) self->wrong = true;
    self->back.append(buffer, static_cast<size_t>(n));
    if (self->back.size() < self->sent.size()) return 0;
    if (self->back != self->sent) self->wrong = true;
    self->next(device);
    return 0;
  }
};

TEST(Load, EchoesOverTcpAndUdpAtOnce) {
  Server server{};
  std::vector<Client> clients(150);
  Engine engine(8);
  server.core = engine.core;
  const uint32_t address = loopback();
  rac_connection *tcp = ListenRemote2(engine.core, 0, 0, nullptr, Server::on_tcp, &server);
  rac_connection *udp = ListenUDP3(engine.core, &address, 0, 0, nullptr, Server::on_udp, &server);
  ASSERT_TRUE(tcp != nullptr && udp != nullptr);

  for (size_t i = 0; i < clients.size(); ++i) {
    Client &client = clients[i];
    client.random.seed(static_cast<unsigned>(i));
    client.rounds = 40;
    if (i < 50) {
      ASSERT_NE(ConnectRemote2(engine.core, &address, GetDeviceLocalPort(tcp), i, nullptr,
                               Client::on_event, &client),
                nullptr);
    } else {
      rac_connection *device = UDPClient(engine.core, &address, GetDeviceLocalPort(udp), i, nullptr,
                                         Client::on_event, &client);
      ASSERT_NE(device, nullptr);
      std::lock_guard guard(client.lock);
      client.next(device);
    }
  }
  for (Client &client : clients) {
    EXPECT_TRUE(eventually([&] { return client.done || client.wrong; }));
    EXPECT_FALSE(client.wrong);
  }
  RemoveDevice(udp);
  RemoveDevice(tcp);
  EXPECT_TRUE(eventually([&] {
    // Only the removed listener is still taken off: one for it, 8 for the UDP listener, 100
    // clients.
    return GetDeviceTCPNum(engine.core) == -109;
  }));
  probe_barrier(engine.core);
}

}  // namespace
