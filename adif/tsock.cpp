// TCP, UDP and unix-domain socket wrappers. Called by the event engine (connect, listen), the
// session core (non-blocking transfer) and the report channels (transfer with a time-out). See
// tsock.h.
#include "adif/tsock.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "adif/check.h"

namespace {

constexpr int BACKLOG = 1024;

/// Owns a descriptor until it is released to the caller.
class fd_guard {
 public:
  explicit fd_guard(int fd) : fd_(fd) {}
  ~fd_guard() {
    if (fd_ >= 0) close(fd_);
  }
  fd_guard(const fd_guard &) = delete;
  fd_guard &operator=(const fd_guard &) = delete;
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

int64_t monotonic_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/// The moment at which a wait of `timeout_ms` ends; 0 or less never ends.
class deadline {
 public:
  explicit deadline(int timeout_ms)
      : end_ms_(timeout_ms > 0 ? monotonic_ms() + timeout_ms : UNLIMITED) {}

  /// What is left in poll(2)'s form: -1 for ever, 0 when it has passed.
  int left_ms() const {
    if (end_ms_ == UNLIMITED) return -1;
    const int64_t left = end_ms_ - monotonic_ms();
    return left > 0 ? static_cast<int>(left) : 0;
  }

 private:
  static constexpr int64_t UNLIMITED = -1;
  int64_t end_ms_;
};

/// 1 once one of `events` is there, 0 at the deadline, -1 on an error. An error or hang-up of the
/// socket counts as readiness: the call that follows reports it.
int wait_ready(int fd, short events, const deadline &end) {
  if (fd < 0) return -1;  // poll would ignore it and sleep
  for (;;) {
    pollfd item{fd, events, 0};
    const int ready = poll(&item, 1, end.left_ms());
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return ready;
    return (item.revents & POLLNVAL) != 0 ? -1 : 1;
  }
}

void set_option(int fd, int level, int option) {
  const int on = 1;
  setsockopt(fd, level, option, &on, sizeof on);
}

void set_tcp_options(int fd) {
  set_option(fd, SOL_SOCKET, SO_REUSEADDR);
  set_option(fd, SOL_SOCKET, SO_KEEPALIVE);
  // Requests are small and waited for: none may wait for the answer to the one before.
  set_option(fd, IPPROTO_TCP, TCP_NODELAY);
}

sockaddr_in inet_name(uint32_t address, int port) {
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = address;
  name.sin_port = htons(static_cast<uint16_t>(port));
  return name;
}

const sockaddr *generic(const sockaddr_in &name) {
  return reinterpret_cast<const sockaddr *>(&name);
}

int set_blocking_mode(int fd, int nonblocking) {
  ioctl(fd, FIONBIO, &nonblocking);
  return 0;
}

/// Starts the connection on `socket`; the descriptor, or -1 with the socket closed.
int begin_connect(fd_guard socket, uint32_t address, int port, int *error) {
  set_tcp_options(socket.get());
  const sockaddr_in name = inet_name(address, port);
  if (connect(socket.get(), generic(name), sizeof name) != 0 && errno != EINPROGRESS &&
      errno != EAGAIN)
    return -1;
  if (error != nullptr) *error = 0;
  return socket.release();
}

int set_error(int *error) {
  if (error != nullptr) *error = -1;
  return -1;
}

/// Moves all `n` bytes with `step(done, left)`, a single send or receive. The time-out counts only
/// where the call would have to wait: then, with less than 1 ms left, nothing more is tried.
template <typename Step>
int transfer(int fd, int n, int timeout_ms, short events, int *moved, Step step) {
  const deadline end(timeout_ms);
  for (int done = 0; done < n;) {
    const ssize_t count = step(done, static_cast<size_t>(n - done));
    if (count > 0) {
      done += static_cast<int>(count);
      if (moved != nullptr) *moved = done;
      continue;
    }
    // Nothing sent or a closed peer: it would go on for ever.
    if (count == 0) return -1;
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return -1;
    if (end.left_ms() == 0) return 0;
    const int ready = wait_ready(fd, events, end);
    if (ready <= 0) return ready;
  }
  return n;
}

bool unix_name(const char *path, sockaddr_un *name) {
  *name = {};
  name->sun_family = AF_UNIX;
  if (path == nullptr || *path == '\0' || std::strlen(path) >= sizeof name->sun_path) return false;
  std::strcpy(name->sun_path, path);
  return true;
}

}  // namespace

uint32_t sock_get_hostip(const char *host) {
  if (host == nullptr || *host == '\0') return SOCK_NO_ADDRESS;
  if (std::isalpha(static_cast<unsigned char>(*host)) == 0) return inet_addr(host);

  addrinfo hints{};
  hints.ai_family = AF_INET;
  // One answer for each address instead of one for each kind of socket.
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *found = nullptr;
  if (getaddrinfo(host, nullptr, &hints, &found) != 0 || found == nullptr) return SOCK_NO_ADDRESS;
  sockaddr_in name{};
  std::memcpy(&name, found->ai_addr, sizeof name);
  freeaddrinfo(found);
  return name.sin_addr.s_addr;
}

int set_socket_nonblocking(int fd) {
  return set_blocking_mode(fd, 1);
}

int sock_set_blocking(int fd) {
  return set_blocking_mode(fd, 0);
}

int tcp_nb_connect(const char *host, int port, uint32_t, uint32_t, int *error) {
  set_error(error);
  adif::check(port >= 0 && port <= 65535, "dstport >= 0 && dstport <= 65535", "adif/tsock");
  const uint32_t address = sock_get_hostip(host);
  if (address == SOCK_NO_ADDRESS) return -1;
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd == -1) return -1;
  return begin_connect(fd_guard(fd), address, port, error);
}

