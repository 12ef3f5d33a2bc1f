// The media server's thread: ports, events, timers and jobs. Requests and responses are handled in
// server_stream.cpp.
#include "testing/server_loop.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

namespace refserver {

// What an epoll event names: 0 the wake-up, listener_tag + n the n-th server, else a connection's
// id.
static constexpr uint64_t listener_tag = uint64_t{1} << 63;

static constexpr auto accept_pause = std::chrono::milliseconds(50);

server_loop::server_loop(server_options o) : options(std::move(o)) {
  for (int i = entry_server; i < options.nodes; ++i) {
    server_node &n = nodes_.emplace_back();
    n.index = i;
    if (i == entry_server)
      n.options = options.entry;
    else if (static_cast<size_t>(i) < options.node.size())
      n.options = options.node[i];
    n.address = address_of(i);
    for (const fault &order : n.options.faults) n.faults.push_back({order});
  }
}

server_loop::~server_loop() {
  stop();
  for (const server_node &n : nodes_) {
    if (n.holder >= 0) close(n.holder);
    if (n.listener >= 0) close(n.listener);
  }
  if (wakeup_ >= 0) close(wakeup_);
  if (epoll_ >= 0) close(epoll_);
}

// --- ports ---

uint32_t server_loop::address_of(int index) const {
  const auto place = static_cast<size_t>(index + 1);
  if (options.listen.empty())
    return INADDR_LOOPBACK + (options.spread_addresses ? static_cast<uint32_t>(place) : 0);
  return ntohl(inet_addr(options.listen[std::min(place, options.listen.size() - 1)].c_str()));
}

static int bound_socket(uint32_t address, uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = htonl(address);
  name.sin_port = htons(port);
  if (bind(fd, reinterpret_cast<const sockaddr *>(&name), sizeof name) == 0) return fd;
  const int reason = errno;
  close(fd);
  errno = reason;
  return -1;
}

bool server_loop::open_port(server_node &n, uint16_t port) {
  if (n.holder >= 0) close(n.holder);
  n.holder = bound_socket(n.address, port);
  sockaddr_in name{};
  socklen_t size = sizeof name;
  if (n.holder >= 0) getsockname(n.holder, reinterpret_cast<sockaddr *>(&name), &size);
  n.port = n.holder >= 0 ? ntohs(name.sin_port) : port;
  if (n.holder >= 0 && update_listener(n)) return true;
  const in_addr address{htonl(n.address)};
  error = std::string(inet_ntoa(address)) + ":" + std::to_string(n.port) + ": " + strerror(errno);
  return false;
}

// With several addresses one port must be free at all of them. Finding one may take a few attempts.
bool server_loop::open_ports() {
  const bool same = one_port();
  for (int attempt = 0; attempt < (same && options.port == 0 ? 20 : 1); ++attempt) {
    uint16_t port = options.port;
    bool opened = true;
    for (server_node &n : nodes_) {
      if (n.listener >= 0) close(n.listener);
      n.listener = -1;
      opened = opened && open_port(n, port);
      if (same)
        port = n.port;
      else if (port != 0)
        ++port;
    }
    if (opened) return true;
  }
  return false;
}

// Opens or closes the listening socket according to the server's state.
bool server_loop::update_listener(server_node &n) {
  const bool wanted = n.alive && !n.refusing;
  if (!wanted && n.listener >= 0) {
    close(n.listener);
    n.listener = -1;
  }
  if (!wanted || n.listener >= 0) return true;
  const int fd = bound_socket(n.address, n.port);
  if (fd < 0) return false;
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = listener_tag + static_cast<uint64_t>(n.index + 1);
  const std::string &congestion = options.congestion;
  const bool chosen =
      congestion.empty() || setsockopt(fd, IPPROTO_TCP, TCP_CONGESTION, congestion.data(),
                                       static_cast<socklen_t>(congestion.size())) == 0;
  if (chosen && listen(fd, 1024) == 0 && epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) == 0) {
    n.listener = fd;
    return true;
  }
  const int reason = errno;
  close(fd);
  errno = reason;
  return false;
}

// --- life ---

