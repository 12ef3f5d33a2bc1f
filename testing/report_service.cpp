// The reference agent and report server, see report_service.h: one thread, one poll(2) over the
// agent's socket, the report server's datagram socket and listener, and its connections.
#include "testing/report_service.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <thread>
#include <utility>

namespace refserver {

namespace {

using steady = std::chrono::steady_clock;

class descriptor {
 public:
  descriptor() = default;
  explicit descriptor(int fd) : fd_(fd) {}
  ~descriptor() { reset(); }
  descriptor(descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  descriptor &operator=(descriptor &&other) noexcept {
    reset();
    fd_ = std::exchange(other.fd_, -1);
    return *this;
  }
  void reset() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  int get() const { return fd_; }

 private:
  int fd_ = -1;
};

descriptor bound(const std::string &address, int type, uint16_t port) {
  descriptor fd(socket(AF_INET, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  if (type == SOCK_STREAM) setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  const bool good = inet_pton(AF_INET, address.c_str(), &name.sin_addr) == 1 &&
                    bind(fd.get(), reinterpret_cast<const sockaddr *>(&name), sizeof name) == 0 &&
                    (type != SOCK_STREAM || listen(fd.get(), 64) == 0);
  return good ? std::move(fd) : descriptor();
}

uint32_t result_for(const report_manners &manners, uint32_t type) {
  if (type == report_ping) return manners.ping_result;
  return type == report_begin ? manners.begin_result : manners.end_result;
}

void send_to(int fd, const bytes &what, const sockaddr_in &peer) {
  sendto(fd, what.data(), what.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&peer),
         sizeof peer);
}

}  // namespace

class report_service::loop {
 public:
  explicit loop(report_options o) : options(std::move(o)) {}
  bool start();
  void stop();

  const report_options options;
  std::string error;
  mutable std::mutex mutex;  // guards what follows
  report_manners agent, report;
  std::vector<report_message> messages;
  int bad = 0;

 private:
  struct connection {
    descriptor fd;
    bytes in{};
    bool answered = false;
    bool over = false;
  };
  struct reply {
    steady::time_point when;
    int fd;  // -1: the connection is closed
    bool datagram;
    sockaddr_in peer;
    report_message message;
    report_manners manners;
  };

  void run();
  bool read_one(report_channel channel, const bytes &whole, report_message *out);
  void datagrams(int fd, report_channel channel);
  bool one_address() const { return options.agent == options.report; }
  void accept_all();
  bool readable(connection &c);
  void owe(int fd, bool datagram, const sockaddr_in &peer, const report_message &message);
  void pay_due();
  void pay(const reply &r);
  void noise(const reply &r, const bytes &good) const;
  int next_wait() const;

