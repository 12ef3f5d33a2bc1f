// What the end-to-end tests share: the reference server, the library over it, and a player that
// knows every byte it should get.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "adif/bmempool.h"
#include "c2ms.h"
#include "testing/media_server.h"

namespace player {

using clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif
/// How many times slower than a desk's a machine is: C2MS_SLACK in the environment (emulators).
inline const double machine_slack = [] {
  const char *const given = std::getenv("C2MS_SLACK");
  return given != nullptr ? std::max(1.0, std::atof(given)) : 1.0;
}();
/// Bounds on time and memory are for the build that players get; a sanitizer's are this much wider.
inline const double slack = (sanitized ? 10 : 1) * machine_slack;

inline double seconds_since(clock::time_point start) {
  return std::chrono::duration<double>(clock::now() - start).count();
}

/// Processor time of this process so far, user and system.
inline double processor_seconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval &tv) {
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// The library, silent, for one scope.
class Library {
 public:
  explicit Library(int32_t mem_size = 8 << 20, const char *conf = nullptr) {
    c2ms_set_diag(nullptr, nullptr);
    // A record that is used after its return shows only where returned records are watched.
    adif::pool_test_mode(sanitized ? adif::pool_mode::quarantine : adif::pool_mode::recycle);
    static const uint8_t hid[20] = {2, 0, 0, 0, 0, 1};
    mgmt_ = c2ms_mgmt_init(conf, 1, 0, hid, mem_size);
  }
  ~Library() { clean(); }
  Library(const Library &) = delete;
  Library &operator=(const Library &) = delete;
  void clean() {
    if (mgmt_ != nullptr) c2ms_mgmt_clean(mgmt_);
    mgmt_ = nullptr;
  }
  c2ms_mgmt *get() const { return mgmt_; }

 private:
  c2ms_mgmt *mgmt_;
};

/// A session on generated content, which tells whether what it reads is right.
class Film {
 public:
  Film(const Library &library, const refserver::media_server &server, const refserver::file_id &id)
      : id_(id), sess_(c2ms_sess_open(library.get(), server.url(id).c_str(), &error_)) {
    if (sess_ != nullptr) c2ms_sess_attr(sess_, nullptr, nullptr, &size_, nullptr);
  }
  ~Film() { close(); }
  Film(const Film &) = delete;
  Film &operator=(const Film &) = delete;

  void close() {
    if (sess_ != nullptr) c2ms_sess_close(sess_);
    sess_ = nullptr;
  }

  /// The library has taken the session with it.
  void forget() { sess_ = nullptr; }

  /// Cache of the wanted pack size over the whole media. The pack size, or a negative result.
  int32_t prepare(int32_t wanted_pack) {
    const int32_t pack = c2ms_sess_pack_size(sess_, wanted_pack);
    const int cached = c2ms_sess_cache_init(sess_, pack);
    if (cached != 0) return cached;
    const int ranged = c2ms_sess_range(sess_, 0, size_);
    return ranged == 0 ? pack : ranged;
  }

  /// Checks what a call delivered for `pos`.
  ::testing::AssertionResult right(uint64_t pos, const uint8_t *bytes, int32_t count) const {
    const size_t at = refserver::content_mismatch(id_, pos, bytes, static_cast<size_t>(count));
    if (at == static_cast<size_t>(count)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "wrong byte at " << pos + at;
  }

  using call = std::function<int(c2ms_sess *, void *, int32_t)>;

  /// Reads from `pos` to `end` with `read`; true when every byte came and was right.
  ::testing::AssertionResult play(uint64_t pos, uint64_t end, int32_t chunk, const call &read) {
    std::vector<uint8_t> buf(static_cast<size_t>(chunk));
    auto last = clock::now();
    longest_wait = 0;
    while (pos < end) {
      const auto wanted =
          static_cast<int32_t>(std::min<uint64_t>(static_cast<uint64_t>(chunk), end - pos));
      const int n = read(sess_, buf.data(), wanted);
      if (n < 0) return ::testing::AssertionFailure() << "result " << n << " at " << pos;
      if (const auto ok = right(pos, buf.data(), n); !ok) return ok;
      pos += static_cast<uint64_t>(n);
      const auto now = clock::now();
      if (n > 0) {
        longest_wait = std::max(longest_wait, std::chrono::duration<double>(now - last).count());
        last = now;
      } else if (now - last > 60s) {
        return ::testing::AssertionFailure() << "nothing for a minute at " << pos;
      }
    }
    return ::testing::AssertionSuccess();
  }

  static int blocking(c2ms_sess *sess, void *buf, int32_t len) {
    return c2ms_sess_read(sess, buf, len, 0);
  }

  c2ms_sess *get() const { return sess_; }
  uint64_t size() const { return size_; }
  int32_t error() const { return error_; }
  double longest_wait = 0;  ///< between two deliveries of the last play(), seconds

 private:
  const refserver::file_id id_;
  int32_t error_ = 0;
  c2ms_sess *sess_;
  uint64_t size_ = 0;
};

/// Waits up to `limit` until `done`.
inline bool eventually(const std::function<bool()> &done, clock::duration limit = 10s) {
  const auto end = clock::now() + limit;
  while (!done()) {
    if (clock::now() > end) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

}  // namespace player
