// Sessions and libraries come and go: nothing stays behind, nothing runs afterwards, and every
// waiting call is told.
#include <atomic>

#include "player.h"

namespace player {
namespace {

class Life : public Served {
 protected:
  void SetUp() override { start(20'000'001, {.nodes = 3, .keep_log = false}, 0); }
};

TEST_F(Life, CyclesLeaveNothingBehind) {
  constexpr int cycles = sanitized ? 300 : 1000;
  const auto cycle = [&](int i) {
    Film one(*library, *server, id, 65536);
    uint8_t buf[1000];
    ASSERT_EQ(c2ms_sess_seek(one.get(), static_cast<uint64_t>(i) * 10'007 % size), 0);
    ASSERT_GT(c2ms_sess_read(one.get(), buf, 1000, 0), 0);
  };
  const auto settled = [&] { return server->totals().open == 0; };
  for (int i = 0; i < 20; ++i) cycle(i);
  ASSERT_TRUE(eventually(settled));
  const support::Holdings before = support::holdings_now();
  for (int i = 0; i < cycles && !HasFatalFailure(); ++i) cycle(i);
  EXPECT_TRUE(eventually(settled));
  EXPECT_TRUE(eventually([&] { return open_descriptors() <= before.descriptors; }));
  support::Findings left;
  library->check(left);
  expect_none(std::move(left));
  // What is freed stays resident in a sanitizer's quarantine; leaks are its own to find.
  EXPECT_TRUE(sanitized ||
              support::holdings_now().resident_bytes - before.resident_bytes < 2 << 20);
}

// A reader that waits for bytes that will not come.
class Blocked : public Life {
 protected:
  void SetUp() override {
    Life::SetUp();
    library->get()->conn_check_time = 1;
    library->get()->patience.stalled_us = 1'000'000;
    film = std::make_unique<Film>(*library, *server, id, 65536);
    ASSERT_TRUE(film->play(0, 65536, 65536, Film::blocking));
    on_all([&](int node) { server->set_fault(node, {.kind = refserver::fault_kind::mute}); });
    ASSERT_EQ(c2ms_sess_seek(film->get(), size - 100'000), 0);
    reader = std::thread([this] {
      uint8_t buf[1000];
      result = c2ms_sess_read(film->get(), buf, sizeof buf, 0);
    });
    ASSERT_TRUE(reader_waits(*film));
  }
  void TearDown() override {
    if (reader.joinable()) reader.join();
  }
  std::thread reader;
  int result = 1;
};

TEST_F(Blocked, CloseTellsTheReader) {
  const auto begin = clock::now();
  std::thread second([this] { EXPECT_EQ(c2ms_sess_close(film->get()), 0); });
  EXPECT_EQ(c2ms_sess_close(film->get()), 0);
  second.join();
  reader.join();
  EXPECT_LT(seconds_since(begin), 0.5 * slack());
  EXPECT_EQ(result, C2MS_CLOSED);
  EXPECT_EQ(c2ms_sess_seek(film->get(), 0), C2MS_CLOSED);
  EXPECT_EQ(c2ms_sess_close(film->get()), 0);
  film->forget();
}

TEST_F(Blocked, SeekEndsTheRead) {
  on_all([&](int node) { server->clear_faults(node); });
  ASSERT_EQ(c2ms_sess_seek(film->get(), 5), 0);
  EXPECT_LT(took([&] { reader.join(); }), 0.5 * slack());
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(film->play(5, 60'000, 1000, Film::blocking));
}

TEST_F(Blocked, OthersDoNotWaitForTheGate) {
  uint8_t byte;
  const auto begin = clock::now();
  EXPECT_EQ(c2ms_sess_read(film->get(), &byte, 1, 1), 0);
  EXPECT_EQ(c2ms_sess_recv(film->get(), &byte, 1, 100), 0);
  EXPECT_LT(seconds_since(begin), 1.0 * slack());
  // Another file does not wait for bytes that never come.
  EXPECT_EQ(c2ms_sess_range(film->get(), 100, 1000), 0);
  EXPECT_LT(seconds_since(begin), 2.0 * slack());
  reader.join();
  EXPECT_EQ(result, 0);
  // Nothing of it comes: a read that does not wait says so.
  EXPECT_LT(took([&] { EXPECT_EQ(c2ms_sess_read(film->get(), &byte, 1, 1), 0); }), 0.5 * slack());
}

// Calls are cancelled at any moment of their waiting, every second time by a mere pulse: each ends,
// and nothing that one had copied is lost. (How soon: ./dev sweep closing.)
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
  for (int round = 0; round < 40; ++round) {
    ASSERT_EQ(c2ms_sess_cancel(sess, 0), 0);
    std::thread waiting([&] { EXPECT_EQ(calls[round % 2](sess, buf.data(), len), C2MS_CLOSED); });
    EXPECT_TRUE(reader_waits(*film));  // a pulse is for who waits
    std::this_thread::sleep_for(round * 100us);
    c2ms_sess_cancel(sess, 1);
    if (round % 4 > 1) c2ms_sess_cancel(sess, 0);
    waiting.join();
  }
  ASSERT_EQ(c2ms_sess_cancel(sess, 0), 0);
  on_all([&](int node) { server->clear_faults(node); });
  EXPECT_TRUE(film->play(20'000, 200'000, 30'000, Film::blocking));
  // A cancelled session closes. Its record is used again: the next film is not cancelled.
  ASSERT_EQ(c2ms_sess_cancel(sess, 1), 0);
  film->close();
  Film next(*library, *server, id, 65536);
  EXPECT_TRUE(next.play(0, 100'000, 10'000, Film::blocking));
}

// What makes a reader give way without a move of the position leaves the position where it ended.
TEST_F(Life, InterruptedReadsGoOnWhereTheyEnded) {
  film = std::make_unique<Film>(*library, *server, id, 1 << 19);  // packs that take a while to copy
  std::atomic<bool> stop{false};
  std::thread other([&] {
    for (; !stop; std::this_thread::sleep_for(20us)) c2ms_sess_idx_close(film->get());
  });
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(film->play_from(0, size, 500'000));
  stop = true;
  other.join();
}

// The entry server dies after it has named the servers: playing is not touched. A reopen works when
// it is back.
TEST_F(Life, EntryServerDiesAndReturns) {
  film = std::make_unique<Film>(*library, *server, id, 65536);
  server->kill_node(refserver::entry_server);
  EXPECT_TRUE(film->play(0, 2'000'000, 50'000, Film::blocking));
  EXPECT_EQ(c2ms_sess_reopen(film->get()), 0);
  EXPECT_TRUE(film->play(2'000'000, 4'000'000, 50'000, Film::blocking));
  server->revive_node(refserver::entry_server);
  const auto lists = server->totals(refserver::entry_server).lists;
  ASSERT_TRUE(eventually([&] {
    c2ms_sess_reopen(film->get());
    return server->totals(refserver::entry_server).lists > lists;
  }));
  EXPECT_TRUE(film->play(4'000'000, size, 50'000, Film::blocking));
}

}  // namespace
}  // namespace player