  descriptor agent_fd, report_udp, report_tcp, wakeup;
  std::vector<connection> connections;
  std::vector<reply> owed;
  std::atomic<bool> stopping{false};
  std::thread thread;
};

bool report_service::loop::start() {
  const auto open = [this](const std::string &address, int type, descriptor *fd) {
    if (address.empty()) return true;
    *fd = bound(address, type, report_udp_tcp_port);
    if (fd->get() >= 0) return true;
    error = "cannot bind port 3528 of " + address;
    return false;
  };
  if (!open(options.agent, SOCK_DGRAM, &agent_fd) ||
      (!one_address() && !open(options.report, SOCK_DGRAM, &report_udp)) ||
      !open(options.report, SOCK_STREAM, &report_tcp))
    return false;
  wakeup = descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  thread = std::thread([this] { run(); });
  return true;
}

void report_service::loop::stop() {
  stopping = true;
  if (wakeup.get() >= 0) eventfd_write(wakeup.get(), 1);
  if (thread.joinable()) thread.join();
  connections.clear();
  for (descriptor *fd : {&agent_fd, &report_udp, &report_tcp}) fd->reset();
}

void report_service::loop::run() {
  while (!stopping) {
    std::vector<pollfd> fds;
    for (const int fd : {wakeup.get(), agent_fd.get(), report_udp.get(), report_tcp.get()})
      fds.push_back({fd, POLLIN, 0});
    for (const connection &c : connections) fds.push_back({c.fd.get(), POLLIN, 0});
    poll(fds.data(), fds.size(), next_wait());
    if (fds[1].revents != 0) datagrams(agent_fd.get(), report_channel::agent);
    if (fds[2].revents != 0) datagrams(report_udp.get(), report_channel::performance);
    for (size_t i = 0; i < connections.size(); ++i) {  // in order of arrival
      connection &c = connections[i];
      if (fds[4 + i].revents == 0 || readable(c)) continue;
      for (reply &r : owed)
        if (r.fd == c.fd.get() && !r.datagram) r.fd = -1;
      c.over = true;
    }
    std::erase_if(connections, [](const connection &c) { return c.over; });
    if (fds[3].revents != 0) accept_all();
    pay_due();
  }
}

int report_service::loop::next_wait() const {
  auto wait = std::chrono::milliseconds(60'000);
  for (const reply &r : owed)
    wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(r.when - steady::now()));
  return std::max(0, static_cast<int>(wait.count()));
}

bool report_service::loop::read_one(report_channel channel, const bytes &whole,
                                    report_message *out) {
  std::string why;
  bool good = parse_report(channel, whole, out, &why);
  // Then both kinds of datagrams arrive at one socket. A clear body never has an enciphered one's
  // length.
  if (!good && one_address()) good = parse_report(report_channel::performance, whole, out, &why);
  {
    const std::lock_guard lock(mutex);
    if (good)
      messages.push_back(*out);
    else
      ++bad;
  }
  if (good && options.on_message) options.on_message(*out);
  return good;
}

void report_service::loop::datagrams(int fd, report_channel channel) {
  for (;;) {
    bytes in(65536);
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    const ssize_t n =
        recvfrom(fd, in.data(), in.size(), 0, reinterpret_cast<sockaddr *>(&peer), &size);
    if (n < 0) return;
    in.resize(static_cast<size_t>(n));
    report_message message;
    if (!read_one(channel, in, &message)) continue;
    const bool answered = message.channel == report_channel::agent && message.type != report_alive;
    if (answered) owe(fd, true, peer, message);
  }
}

void report_service::loop::accept_all() {
  for (;;) {
    descriptor fd(accept4(report_tcp.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (fd.get() < 0) return;
    connections.push_back({std::move(fd)});
  }
}

// False when the connection has ended.
bool report_service::loop::readable(connection &c) {
  uint8_t block[max_report_size];
  const ssize_t n = recv(c.fd.get(), block, sizeof block, 0);
  if (n < 0) return errno == EAGAIN || errno == EINTR;
  if (n == 0) return false;
  c.in.insert(c.in.end(), block, block + n);
  const uint32_t total = report_length(c.in);
  if (c.in.size() < 4 || (c.in.size() < total && total <= max_report_size)) return true;
  report_message message;
  if (c.answered || !read_one(report_channel::performance, c.in, &message)) return false;
  c.answered = true;
  c.in.clear();
  if (message.type == report_begin) owe(c.fd.get(), false, {}, message);
  return true;
}

void report_service::loop::owe(int fd, bool datagram, const sockaddr_in &peer,
                               const report_message &message) {
  const std::lock_guard lock(mutex);
  const report_manners &manners = datagram ? agent : report;
  if (manners.silent) return;
  owed.push_back({steady::now() + std::chrono::milliseconds(manners.delay_ms), fd, datagram, peer,
                  message, manners});
}

void report_service::loop::pay_due() {
  const auto now = steady::now();
  for (const reply &r : owed)
    if (r.when <= now && r.fd >= 0) pay(r);
  std::erase_if(owed, [now](const reply &r) { return r.when <= now; });
}

void report_service::loop::pay(const reply &r) {
  report_message message = r.message;
  if (r.manners.wrong_kind) message.type += 1;
  const bytes good = encode_reply(message, result_for(r.manners, r.message.type));
  const bytes &out = r.manners.raw ? *r.manners.raw : good;
  if (r.datagram) {
    if (r.manners.noise) noise(r, good);
    send_to(r.fd, out, r.peer);
  } else if (r.manners.hang_up) {
    shutdown(r.fd, SHUT_RDWR);
  } else {
    send(r.fd, out.data(), out.size(), MSG_NOSIGNAL);
  }
}

void report_service::loop::noise(const reply &r, const bytes &good) const {
  bytes forged = good;
  put32(&forged[18], 40);
  const descriptor foreign(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  send_to(foreign.get(), forged, r.peer);
  bytes other = forged;
  put32(&other[8], r.message.sequence + 1);
  send_to(r.fd, other, r.peer);
  bytes oversized = forged;
  oversized.resize(2000);
  put32(oversized.data(), 2000);
  send_to(r.fd, oversized, r.peer);
  forged.resize(20);
  send_to(r.fd, forged, r.peer);
  send_to(r.fd, {}, r.peer);
}

report_service::report_service(report_options options)
    : loop_(std::make_unique<loop>(std::move(options))) {}

report_service::~report_service() {
  stop();
}

bool report_service::start() {
  return loop_->start();
}

void report_service::stop() {
  loop_->stop();
}

std::string report_service::error() const {
  return loop_->error;
}

void report_service::set_agent(const report_manners &manners) {
  const std::lock_guard lock(loop_->mutex);
  loop_->agent = manners;
}

void report_service::set_report(const report_manners &manners) {
  const std::lock_guard lock(loop_->mutex);
  loop_->report = manners;
}

std::vector<report_message> report_service::messages() const {
  const std::lock_guard lock(loop_->mutex);
  return loop_->messages;
}

std::vector<report_message> report_service::messages(report_channel channel) const {
  std::vector<report_message> all = messages();
  std::erase_if(all, [channel](const report_message &m) { return m.channel != channel; });
  return all;
}

std::string report_service::story() const {
  std::string text;
  for (const report_message &m : messages()) {
    if (!text.empty()) text += ", ";
    text += m.channel == report_channel::agent ? "agent " : "performance ";
    text += report_name(m.type);
  }
  return text;
}

std::string report_service::story(report_channel channel) const {
  std::string text;
  for (const report_message &m : messages(channel)) {
    if (!text.empty()) text += ", ";
    text += report_name(m.type);
  }
  return text;
}

int report_service::bad() const {
  const std::lock_guard lock(loop_->mutex);
  return loop_->bad;
}

void report_service::clear() {
  const std::lock_guard lock(loop_->mutex);
  loop_->messages.clear();
  loop_->bad = 0;
}

}  // namespace refserver
