// The system calls that the library makes, as the linker leads them here (--wrap), and those that
// other libraries make for it, replaced by name. Outside a plan each is the real one.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "plan.h"

using namespace sweep;

namespace {

constexpr uint16_t report_port = 3528;
constexpr int most_pairs = 64;
std::atomic<int> wake_sockets[most_pairs];
std::atomic<int> pairs{0};

bool is_wake_socket(int fd) {
  return std::any_of(wake_sockets, wake_sockets + std::min(pairs.load(), most_pairs),
                     [fd](const std::atomic<int> &one) { return one == fd; });
}

/// True, with errno, when the call meets EINTR or EAGAIN; `*length` is what it may move.
bool stopped_by_weather(size_t *length, bool may_be_full) {
  const weather met = plan::meets();
  if (met == weather::pieces) *length = std::min<size_t>(*length, 1 + *length / 3);
  if (met != weather::eintr && (met != weather::eagain || !may_be_full)) return false;
  errno = met == weather::eintr ? EINTR : EAGAIN;
  return true;
}

bool stopped_waiting() {
  size_t nothing = 0;
  return stopped_by_weather(&nothing, false);
}

using create_thread = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);

/// Threads of the harness and of its servers are exempt as who starts them.
struct exempt_start {
  void *(*start)(void *);
  void *argument;
};

void *run_exempt(void *given) {
  const std::unique_ptr<exempt_start> own(static_cast<exempt_start *>(given));
  const plan::Exempt exempt;
  return own->start(own->argument);
}

}  // namespace

// A call that is the real one unless it is to fail.
#define SWEEP_CALL(kind, result, failure, name, parameters, arguments)  \
  result __real_##name parameters;                                      \
  result __wrap_##name parameters {                                     \
    return plan::fails(call::kind) ? failure : __real_##name arguments; \
  }

