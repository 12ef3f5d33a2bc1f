// Reporting end to end: a player on the reference server, the reference agent and report server,
// with every way in which these can answer or not. They live on addresses of this process's own, so
// that other tests' players never meet them.
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "c2ms/core/records.h"
#include "c2ms/fetch/dispatch.h"
#include "c2ms/report/auth.h"
#include "c2ms/report/perf.h"
#include "c2ms/session/check.h"
#include "c2ms/session/object.h"
#include "player.h"
#include "testing/report_service.h"

namespace player {
namespace {

using refserver::report_channel;
using refserver::report_manners;

// 127.x.y.0 to 127.x.y.255 are this process's.
uint32_t own_address(uint8_t last) {
  const auto pid = static_cast<uint32_t>(getpid());
  return htonl(0x7f000000 | (0x40 + (pid >> 8 & 0x7f)) << 16 | (pid & 0xff) << 8 | last);
}

std::string dotted(uint32_t address) {
  return inet_ntoa(in_addr{address});
}

class Reporting : public Served {
 protected:
  const uint32_t agent_ip = own_address(1), report_ip = own_address(2);

  void SetUp() override {
    start(30'000'001, {.nodes = 2}, 0);
    ASSERT_TRUE(service.start()) << service.error();
    point(*library);
  }
  void point(const Library &at, c2ms::report_waits waits = {300, 600, 300, 300}) const {
    at.get()->agent_ip = agent_ip;
    at.get()->perf_server_ip = report_ip;
    at.get()->report_waits = waits;
  }
  void silence() {
    service.set_agent({.silent = true});
    service.set_report({.silent = true});
  }
  // One check, with all that it reports.
  static void check(c2ms_sess *sess) {
    begin_check(sess);
    const auto idle = [&](auto job) { return sess->*job == c2ms::report_job::none; };
    ASSERT_TRUE(
        eventually([&] { return idle(&c2ms_sess::perf_job) && idle(&c2ms_sess::auth_job); }, 60s));
  }
  static void begin_check(c2ms_sess *sess) {
    const c2ms::Turn strand(sess);
    StopTimer(sess->check_timer);
    ASSERT_EQ(c2ms_sess_check(sess), 0);
  }
  // What each of them is told, in order; datagrams and connections overtake each other.
  void expect_told(const std::string &agent, const std::string &report) const {
    const auto told = [&](report_channel channel) { return service.story(channel); };
    EXPECT_TRUE(eventually([&] { return told(report_channel::agent) == agent; }))
        << told(report_channel::agent);
    EXPECT_TRUE(eventually([&] { return told(report_channel::performance) == report; }))
        << told(report_channel::performance);
  }
  size_t count(report_channel channel, uint32_t type) const {
    const auto all = service.messages(channel);
    return static_cast<size_t>(
        std::count_if(all.begin(), all.end(), [&](const auto &m) { return m.type == type; }));
  }

