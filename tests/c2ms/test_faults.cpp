// The fault matrix: one server of four misbehaves in every way that the reference server knows,
// while a media is described, listed, played, seeked in and closed; then all servers at once. After
// every run nothing is left of it (Faults::TearDown).
#include <cmath>

#include "player.h"

namespace player {
namespace {

using refserver::fault;
using refserver::fault_kind;

// A service, a library and a film over it; TearDown asserts what must hold after every run.
class Faults : public Served {
 protected:
  void start(uint64_t film_size, refserver::server_options options) {
    Served::start(film_size, options, 0);
    begun = clock::now();
  }
  // One server for each rate, in bytes a second.
  void start_rated(uint64_t film_size, const std::vector<double> &rates) {
    refserver::server_options options{.nodes = static_cast<int>(rates.size())};
    for (const double rate : rates) options.node.push_back({.rate_bytes_per_s = rate});
    start(film_size, options);
  }
  // The open must end with `error`; the film is ready to be played when that is 0.
  void open(int32_t error = 0, int32_t pack = 65536) {
    film = std::make_unique<Film>(*library, *server, id);
    ASSERT_EQ(film->error(), error) << c2ms_sess_error(film->error());
    if (error != 0) return;
    ASSERT_EQ(film->size(), size);
    ASSERT_GE(film->prepare(pack), pack);
  }
  ::testing::AssertionResult play(uint64_t from, uint64_t to,
                                  const Film::call &read = Film::blocking) {
    return film->play(from, to, 50'000, read);
  }
  void seek_and_read(int times) {
    std::mt19937 random(11);
    std::vector<uint8_t> buf(150'000);
    for (int i = 0; i < times; ++i) {
      const uint64_t pos = random() % size;
      const uint64_t end = std::min(pos + 1 + random() % buf.size(), size);
      ASSERT_EQ(c2ms_sess_seek(film->get(), pos), 0);
      ASSERT_TRUE(play(pos, end)) << "after seek " << i;
    }
  }
  // In the middle of what a seek has asked for.
  void close_after_a_seek() {
    ASSERT_EQ(c2ms_sess_seek(film->get(), 1), 0);
    std::this_thread::sleep_for(20ms);
    EXPECT_LT(took([&] { finish(); }), 2.0 * slack());
  }
  // What the session counted adds up and is what the servers sent; then it is closed.
  void finish() {
    if (film->get() == nullptr) return;
    const c2ms_stats stats = stats_of(*film);
    EXPECT_GE(stats.bytes_received, fetched);
    EXPECT_LE(stats.bytes_received + stats.bytes_overhead, server->totals().bytes_sent);
    film->close();
  }
  void TearDown() override {
    if (film != nullptr) finish();
    support::Findings left;
    library->check(left);
    EXPECT_TRUE(eventually([&] { return server->totals().open == 0; }));
    EXPECT_EQ(server->totals().bad_requests, 0u);
    for (const auto &request : server->log()) EXPECT_LE(request.offset + request.length, size);
    film.reset();
    library.reset();
    server.reset();
    support::check_gone(left, before);
    expect_none(std::move(left));
  }
  const support::Holdings before = support::holdings_now();
  uint64_t fetched = 0;  // at least: what was played once
  clock::time_point begun;
};

// What becomes of the bad server's connection.
enum class outcome {
  over,   // dropped, tried again with the brake: its delay doubles as long as nothing completes
  again,  // dropped and tried again each time, for in between it served well
  gone,   // the server is left for good
  kept,   // it stays
};

struct row {
  const char *name;
  std::vector<fault> orders;                    // of the bad server
  outcome must;                                 // when they befall its media answers
  int32_t list_error = C2MS_ENTRY_UNAVAILABLE;  // the open's, when they befall the server list
  double longest_wait = 1.0;                    // seconds that a read may take
  int32_t pack = 65536;
};

void PrintTo(const row &r, std::ostream *out) {
  *out << r.name;
}

constexpr int32_t unlisted = 1;  // what has no such phase, or would take minutes
// A life check asks elsewhere for what is late: every second, plus the transfer and a noisy
// machine.
constexpr double life_check = 3.0;

// Each cut of a response at one place, a whole answer in between.
std::vector<fault> cuts(fault_kind kind, bool payload) {
  std::vector<fault> orders;
  const uint64_t end = payload ? 37 + 8192 : 37;
  for (uint64_t at = payload ? 37 : 0; at < end; at += payload ? at - 36 : 1) {
    const auto from = static_cast<uint32_t>(2 * orders.size() + 1);
    orders.push_back({.kind = kind, .value = at, .from = from, .count = 1});
  }
  return orders;
}

std::vector<row> all_rows() {
  using enum fault_kind;
  using enum outcome;
  return {{"refuse", {{refuse}}, over, unlisted},
          {"drop_accepted", {{drop_accepted}}, over},
          {"flapping", {{.kind = down, .ms = 50}}, over, unlisted},
          {"down_for_a_while", {{.kind = down, .ms = 700, .from = 3, .count = 1}}, again, 0},
          {"close_before", {{close_at}}, over},
          {"close_in_header", {{close_at, 5}}, over},
          {"close_in_payload", cuts(close_at, true), again, unlisted, 1.0, 16384},
          {"reset_in_header", cuts(reset_at, false), again, unlisted, 1.0, 4096},
          {"reset_in_payload", cuts(reset_at, true), again, unlisted, 1.0, 16384},
          {"mute", {{mute}}, over, unlisted, life_check},
          {"stall", {{stall_at, 10'000}}, over, unlisted, life_check},
          {"drip_header", {{.kind = drip, .value = 37, .ms = 1}}, kept, 0},
          {"drip_all", {{drip}}, kept, 0, 1.0, 4096},
          {"drip_for_ever", {{.kind = drip, .ms = 1000}}, kept, unlisted, life_check},
          {"twice", {{twice}}, again, 0},
          {"unsolicited", {{unsolicited}}, again, 0},
          {"wrong_command", {{wrong_command}}, over},
          {"wrong_sequence", {{wrong_sequence}}, over},
          {"wrong_version", {{wrong_version}}, kept, 0},
          {"length_1025", {{total_length, 1025}}, over},
          {"length_2_31", {{total_length, 1u << 31}}, over},
          {"length_2_32", {{total_length, UINT32_MAX}}, over},
          {"length_17", {{total_length, 17}}, over},
          {"length_0", {{total_length, 0}}, over},
          {"cut_to_17", {{short_pdu, 17}}, over},
          {"cut_to_36", {{short_pdu, 36}}, over, 0},
          {"payload_longer", {{payload_longer}}, over, unlisted},
          {"payload_longest", {{payload_longer, 0x7fff0000}}, over, unlisted},
          {"payload_shorter", {{payload_shorter, 1000}}, over, unlisted},
          {"payload_empty", {{payload_empty}}, over, unlisted},
          {"refusal", {{refusal, 10}}, gone, C2MS_MEDIA_NOT_EXIST},
          {"refusal_without_meaning", {{refusal, UINT32_MAX}}, gone, C2MS_OPEN_TIMEOUT}};
}

class OneOfFour : public Faults, public ::testing::WithParamInterface<row> {
 protected:
  // Slow enough that the bad server gets its share of requests.
  void start_four() {
    start_rated(120'000'001, {12e6, 12e6, 12e6, 12e6});  // more than the ring holds
    library->get()->conn_check_time = 1;
    library->get()->patience.stalled_us = 1'000'000;
  }
  void misbehave(int at, uint8_t on) {
    for (fault order : GetParam().orders) {
      order.on =
          order.kind == fault_kind::drop_accepted || order.kind == fault_kind::refuse ? 7 : on;
      server->add_fault(at, order);
    }
  }
  uint64_t injected(int at) const { return server->injected(at, GetParam().orders[0].kind); }
  // The brake: at once, then after 250 ms, doubling.
  void expect_attempts(int at) const {
    const double doublings = std::log2(1 + seconds_since(begun) / 0.25);
    EXPECT_LE(server->totals(at).accepted, 4 + doublings);
  }
  void expect_outcome() {
    const auto accepted = [&] { return server->totals(0).accepted; };
    const bool refused = GetParam().orders[0].kind == fault_kind::refuse;
    switch (GetParam().must) {
      case outcome::over:
        EXPECT_TRUE(refused || eventually([&] { return accepted() > 1; }, 20s)) << "not dropped";
        return expect_attempts(0);
      case outcome::again:
        EXPECT_TRUE(eventually([&] { return accepted() > 1; }, 10s)) << "not dropped";
        EXPECT_LE(accepted(), server->totals(0).media + 4);
        // Every place had its turn: the delay was taken back by each range that completed.
        EXPECT_GE(accepted(), GetParam().orders.size());
        return;
      case outcome::gone:
        EXPECT_EQ(accepted(), 1u);
        EXPECT_EQ(server->totals(0).media, 1u);
        return;
      case outcome::kept:
        // (An answer that nobody waits for any more may be given up, once a second at most.)
        EXPECT_LE(static_cast<double>(accepted()), 2 + seconds_since(begun));
    }
  }
};

TEST_P(OneOfFour, PlayingSeekingAndClosing) {
  start_four();
  misbehave(0, refserver::on_media);
  open(0, GetParam().pack);
  constexpr uint64_t step = 1'000'000;
  fetched = 6 * step;
  ASSERT_TRUE(play(0, 3 * step, Film::polling)) << "polling";
  ASSERT_TRUE(play(3 * step, fetched));
  // On a loaded machine the bad server, which connects again and again, has fewer turns meanwhile.
  for (; GetParam().must == outcome::again &&
         server->totals(0).accepted < GetParam().orders.size() && fetched + step < size;
       fetched += step)
    ASSERT_TRUE(play(fetched, fetched + step));
  EXPECT_LT(film->longest_wait, GetParam().longest_wait * slack());
  expect_outcome();
  // A second answer of two is not always needed to be seen.
  EXPECT_TRUE(injected(0) > 0 || server->totals(0).accepted > 1) << "not committed";
  seek_and_read(6);
  server->clear_faults(0);
  server->kill_node(2);
  server->kill_node(3);
  ASSERT_EQ(c2ms_sess_seek(film->get(), size - 1'000'000), 0);
  ASSERT_TRUE(play(size - 1'000'000, size)) << "healthy again";
  misbehave(0, refserver::on_media);
  close_after_a_seek();
}

class Description : public OneOfFour {};

TEST_P(Description, Describing) {
  start_four();
  misbehave(0, refserver::on_desc);
  if (GetParam().list_error == C2MS_MEDIA_NOT_EXIST) {  // the first answer counts
    for (int node = 1; node < 4; ++node) server->set_delay(node, 300);
    return open(C2MS_MEDIA_NOT_EXIST);
  }
  EXPECT_LT(took([&] { open(); }), 2.0 * slack());
  ASSERT_TRUE(play(0, 1'000'000));
  if (GetParam().must != outcome::over) return;
  expect_attempts(0);
  EXPECT_TRUE(injected(0) == 0 || server->totals(0).media == 0) << "it is believed";
}

class EntryServer : public OneOfFour {};

TEST_P(EntryServer, Listing) {
  start_four();
  misbehave(refserver::entry_server, refserver::on_srvlist);
  EXPECT_LT(took([&] { open(GetParam().list_error); }), 2.0 * slack());
  EXPECT_LE(server->totals(refserver::entry_server).accepted, 5u) << "the few attempts of an open";
}

// What a description alone may say. (Core.BodiesCutAtEveryByte has what is too short.)
std::vector<row> description_rows() {
  using enum fault_kind;
  std::vector<row> rows = all_rows();
  rows.push_back({"cipher_garbage", {{cipher_garbage}}, outcome::over});
  rows.push_back({"cipher_length", {{cipher_length}}, outcome::over});
  rows.push_back({"size_2_63", {{desc_size, uint64_t{1} << 63}}, outcome::over});
  return rows;
}

std::vector<row> listing_rows() {
  std::vector<row> rows = all_rows();
  std::erase_if(rows, [](const row &r) { return r.list_error == unlisted; });
  return rows;
}

std::string name_of(const ::testing::TestParamInfo<row> &test) {
  return test.param.name;
}

INSTANTIATE_TEST_SUITE_P(Kinds, OneOfFour, ::testing::ValuesIn(all_rows()), name_of);
INSTANTIATE_TEST_SUITE_P(Kinds, Description, ::testing::ValuesIn(description_rows()), name_of);
INSTANTIATE_TEST_SUITE_P(Kinds, EntryServer, ::testing::ValuesIn(listing_rows()), name_of);

TEST_F(Faults, ReadingGoesOnWhenServersReturn) {
  start(30'000'001, {.nodes = 4});
  open();
  ASSERT_TRUE(play(0, 1'000'000));
  server->kill_all(true);
  std::thread revival([&] {
    std::this_thread::sleep_for(1500ms);
    server->revive_all();
  });
  const auto accepted = server->totals().accepted;
  const double cost = processor_seconds();
  EXPECT_TRUE(play(1'000'000, 8'000'000));
  EXPECT_LT(processor_seconds() - cost, (0.02 * 1.5 + 0.3) * slack()) << "mostly waiting";
  EXPECT_TRUE(play(8'000'000, size));
  revival.join();
  EXPECT_LT(film->longest_wait, 1.5 + 1.5 + 0.5 * slack()) << "the brake doubles";
  EXPECT_LT(server->totals().accepted - accepted, 60u);
}

// All servers are silent for longer than one is waited for: a receive keeps its budget, a read goes
// on by itself.
TEST_F(Faults, AllStallAndGoOn) {
  start_rated(20'000'001, {16e6, 16e6});
  library->get()->conn_check_time = 1;
  library->get()->patience.stalled_us = 1'000'000;
  open();
  ASSERT_TRUE(play(0, 1'000'000));
  constexpr int silence_ms = 1'500;
  const fault stall{.kind = fault_kind::stall_at, .value = 5000, .ms = 12'000};
  on_all([&](int node) { server->set_fault(node, stall); });
  std::thread end([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(silence_ms));
    on_all([&](int node) { server->clear_faults(node); });
  });
  const auto budget = [](c2ms_sess *sess, void *buf, int32_t len) {
    const auto begin = clock::now();
    const int n = c2ms_sess_recv(sess, buf, len, 50);
    EXPECT_LT(seconds_since(begin), 0.5 * slack());
    return n;
  };
  EXPECT_TRUE(play(1'000'000, 12'000'000, budget));
  end.join();
  EXPECT_GT(film->longest_wait, 1.0) << "there was no silence";
  EXPECT_LT(film->longest_wait, 1.5 + 2.0 + 1.0 * slack());  // who is silent for 1 s is given up
  EXPECT_TRUE(play(12'000'000, size));
}

// The servers that play are gone for good; the entry server, asked again by itself, names others.
TEST_F(Faults, AnotherListReplacesDeadServers) {
  start_rated(30'000'001, {20e6, 20e6, 20e6});
  library->get()->sess_check_time = library->get()->patience.reporting_check_s = 1;
  library->get()->patience.reopen_after_us = 1'000'000;
  server->set_fault(refserver::entry_server, {.kind = fault_kind::list_duplicates});
  open();
  ASSERT_TRUE(play(0, 1'000'000));
  EXPECT_EQ(server->totals(1).media + server->totals(2).media, 0u);
  server->kill_node(0, true);
  server->clear_faults(refserver::entry_server);
  ASSERT_TRUE(play(1'000'000, size));
  EXPECT_GT(server->totals(1).media + server->totals(2).media, 0u);
  EXPECT_GT(film->longest_wait, 0.75);
  EXPECT_LT(film->longest_wait,
            1.0 + 1 + 1 + 1 * slack());  // lost for 1 s, seen at a check, listed
}

// One server is slow, one is stuck: the reader gets what the healthy ones can give.
TEST_F(Faults, OneSlowOneStuck) {
  start_rated(40'000'001, {8e6, 8e6, 1e5, 8e6});
  server->set_fault(3, {.kind = fault_kind::stall_at, .value = 20'000, .from = 3});
  open();
  ASSERT_TRUE(play(0, size));
  EXPECT_LT(film->longest_wait, 1.0 * slack());
  c2ms_stats figures{};
  ASSERT_EQ(c2ms_sess_stats(film->get(), &figures, sizeof figures), 0);
  EXPECT_GT(figures.redundant, 0u);
  EXPECT_LT(figures.bytes_discarded, size / 20);
}

// A server that was much faster than the others answers no more, though it lets itself be connected
// and asked: the others, which it has not driven out, help at once.
TEST_F(Faults, TheFastestFallsSilent) {
  start_rated(60'000'001, {100e6, 3e6, 3e6, 3e6});
  server->set_fault(0, {.kind = fault_kind::stall_at, .value = 20'000, .from = 400});
  open();
  ASSERT_TRUE(play(0, size));
  EXPECT_LT(film->longest_wait, 1.0 * slack());
}

// Answers of several packs end at a pack's border and in the middle of one: what came before is
// kept, and only the rest is asked for again.
TEST_F(Faults, RunsThatAreCutKeepWhatCame) {
  constexpr uint64_t pack = 16384, cut = 2 * pack;
  start(60'000'001, {.nodes = 1, .node = {{.rate_bytes_per_s = 20e6, .delay_ms = 5}}});
  for (uint32_t i = 0; i < 60; ++i)
    server->add_fault(0, {.kind = fault_kind::close_at,
                          .value = 37 + cut + i % 2 * pack / 2,
                          .from = 8 + 3 * i,
                          .count = 1,
                          .on = refserver::on_media});
  open(0, pack);
  const auto was_cut = [&](uint64_t after) {
    const auto log = server->log();
    return std::any_of(log.begin(), log.end(), [&](const auto &request) {
      return request.injected == fault_kind::close_at && request.length >= cut + pack &&
             request.payload_sent == after;
    });
  };
  const auto both = [&] { return was_cut(cut) && was_cut(cut + pack / 2); };
  uint64_t at = 0;
  for (; at < 50'000'000 && !both(); at += 1'000'000) ASSERT_TRUE(play(at, at + 1'000'000));
  EXPECT_TRUE(both()) << "no long answer was cut";
  ASSERT_TRUE(play(at, at + 5'000'000));
  EXPECT_EQ(stats_of(*film).bytes_discarded, 0u);
}

// A server throws away what it is asked while it answers: each connection finds that out once.
TEST_F(Faults, WhoTakesNothingAheadIsNotAskedAheadAgain) {
  start(100'000'001,
        {.nodes = 1, .node = {{.rate_bytes_per_s = 20e6, .delay_ms = 40, .one_at_a_time = true}}});
  open();
  const auto thrown_away = [&] { return server->totals().thrown_away; };
  uint64_t at = 0;  // on a loaded machine requests leave late
  for (; at < 80'000'000 && thrown_away() == 0; at += 500'000) ASSERT_TRUE(play(at, at + 500'000));
  ASSERT_TRUE(play(at, at + 15'000'000));
  EXPECT_LT(film->longest_wait, 1.0 * slack());
  EXPECT_GT(thrown_away(), 0u) << "nothing was asked ahead";
  EXPECT_LE(thrown_away(), stats_of(*film).nodes) << "of connections";
}

TEST_F(Faults, WhoWasSilentAndRecoversIsUsedAgain) {
  start_rated(30'000'001, {12e6, 12e6});
  library->get()->conn_check_time = 1;
  library->get()->patience.stalled_us = 500'000;
  open();
  ASSERT_TRUE(play(0, 1'000'000));
  server->set_fault(0, {.kind = fault_kind::mute, .on = refserver::on_media});
  const uint64_t sent = server->totals(0).payload_sent;
  ASSERT_TRUE(play(1'000'000, 14'000'000));
  EXPECT_LT(server->totals(0).payload_sent - sent, 1'000'000u) << "it was not silent";
  server->clear_faults(0);
  const auto delivers = [&] { return server->totals(0).payload_sent - sent > 3'000'000; };
  ASSERT_TRUE(play(14'000'000, size));
  // How soon depends on where in its brake the connection stands.
  for (int round = 0; round < 3 && !delivers(); ++round) {
    ASSERT_EQ(c2ms_sess_seek(film->get(), 0), 0);
    ASSERT_TRUE(play(0, size));
  }
  EXPECT_TRUE(delivers());
}

// The servers refuse while the film plays: buffered bytes are delivered, then the reader is told
// why.
TEST_F(Faults, RefusalsReachTheReader) {
  start(30'000'001, {.nodes = 2});
  open();
  ASSERT_TRUE(play(0, 65'536));
  for (int node : {refserver::entry_server, 0, 1})
    server->set_fault(node, {.kind = fault_kind::refusal, .value = 40});
  int result = 0;
  const auto read = [&](c2ms_sess *sess, void *buf, int32_t len) {
    return result = Film::blocking(sess, buf, len);
  };
  EXPECT_LT(took([&] { EXPECT_FALSE(play(65'536, size, read)); }), 3.0);
  EXPECT_EQ(result, C2MS_IN_DEBT);
}

}  // namespace
}  // namespace player
