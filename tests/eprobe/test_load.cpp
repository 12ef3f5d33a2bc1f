// Echo over TCP and UDP with every worker busy: all bytes come back, in order, and every slot too.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

#include "engine.h"

namespace {

constexpr int kTcp = 200, kUdp = 400, kRounds = 20;

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

/// Sends messages, each once the echo of the last is complete, and compares. A message begins with
/// its round: the second echo of a datagram that was sent again is told by that.
struct Client {
  std::mutex lock;  // an echo may come while the first message's send still returns
  bool datagrams = false;
  rac_connection *device = nullptr;
  int round = 0;
  std::string sent, back;
  std::mt19937 random;
  std::atomic<int> progress{0};
  std::atomic<bool> done{false};
  std::atomic<bool> wrong{false};

  void next() {
    ++progress;
    if (round++ == kRounds) {
      RemoveDevice(device);
      done = true;
      return;
    }
    sent.resize(4 + random() % 1400);
    for (char &c : sent) c = static_cast<char>(random());
    std::memcpy(sent.data(), &round, sizeof round);
    back.clear();
    send_now();
  }
  void send_now() {
    const auto n = static_cast<int>(sent.size());
    if (tcp_send(GetDeviceFD(device), sent.data(), n, 10000, nullptr) != n) wrong = true;
  }
  /// A datagram may be lost: the socket's buffer holds those of a part of the clients.
  void send_again_unless(int moved_on_from) {
    std::lock_guard guard(lock);
    if (datagrams && !done && progress == moved_on_from) send_now();
  }
  static int on_event(void *arg, void *handle, int event, int) {
    auto *self = static_cast<Client *>(arg);
    std::lock_guard guard(self->lock);
    self->device = static_cast<rac_connection *>(handle);
    if (event == IOE_CONNECTED) self->next();
    if (event == IOE_CONNECT_FAILED || event == IOE_INVALID_DEV) self->wrong = true;
    if (event == IOE_READ && !self->done) self->receive();
    return 0;
  }
  void receive() {
    char buffer[2048];
    if (datagrams) back.clear();
    const ssize_t n = recv(GetDeviceFD(device), buffer, sizeof buffer, MSG_DONTWAIT);
    if (n < 1) return;
    back.append(buffer, static_cast<size_t>(n));
    if (datagrams && std::memcmp(buffer, &round, sizeof round) != 0) return;
    if (back.size() < sent.size()) return;
    if (back != sent) wrong = true;
    next();
  }
};

TEST(Load, EchoesOverTcpAndUdpAtOnce) {
  Server server{};
  std::vector<Client> clients(kTcp + kUdp);
  Engine engine(8);
  server.core = engine.core;
  rac_connection *tcp = ListenRemote2(engine.core, 0, 0, nullptr, Server::on_tcp, &server);
  rac_connection *udp = ListenUDP3(engine.core, &loopback, 0, 0, nullptr, Server::on_udp, &server);
  ASSERT_TRUE(tcp != nullptr && udp != nullptr);
  const uint16_t tcp_port = GetDeviceLocalPort(tcp), udp_port = GetDeviceLocalPort(udp);

  for (size_t i = 0; i < clients.size(); ++i) {
    Client &client = clients[i];
    client.random.seed(static_cast<unsigned>(i));
    client.datagrams = i >= kTcp;
    const auto make = client.datagrams ? UDPClient : ConnectRemote2;
    const uint16_t port = client.datagrams ? udp_port : tcp_port;
    auto *device = make(engine.core, &loopback, port, i, nullptr, Client::on_event, &client);
    ASSERT_NE(device, nullptr) << i;
    std::lock_guard guard(client.lock);
    client.device = device;
    if (client.datagrams) client.next();
  }
  const auto over = [](const Client &client) { return client.done || client.wrong; };
  for (int pass = 0; pass < 600 && !std::all_of(clients.begin(), clients.end(), over); ++pass) {
    std::vector<int> before;
    for (const Client &client : clients) before.push_back(client.progress);
    pause_ms(100);
    for (size_t i = 0; i < clients.size(); ++i) clients[i].send_again_unless(before[i]);
  }
  for (const Client &client : clients) ASSERT_TRUE(client.done && !client.wrong);
  RemoveDevice(udp);
  RemoveDevice(tcp);
  // Only removed listeners and UDP devices are still taken off: the UDP listener is 8 of them.
  EXPECT_TRUE(eventually([&] { return GetDeviceTCPNum(engine.core) == -(1 + 8 + kUdp); }));
  probe_barrier(engine.core);
}

}  // namespace
