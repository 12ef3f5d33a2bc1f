// What the end-to-end tests share: the reference server, the library over it, and a player that
// knows every byte it should get.
#pragma once

#include <poll.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include "adif/bmempool.h"
#include "c2ms.h"
#include "c2ms/core/records.h"
#include "support/books.h"
#include "support/library.h"
#include "support/support.h"
#include "testing/media_server.h"

namespace player {

using support::clock;
using support::Library;
using support::sanitized;
using support::seconds_since;
using support::took;
using namespace std::chrono_literals;

/// A record that is used after its return shows only where returned records are watched.
inline const bool watched =
    (adif::pool_test_mode(sanitized ? adif::pool_mode::quarantine : adif::pool_mode::recycle),
     true);

/// Processor time of this process so far, user and system.
inline double processor_seconds() {
  return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

/// A session on generated content, which tells whether what it reads is right.
class Film {
 public:
  /// With a pack size it must open and is ready to be played.
  Film(const Library &library, const refserver::media_server &server, const refserver::file_id &id,
       int32_t pack = 0)
      : id_(id), sess_(c2ms_sess_open(library.get(), server.url(id).c_str(), &error_)) {
    if (sess_ != nullptr) c2ms_sess_attr(sess_, nullptr, nullptr, &size_, nullptr);
    if (pack > 0) {
      EXPECT_GE(prepare(pack), pack) << error_;
    }
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

  /// Seeks to `pos` and reads from there to `end`.
  ::testing::AssertionResult play_from(uint64_t pos, uint64_t end, int32_t chunk = 50'000) {
    const int result = c2ms_sess_seek(sess_, pos);
    if (result != 0) return ::testing::AssertionFailure() << "seek " << result;
    return play(pos, end, chunk, blocking);
  }

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

  /// As a poll loop reads: when the descriptor says so, without waiting in the library.
  static int polling(c2ms_sess *sess, void *buf, int32_t len) {
    pollfd one{c2ms_sess_ready_fd(sess), POLLIN, 0};
    if (poll(&one, 1, 60'000) != 1) return 0;
    const int n = c2ms_sess_read_some(sess, C2MS_HERE, buf, 1, len, 0);
    return n == C2MS_TIMED_OUT ? 0 : n;
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

/// Nothing was found.
inline void expect_none(support::Findings &&findings) {
  EXPECT_EQ(findings.lines(), std::vector<std::string>());
}

/// The session's figures, which must agree with each other.
inline c2ms_stats stats_of(const Film &film) {
  support::Findings findings;
  const c2ms_stats s = support::check_books(findings, film.get());
  expect_none(std::move(findings));
  return s;
}

/// All that the ring can hold is there.
inline bool ring_is_full(const Film &film) {
  const c2ms_stats s = stats_of(film);
  return s.buffered_bytes == s.ring_end - s.ring_begin;
}

/// A reader of the film is about to sleep, or sleeps, for bytes that are not there.
inline bool reader_waits(const Film &film) {
  return eventually([&] { return film.get()->cache_record.need_index >= 0; });
}

/// A service of one generated film, the library and the film: what most tests begin with.
class Served : public ::testing::Test {
 protected:
  /// The film is ready to be played unless `pack` is 0.
  void start(uint64_t film_size, refserver::server_options options = {}, int32_t pack = 65536) {
    size = film_size;
    nodes = options.nodes;
    server = std::make_unique<refserver::media_server>(options);
    id = server->add_generated("film.mp4", size);
    ASSERT_TRUE(server->start()) << server->error();
    if (library == nullptr) library = std::make_unique<Library>();
    if (pack > 0) film = std::make_unique<Film>(*library, *server, id, pack);
  }
  void on_all(const std::function<void(int)> &change) const {
    for (int node = 0; node < nodes; ++node) change(node);
  }
  uint64_t size = 0;
  int nodes = 0;
  refserver::file_id id{};
  std::unique_ptr<refserver::media_server> server;
  std::unique_ptr<Library> library;
  std::unique_ptr<Film> film;
};

}  // namespace player