extern "C" {

SWEEP_CALL(socket, int, -1, socket, (int domain, int type, int protocol), (domain, type, protocol))
SWEEP_CALL(getsockopt, int, -1, getsockopt,
           (int fd, int level, int option, void *value, socklen_t *size),
           (fd, level, option, value, size))
SWEEP_CALL(setsockopt, int, -1, setsockopt,
           (int fd, int level, int option, const void *value, socklen_t size),
           (fd, level, option, value, size))
SWEEP_CALL(getpeername, int, -1, getpeername, (int fd, sockaddr *name, socklen_t *size),
           (fd, name, size))
SWEEP_CALL(ioctl, int, -1, ioctl, (int fd, unsigned long what, void *argument),
           (fd, what, argument))
SWEEP_CALL(fstat, int, -1, fstat64, (int fd, struct stat *status), (fd, status))
SWEEP_CALL(open, int, -1, open64, (const char *path, int flags, mode_t mode), (path, flags, mode))
SWEEP_CALL(fopen, FILE *, nullptr, fopen64, (const char *path, const char *mode), (path, mode))

int __real_socketpair(int domain, int type, int protocol, int pair[2]);
int __real_connect(int fd, const sockaddr *name, socklen_t size);
ssize_t __real_send(int fd, const void *bytes, size_t size, int flags);
ssize_t __real_recv(int fd, void *bytes, size_t size, int flags);
ssize_t __real_recvmsg(int fd, msghdr *message, int flags);
int __real_select(int count, fd_set *in, fd_set *out, fd_set *odd, timeval *wait);
int __real_poll(pollfd *items, nfds_t count, int wait);
int __real_getaddrinfo(const char *host, const char *service, const addrinfo *hints,
                       addrinfo **out);
int __real_pthread_mutex_lock(pthread_mutex_t *mutex);

int __wrap_socketpair(int domain, int type, int protocol, int pair[2]) {
  if (plan::fails(call::socketpair)) return -1;
  const int result = __real_socketpair(domain, type, protocol, pair);
  if (result == 0) wake_sockets[pairs.fetch_add(1) % most_pairs] = pair[0];
  return result;
}

int __wrap_connect(int fd, const sockaddr *name, socklen_t size) {
  if (plan::fails(call::connect)) return -1;
  sockaddr_in elsewhere{};
  if (plan::hole.load() != 0 && name->sa_family == AF_INET) {
    std::memcpy(&elsewhere, name, sizeof elsewhere);
    if (elsewhere.sin_port != htons(report_port) && plan::straight.fetch_sub(1) < 1) {
      elsewhere.sin_port = htons(static_cast<uint16_t>(plan::hole.load()));
      name = reinterpret_cast<const sockaddr *>(&elsewhere);
    }
  }
  return __real_connect(fd, name, size);
}

ssize_t __wrap_send(int fd, const void *bytes, size_t size, int flags) {
  if (plan::brim.load() && is_wake_socket(fd)) {
    while (__real_send(fd, bytes, 1, flags | MSG_DONTWAIT) == 1) {
    }
  }
  if (stopped_by_weather(&size, !is_wake_socket(fd)) || plan::fails(call::send)) return -1;
  return __real_send(fd, bytes, size, flags);
}

ssize_t __wrap_recv(int fd, void *bytes, size_t size, int flags) {
  if (stopped_by_weather(&size, true) || plan::fails(call::recv)) return -1;
  return __real_recv(fd, bytes, size, flags);
}

ssize_t __wrap_recvmsg(int fd, msghdr *message, int flags) {
  iovec first = message->msg_iov[0];
  msghdr shorter = *message;
  const size_t whole = first.iov_len;
  if (stopped_by_weather(&first.iov_len, true) || plan::fails(call::recvmsg)) return -1;
  if (first.iov_len == whole) return __real_recvmsg(fd, message, flags);
  shorter.msg_iov = &first;  // a piece: of the first buffer alone
  shorter.msg_iovlen = 1;
  return __real_recvmsg(fd, &shorter, flags);
}

int __wrap_select(int count, fd_set *in, fd_set *out, fd_set *odd, timeval *wait) {
  if (stopped_waiting() || plan::fails(call::select)) return -1;
  return __real_select(count, in, out, odd, wait);
}

int __wrap_poll(pollfd *items, nfds_t count, int wait) {
  if (stopped_waiting() || plan::fails(call::poll)) return -1;
  return __real_poll(items, count, wait);
}

int __wrap_getaddrinfo(const char *host, const char *service, const addrinfo *hints,
                       addrinfo **out) {
  if (const int ms = plan::slow_names.load(); ms > 0) {
    plan::looking_up = true;
    usleep(static_cast<useconds_t>(ms) * 1000);
  }
  if (plan::fails(call::resolve)) return errno;
  // Without memory the C library's resolver crashes or waits for itself: not ours to mend.
  const plan::Exempt exempt;
  return __real_getaddrinfo(host, service, hints, out);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
  return plan::broken_mutex.load() ? EINVAL : __real_pthread_mutex_lock(mutex);
}

// std::thread calls it from the C++ library: replaced for all.
int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*start)(void *),
                   void *argument) {
  static const auto real = reinterpret_cast<create_thread>(dlsym(RTLD_NEXT, "pthread_create"));
  if (plan::fails(call::thread)) return EAGAIN;
  if (!plan::is_exempt()) return real(thread, attributes, start, argument);
  return real(thread, attributes, run_exempt, new exempt_start{start, argument});
}

// The wall clock, for the C++ library's too.
int clock_gettime(clockid_t clock, timespec *now) {
  const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
  if (result == 0 && clock == CLOCK_REALTIME) now->tv_sec += plan::clock_ahead.load();
  return result;
}

int gettimeofday(timeval *now, void *) {
  timespec exact{};
  clock_gettime(CLOCK_REALTIME, &exact);
  *now = {exact.tv_sec, exact.tv_nsec / 1000};
  return 0;
}

time_t time(time_t *out) {
  timespec exact{};
  clock_gettime(CLOCK_REALTIME, &exact);
  if (out != nullptr) *out = exact.tv_sec;
  return exact.tv_sec;
}

}  // extern "C"
