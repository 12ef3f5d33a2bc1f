// Socket calls over loopback: transfers with and without time-outs, failures, names.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>

#include "adif/tsock.h"
#include "support/support.h"

namespace {

using Clock = std::chrono::steady_clock;

/// A TCP connection with both ends here; the client's end is non-blocking.
struct Pair {
  int server = tcp_server_create("127.0.0.1", 0);
  int client = tcp_nb_connect2(htonl(INADDR_LOOPBACK), port_of(server), nullptr);
  int peer = accept(server, nullptr, nullptr);
  ~Pair() {
    for (int fd : {server, client, peer}) close(fd);
  }
};

int option(int fd, int level, int name) {
  int value = 0;
  socklen_t size = sizeof value;
  getsockopt(fd, level, name, &value, &size);
  return value;
}

TEST(Hostip, Table) {
  const std::pair<const char *, const char *> table[] = {
      {"10.1.2.3", "10.1.2.3"}, {"127.1", "127.0.0.1"},       {"localhost", "127.0.0.1"},
      {"300.1.2.3", nullptr},   {"1.2.3.4x", nullptr},        {"", nullptr},
      {nullptr, nullptr},       {"no-such.invalid", nullptr},
  };
  for (const auto &[host, address] : table) {
    EXPECT_EQ(sock_get_hostip(host), address != nullptr ? inet_addr(address) : SOCK_NO_ADDRESS)
        << (host != nullptr ? host : "NULL");
  }
}

TEST(Connect, RefusalIsSeenLaterAndOptionsAreSet) {
  int dead_port = 0;
  {
    Pair pair;
    dead_port = port_of(pair.server);
    for (const auto &[level, name] :
         {std::pair{SOL_SOCKET, SO_KEEPALIVE}, std::pair{SOL_SOCKET, SO_REUSEADDR},
          std::pair<int, int>{IPPROTO_TCP, TCP_NODELAY}})
      EXPECT_NE(option(pair.client, level, name), 0) << level << " " << name;
    EXPECT_NE(fcntl(pair.client, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(pair.client, F_GETFD) & FD_CLOEXEC, 0);
    sock_set_blocking(pair.client);
    EXPECT_EQ(fcntl(pair.client, F_GETFL) & O_NONBLOCK, 0);
  }
  int error = 7;
  const int fd = tcp_nb_connect("127.0.0.1", dead_port, 0, 0, &error);
  ASSERT_TRUE(fd >= 1 && error == 0) << fd << " " << error;
  EXPECT_EQ(sock_write_ready(fd, 5000), 1);
  EXPECT_EQ(option(fd, SOL_SOCKET, SO_ERROR), ECONNREFUSED);
  close(fd);
  EXPECT_EQ(tcp_nb_connect("no-such.invalid", 1, 0, 0, &error), -1);
  EXPECT_EQ(error, -1);
}

TEST(Send, ATimeOutTellsWhatWentOut) {
  int pair[2];  // a local stream: once full, it stays full
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
  const std::vector<char> much(std::size_t{8} << 20);
  const auto n = static_cast<int>(much.size());
  int sent = 0;
  EXPECT_EQ(tcp_send(pair[0], much.data(), n, 100, &sent), 0);
  EXPECT_TRUE(sent > 0 && sent < n) << sent;
  while (tcp_nb_send(pair[0], "x", 1) == 1) {
  }
  for (const bool blocking : {true, false}) {
    if (!blocking) set_socket_nonblocking(pair[0]);
    const auto start = Clock::now();
    sent = 99;
    EXPECT_EQ(tcp_send(pair[0], "0123456789", 10, 200, &sent), 0);
    EXPECT_GE(ms_since(start), 199);
    EXPECT_EQ(sent, 0);
    EXPECT_EQ(sock_write_ready(pair[0], 20), 0);
  }
  close(pair[1]);
  EXPECT_EQ(tcp_send(pair[0], "0", 1, 200, &sent), -1) << "and no signal";
  EXPECT_EQ(tcp_nb_send(pair[0], "0", 1), -1);
  close(pair[0]);
}

TEST(Send, WithoutLimitWaitsForASlowReader) {
  Pair pair;
  std::string bytes(std::size_t{8} << 20, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 2654435761u >> 24);
  const auto n = static_cast<int>(bytes.size());
  std::string got(bytes.size(), '\0');
  std::thread reader([&] {
    pause_ms(300);
    EXPECT_EQ(tcp_receive(pair.peer, got.data(), n, 0, nullptr), n);
  });
  int sent = 0;
  EXPECT_EQ(tcp_send(pair.client, bytes.data(), n, 0, &sent), n);
  reader.join();
  EXPECT_TRUE(sent == n && got == bytes);
}

TEST(Receive, CountsWhatCameBeforeTimeOutAndClose) {
  Pair pair;
  char buffer[16] = "";
  int received = 9;
  EXPECT_EQ(tcp_nb_receive(pair.client, buffer, 16, &received), 0);
  EXPECT_EQ(received, 0);
  ASSERT_EQ(tcp_nb_send(pair.peer, "abcdef", 6), 6);
  ASSERT_EQ(sock_read_ready(pair.client, 5000), 1);
  EXPECT_EQ(sock_get_pending(pair.client), 6);
  EXPECT_EQ(tcp_nb_receive(pair.client, buffer, 2, &received), 2);
  const auto start = Clock::now();
  EXPECT_EQ(tcp_receive(pair.client, buffer, 10, 100, &received), 0);
  EXPECT_GE(ms_since(start), 99);
  EXPECT_EQ(received, 4);
  EXPECT_EQ(std::string(buffer, 4), "cdef");
  EXPECT_EQ(sock_read_ready(pair.client, 50), 0);

  ASSERT_EQ(tcp_nb_send(pair.peer, "xyz", 3), 3);
  shutdown(pair.peer, SHUT_WR);
  ASSERT_EQ(sock_read_ready(pair.client, 5000), 1);
  EXPECT_EQ(tcp_nb_receive(pair.client, buffer, 3, nullptr), 3) << "a full buffer sees no close";
  EXPECT_EQ(tcp_nb_receive(pair.client, buffer, 3, &received), -1);
  EXPECT_EQ(tcp_receive(pair.client, buffer, 3, 0, &received), -1);
  ASSERT_EQ(tcp_nb_send(pair.client, "123", 3), 3);
  shutdown(pair.client, SHUT_WR);
  ASSERT_EQ(sock_read_ready(pair.peer, 5000), 1);
  EXPECT_EQ(tcp_nb_receive(pair.peer, buffer, 16, &received), -1) << "closed, yet";
  EXPECT_EQ(received, 3);
}

TEST(Receive, ATrickleDoesNotMoveTheDeadline) {
  Pair pair;
  std::thread peer([&] {
    for (int i = 0; i < 30; ++i, pause_ms(50)) tcp_nb_send(pair.peer, "x", 1);
  });
  char buffer[100];
  int received = 0;
  const auto start = Clock::now();
  EXPECT_EQ(tcp_receive(pair.client, buffer, 100, 200, &received), 0);
  EXPECT_LT(ms_since(start), 1000);
  EXPECT_GT(received, 0);
  peer.join();
}

TEST(Arguments, WhatIsNoSocketIsTold) {
  Pair pair;
  EXPECT_EQ(sock_read_ready(-1, 0), 0) << "and at once, although 0 is no limit";
  const int file = open("/dev/null", O_RDONLY);
  EXPECT_EQ(sock_is_valid(pair.client), 1);
  EXPECT_EQ(sock_is_valid(-1) + sock_is_valid(file), 0);
  close(file);
  EXPECT_EQ(tcp_server_create("127.0.0.1", port_of(pair.server)), -1) << "in use";
  EXPECT_EQ(tcp_server_create("not dotted", 0) + udp_server_create(nullptr, 70000), -2);
}

TEST(Ready, DescriptorsAboveSelectsReachAreServed) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit raised{std::min<rlim_t>(4096, limit.rlim_max), limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
  Pair pair;
  const int high = fcntl(pair.client, F_DUPFD_CLOEXEC, 2000);
  ASSERT_GE(high, 2000);
  EXPECT_EQ(sock_write_ready(high, 1000), 1);
  EXPECT_EQ(sock_read_ready(high, 20), 0);
  char byte = 0;
  EXPECT_EQ(tcp_receive(high, &byte, 1, 20, nullptr), 0);
  close(high);
  setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(Unix, ServerReplacesAStaleFileAndTalks) {
  const Folder folder;
  const std::string path = folder / "socket";
  close(usock_create(path.c_str()));  // leaves its file
  const int server = usock_create(path.c_str());
  const int client = usock_connect(path.c_str());
  const int peer = usock_accept(server);
  char buffer[3];
  EXPECT_EQ(tcp_send(client, "abc", 3, 1000, nullptr), 3);
  EXPECT_EQ(tcp_receive(peer, buffer, 3, 1000, nullptr), 3);
  for (int fd : {server, client, peer}) close(fd);
  unlink(path.c_str());
  write_file(path, "x");
  EXPECT_EQ(usock_create(path.c_str()), -1) << "a file that is no socket is left alone";
  EXPECT_EQ(access(path.c_str(), F_OK), 0);
  EXPECT_EQ(usock_connect(std::string(200, 'x').c_str()) + usock_connect(nullptr), -2);
}

TEST(Selfaddr, ListsRealInterfacesWithinTheTable) {
  sock_interface table[16];
  const int n = get_selfaddr(table, 16);
  ASSERT_GE(n, 0);
  for (int i = 0; i < n; ++i) {
    EXPECT_NE(if_nametoindex(table[i].name), 0u) << table[i].name;
    EXPECT_STRNE(table[i].name, "lo");
    EXPECT_GT(table[i].mtu, 0);
    // The address is this host's: a socket can be bound to it.
    const int fd = udp_server_create(&table[i].address, 0);
    EXPECT_GE(fd, 0) << table[i].name;
    close(fd);
  }
  EXPECT_EQ(get_selfaddr(table, 1), std::min(n, 1));
  const Folder empty;
  const auto without_proc = [&] {  // the kernel's list knows the same interfaces
    sock_interface again[16];
    if (chroot(empty.path.c_str()) != 0) return 0;
    bool same = get_selfaddr(again, 16) == n;
    for (int i = 0; same && i < n; ++i)
      same = std::any_of(again, again + n, [&](const sock_interface &one) {
        return std::string(one.name) == table[i].name && one.address == table[i].address;
      });
    return same ? 0 : 1;
  };
  EXPECT_EQ(in_child(without_proc), 0);
  EXPECT_EQ(get_selfaddr(table, 0), 0);
  EXPECT_EQ(get_selfaddr(nullptr, 4), 0);
}

}  // namespace