bool server_loop::start() {
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  wakeup_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  if (epoll_ < 0 || wakeup_ < 0 || epoll_ctl(epoll_, EPOLL_CTL_ADD, wakeup_, &event) != 0) {
    error = strerror(errno);
    return false;
  }
  buffer_.resize(256 * 1024);
  started_ = steady::now();
  for (server_node &n : nodes_) {
    n.bucket.set_rate(n.options.rate_bytes_per_s, started_);
    n.port = 0;
  }
  if (!open_ports()) return false;
  for (server_node &n : nodes_) {
    const std::vector<armed_fault> given = std::exchange(n.faults, {});
    for (const armed_fault &armed : given) add_fault(n, armed.order);
  }
  const std::lock_guard hold(mutex_);
  running_ = true;
  thread_ = std::thread([this] { main_loop(); });
  return true;
}

void server_loop::stop() {
  if (!thread_.joinable()) return;
  {
    const std::lock_guard hold(mutex_);
    stopping_ = true;
  }
  eventfd_write(wakeup_, 1);
  thread_.join();
}

void server_loop::run(const std::function<void()> &job) {
  std::unique_lock hold(mutex_);
  if (!running_) return job();
  bool done = false;
  jobs_.push_back({&job, &done});
  eventfd_write(wakeup_, 1);
  jobs_done_.wait(hold, [&done] { return done; });
}

// Runs the jobs of other threads. After the last time, callers run their jobs themselves.
void server_loop::run_jobs(bool last) {
  std::unique_lock hold(mutex_);
  if (last) running_ = false;
  const std::vector<job_entry> jobs = std::exchange(jobs_, {});
  if (!last) hold.unlock();
  for (const job_entry &entry : jobs) (*entry.job)();
  if (!last) hold.lock();
  for (const job_entry &entry : jobs) *entry.done = true;
  if (!jobs.empty()) jobs_done_.notify_all();
}

void server_loop::main_loop() {
  pthread_setname_np(pthread_self(), "media-server");
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  for (bool stopping = false; !stopping;) {
    wait_events();
    run_timers();
    for (size_t turns = runnable_.size(); turns > 0; --turns) {
      const uint64_t id = runnable_.front();
      runnable_.pop_front();
      if (connection *c = find(id)) c->runnable = false;
      pump(id);
    }
    for (const auto &[n, ms] : std::exchange(downs_, {})) {
      kill(*n, false);
      if (ms > 0)
        wake(timer_kind::revive, steady::now() + std::chrono::milliseconds(ms), n->life, n);
    }
    run_jobs(false);
    const std::lock_guard hold(mutex_);
    stopping = stopping_;
  }
  for (server_node &n : nodes_) kill(n, false);
  run_jobs(true);
}

