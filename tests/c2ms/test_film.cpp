// The usual start and what stands beside it: opens that are handles, several films in one context,
// caches that change their size, reads that take what is there, a descriptor for poll loops, and
// closes that wait for nobody.
#include <dlfcn.h>
#include <netdb.h>
#include <poll.h>

#include <csignal>
#include <string_view>
#include <thread>

#include "player.h"
#include "support/boxes.h"
#include "testing/report_service.h"

namespace {

std::atomic<bool> name_servers_silent{false};

}  // namespace

// The C library's look-up, which hangs for one name as long as the test says.
extern "C" int getaddrinfo(const char *host, const char *service, const addrinfo *hints,
                           addrinfo **found) {
  if (std::string_view(host) == "silent.example") {
    while (name_servers_silent) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return EAI_AGAIN;
  }
  static const auto real =
      reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return real(host, service, hints, found);
}

namespace player {
namespace {

using refserver::fault_kind;

constexpr uint64_t megabyte = 1 << 20;

c2ms_film film_of(uint64_t cache_bytes, uint32_t flags = 0) {
  c2ms_film film{};
  film.struct_size = sizeof film;
  film.cache_bytes = cache_bytes;
  film.flags = flags;
  return film;
}

/// A context by a structure, without reports.
struct Context {
  explicit Context(uint64_t memory = 8 * megabyte) {
    c2ms_options options{};
    options.struct_size = sizeof options;
    options.flags = C2MS_QUIET | C2MS_NO_REPORTS;
    options.memory = memory;
    mgmt = c2ms_mgmt_start(&options, &err);
  }
  ~Context() { clean(); }
  int clean() { return c2ms_mgmt_clean(std::exchange(mgmt, nullptr)); }
  int32_t err = -1;
  c2ms_mgmt *mgmt;
};

bool readable(int fd, int ms = 0) {
  pollfd one{fd, POLLIN, 0};
  return poll(&one, 1, ms) == 1;
}

/// Reads all of a film through its descriptor, as a poll loop does, and checks each byte.
class PollPlayer {
 public:
  PollPlayer(c2ms_sess *sess, const refserver::file_id &id)
      : sess_(sess), id_(id), fd_(c2ms_sess_ready_fd(sess)) {}
  int fd() const { return fd_; }
  /// False once the film has ended.
  bool step() {
    const int n = c2ms_sess_read_some(sess_, C2MS_HERE, buf_, 1, sizeof buf_, 0);
    if (n == C2MS_TIMED_OUT) return true;
    if (n < 0) {
      result = n;
      return false;
    }
    const auto count = static_cast<size_t>(n);
    if (refserver::content_mismatch(id_, pos, buf_, count) != count) ++wrong;
    pos += count;
    return true;
  }
  uint64_t pos = 0;
  int wrong = 0, result = 0;