  refserver::report_service service{{.agent = dotted(agent_ip), .report = dotted(report_ip)}};
};

TEST_F(Reporting, AgentsAnswersAndTheirResults) {
  const int wait_ms = static_cast<int>(100 * std::min(slack(), 3.0));
  point(*library, {wait_ms, 3 * wait_ms / 2, wait_ms, wait_ms});
  c2ms_sess *const sess = c2ms_sess_fetch(library->get());
  struct row {
    report_manners manners;
    int ping, begin, end;
  };
  const row rows[] = {
      {{}, 0, 0, 0},
      {{.ping_result = 1, .begin_result = 20, .end_result = 0x7fffffff}, 1, 20, 0x7fffffff},
      {{.noise = true}, 0, 0, 0},
      {{.silent = true}, -400, -400, -400},
      {{.delay_ms = 20 * wait_ms}, -400, -400, -400},
      {{.wrong_kind = true}, -100, -100, -100},
      {{.raw = refserver::bytes(3000, 0x80)}, -400, -400, -400},
      {{.raw = refserver::bytes()}, -400, -400, -400},
  };
  for (const row &r : rows) {
    service.set_agent(r.manners);
    EXPECT_EQ(c2ms_auth_ping(sess), r.ping);
    EXPECT_EQ(c2ms_auth_playbgn(sess), r.begin);
    EXPECT_EQ(c2ms_auth_playend(sess), r.end);
    EXPECT_EQ(c2ms_auth_playalive(sess), 0);
  }
  service.stop();
  EXPECT_EQ(c2ms_auth_ping(sess), -500);
  c2ms_sess_close(sess);
}

TEST_F(Reporting, ReportServersAnswersAndTheirResults) {
  c2ms_sess *const sess = c2ms_sess_fetch(library->get());
  const auto length = [](uint32_t total, size_t bytes) {
    refserver::bytes raw(std::max<size_t>(bytes, 4));
    refserver::put32(raw.data(), total);
    return report_manners{.raw = raw};
  };
  const std::pair<report_manners, int> rows[] = {
      {{}, 0},
      {{.begin_result = 7}, 7},
      {{.silent = true}, -500},
      {{.hang_up = true}, -500},
      {{.raw = refserver::bytes(3)}, -500},
      {{.wrong_kind = true}, -100},
      {length(4, 4), -501},
      {length(5, 5), -100},
      {length(22, 21), -600},
      {length(1025, 1025), -600},
  };
  for (const auto &[manners, result] : rows) {
    service.set_report(manners);
    EXPECT_EQ(c2ms_perf_playbgn(sess), result);
    // What expects no answer does not mind.
    EXPECT_EQ(c2ms_perf_playend_bgn(sess), 0);
    EXPECT_EQ(c2ms_perf_playend(sess), 0);
    EXPECT_EQ(c2ms_perf_playalive(sess), 0);
  }
  EXPECT_TRUE(eventually([&] { return service.messages().size() == 4 * std::size(rows); }));
  EXPECT_EQ(service.bad(), 0);
  service.stop();
  EXPECT_EQ(c2ms_perf_playbgn(sess), -400);
  library->get()->perf_server_ip = 0xffffffff;  // the server's name was not found
  EXPECT_EQ(c2ms_perf_playbgn(sess), -200);
  c2ms_sess_close(sess);
}

TEST_F(Reporting, AliveEveryFifteenthCheck) {
  library->get()->sess_check_time = 5;
  Film play(*library, *server, id, 65536);
  check(play.get());
  expect_told("ping, play_begin, play_alive", "play_begin, play_alive");
  EXPECT_EQ(library->get()->sess_check_time, 8);
  for (int i = 1; i <= 30; ++i) {
    check(play.get());
    const auto periods = static_cast<size_t>(i / 15 + 1);
    for (const auto channel : {report_channel::agent, report_channel::performance})
      ASSERT_TRUE(eventually([&] { return count(channel, 259) == periods; })) << i;
  }
  // What the messages tell of the session.
  uint8_t buf[1000];
  ASSERT_EQ(c2ms_sess_seek(play.get(), 12'345), 0);
  ASSERT_EQ(c2ms_sess_read(play.get(), buf, 1000, 0), 1000);
  service.clear();
  play.close();
  expect_told("play_end", "play_end");
  for (const auto &message : service.messages()) {
    EXPECT_EQ(message["read_pos"], "13345");
    EXPECT_EQ(message["seek_num"], "1");
    EXPECT_GE(std::stoull(message["close_time"]), std::stoull(message["open_time"]));
    EXPECT_GT(std::stoull(message["total_bytes"]), 1000u);
  }
}

TEST_F(Reporting, SilentOrAbsentAgentIsAskedOnce) {
  for (const bool absent : {false, true}) {
    service.set_agent({.silent = true});
    if (absent) library->get()->agent_ip = own_address(3);
    Film play(*library, *server, id);
    for (int i = 0; i < 3; ++i) check(play.get());
    EXPECT_EQ(play.get()->auth_state, 255);
    EXPECT_EQ(play.get()->perf_state, 1);
    play.close();
    expect_told(absent ? "" : "ping", "play_begin, play_alive, play_end");
    service.clear();
  }
}

TEST_F(Reporting, RefusedBeginsAreTriedAgain) {
  service.set_agent({.begin_result = 7});
  service.set_report({.begin_result = 7});
  Film play(*library, *server, id);
  for (int i = 0; i < 2; ++i) check(play.get());
  EXPECT_EQ(play.get()->auth_state + play.get()->perf_state, 0);
  service.set_agent({});
  service.set_report({});
  check(play.get());
  EXPECT_EQ(play.get()->auth_state + play.get()->perf_state, 2);
  // Nobody waits for an alive to be taken.
  expect_told("ping, play_begin, ping, play_begin, ping, play_begin, play_alive",
              "play_begin, play_begin, play_begin, play_alive");
}

// The agent's refusal reaches the reader who waits and every later one, whatever the media nodes
// answer.
TEST_F(Reporting, AgentsRefusalEndsReading) {
  const std::pair<uint32_t, int> codes[] = {
      {20, C2MS_UNAUTHORIZED}, {30, C2MS_AUTH_FAILED}, {40, C2MS_IN_DEBT}};
  for (const auto &[result, code] : codes) {
    for (int node = 0; node < 2; ++node) server->set_rate(node, 100'000);
    service.set_agent({.begin_result = result});
    Film play(*library, *server, id, 4096);
    std::atomic<int> waited{0};
    std::thread reader(
        [&] { waited = c2ms_sess_read(play.get(), nullptr, static_cast<int32_t>(size), 0); });
    EXPECT_TRUE(reader_waits(play));
    check(play.get());
    EXPECT_LT(took([&] { reader.join(); }), 1.0 * slack());
    EXPECT_EQ(waited, code);
    const auto before = server->totals().payload_sent;
    for (int node = 0; node < 2; ++node) server->set_rate(node, 0);
    ASSERT_TRUE(eventually([&] { return server->totals().payload_sent > before + 100'000; }));
    uint8_t byte;
    EXPECT_EQ(c2ms_sess_read(play.get(), &byte, 1, 0), code);
    EXPECT_EQ(c2ms_sess_read(play.get(), &byte, 1, 1), code);
    EXPECT_EQ(c2ms_sess_recv(play.get(), &byte, 1, 50), code);
    EXPECT_EQ(play.get()->auth_state, 0);
  }
}

TEST_F(Reporting, FailedOpensReportWithoutWaiting) {
  service.set_agent({.delay_ms = 200});
  int32_t error = 0;
  EXPECT_EQ(c2ms_sess_open(library->get(), "http://127.0.0.1/play", &error), nullptr);
  EXPECT_EQ(error, C2MS_UNSUPPORTED_SCHEME);
  server->kill_all();
  const auto begin = clock::now();
  EXPECT_EQ(c2ms_sess_open(library->get(), server->url(id).c_str(), &error), nullptr);
  EXPECT_EQ(error, C2MS_ENTRY_UNAVAILABLE);
  EXPECT_EQ(count(report_channel::agent, 258), 0u);  // a reply to that needs 600 ms
  EXPECT_LT(seconds_since(begin), 5.0);
  expect_told("ping, play_begin, play_end", "play_begin, play_end");
  for (const auto &message : service.messages(report_channel::agent))
    EXPECT_EQ(message["sess_id"], message.type == 1 ? "" : "2");
}

// The session is closed at any moment of an exchange under way: the exchange ends first, no
// accepted begin is told twice, and the close takes no longer than the waits of what it still has
// to say.
TEST_F(Reporting, ClosedDuringEachWait) {
  // Seconds that a close takes, so long after a check has begun.
  const auto closing = [&](int after_ms) {
    Film play(*library, *server, id);
    begin_check(play.get());
    begin_check(play.get());  // one is enough
    pause_ms(after_ms);
    return took([&] { play.close(); });
  };
  for (const int after_ms : {0, 30, 80, 130, 180, 230}) {
    service.clear();
    service.set_agent({.delay_ms = 50});
    service.set_report({.delay_ms = 50});
    EXPECT_LT(closing(after_ms), 1.0 * slack());
    for (const auto channel : {report_channel::agent, report_channel::performance}) {
      EXPECT_TRUE(eventually([&] { return count(channel, 258) == 1; }));
      EXPECT_EQ(count(channel, 257), 1u);
    }
  }
  point(*library, {100, 200, 100, 100});
  for (const int after_ms : {0, 30, 130, 230, 270, 330}) {  // connected, -500; ping; -400
    service.set_agent({.silent = after_ms > 200});
    service.set_report({.silent = true});
    EXPECT_LT(closing(after_ms), 0.2 + 0.1 + 0.2 + 0.2 + 0.5 * slack());
  }
}

// Who does not answer delays neither the other channel nor another session: one after another, the
// last of four would be told after three waits.
TEST_F(Reporting, SilenceDelaysNobodyElse) {
  const int wait_ms = static_cast<int>(500 * slack());
  point(*library, {wait_ms, wait_ms, wait_ms, wait_ms});
  const auto told = [&](report_channel channel, uint32_t type, size_t times) {
    return eventually([&] { return count(channel, type) >= times; }, 2ms * wait_ms);
  };
  constexpr uint32_t ping = 1, begin = 257, end = 258, alive = 259;
  for (const bool agent_silent : {true, false}) {
    service.clear();
    service.set_agent({.silent = agent_silent});
    service.set_report({.silent = !agent_silent});
    const auto silent = agent_silent ? report_channel::agent : report_channel::performance;
    const auto other = agent_silent ? report_channel::performance : report_channel::agent;
    std::vector<std::unique_ptr<Film>> films;
    for (int i = 0; i < 4; ++i) films.push_back(std::make_unique<Film>(*library, *server, id));
    for (const auto &play : films) begin_check(play->get());
    EXPECT_TRUE(told(other, alive, 4));
    EXPECT_TRUE(told(silent, agent_silent ? ping : begin, 4));
    // Checks count while the exchange with the silent one goes on.
    for (int i = 0; i < 15; ++i) begin_check(films[0]->get());
    EXPECT_TRUE(told(other, alive, 5));
    if (agent_silent) continue;
    // At its end the play tells the agent at once, the report server after the running exchange.
    check(films[1]->get());
    const size_t begins = count(silent, begin);
    begin_check(films[1]->get());
    EXPECT_TRUE(told(silent, begin, begins + 1));
    films[1]->close();
    EXPECT_TRUE(told(silent, end, 1));
    // (Waited for: what a play before this one had left to tell may be among what was told.)
    const auto in_order = [&] {
      return service.story().find("agent play_end, performance play_begin") != std::string::npos;
    };
    EXPECT_TRUE(eventually(in_order)) << service.story();
  }
}

// Cleaning up waits for the running wait alone, whatever else is queued.
TEST_F(Reporting, CleaningUpEndsWithTheRunningWait) {
  silence();
  for (const bool closing : {false, true}) {
    Library other;
    point(other, {600, 600, 600, 600});
    std::vector<std::unique_ptr<Film>> films;
    for (int i = 0; i < 4; ++i) films.push_back(std::make_unique<Film>(other, *server, id));
    for (const auto &play : films) begin_check(play->get());
    std::this_thread::sleep_for(100ms);
    std::thread closer([&] {
      if (closing) films[0]->close();
    });
    std::this_thread::sleep_for(100ms);
    const size_t before = service.messages().size();
    EXPECT_LT(took([&] { other.clean(); }), 1.2 * slack());
    closer.join();
    EXPECT_EQ(service.messages().size(), before);
    for (const auto &play : films) play->forget();
  }
}

// With agent and report server both silent for all of their time, the player notices nothing.
TEST_F(Reporting, SilenceDoesNotDisturbPlaying) {
  point(*library, {1000, 1500, 1000, 1000});
  library->get()->sess_check_time = 1;
  silence();
  Film play(*library, *server, id, 65536);
  std::vector<uint8_t> first(65536);
  ASSERT_EQ(c2ms_sess_read(play.get(), first.data(), 65536, 0), 65536);  // playing has begun
  const auto paced = [](c2ms_sess *sess, void *buf, int32_t len) {
    std::this_thread::sleep_for(25ms);
    return c2ms_sess_read(sess, buf, len, 0);
  };
  EXPECT_TRUE(play.play(65536, 100 * 65536, 65536, paced));
  EXPECT_LT(play.longest_wait, 0.5) << "the shortest wait for an answer is 1 s";
  EXPECT_EQ(service.story(report_channel::agent), "ping");
  EXPECT_EQ(service.story(report_channel::performance).substr(0, 10), "play_begin");
  EXPECT_EQ(play.get()->auth_state, 255);
}

// Where the agent is unless told otherwise.
TEST(ReportingDefaults, TheAgentIsOnThisMachine) {
  refserver::report_service service({.agent = "127.0.0.1"});
  ASSERT_TRUE(service.start()) << service.error();
  const Library library;
  EXPECT_EQ(library.get()->report_waits.ping_ms, 2000);
  c2ms_sess *const sess = c2ms_sess_fetch(library.get());
  EXPECT_EQ(c2ms_auth_ping(sess), 0);
}

}  // namespace
}  // namespace player