void server_loop::wait_events() {
  int timeout = -1;
  if (!runnable_.empty()) {
    timeout = 0;
  } else if (!timers_.empty()) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(timers_.top().when - steady::now());
    timeout = static_cast<int>(std::clamp<int64_t>(left.count(), 0, 60'000));
  }
  epoll_event events[64];
  const int count = epoll_wait(epoll_, events, 64, timeout);
  for (int i = 0; i < count; ++i) {
    const uint64_t tag = events[i].data.u64;
    if (tag == 0) {
      eventfd_t ignored;
      eventfd_read(wakeup_, &ignored);
    } else if (tag >= listener_tag) {
      accept_all(nodes_[tag - listener_tag]);
    } else if (events[i].events & (EPOLLERR | EPOLLHUP)) {
      drop(tag, false);
    } else {
      if (events[i].events & EPOLLIN) readable(tag);
      if (events[i].events & EPOLLOUT) writable(tag);
    }
  }
}

void server_loop::wake(timer_kind kind, steady::time_point when, uint64_t id, server_node *n) {
  timers_.push({when, kind, id, n});
}

void server_loop::run_timers() {
  const steady::time_point now = steady::now();
  while (!timers_.empty() && timers_.top().when <= now) {
    const timer due = timers_.top();
    timers_.pop();
    if (due.kind == timer_kind::connection) {
      pump(due.id);
    } else if (due.kind == timer_kind::rate && due.id == due.node->rates) {
      serve_rate(*due.node);
    } else if (due.kind == timer_kind::revive && due.id == due.node->life) {
      revive(*due.node);
    } else if (due.kind == timer_kind::listen && due.id == due.node->refusals) {
      due.node->refusing = false;
      update_listener(*due.node);
    }
  }
}

// --- orders, given by jobs ---

void server_loop::kill(server_node &n, bool reset) {
  ++n.life;
  n.alive = false;
  update_listener(n);
  std::vector<uint64_t> victims;
  for (const auto &[id, c] : connections_)
    if (c.node == &n) victims.push_back(id);
  for (const uint64_t id : victims) drop(id, reset);
  n.waiting.clear();
}

void server_loop::revive(server_node &n) {
  ++n.life;
  n.alive = true;
  if (epoll_ < 0) return;
  n.bucket.set_rate(n.options.rate_bytes_per_s, steady::now());
  if (!update_listener(n)) error = "node " + std::to_string(n.index) + ": " + strerror(errno);
}

void server_loop::set_rate(server_node &n, double bytes_per_s) {
  n.options.rate_bytes_per_s = bytes_per_s;
  n.bucket.set_rate(bytes_per_s, steady::now());
  ++n.rates;  // the timer of the old rate may be due much later
  n.rate_timer = false;
  for (const uint64_t id : std::exchange(n.waiting, {})) {
    if (connection *c = find(id)) {
      c->queued = false;
      make_runnable(*c);
    }
  }
}

void server_loop::add_fault(server_node &n, const fault &order) {
  n.faults.push_back({order});
  if (order.kind != fault_kind::refuse || epoll_ < 0) return;
  n.refusing = true;
  ++n.refusals;
  update_listener(n);
  ++n.injected[static_cast<size_t>(fault_kind::refuse)];
  if (order.ms > 0)
    wake(timer_kind::listen, steady::now() + std::chrono::milliseconds(order.ms), n.refusals, &n);
}

void server_loop::clear_faults(server_node &n) {
  n.faults.clear();
  n.refusing = false;
  ++n.refusals;
  if (epoll_ >= 0) update_listener(n);
}

void server_loop::clear_log() {
  log_base_ += log.size();
  log.clear();
}

request_record *server_loop::record(uint64_t number) {
  if (number < log_base_ || number - log_base_ >= log.size()) return nullptr;
  return &log[number - log_base_];
}

double server_loop::seconds() const {
  return std::chrono::duration<double>(steady::now() - started_).count();
}

// --- connections ---

connection *server_loop::find(uint64_t id) {
  const auto found = connections_.find(id);
  return found == connections_.end() ? nullptr : &found->second;
}

static void reset_on_close(int fd) {
  const linger at_once{.l_onoff = 1, .l_linger = 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

void server_loop::accept_all(server_node &n) {
  while (n.listener >= 0) {
    const int fd = accept4(n.listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)) {
      // Stop listening for a while: the pending connection would wake the loop without end.
      close(n.listener);
      n.listener = -1;
      return wake(timer_kind::listen, steady::now() + accept_pause, n.refusals, &n);
    }
    if (fd < 0) return;
    ++n.totals.accepted;
    if (const fault *order = match(n, 0)) {
      ++n.injected[static_cast<size_t>(order->kind)];
      reset_on_close(fd);
      close(fd);
      continue;
    }
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const uint64_t id = ++last_connection_;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = id;
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) != 0) {
      close(fd);
      continue;
    }
    connection &c = connections_[id];
    c.id = id;
    c.fd = fd;
    c.node = &n;
    ++n.totals.open;
  }
}

void server_loop::drop(uint64_t id, bool reset) {
  connection *c = find(id);
  if (c == nullptr) return;
  if (reset) reset_on_close(c->fd);
  close(c->fd);
  --c->node->totals.open;
  connections_.erase(id);
}

void server_loop::writable(uint64_t id) {
  connection *c = find(id);
  if (c == nullptr) return;
  // Not wanted until the socket is full again: a connection that waits for something else must not
  // spin.
  want_write(*c, false);
  pump(id);
}

void server_loop::make_runnable(connection &c) {
  if (!std::exchange(c.runnable, true)) runnable_.push_back(c.id);
}

void server_loop::want_write(connection &c, bool on) {
  if (c.wants_write == on) return;
  epoll_event event{};
  event.events = EPOLLIN | (on ? uint32_t{EPOLLOUT} : 0);
  event.data.u64 = c.id;
  epoll_ctl(epoll_, EPOLL_CTL_MOD, c.fd, &event);
  c.wants_write = on;
}

}  // namespace refserver
