// What several test programs share: random numbers with a printed seed, a folder of one's own,
// whole files, waits with a bound, clocks, ports.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/slack.h"

using support::in_child;
using support::slack;

/// Random numbers whose seed is printed when a test fails; C2MS_SEED=n in the environment repeats.
class Random {
 public:
  Random() : seed_(choose()), trace_(__FILE__, __LINE__, "seed " + std::to_string(seed_)) {}
  int below(int n) { return std::uniform_int_distribution<int>(0, n - 1)(engine_); }
  unsigned seed() const { return seed_; }

 private:
  static unsigned choose() {
    const char *const given = std::getenv("C2MS_SEED");
    return given != nullptr ? static_cast<unsigned>(std::atoi(given)) : std::random_device{}();
  }
  const unsigned seed_;
  const testing::ScopedTrace trace_;
  std::mt19937 engine_{seed_};
};

struct Folder {
  std::string path = testing::TempDir() + "c2ms-XXXXXX";
  Folder() { EXPECT_NE(mkdtemp(path.data()), nullptr); }
  ~Folder() { std::filesystem::remove_all(path); }
  Folder(const Folder &) = delete;
  Folder &operator=(const Folder &) = delete;
  std::string operator/(const char *name) const { return path + "/" + name; }
};

inline std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

inline void write_file(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::binary) << text;
}

inline void pause_ms(int ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

/// So many threads that do `work(i)` at once, joined at the latest when this goes.
class Threads {
 public:
  template <class Work>
  Threads(int n, Work work) {
    for (int i = 0; i < n; ++i) all_.emplace_back(work, i);
  }
  ~Threads() { join(); }
  Threads(const Threads &) = delete;
  Threads &operator=(const Threads &) = delete;
  void join() {
    for (; !all_.empty(); all_.pop_back()) all_.back().join();
  }

 private:
  std::vector<std::thread> all_;
};

/// Waits until `holds()`; false if it never did.
template <typename Predicate>
bool eventually(Predicate holds, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) return false;
    pause_ms(1);
  }
  return true;
}

inline long ms_since(std::chrono::steady_clock::time_point start) {
  const auto age = std::chrono::steady_clock::now() - start;
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(age).count());
}

/// Processor time that this process uses within `ms`.
inline long cpu_us_within(int ms) {
  const std::clock_t before = std::clock();
  pause_ms(ms);
  return static_cast<long>((std::clock() - before) * 1000000.0 / CLOCKS_PER_SEC);
}

inline int open_descriptors(const char *folder = "/proc/self/fd") {
  const std::filesystem::directory_iterator all(folder);
  return static_cast<int>(std::distance(begin(all), end(all)));
}

inline std::string to_hex(const void *data, size_t size) {
  std::string hex;
  for (size_t i = 0; i < size; ++i) {
    for (const int digit :
         {static_cast<const uint8_t *>(data)[i] >> 4, static_cast<const uint8_t *>(data)[i] & 15})
      hex += "0123456789abcdef"[digit];
  }
  return hex;
}

inline uint16_t port_of(int fd) {
  sockaddr_in name{};
  socklen_t size = sizeof name;
  getsockname(fd, reinterpret_cast<sockaddr *>(&name), &size);
  return ntohs(name.sin_port);
}