int tcp_nb_connect2(uint32_t address, int port, int *error) {
  set_error(error);
  adif::check(port >= 0 && port <= 65535, "dstport >= 0 && dstport <= 65535", "adif/tsock");
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  // Descriptor 0 counts as a failure (meant, see the header) and must not leak.
  if (fd == 0) close(fd);
  if (fd < 1) return -1;
  return begin_connect(fd_guard(fd), address, port, error);
}

int sock_write_ready(int fd, int timeout_ms) {
  return wait_ready(fd, POLLOUT, deadline(timeout_ms)) == 1 ? 1 : 0;
}

int sock_read_ready(int fd, int timeout_ms) {
  return wait_ready(fd, POLLIN, deadline(timeout_ms)) == 1 ? 1 : 0;
}

int sock_get_pending(int fd) {
  int pending = 0;
  return ioctl(fd, FIONREAD, &pending) == 0 ? pending : -1;
}

int tcp_send(int fd, const void *bytes, int n, int timeout_ms, int *sent) {
  if (sent != nullptr) *sent = 0;
  if (fd == -1 || bytes == nullptr || n < 1) return -1;
  return transfer(fd, n, timeout_ms, POLLOUT, sent, [&](int done, size_t left) {
    return send(fd, static_cast<const char *>(bytes) + done, left, MSG_NOSIGNAL | MSG_DONTWAIT);
  });
}

int tcp_receive(int fd, void *buffer, int n, int timeout_ms, int *received) {
  if (received != nullptr) *received = 0;
  if (fd == -1 || buffer == nullptr || n < 1) return -1;
  return transfer(fd, n, timeout_ms, POLLIN, received, [&](int done, size_t left) {
    return recv(fd, static_cast<char *>(buffer) + done, left, MSG_DONTWAIT);
  });
}

int tcp_nb_receive(int fd, void *buffer, int n, int *received) {
  if (received != nullptr) *received = 0;
  if (fd == -1 || buffer == nullptr || n < 1) return -1;
  int done = 0;
  while (done < n) {
    const ssize_t count =
        recv(fd, static_cast<char *>(buffer) + done, static_cast<size_t>(n - done), MSG_DONTWAIT);
    if (count == 0) return -1;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno == EAGAIN ? done : -1;
    done += static_cast<int>(count);
    if (received != nullptr) *received = done;
  }
  return done;
}

int tcp_nb_send(int fd, const void *bytes, int n) {
  if (fd == -1 || bytes == nullptr || n < 1) return -1;
  for (;;) {
    const ssize_t count = send(fd, bytes, static_cast<size_t>(n), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count >= 0) return static_cast<int>(count);
    if (errno == EINTR) continue;
    return errno == EAGAIN ? 0 : -1;
  }
}

int tcp_server_create(const char *address, int port) {
  adif::check(port >= 0 && port <= 65535, "port >= 0 && port <= 65535", "adif/tsock");
  in_addr local{htonl(INADDR_ANY)};
  if (address != nullptr && inet_aton(address, &local) == 0) return -1;
  fd_guard server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (server.get() < 0) return -1;
  set_tcp_options(server.get());
  const sockaddr_in name = inet_name(local.s_addr, port);
  if (bind(server.get(), generic(name), sizeof name) != 0) return -1;
  if (listen(server.get(), BACKLOG) != 0) return -1;
  return server.release();
}

int udp_server_create(const uint32_t *address, int port) {
  if (port < 0 || port > 65535) return -1;
  fd_guard server(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (server.get() < 0) return -1;
  const sockaddr_in name = inet_name(address != nullptr ? *address : htonl(INADDR_ANY), port);
  if (bind(server.get(), generic(name), sizeof name) != 0) return -1;
  return server.release();
}

int sock_is_valid(int fd) {
  int type = 0;
  socklen_t size = sizeof type;
  return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 ? 1 : 0;
}

int usock_create(const char *path) {
  sockaddr_un name;
  if (!unix_name(path, &name)) return -1;
  fd_guard server(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (server.get() < 0) return -1;
  struct stat old {};
  // Only a socket that an earlier run left is replaced, never a file.
  if (lstat(path, &old) == 0 && S_ISSOCK(old.st_mode)) unlink(path);
  if (bind(server.get(), reinterpret_cast<sockaddr *>(&name), sizeof name) != 0) return -1;
  if (listen(server.get(), BACKLOG) != 0) return -1;
  return server.release();
}

int usock_accept(int listener) {
  for (;;) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0 || errno != EINTR) return fd;
  }
}

int usock_connect(const char *path) {
  sockaddr_un name;
  if (!unix_name(path, &name)) return -1;
  fd_guard client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (client.get() < 0) return -1;
  if (connect(client.get(), reinterpret_cast<sockaddr *>(&name), sizeof name) != 0) return -1;
  return client.release();
}
