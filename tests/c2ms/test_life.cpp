// Sessions and libraries come and go: nothing stays behind, nothing runs afterwards, and every
// waiting call is told.
#include <dirent.h>

#include <algorithm>
#include <atomic>

#include "c2ms/c2ms_records.h"
#include "eprobe/rac_core.h"
#include "player.h"

namespace player {
namespace {

int open_descriptors() {
  int count = 0;
  DIR *const dir = opendir("/proc/self/fd");
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

long resident_kib() {
  long pages = 0, resident = 0;
  FILE *const file = fopen("/proc/self/statm", "r");
  if (fscanf(file, "%ld %ld", &pages, &resident) != 2) resident = 0;
  fclose(file);
  return resident * 4;
}

int in_use(block_pool *pool) {
  int out = -1;
  getProfile(pool, nullptr, nullptr, &out);
  return out;
}

class Life : public ::testing::Test {
 protected:
  void SetUp() override {
    id = server.add_generated("film.mp4", size);
    ASSERT_TRUE(server.start());
  }
  static constexpr uint64_t size = 20'000'001;
  refserver::media_server server{{.nodes = 3, .keep_log = false}};
  refserver::file_id id{};
};

TEST_F(Life, CyclesLeaveNothingBehind) {
  constexpr int cycles = sanitized ? 300 : 1000;
  const Library library;
  const auto cycle = [&](int i) {
    Film film(library, server, id);
    ASSERT_EQ(film.error(), 0);
    ASSERT_GE(film.prepare(65536), 65536);
    uint8_t buf[1000];
    ASSERT_EQ(c2ms_sess_seek(film.get(), static_cast<uint64_t>(i) * 10'007 % size), 0);
    ASSERT_GT(c2ms_sess_read(film.get(), buf, 1000, 0), 0);
  };
  for (int i = 0; i < 20; ++i) cycle(i);
  const auto settled = [&] { return server.totals().open == 0; };
  ASSERT_TRUE(eventually(settled));
  const int descriptors = open_descriptors();
  const long memory = resident_kib();
  const rac_core *const core = library.get()->probe;
  for (int i = 0; i < cycles && !HasFatalFailure(); ++i) cycle(i);
  EXPECT_TRUE(eventually(settled));
  EXPECT_TRUE(eventually([&] { return open_descriptors() <= descriptors; }));
  // What is freed stays resident in a sanitizer's quarantine; leaks are its own to find.
  EXPECT_TRUE(sanitized || resident_kib() - memory < 2048);
  const c2ms_mgmt *const mgmt = library.get();
  EXPECT_EQ(in_use(mgmt->sess_pool), 0);
  EXPECT_EQ(in_use(mgmt->node_pool), 0);
  EXPECT_EQ(in_use(mgmt->unit_pool), 0);
  EXPECT_EQ(in_use(mgmt->pack_pool), 0);
  EXPECT_TRUE(eventually([&] { return core->free_timer_n == core->timer_n; }));
}

TEST_F(Life, TenLibrariesOneAfterAnother) {
  { const Library warm_up; }
  ASSERT_TRUE(eventually([&] { return server.totals().open == 0; }));
  const int descriptors = open_descriptors();
  for (int i = 0; i < 10; ++i) {
    Library library;
    Film film(library, server, id);
    ASSERT_GE(film.prepare(8192), 8192);
    ASSERT_TRUE(film.play(0, 300'000, 10'000, Film::blocking));
    if (i % 2 == 0) film.close();  // otherwise the library goes with its session open
    library.clean();
    film.forget();
  }
  ASSERT_TRUE(eventually([&] { return server.totals().open == 0; }));
  EXPECT_LE(open_descriptors(), descriptors);
}

// A reader that waits for bytes that will not come.
class Blocked : public Life {
 protected:
  void SetUp() override {
    Life::SetUp();
    film = std::make_unique<Film>(library, server, id);
    ASSERT_GE(film->prepare(65536), 65536);
    ASSERT_TRUE(film->play(0, 65536, 65536, Film::blocking));
    for (int node = 0; node < 3; ++node)
      server.set_fault(node, {.kind = refserver::fault_kind::mute});
    ASSERT_EQ(c2ms_sess_seek(film->get(), size - 100'000), 0);
    reader = std::thread([this] {
      uint8_t buf[1000];
      reading = true;
      result = c2ms_sess_read(film->get(), buf, sizeof buf, 0);
      done = clock::now();
    });
    while (!reading) std::this_thread::yield();
    std::this_thread::sleep_for(50ms);
  }
  void TearDown() override {
    if (reader.joinable()) reader.join();
  }
  Library library;
  std::unique_ptr<Film> film;
  std::thread reader;
  std::atomic<bool> reading{false};
  int result = 1;
  clock::time_point done;
};

TEST_F(Blocked, CloseTellsTheReader) {
  const auto begin = clock::now();
  std::thread second([this] { EXPECT_EQ(c2ms_sess_close(film->get()), 0); });
  EXPECT_EQ(c2ms_sess_close(film->get()), 0);
  second.join();
  reader.join();
  EXPECT_EQ(result, C2MS_CLOSED);
  EXPECT_LT(std::chrono::duration<double>(done - begin).count(), 0.5);
  EXPECT_EQ(c2ms_sess_seek(film->get(), 0), C2MS_CLOSED);
  EXPECT_EQ(c2ms_sess_close(film->get()), 0);
  film->forget();
}

TEST_F(Blocked, CleanUpTellsTheReader) {
  library.clean();
  reader.join();
  EXPECT_EQ(result, C2MS_CLOSED);
  film->forget();
}

TEST_F(Blocked, SeekEndsTheRead) {
  for (int node = 0; node < 3; ++node) server.clear_faults(node);
  const auto begin = clock::now();
  ASSERT_EQ(c2ms_sess_seek(film->get(), 5), 0);
  reader.join();
  EXPECT_EQ(result, 0);
  EXPECT_LT(std::chrono::duration<double>(done - begin).count(), 0.5);
  EXPECT_TRUE(film->play(5, 60'000, 1000, Film::blocking));
}

TEST_F(Blocked, OthersDoNotWaitForTheGate) {
  uint8_t byte;
  const auto begin = clock::now();
  EXPECT_EQ(c2ms_sess_read(film->get(), &byte, 1, 1), 0);
  EXPECT_EQ(c2ms_sess_recv(film->get(), &byte, 1, 100), 0);
  EXPECT_LT(seconds_since(begin), 1.0);
  // Another file does not wait for bytes that never come.
  EXPECT_EQ(c2ms_sess_range(film->get(), 100, 1000), 0);
  EXPECT_LT(seconds_since(begin), 2.0);
  reader.join();
  EXPECT_EQ(result, 0);
}

// Calls are cancelled at any moment of their waiting, every second time by a mere pulse: each ends,
// half of them within 50 ms, and nothing that one had copied is lost.
TEST_F(Blocked, CancelEndsWhoWaitsAndLaterCalls) {
  c2ms_sess *const sess = film->get();
  ASSERT_EQ(c2ms_sess_cancel(sess, 1), 0);
  reader.join();
  EXPECT_EQ(result, C2MS_CLOSED);
  const Film::call calls[] = {
      Film::blocking,
      [](c2ms_sess *s, void *buf, int32_t len) { return c2ms_sess_recv(s, buf, len, 60'000); },
      [](c2ms_sess *s, void *, int32_t) { return c2ms_sess_idx_open(s, nullptr); },
      [](c2ms_sess *s, void *buf, int32_t len) { return c2ms_sess_read(s, buf, len, 1); },
      [](c2ms_sess *s, void *, int32_t) { return c2ms_sess_idx_open_asyn(s, nullptr); }};
  std::vector<uint8_t> buf(65536 + 50'000);
  const auto len = static_cast<int32_t>(buf.size());
  ASSERT_EQ(c2ms_sess_seek(sess, 20'000), 0);  // 45,536 bytes are there
  for (const auto &call : calls) EXPECT_EQ(call(sess, buf.data(), 10), C2MS_CLOSED);
  std::vector<double> took;
  for (int round = 0; round < 40; ++round) {
    ASSERT_EQ(c2ms_sess_cancel(sess, 0), 0);
    std::thread waiting([&] {
      EXPECT_EQ(calls[round % 2](sess, buf.data(), len), C2MS_CLOSED);
      done = clock::now();
    });
    std::this_thread::sleep_for(20ms + round * 100us);
    const auto begin = clock::now();
    c2ms_sess_cancel(sess, 1);
    if (round % 4 > 1) c2ms_sess_cancel(sess, 0);
    waiting.join();
    took.push_back(std::chrono::duration<double>(done - begin).count());
  }
  std::nth_element(took.begin(), took.begin() + 20, took.end());
  EXPECT_LT(took[20], 0.05 * slack);
  ASSERT_EQ(c2ms_sess_cancel(sess, 0), 0);
  for (int node = 0; node < 3; ++node) server.clear_faults(node);
  EXPECT_TRUE(film->play(20'000, 200'000, 30'000, Film::blocking));
  EXPECT_EQ(c2ms_sess_cancel(nullptr, 1), -1);
}

// The session's record is used again: the next film is not cancelled.
TEST_F(Blocked, ACancelledSessionCloses) {
  ASSERT_EQ(c2ms_sess_cancel(film->get(), 1), 0);
  reader.join();
  film->close();
  for (int node = 0; node < 3; ++node) server.clear_faults(node);
  for (int i = 0; i < 3; ++i) {
    Film next(library, server, id);
    ASSERT_GE(next.prepare(65536), 65536);
    EXPECT_TRUE(next.play(0, 100'000, 10'000, Film::blocking));
  }
}

TEST_F(Life, TwoThreadsOnOneSession) {
  const Library library;
  Film film(library, server, id);
  ASSERT_GE(film.prepare(16384), 16384);
  std::atomic<bool> stop{false};
  std::thread other([&] {
    std::mt19937 random(3);
    while (!stop) {
      c2ms_sess_seek(film.get(), random() % size);
      int32_t ratio;
      c2ms_sess_bufratio(film.get(), &ratio);
      c2ms_sess_fasttime(film.get());
      if (random() % 20 == 0) c2ms_sess_reopen(film.get());
      if (random() % 20 == 0) c2ms_sess_range(film.get(), 0, size);
      FILE *const nowhere = fopen("/dev/null", "w");
      c2ms_sess_print(film.get(), nowhere);
      fclose(nowhere);
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
    }
  });
  std::vector<uint8_t> buf(50'000);
  // A reader does not know where the other has seeked: its bytes must lie somewhere in the file in
  // one piece.
  const auto end = clock::now() + 3s;
  for (int i = 0; clock::now() < end; ++i) {
    const int n = c2ms_sess_recv(film.get(), buf.data(), 50'000, i % 2 == 0 ? 20 : 1000);
    ASSERT_TRUE(n >= 0 || n == -200) << n;
  }
  stop = true;
  other.join();
  ASSERT_EQ(c2ms_sess_seek(film.get(), 1), 0);
  EXPECT_TRUE(film.play(1, 500'000, 5000, Film::blocking));
}

// What makes a reader give way without a move of the position leaves the position where it ended.
TEST_F(Life, InterruptedReadsGoOnWhereTheyEnded) {
  const Library library;
  Film film(library, server, id);
  ASSERT_GE(film.prepare(1 << 19), 1 << 19);  // packs that take a while to copy
  std::atomic<bool> stop{false};
  std::thread other([&] {
    for (; !stop; std::this_thread::sleep_for(20us)) c2ms_sess_idx_close(film.get());
  });
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(c2ms_sess_seek(film.get(), 0), 0);
    EXPECT_TRUE(film.play(0, size, 500'000, Film::blocking));
  }
  stop = true;
  other.join();
}

// The entry server dies after it has named the servers: playing is not touched. A reopen works when
// it is back.
TEST_F(Life, EntryServerDiesAndReturns) {
  const Library library;
  Film film(library, server, id);
  ASSERT_GE(film.prepare(65536), 65536);
  server.kill_node(refserver::entry_server);
  EXPECT_TRUE(film.play(0, 2'000'000, 50'000, Film::blocking));
  EXPECT_EQ(c2ms_sess_reopen(film.get()), 0);
  EXPECT_TRUE(film.play(2'000'000, 4'000'000, 50'000, Film::blocking));
  server.revive_node(refserver::entry_server);
  const auto lists = server.totals(refserver::entry_server).lists;
  ASSERT_TRUE(eventually([&] {
    c2ms_sess_reopen(film.get());
    return server.totals(refserver::entry_server).lists > lists;
  }));
  EXPECT_TRUE(film.play(4'000'000, size, 50'000, Film::blocking));
}

}  // namespace
}  // namespace player
