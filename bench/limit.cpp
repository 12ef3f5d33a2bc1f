// The bare client against which the library is measured, see limit.h.
#include "bench/limit.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "testing/wire.h"

namespace bench {

namespace {

using refserver::put32;

constexpr size_t header_bytes = refserver::media_response_size;

struct link {
  int fd = -1;
  int64_t pack = -1;  ///< being received
  size_t got = 0;     ///< of header and pack
  uint8_t header[header_bytes];
  uint8_t request[refserver::media_request_size]{};
};

class client {
 public:
  explicit client(const limit_options &options)
      : o_(options),
        slots_(options.ring_bytes / options.pack_bytes),
        packs_(options.packs != 0
                   ? options.packs
                   : static_cast<int64_t>((options.file->size() + options.pack_bytes - 1) /
                                          static_cast<uint64_t>(options.pack_bytes))),
        ring_(static_cast<size_t>(slots_) * options.pack_bytes),
        ready_(static_cast<size_t>(slots_)),
        links_(static_cast<size_t>(options.connections)) {}

  bool connect_all() {
    epoll_ = epoll_create1(0);
    room_ = eventfd(0, EFD_NONBLOCK);
    watch(room_, links_.size());
    for (size_t i = 0; i < links_.size(); ++i) {
      link &l = links_[i];
      l.fd = socket(AF_INET, SOCK_STREAM, 0);
      sockaddr_in to{};
      to.sin_family = AF_INET;
      to.sin_port = htons(o_.file->ports()[i % o_.file->ports().size()]);
      to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      if (connect(l.fd, reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0) return false;
      const int on = 1;
      setsockopt(l.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      put32(l.request, sizeof l.request);
      put32(l.request + 4, refserver::command_media);
      l.request[13] = 1;
      std::memcpy(l.request + 18, "127.0.0.1", 9);
      std::memcpy(l.request + 90, o_.file->id().data(), 16);
      watch(l.fd, i);
    }
    return true;
  }

  void receive_all() {
    for (link &l : links_) ask(l);
    while (done_ < packs_) {
      epoll_event events[16];
      const int n = epoll_wait(epoll_, events, 16, -1);
      for (int i = 0; i < n; ++i) {
        const size_t which = events[i].data.u64;
        if (which == links_.size()) {
          eventfd_t ignored;
          eventfd_read(room_, &ignored);
          for (link &l : links_) {
            if (l.pack < 0) ask(l);
          }
        } else if (!receive(links_[which])) {
          return;
        }
      }
    }
  }

  uint64_t consume_all() {
    std::vector<uint8_t> out(static_cast<size_t>(o_.read_bytes));
    const int64_t batch = std::clamp(o_.read_bytes / o_.pack_bytes, 1, slots_ / 2);
    uint64_t total = 0;
    for (int64_t pack = 0; pack < packs_;) {
      const int64_t until = std::min(pack + batch, packs_);
      wait_for(until - 1);
      for (; pack < until; ++pack) {
        wait_for(pack);
        for (size_t done = 0, n = size_of(pack); done < n;) {
          const size_t at = total % out.size();
          const size_t piece = std::min(n - done, out.size() - at);
          std::memcpy(out.data() + at, slot(pack) + done, piece);
          done += piece;
          total += piece;
        }
        consumed_.store(pack + 1);
        if (starved_.load()) eventfd_write(room_, 1);
      }
    }
    return total;
  }

 private:
  void watch(int fd, uint64_t tag) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = tag;
    epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
  }

  size_t size_of(int64_t pack) const {
    const auto bytes = static_cast<uint64_t>(o_.pack_bytes);
    return std::min(bytes, o_.file->size() - static_cast<uint64_t>(pack) * bytes);
  }

  uint8_t *slot(int64_t pack) {
    return ring_.data() + static_cast<size_t>(pack % slots_) * static_cast<size_t>(o_.pack_bytes);
  }

  void ask(link &l) {
    if (next_ >= packs_) return;
    if (next_ - consumed_.load() >= slots_) {
      starved_ = true;
      if (next_ - consumed_.load() >= slots_) return;
    }
    starved_ = false;
    l.pack = next_++;
    l.got = 0;
    const uint64_t offset = static_cast<uint64_t>(l.pack) * static_cast<uint64_t>(o_.pack_bytes);
    put32(l.request + 8, static_cast<uint32_t>(l.pack));
    put32(l.request + 106, static_cast<uint32_t>(offset >> 32));
    put32(l.request + 110, static_cast<uint32_t>(offset));
    put32(l.request + 114, static_cast<uint32_t>(size_of(l.pack)));
    send(l.fd, l.request, sizeof l.request, MSG_NOSIGNAL);
  }

  bool receive(link &l) {
    if (l.pack < 0) return false;
    const size_t whole = header_bytes + size_of(l.pack);
    iovec pieces[2];
    int count = 0;
    if (l.got < header_bytes) pieces[count++] = {l.header + l.got, header_bytes - l.got};
    const size_t body = l.got > header_bytes ? l.got - header_bytes : 0;
    pieces[count++] = {slot(l.pack) + body, size_of(l.pack) - body};
    const ssize_t n = readv(l.fd, pieces, count);
    if (n <= 0) return false;
    l.got += static_cast<size_t>(n);
    if (l.got < whole) return true;
    finish(l);
    return true;
  }

  void finish(link &l) {
    const int64_t pack = l.pack;
    l.pack = -1;
    ++done_;
    ask(l);
    ready_[static_cast<size_t>(pack % slots_)].store(pack + 1);
    if (wanted_.load() != pack) return;
    const std::lock_guard lock(mutex_);
    arrived_.notify_one();
  }

  bool is_ready(int64_t pack) { return ready_[static_cast<size_t>(pack % slots_)] == pack + 1; }

  void wait_for(int64_t pack) {
    if (is_ready(pack)) return;
    wanted_ = pack;
    std::unique_lock lock(mutex_);
    arrived_.wait(lock, [&] { return is_ready(pack); });
    wanted_ = -1;
  }

  const limit_options o_;
  const int slots_;
  const int64_t packs_;
  std::vector<uint8_t> ring_;
  std::vector<std::atomic<int64_t>> ready_;  ///< number of the pack in the slot, plus 1
  std::vector<link> links_;
  int epoll_ = -1, room_ = -1;
  int64_t next_ = 0, done_ = 0;
  std::atomic<int64_t> consumed_{0}, wanted_{-1};
  std::atomic<bool> starved_{false};
  std::mutex mutex_;
  std::condition_variable arrived_;
};

}  // namespace

figures run_limit(const limit_options &options) {
  client c(options);
  if (!c.connect_all()) return {};
  const auto start = steady::now();
  const double cpu = cpu_seconds();
  std::thread receiver([&] { c.receive_all(); });
  const uint64_t total = c.consume_all();
  const double seconds = seconds_since(start);
  receiver.join();
  return {{"seconds", seconds}, {"cpu", cpu_seconds() - cpu}, {"bytes", double(total)}};
}

}  // namespace bench