 private:
  c2ms_sess *const sess_;
  const refserver::file_id id_;
  const int fd_;
  uint8_t buf_[40'000];
};

struct phase {
  const char *name;
  int node;
  refserver::fault fault;
  bool index;
};

// In each phase the entry server or all media servers fall silent, so that the open stands there.
const phase phases[] = {
    {"list", refserver::entry_server, {.kind = fault_kind::mute}, false},
    {"connecting", 0, {.kind = fault_kind::drop_accepted}, false},
    {"description", 0, {.kind = fault_kind::mute, .on = refserver::on_desc}, false},
    {"index", 0, {.kind = fault_kind::mute, .on = refserver::on_media}, true},
};

TEST(Film, OpensAreCancelledAndClosedInEachPhase) {
  Context context;
  for (const phase &at : phases) {
    SCOPED_TRACE(at.name);
    refserver::media_server server({.nodes = 1});
    const auto id = server.add_bytes("film.mp4", boxes::ftyp() + boxes::moov(30'000));
    if (at.index) {
      ASSERT_NE(server.add_index(id), refserver::file_id{});
    }
    server.set_fault(at.node, at.fault);
    ASSERT_TRUE(server.start()) << server.error();
    for (const bool cancels : {true, false}) {
      int32_t err = -1;
      c2ms_sess *const sess = c2ms_sess_begin(context.mgmt, server.url(id).c_str(), nullptr, &err);
      ASSERT_NE(sess, nullptr) << err;
      const int fd = c2ms_sess_ready_fd(sess);
      EXPECT_EQ(c2ms_sess_wait(sess, 150), C2MS_OPENING);
      EXPECT_FALSE(readable(fd));
      uint8_t byte;
      EXPECT_EQ(c2ms_sess_read_some(sess, 0, &byte, 1, 1, -1), C2MS_OPENING);
      if (cancels) {
        std::thread waiter([&] { EXPECT_EQ(c2ms_sess_wait(sess, 20'000), C2MS_CANCELLED); });
        EXPECT_LT(took([&] {
                    EXPECT_EQ(c2ms_sess_cancel(sess, 1), 0);
                    waiter.join();
                  }),
                  0.02 * support::slack());
        EXPECT_TRUE(readable(fd));
        EXPECT_EQ(c2ms_sess_cancel(sess, 0), 0);  // for good
        EXPECT_EQ(c2ms_sess_read_some(sess, 0, &byte, 1, 1, -1), C2MS_CANCELLED);
      }
      EXPECT_LT(took([&] { EXPECT_EQ(c2ms_sess_end(sess), 0); }), 0.02 * support::slack());
    }
    int32_t err = -1;
    int calls = 0;
    const auto third_call_ends = [](void *arg) { return ++*static_cast<int *>(arg) == 3 ? -1 : 0; };
    if (!at.index) {
      EXPECT_EQ(
          c2ms_sess_open2(context.mgmt, server.url(id).c_str(), &err, third_call_ends, &calls),
          nullptr);
      EXPECT_EQ(err, C2MS_CANCELLED);
    }
  }
}

TEST(Film, AHangingNameServerHoldsNobody) {
  name_servers_silent = true;
  const support::Holdings before = support::holdings_now();
  {
    Context context;
    int32_t err = -1;
    for (const bool cancels : {true, false}) {
      c2ms_sess *const sess =
          c2ms_sess_begin(context.mgmt, "kesp://silent.example/film", nullptr, &err);
      ASSERT_NE(sess, nullptr) << err;
      EXPECT_EQ(c2ms_sess_wait(sess, 50), C2MS_OPENING);
      if (cancels) {
        EXPECT_EQ(c2ms_sess_cancel(sess, 1), 0);
        EXPECT_EQ(c2ms_sess_wait(sess, 0), C2MS_CANCELLED);
      }
      EXPECT_LT(took([&] { EXPECT_EQ(c2ms_sess_end(sess), 0); }), 0.02 * support::slack());
    }
    const auto at_once = [](void *) { return -1; };
    EXPECT_LT(took([&] {
                c2ms_sess_open2(context.mgmt, "kesp://silent.example/film", &err, at_once, nullptr);
              }),
              0.06 * support::slack());
    EXPECT_EQ(err, C2MS_CANCELLED);
    EXPECT_LT(took([&] { context.clean(); }), 0.5 * support::slack());
  }
  name_servers_silent = false;
  support::Findings findings;  // the threads that were left behind end, too
  support::check_gone(findings, before);
  expect_none(std::move(findings));
}

TEST(Film, WhatCannotBeMeantIsRefused) {
  int32_t err = 0;
  c2ms_options options{};
  EXPECT_EQ(c2ms_mgmt_start(&options, &err), nullptr);  // no struct_size
  EXPECT_EQ(err, C2MS_INVALID_PARAMETER);
  options.struct_size = sizeof options;
  options.threads = 9;
  EXPECT_EQ(c2ms_mgmt_start(&options, nullptr), nullptr);

  Context context;
  refserver::media_server server({.nodes = 1});
  const auto id = server.add_generated("film.ts", megabyte, 8);
  ASSERT_TRUE(server.start());
  const std::string url = server.url(id);
  c2ms_film how = film_of(0);
  how.range_begin = megabyte + 1;
  EXPECT_EQ(c2ms_sess_start(context.mgmt, url.c_str(), &how, &err), nullptr);
  EXPECT_EQ(err, C2MS_INVALID_PARAMETER);
  how = film_of(64 * megabyte);
  EXPECT_EQ(c2ms_sess_start(context.mgmt, url.c_str(), &how, &err), nullptr);
  EXPECT_EQ(err, C2MS_NO_CACHE_MEMORY);
  EXPECT_EQ(c2ms_sess_begin(context.mgmt, "http://127.0.0.1/x", nullptr, &err), nullptr);
  EXPECT_EQ(err, C2MS_UNSUPPORTED_SCHEME);
  server.set_fault(0, {.kind = fault_kind::refusal, .on = refserver::on_desc});
  c2ms_sess *const sess = c2ms_sess_begin(context.mgmt, url.c_str(), nullptr, &err);
  EXPECT_EQ(c2ms_sess_wait(sess, 20'000), C2MS_MEDIA_NOT_EXIST);
  EXPECT_EQ(c2ms_sess_close(sess), 0);
}

TEST(Film, SignalsStayTheHosts) {
  const auto own = [](int) {};
  const auto before = std::signal(SIGCHLD, own);
  { const Context context; }
  EXPECT_EQ(std::signal(SIGCHLD, before), own);
}

// A range that is a multiple of the chosen pack size: its last pack would be empty.
TEST(Film, EveryByteOfARangeComesAndTheIndexIsThere) {
  Context context;
  refserver::media_server server({.nodes = 2});
  const auto plain = server.add_generated("plain.mkv", 4 * megabyte, 9);
  const std::string movie =
      boxes::ftyp() + boxes::box("mdat", boxes::noise(900'000)) + boxes::moov(60'000);
  const auto indexed = server.add_bytes("film.mp4", movie);
  ASSERT_NE(server.add_index(indexed), refserver::file_id{});
  ASSERT_TRUE(server.start());
  c2ms_film how = film_of(2 * megabyte);
  how.range_begin = 4096;
  how.range_size = 32 * 32768;
  int32_t err;
  c2ms_sess *sess = c2ms_sess_start(context.mgmt, server.url(plain).c_str(), &how, &err);
  ASSERT_NE(sess, nullptr) << err;
  EXPECT_STREQ(c2ms_sess_mime(sess), "video/x-matroska");
  std::vector<uint8_t> buf(how.range_size + 1);
  const auto size = static_cast<int32_t>(how.range_size);
  EXPECT_EQ(c2ms_sess_read_some(sess, 0, buf.data(), size + 1, size + 1, 20'000), size);
  EXPECT_EQ(refserver::content_mismatch(plain, 4096, buf.data(), how.range_size), how.range_size);
  EXPECT_EQ(c2ms_sess_read_some(sess, C2MS_HERE, buf.data(), 1, 1, 0), C2MS_END);
  c2ms_sess_end(sess);

  sess = c2ms_sess_start(context.mgmt, server.url(indexed).c_str(), nullptr, &err);
  ASSERT_NE(sess, nullptr) << err;
  EXPECT_EQ(c2ms_sess_idx_attr(sess), 2);
  // One read from before the index to the end of the file.
  std::vector<char> all(movie.size());
  const auto wanted = static_cast<int32_t>(movie.size() - 800'000);
  EXPECT_EQ(c2ms_sess_read_some(sess, 800'000, all.data(), wanted, wanted, 20'000), wanted);
  EXPECT_EQ(
      movie.compare(800'000, static_cast<size_t>(wanted), all.data(), static_cast<size_t>(wanted)),
      0);
  c2ms_sess_end(sess);
}

TEST(Film, SixteenFilmsShareTheMemoryAndOnePollLoop) {
  constexpr int count = 16;
  Context context(count * megabyte);
  refserver::media_server server({.nodes = 3});
  std::vector<refserver::file_id> ids;
  for (int i = 0; i < count; ++i) {
    ids.push_back(server.add_generated("film" + std::to_string(i) + ".ts", 3 * megabyte + 77, 8));
  }
  ASSERT_TRUE(server.start());
  const c2ms_film how = film_of(megabyte);
  std::vector<c2ms_sess *> films;
  int32_t err;
  for (const auto &id : ids) {
    films.push_back(c2ms_sess_begin(context.mgmt, server.url(id).c_str(), &how, &err));
    ASSERT_NE(films.back(), nullptr) << err;
  }
  for (c2ms_sess *const sess : films) ASSERT_EQ(c2ms_sess_wait(sess, 20'000), 0);
  EXPECT_EQ(c2ms_sess_start(context.mgmt, server.url(ids[0]).c_str(), &how, &err), nullptr);
  EXPECT_EQ(err, C2MS_NO_CACHE_MEMORY);

  std::vector<std::unique_ptr<PollPlayer>> players;
  std::vector<pollfd> fds;
  for (int i = 0; i < count; ++i) {
    players.push_back(std::make_unique<PollPlayer>(films[i], ids[i]));
    fds.push_back({players.back()->fd(), POLLIN, 0});
  }
  int playing = count;
  while (playing > 0) {
    ASSERT_GT(poll(fds.data(), fds.size(), 20'000), 0);  // no wake-up is lost
    for (int i = 0; i < count; ++i) {
      if ((fds[i].revents & POLLIN) == 0 || players[i]->step()) continue;
      fds[i].fd = -1;
      --playing;
    }
  }
  for (int i = 0; i < count; ++i) {
    EXPECT_EQ(players[i]->result, C2MS_END);
    EXPECT_EQ(players[i]->pos, 3 * megabyte + 77);
    EXPECT_EQ(players[i]->wrong, 0);
    c2ms_sess_end(films[i]);
  }
}

/// What has been asked for of the media since the log was cleared.
uint64_t bytes_asked(const refserver::media_server &server) {
  uint64_t sum = 0;
  for (const auto &request : server.log()) sum += request.command == 3 ? request.length : 0;
  return sum;
}

TEST(Film, CachesGrowAndShrinkAndLoseNothingAhead) {
  Context context(16 * megabyte);
  refserver::media_server server({.nodes = 2});
  const auto id = server.add_generated("film.ts", 40 * megabyte + 5, 8);
  ASSERT_TRUE(server.start());
  const c2ms_film how = film_of(4 * megabyte);
  int32_t err;
  c2ms_sess *const sess = c2ms_sess_start(context.mgmt, server.url(id).c_str(), &how, &err);
  ASSERT_NE(sess, nullptr) << err;
  PollPlayer player(sess, id);
  const auto play_to = [&](uint64_t pos) {
    while (player.pos < pos && readable(player.fd(), 20'000) && player.step()) {
    }
    EXPECT_GE(player.pos, pos);
  };
  const auto ring_full = [&] {
    return eventually([&] {
      c2ms_stats s;
      c2ms_sess_stats(sess, &s, sizeof s);
      return s.buffered_bytes == s.ring_end - s.ring_begin && s.in_flight == 0;
    });
  };
  struct {
    uint64_t to, bytes;
  } const steps[] = {{3, 12}, {7, 2}, {11, 1}, {20, 16}, {25, 3}, {30, 9}};
  for (const auto &step : steps) {
    play_to(step.to * megabyte);
    ASSERT_TRUE(ring_full());
    c2ms_stats before, after;
    c2ms_sess_stats(sess, &before, sizeof before);
    EXPECT_EQ(c2ms_sess_resize(sess, step.bytes * megabyte), 0);
    c2ms_sess_stats(sess, &after, sizeof after);
    EXPECT_LE(after.memory_bytes, step.bytes * megabyte);
    EXPECT_GT(after.memory_bytes, step.bytes * megabyte - 2 * 32768);
    // What lay ahead is still there, as far as the ring reaches.
    const uint64_t reach = after.ring_end - after.position;
    EXPECT_GE(after.buffered_ahead, std::min(before.buffered_ahead, reach));
  }
  EXPECT_EQ(c2ms_sess_resize(sess, 17 * megabyte), C2MS_NO_CACHE_MEMORY);
  play_to(40 * megabyte + 5);
  EXPECT_EQ(player.wrong, 0);
  // Smaller rings let go of what lies farthest ahead: at most that is fetched again.
  EXPECT_LT(bytes_asked(server), 40 * megabyte + 5 + (10 + 1 + 13) * megabyte + 2 * megabyte);
  c2ms_sess_end(sess);
}

TEST(Film, HeadAndTailAreFetchedOnce) {
  Context context;
  refserver::media_server server({.nodes = 2});
  const auto id = server.add_generated("film.mp4", 100 * megabyte + 9);
  ASSERT_TRUE(server.start());
  const c2ms_film how = film_of(4 * megabyte);
  int32_t err;
  c2ms_sess *const sess = c2ms_sess_start(context.mgmt, server.url(id).c_str(), &how, &err);
  ASSERT_NE(sess, nullptr) << err;
  uint8_t buf[20'000];
  const auto read = [&](uint64_t pos) {
    ASSERT_EQ(c2ms_sess_read_some(sess, pos, buf, sizeof buf, sizeof buf, 20'000),
              static_cast<int>(sizeof buf));
    EXPECT_EQ(refserver::content_mismatch(id, pos, buf, sizeof buf), sizeof buf);
  };
  const uint64_t tail = 100 * megabyte + 9 - sizeof buf;
  const auto asked_at_ends = [&] {
    int times = 0;
    for (const auto &request : server.log()) {
      const bool head = request.offset < sizeof buf;
      const bool at_tail = request.offset + request.length > tail;
      times += request.command == 3 && (head || at_tail) ? 1 : 0;
    }
    return times;
  };
  read(0);
  read(tail);
  ASSERT_TRUE(eventually([&] {
    c2ms_stats s;
    c2ms_sess_stats(sess, &s, sizeof s);
    return s.in_flight == 0;
  }));
  read(0);  // the tail leaves the ring
  const int once = asked_at_ends();
  for (int i = 0; i < 5; ++i) {
    read(tail);
    read(0);
  }
  EXPECT_EQ(asked_at_ends(), once);
  c2ms_sess_end(sess);
}

// The bytes between the two places would take four seconds.
TEST(Film, AJumpForwardInABigCacheDoesNotWaitForWhatLiesBetween) {
  Context context(32 * megabyte);
  refserver::media_server server(
      {.nodes = 2, .node = {{.rate_bytes_per_s = 2e6}, {.rate_bytes_per_s = 2e6}}});
  const auto id = server.add_generated("film.ts", 30 * megabyte, 8);
  ASSERT_TRUE(server.start());
  int32_t err;
  c2ms_sess *const sess = c2ms_sess_start(context.mgmt, server.url(id).c_str(), nullptr, &err);
  ASSERT_NE(sess, nullptr) << err;
  std::vector<uint8_t> buf(megabyte);
  const auto read = [&](uint64_t pos, int32_t len) {
    ASSERT_EQ(c2ms_sess_read_some(sess, pos, buf.data(), len, len, 20'000), len);
    EXPECT_EQ(refserver::content_mismatch(id, pos, buf.data(), static_cast<size_t>(len)),
              static_cast<size_t>(len));
  };
  read(0, 20'000);
  for (const uint64_t pos : {15 * megabyte, 29 * megabyte, 8 * megabyte}) {
    EXPECT_LT(took([&] { read(pos, 20'000); }), 1.0 * support::slack()) << pos;
    EXPECT_LT(took([&] { read(pos + 20'000, megabyte / 2); }), 1.5 * support::slack()) << pos;
  }
  c2ms_sess_end(sess);
}

TEST(Film, ABackgroundFilmWaitsForTheForeground) {
  Context context(16 * megabyte);
  refserver::media_server server(
      {.nodes = 2, .node = {{.rate_bytes_per_s = 4e6}, {.rate_bytes_per_s = 4e6}}});
  const auto front = server.add_generated("front.ts", 60 * megabyte, 8);
  const auto back = server.add_generated("back.ts", 60 * megabyte, 8);
  ASSERT_TRUE(server.start());
  c2ms_film how = film_of(4 * megabyte);
  int32_t err;
  c2ms_sess *const first = c2ms_sess_start(context.mgmt, server.url(front).c_str(), &how, &err);
  how.weight = 1;
  c2ms_sess *const second = c2ms_sess_start(context.mgmt, server.url(back).c_str(), &how, &err);
  ASSERT_NE(second, nullptr) << err;
  const auto received = [](c2ms_sess *sess) {
    c2ms_stats s;
    c2ms_sess_stats(sess, &s, sizeof s);
    return s.bytes_received;
  };
  // The foreground takes all it can get: the background stands still.
  std::vector<uint8_t> buf(megabyte);
  const auto read_for = [&](std::chrono::milliseconds time) {
    const auto end = clock::now() + time;
    uint64_t sum = 0;
    while (clock::now() < end) {
      const int n = c2ms_sess_read_some(first, C2MS_HERE, buf.data(), 1, megabyte, 1000);
      if (n > 0) sum += static_cast<uint64_t>(n);
    }
    return sum;
  };
  read_for(300ms);
  const uint64_t before = received(second);
  read_for(1000ms);
  EXPECT_LE(received(second) - before, megabyte / 4);
  // It fills while the foreground has enough, and no reader of its own is there.
  EXPECT_TRUE(eventually([&] { return received(second) > 3 * megabyte; }));
  c2ms_sess_end(second);
  c2ms_sess_end(first);
}

TEST(Film, ClosesWaitForNobodyAndTheCleaningTellsTheEnd) {
  refserver::report_service reports({.agent = "127.0.0.1", .report = "127.0.0.1"});
  ASSERT_TRUE(reports.start()) << reports.error();
  struct {
    const char *name;
    refserver::report_manners manners;
    int result;
  } const peers[] = {
      {"quick", {}, 0}, {"mute", {.silent = true}, 0}, {"slow", {.delay_ms = 600}, 1}};
  for (const auto &peer : peers) {
    SCOPED_TRACE(peer.name);
    reports.set_agent(peer.manners);
    reports.set_report(peer.manners);
    reports.clear();
    c2ms_options options{};
    options.struct_size = sizeof options;
    options.flags = C2MS_QUIET;
    c2ms_mgmt *const mgmt = c2ms_mgmt_start(&options, nullptr);
    mgmt->report_waits.farewell_ms = 400;
    if (peer.manners.silent) mgmt->report_waits.ping_ms = 100;
    refserver::media_server server({.nodes = 1});
    const auto id = server.add_generated("film.ts", megabyte, 8);
    ASSERT_TRUE(server.start());
    int32_t err;
    c2ms_sess *const sess = c2ms_sess_start(mgmt, server.url(id).c_str(), nullptr, &err);
    ASSERT_NE(sess, nullptr) << err;
    EXPECT_LT(took([&] { EXPECT_EQ(c2ms_sess_end(sess), 0); }), 0.005 * support::slack());
    EXPECT_EQ(c2ms_mgmt_clean(mgmt), peer.result);
    if (peer.manners.silent || peer.result != 0) continue;
    EXPECT_EQ(reports.story(refserver::report_channel::agent), "ping, play_begin, play_end");
    EXPECT_EQ(reports.story(refserver::report_channel::performance), "play_begin, play_end");
  }
}

TEST(Film, ADescriptorIsReadableWhenAReadWouldReturn) {
  Context context;
  refserver::media_server server({.nodes = 1});
  const auto id = server.add_generated("film.ts", 20 * megabyte, 8);
  ASSERT_TRUE(server.start());
  int32_t err;
  const c2ms_film how = film_of(2 * megabyte);
  c2ms_sess *const sess = c2ms_sess_start(context.mgmt, server.url(id).c_str(), &how, &err);
  ASSERT_NE(sess, nullptr) << err;
  const int fd = c2ms_sess_ready_fd(sess);
  uint8_t byte;
  const auto read = [&](uint64_t pos) { return c2ms_sess_read_some(sess, pos, &byte, 1, 1, 0); };
  EXPECT_TRUE(readable(fd, 5000));
  EXPECT_EQ(read(C2MS_HERE), 1);
  EXPECT_TRUE(readable(fd));
  // Somewhere that is not there: silent until it comes.
  server.kill_node(0);
  server.kill_node(refserver::entry_server);
  ASSERT_TRUE(eventually([&] { return sess->has_active == 0; }));
  EXPECT_EQ(read(15 * megabyte), C2MS_TIMED_OUT);
  EXPECT_FALSE(readable(fd, 50));
  EXPECT_EQ(c2ms_sess_cancel(sess, 1), 0);
  EXPECT_TRUE(readable(fd));
  EXPECT_EQ(read(C2MS_HERE), C2MS_CLOSED);
  EXPECT_EQ(c2ms_sess_cancel(sess, 0), 0);
  EXPECT_FALSE(readable(fd));
  server.revive_all();
  EXPECT_TRUE(readable(fd, 20'000));
  EXPECT_EQ(read(C2MS_HERE), 1);
  EXPECT_EQ(refserver::content_mismatch(id, 15 * megabyte, &byte, 1), 1U);
  EXPECT_EQ(read(20 * megabyte), C2MS_END);
  EXPECT_EQ(c2ms_sess_seek(sess, 20 * megabyte), 0);  // the last byte
  EXPECT_TRUE(readable(fd, 5000));
  EXPECT_EQ(read(C2MS_HERE), 1);
  EXPECT_TRUE(readable(fd));  // the end is something to read
  c2ms_sess_end(sess);
}

}  // namespace
}  // namespace player
