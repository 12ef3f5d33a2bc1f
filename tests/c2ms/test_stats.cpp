// What a player can learn of a running session: the figures add up at every moment, and agree with
// what the server saw.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>

#include "c2ms/fetch/dispatch.h"
#include "player.h"

namespace player {
namespace {

using refserver::fault_kind;

// Nothing is under way any more: the ring is full.
bool at_rest(const Film &film) {
  const c2ms_stats s = stats_of(film);
  return s.in_flight == 0 && s.units_queued == 0 && s.buffered_ahead == s.ring_end - s.position;
}

class Statistics : public Served {};

std::vector<c2ms_trace_event> recorded(const Film &film, uint64_t *lost = nullptr) {
  std::vector<c2ms_trace_event> events(100'000);
  const int count = c2ms_sess_trace_read(film.get(), events.data(), 100'000, lost);
  EXPECT_GE(count, 0);
  events.resize(static_cast<size_t>(std::max(count, 0)));
  return events;
}

// Nodes that fail in several ways and a player that seeks: a second thread never sees figures that
// contradict each other, and in the end they are the server's.
TEST_F(Statistics, AddUpAtEveryMomentAndAgreeWithTheServer) {
  start(60'000'001, {}, 0);
  server->set_fault(0, {.kind = fault_kind::close_at, .value = 30'000, .from = 3, .count = 4});
  server->set_fault(1, {.kind = fault_kind::payload_shorter, .value = 9000, .from = 2, .count = 2});
  server->set_fault(
      2, {.kind = fault_kind::stall_at, .value = 20'000, .ms = 4000, .from = 1, .count = 1});
  server->set_rate(3, 3e6);
  film = std::make_unique<Film>(*library, *server, id, 65536);
  std::atomic<bool> done{false};
  std::thread watcher([&] {
    c2ms_stats last{};
    while (!done && !HasFailure()) {
      const c2ms_stats now = stats_of(*film);
      EXPECT_GE(now.bytes_received, last.bytes_received);
      EXPECT_GE(now.requests, last.requests);
      EXPECT_LE(now.buffered_ahead, now.buffered_bytes);
      last = now;
      std::this_thread::sleep_for(1ms);
    }
  });
  std::mt19937 random(7);
  EXPECT_TRUE(film->play(0, 20'000'000, 50'000, Film::blocking));
  for (int i = 0; i < 25; ++i) {
    const uint64_t pos = random() % (film->size() - 400'000);
    EXPECT_TRUE(film->play_from(pos, pos + 300'000, 40'000));
  }
  EXPECT_TRUE(eventually([&] { return at_rest(*film); }, 30s));
  done = true;
  watcher.join();
  const c2ms_stats s = stats_of(*film);
  EXPECT_EQ(s.bytes_delivered, 20'000'000u + 25 * 300'000u);
  EXPECT_EQ(s.seeks, 25u);
  EXPECT_GT(s.bytes_discarded, 0u);
  EXPECT_GT(s.given_up, 0u);
  EXPECT_GT(s.failures, 0u);
  uint64_t media = 0, payload = 0, sent = 0;
  std::map<uint32_t, uint64_t> of_port;
  for (const auto &request : server->log()) {
    sent += request.bytes_sent;
    if (request.command != 3) continue;
    ++media;
    payload += request.payload_sent;
    of_port[server->port(request.node)] += request.payload_sent;
  }
  // What was asked of a server that closes the connection in that moment it never sees.
  EXPECT_GE(s.requests, media);
  EXPECT_LE(s.requests - media, s.failures);
  // (What is under way on a connection that is given up arrives nowhere.)
  EXPECT_LE(s.bytes_received, payload);
  EXPECT_LE(s.bytes_received + s.bytes_overhead, sent);
  for (uint32_t i = 0; i < s.nodes; ++i)
    EXPECT_LE(s.node[i].bytes_received, of_port[s.node[i].port]) << s.node[i].port;
}

// Played once from end to end, what is kept is the film.
TEST_F(Statistics, OfAPlainPlay) {
  start(20'000'001);
  const auto pack = static_cast<uint64_t>(c2ms_sess_pack_size(film->get(), 65536));
  ASSERT_TRUE(film->play(0, 5'000'000, 50'000, Film::blocking));
  ASSERT_TRUE(eventually([&] { return at_rest(*film); }));
  c2ms_stats s = stats_of(*film);
  c2ms_byte_range ranges[2] = {};
  ASSERT_EQ(c2ms_sess_ranges(film->get(), ranges, 2), 1);
  EXPECT_EQ(ranges[0].begin, s.ring_begin);
  EXPECT_EQ(ranges[0].end, s.ring_end);
  EXPECT_EQ(s.buffered_bytes, s.ring_end - s.ring_begin);
  EXPECT_EQ(s.bytes_kept, s.ring_end);
  EXPECT_EQ(s.position, 5'000'000u);
  EXPECT_LE(s.ring_begin, s.position - s.memory_bytes / 8 + 2 * pack);
  ASSERT_TRUE(film->play(5'000'000, film->size(), 50'000, Film::blocking));
  s = stats_of(*film);
  EXPECT_EQ(s.bytes_kept, film->size());
  EXPECT_EQ(s.bytes_delivered, film->size());
  EXPECT_EQ(s.bytes_received, server->totals().payload_sent);
  EXPECT_EQ(s.requests, server->totals().media);
  EXPECT_LE(s.completed - s.wasted, (film->size() + pack - 1) / pack);
  ASSERT_GE(s.nodes, 1u);
  EXPECT_STREQ(s.node[0].address, "127.0.0.1");
  EXPECT_GT(s.node[0].average_speed, 0);
  EXPECT_EQ(s.wait_no_node.count + s.wait_cancelled.count, 0u);
  // What is told to be there can be read without waiting.
  ASSERT_EQ(c2ms_sess_seek(film->get(), 1'000'000), 0);
  std::vector<uint8_t> buf(20'000'001);
  for (int i = 0; i < 200; ++i) {
    s = stats_of(*film);
    const int n = c2ms_sess_read(film->get(), buf.data(), static_cast<int32_t>(buf.size()), 1);
    if (s.position == film->size()) break;
    EXPECT_GE(n, static_cast<int>(s.buffered_ahead));
    ASSERT_TRUE(film->right(s.position, buf.data(), n));
  }
}

TEST_F(Statistics, OfANewCache) {
  start(20'000'001);
  ASSERT_TRUE(film->play(0, 15'000'000, 50'000, Film::blocking));
  ASSERT_EQ(c2ms_sess_buffering(film->get(), 7 << 20), 0);
  auto other = std::make_unique<Film>(*library, *server, id);
  for (int round = 0; round < 50; ++round) {  // two that set up at one time share the memory
    std::atomic<int> there{0};
    const auto set_up = [&](const Film &f) {
      for (++there; there < 2;) {
      }
      c2ms_sess_cache_init(f.get(), 3 << 20);
    };
    std::thread first([&] { set_up(*film); });
    set_up(*other);
    first.join();
    const c2ms_stats a = stats_of(*film), b = stats_of(*other);
    ASSERT_LE(a.memory_bytes + b.memory_bytes, a.memory_cap_bytes);
  }
  other.reset();
  EXPECT_EQ(c2ms_sess_cache_init(film->get(), 1 << 30), -2);
  ASSERT_EQ(c2ms_sess_cache_init(film->get(), 2 << 20), 0);
  const c2ms_stats s = stats_of(*film);
  EXPECT_EQ(s.position, 0u);
  EXPECT_EQ(s.ring_begin, s.ring_end);
  ASSERT_EQ(c2ms_sess_range(film->get(), 0, film->size()), 0);
  int32_t ratio = 0;  // the lead is cut to what the new packs can hold
  EXPECT_TRUE(
      eventually([&] { return c2ms_sess_bufratio(film->get(), &ratio) == 0 && ratio == 100; }));
}

TEST_F(Statistics, WaitsByTheirCause) {
  start(60'000'001, {}, 0);
  on_all([&](int node) { server->set_delay(node, 120); });
  film = std::make_unique<Film>(*library, *server, id, 262'144);
  const auto read = [&](uint64_t pos, int32_t len, int32_t budget_ms) {
    c2ms_sess_seek(film->get(), pos);
    c2ms_sess_recv(film->get(), nullptr, len, budget_ms);
  };
  read(0, 1000, 10'000);
  EXPECT_EQ(stats_of(*film).wait_seek.count, 1u);
  read(30'000'000, 1000, 10'000);
  EXPECT_EQ(stats_of(*film).wait_seek.count, 2u);
  EXPECT_GE(stats_of(*film).wait_seek.longest_us, 60'000u);
  ASSERT_TRUE(eventually([&] { return at_rest(*film); }));
  EXPECT_EQ(stats_of(*film).wait_late.count, 0u);
  // More than the ring holds, in one call.
  c2ms_sess_recv(film->get(), nullptr, 10'000'000, 20'000);
  EXPECT_GE(stats_of(*film).wait_late.count, 1u);
  EXPECT_EQ(stats_of(*film).wait_seek.count, 2u);
  on_all([&](int node) { server->set_fault(node, {.kind = fault_kind::mute}); });
  std::thread canceller([&] {
    EXPECT_TRUE(reader_waits(*film));
    std::this_thread::sleep_for(60ms);
    c2ms_sess_cancel(film->get(), 1);
  });
  read(50'000'000, 1000, 10'000);
  canceller.join();
  EXPECT_EQ(stats_of(*film).wait_cancelled.count, 1u);
  EXPECT_GE(stats_of(*film).wait_cancelled.total_us, 20'000u);
  c2ms_sess_cancel(film->get(), 0);
  server->kill_all();
  ASSERT_TRUE(eventually([&] { return stats_of(*film).nodes_usable == 0; }));
  read(1'000'000, 1000, 300);
  EXPECT_EQ(stats_of(*film).wait_no_node.count, 1u);
  EXPECT_GE(stats_of(*film).wait_no_node.longest_us, 290'000u);
  EXPECT_GT(stats_of(*film).failures, 0u);
}

// Requests that left a node before the answer of the one before them had been taken.
int asked_ahead(std::vector<c2ms_trace_event> events) {
  std::map<uint32_t, int64_t> last_end;
  std::stable_sort(events.begin(), events.end(), [](const auto &a, const auto &b) {
    return a.time_us + a.duration_us < b.time_us + b.duration_us;
  });
  int ahead = 0;
  for (const c2ms_trace_event &event : events) {
    if (event.kind != C2MS_TRACE_REQUEST) continue;
    const auto before = last_end.find(event.node);
    if (before != last_end.end() && event.time_us < before->second) ++ahead;
    last_end[event.node] = event.time_us + event.duration_us;
  }
  return ahead;
}

// Whatever the packs' size. On connections that end behind it, it is kept,
// and what was asked for ahead is asked for elsewhere: also when the connection is gone before the
// worker comes to look.
TEST_F(Statistics, NextRequestLeavesBeforeAnAnswerEnds) {
  start(12'000'001, {}, 0);
  for (const int pack : {8192, 65536}) {
    film = std::make_unique<Film>(*library, *server, id);
    ASSERT_EQ(c2ms_sess_trace(film->get(), 100'000), 0);
    ASSERT_GE(film->prepare(pack), pack);
    ASSERT_TRUE(film->play(0, film->size(), 50'000, Film::blocking));
    EXPECT_GT(asked_ahead(recorded(*film)), 0) << pack;
  }
  for (const fault_kind end : {fault_kind::close_at, fault_kind::reset_at}) {
    on_all([&](int node) { server->set_fault(node, {.kind = end, .value = 37 + 65536}); });
    const uint64_t sent_before = server->totals().payload_sent;
    film = std::make_unique<Film>(*library, *server, id);
    ASSERT_GE(film->prepare(65536), 65536);
    std::atomic<bool> over{false};
    std::thread late([&] {
      while (!over) {
        const c2ms::Turn strand(film->get());
        std::this_thread::sleep_for(50ms);  // an acknowledgement is delayed by up to 40
      }
    });
    EXPECT_TRUE(film->play(0, 600'000, 50'000, Film::blocking));
    over = true;
    late.join();
    const c2ms_stats s = stats_of(*film);
    EXPECT_EQ(s.bytes_discarded, 0u);
    EXPECT_GE(s.failures, 8u);
    EXPECT_LT(server->totals().payload_sent - sent_before, s.bytes_kept * 3 / 2);
    film.reset();
  }
}

// A player that was compiled with another c2ms_stats than the library.
TEST_F(Statistics, OfAnOlderOrNewerPlayer) {
  start(1'000'001, {}, 0);
  film = std::make_unique<Film>(*library, *server, id);
  EXPECT_EQ(c2ms_sess_ranges(film->get(), nullptr, 0), -2);
  ASSERT_GE(film->prepare(65536), 65536);
  ASSERT_TRUE(film->play(0, film->size(), 65536, Film::blocking));
  const c2ms_stats whole = stats_of(*film);
  EXPECT_EQ(whole.struct_size, sizeof whole);
  std::vector<uint8_t> room(sizeof whole + 100);
  for (const size_t bytes : {size_t{0}, size_t{1}, size_t{4}, offsetof(c2ms_stats, bytes_kept) + 3,
                             sizeof whole, sizeof whole + 64}) {
    std::fill(room.begin(), room.end(), 0xaa);
    ASSERT_EQ(c2ms_sess_stats(film->get(), reinterpret_cast<c2ms_stats *>(room.data()), bytes), 0);
    const size_t filled = std::min(bytes, sizeof whole);
    const size_t same = std::min(filled, offsetof(c2ms_stats, speed));
    EXPECT_TRUE(same <= 4 || std::memcmp(&room[4], &whole.status, same - 4) == 0) << bytes;
    EXPECT_EQ(std::count(&room[0] + filled, &room[0] + bytes, 0),
              static_cast<ptrdiff_t>(bytes - filled));
    EXPECT_EQ(std::count(room.begin() + static_cast<ptrdiff_t>(bytes), room.end(), 0xaa),
              static_cast<ptrdiff_t>(room.size() - bytes));
  }
}

// What is recorded is what was counted; the oldest events give way; nothing is recorded while off.
TEST_F(Statistics, RecordedEventsAreThoseCounted) {
  start(20'000'001, {}, 0);
  server->set_fault(0, {.kind = fault_kind::close_at, .value = 30'000, .from = 3, .count = 4});
  film = std::make_unique<Film>(*library, *server, id);
  ASSERT_EQ(c2ms_sess_trace(film->get(), 100'000), 0);
  ASSERT_GE(film->prepare(65536), 65536);
  ASSERT_TRUE(film->play(0, 5'000'000, 50'000, Film::blocking));
  ASSERT_TRUE(film->play_from(12'000'000, film->size(), 50'000));
  ASSERT_TRUE(eventually([&] { return stats_of(*film).in_flight == 0; }));
  const c2ms_stats s = stats_of(*film);
  uint64_t lost = 1, ended[3] = {}, seeks = 0, waits = 0, wait_us = 0, last_us = 0, last_place = 0;
  for (const c2ms_trace_event &event : recorded(*film, &lost)) {
    const auto end_us = static_cast<uint64_t>(event.time_us + event.duration_us);
    last_us = std::max(last_us, end_us);
    if (event.kind == C2MS_TRACE_REQUEST && event.detail < 3) ++ended[event.detail];
    seeks += event.kind == C2MS_TRACE_SEEK && event.pos == 12'000'000;
    if (event.kind == C2MS_TRACE_PLACE) {
      last_place = event.pos;
      EXPECT_GE(event.pos, event.begin);
      EXPECT_LE(event.begin + event.bytes, film->size());
    }
    if (event.kind != C2MS_TRACE_WAIT) continue;
    ++waits;
    wait_us += static_cast<uint64_t>(event.duration_us);
  }
  EXPECT_EQ(lost, 0u);
  EXPECT_EQ(ended[0] + ended[1], s.completed);
  EXPECT_EQ(ended[1], s.wasted);
  EXPECT_EQ(ended[2], s.given_up);
  EXPECT_GT(ended[2], 0u);
  EXPECT_EQ(seeks, 1u);
  EXPECT_EQ(last_place, film->size());
  EXPECT_EQ(waits, s.wait_no_node.count + s.wait_late.count + s.wait_seek.count);
  EXPECT_EQ(wait_us, s.wait_no_node.total_us + s.wait_late.total_us + s.wait_seek.total_us);
  EXPECT_LT(last_us, 60'000'000u);
  ASSERT_EQ(c2ms_sess_trace(film->get(), 8), 0);
  for (uint64_t i = 1; i <= 20; ++i) c2ms_sess_seek(film->get(), i);
  const auto few = recorded(*film, &lost);
  EXPECT_EQ(few.size(), 8u);
  EXPECT_GE(lost, 12u);
  // A slow reader's places too: one for each move that comes 50 ms after the former.
  ASSERT_EQ(c2ms_sess_trace(film->get(), 1000), 0);
  uint64_t places = 0;
  for (int i = 0; i < 4; ++i) {
    pause_ms(55);
    ASSERT_TRUE(film->play(20 + 100 * i, 120 + 100 * i, 100, Film::blocking));
  }
  for (const auto &e : recorded(*film)) places += e.kind == C2MS_TRACE_PLACE;
  EXPECT_GE(places, 4u);
  ASSERT_EQ(c2ms_sess_trace(film->get(), 0), 0);
  c2ms_sess_seek(film->get(), 5'000'000);
  EXPECT_TRUE(recorded(*film).empty());
  // As much as it may take; the close frees it.
  EXPECT_EQ(c2ms_sess_trace(film->get(), INT32_MAX), 0);
}

}  // namespace
}  // namespace player
