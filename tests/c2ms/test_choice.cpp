// Which packs a connection asks for, who helps, what is given up: cases with a known answer. sim/
// tries the whole.
#include <gtest/gtest.h>

#include "c2ms/core/estimate.h"
#include "c2ms/fetch/choice.h"

namespace c2ms {
namespace {

constexpr int32_t kib16 = 16 * 1024;

lane quick(uint32_t server) {
  return {.rate = 1e6, .round_trip = 0.03, .brought = 1e7, .server = server, .usable = true};
}

lane slow(uint32_t server) {
  return {.rate = 25e3, .round_trip = 0.03, .brought = 1e6, .server = server, .usable = true};
}

lane silent(lane one, double seconds) {
  one.owed = 64e3;
  one.silence = seconds;
  return one;
}

TEST(Choice, FrontPackGoesToWhoBringsItFirst) {
  const stretch whole[] = {{100, 400}};
  const ring_view ring{kib16, 448, whole, 104};
  const lane lanes[] = {quick(0), slow(1), quick(2)};
  EXPECT_EQ(choose_run(lanes, 0, ring, {}).first, 100);
  EXPECT_EQ(choose_run(lanes, 2, ring, {}).first, 100) << "neither leaves it to its like";
  EXPECT_GT(choose_run(lanes, 1, ring, {}).first, 150) << "the others bring 80 in its 0.7 s";
  EXPECT_EQ(choose_run(lanes, 0, ring, {}).count, 1) << "what a reader waits for is spread";
  const lane beside[] = {quick(0), slow(1), {.server = 1, .usable = true}, quick(2)};
  EXPECT_GT(choose_run(beside, 2, ring, {}).first, 150) << "as its server's other one";

  // Nearly all is asked for: the slow one gets nothing but a probe.
  const stretch rest[] = {{100, 4}, {300, 2}};
  const ring_view full{kib16, 448, rest, 0};
  EXPECT_EQ(choose_run(lanes, 1, full, {}).count, 0);
  EXPECT_EQ(choose_run(lanes, 1, full, {}, true).first, 301) << "the farthest";

  // Together they would have brought a part of it each, and nobody all of it.
  const lane many[] = {slow(0), slow(1), slow(2), slow(3), slow(4), slow(5)};
  const stretch last[] = {{100, 1}};
  EXPECT_EQ(choose_run(many, 0, {kib16, 448, last, 0}, {}).count, 1);
}

TEST(Choice, RunsAreLongWithALeadAndShortAfterASeek) {
  const stretch whole[] = {{100, 400}};
  const ring_view ring{kib16, 448, whole, 0};
  lane far = quick(0);
  far.round_trip = 0.15;
  const lane alone[] = {far};
  const int32_t usual = choose_run(alone, 0, ring, {}).count;
  EXPECT_GE(usual * kib16, 0.15 * far.rate) << "it covers the next request's round trip";
  EXPECT_LT(choose_run(alone, 0, ring, {.pace = 5e5, .since_seek = 0.5}).count, usual);
  EXPECT_GT(choose_run(alone, 0, ring, {.pace = 5e5, .lead = 2e6}).count, usual);
  far.brought = 0;
  EXPECT_LE(choose_run({&far, 1}, 0, ring, {}).count, 3);

  // A fragment does not keep a connection busy, yet it is not left when the reader will miss it.
  const stretch parts[] = {{100, 1}, {110, 300}};
  lane busy = quick(0);
  busy.owed = 20e3;
  const ring_view holed{kib16, 448, parts, 0};
  EXPECT_EQ(choose_run({&busy, 1}, 0, holed, {.pace = 5e5, .lead = 5e5}).first, 110);
  EXPECT_EQ(choose_run({&busy, 1}, 0, holed, {.pace = 5e5, .lead = 1e4}).first, 100);
}

TEST(Choice, AsksAheadWhileTheAnswerLastsARoundTrip) {
  lane one = quick(0);
  for (const auto &[owed, growing, ahead] : {std::tuple{45e3, false, true},
                                             {75e3, false, false},
                                             {75e3, true, true},
                                             {2e5, true, false}}) {
    one.owed = owed;
    one.growing = growing;
    EXPECT_EQ(asks_ahead({&one, 1}, 0, {}), ahead) << owed << growing;
  }
  one.owed = 45e3;
  EXPECT_FALSE(asks_ahead({&one, 1}, 0, {.since_seek = 1}));
}

TEST(Choice, HelpComesFromWhoIsMuchSooner) {
  const struct {
    const char *what;
    lane second, third;
    double expected, needed;
    size_t who;
  } cases[] = {
      {"late, the other is quick", quick(1), slow(2), 2, 1, 1},
      {"in time", quick(1), slow(2), 2, 3, 3},
      {"no sooner", slow(1), slow(2), 0.8, 0, 3},
      {"on the same way", quick(0), slow(2), 2, 1, 2},
      {"silent too", silent(quick(1), 2), slow(2), 2, 1, 2},
      {"idle beside a silent one", quick(2), silent(quick(2), 2), 2, 1, 3},
      {"cannot be asked", {.rate = 1e6, .server = 1}, slow(2), 1, 0, 3},
  };
  for (const auto &one : cases) {
    const lane lanes[] = {silent(quick(0), 1), one.second, one.third};
    EXPECT_EQ(choose_helper(lanes, 0, kib16, one.expected, one.needed), one.who) << one.what;
  }
  EXPECT_TRUE(may_repeat(0, 0, false));
  EXPECT_FALSE(may_repeat(1e6, 10e6, false));
  EXPECT_TRUE(may_repeat(1e6, 10e6, true));
}

TEST(Choice, ConnectionsAreOpenedInTurnAndGivenUpWhenThatIsQuicker) {
  lane busy = quick(0), far = quick(1);
  busy.owed = far.owed = 50e3;
  far.round_trip = 0.3;
  const lane two[] = {busy, far}, three[] = {busy, far, far}, idle[] = {quick(0), quick(1)};
  EXPECT_EQ(wants_connection(two), 1u) << "the one whose window is larger";
  EXPECT_EQ(wants_connection(three), 0u);
  EXPECT_EQ(wants_connection(idle), 2u);
  lane opening = {.silence = 0.2, .server = 1};
  const lane waits[] = {busy, busy, opening};
  EXPECT_EQ(wants_connection(waits), 3u) << "a server that is being connected to is waited for";
  EXPECT_EQ(wants_connection(std::vector<lane>(8, busy)), 8u);

  const lane dead[] = {silent(quick(0), 1)}, alive[] = {busy};
  lane far_one = silent(slow(0), 0.2);
  far_one.round_trip = 0.5;
  EXPECT_TRUE(is_hopeless({&far_one, 1}, 0));
  far_one.growing = true;
  EXPECT_FALSE(is_hopeless({&far_one, 1}, 0)) << "0.2 s of 0.5 are how TCP's bunches come";
  EXPECT_TRUE(is_hopeless(dead, 0));
  EXPECT_FALSE(is_hopeless(alive, 0));
}

TEST(Estimate, LearnsRateAndRoundTripAndSilence) {
  Estimate one;
  int64_t now = 0;
  for (int answer = 0; answer < 20; ++answer) {
    one.asked(now, 100'000);
    now += 50'000;
    for (int i = 0; i < 10; ++i, now += 10'000) one.received(now, 10'000);
  }
  EXPECT_NEAR(one.rate(), 1e6, 0.15e6) << "pauses between the answers do not count";
  EXPECT_NEAR(one.round_trip(), 0.05, 0.005);
  EXPECT_FALSE(one.growing(now));
  one.asked(now, 100'000);
  EXPECT_NEAR(one.silence(now + 550'000), 0.5, 0.01);
  one.disconnected();
  EXPECT_EQ(one.owed() + one.brought(), 0);
}

}  // namespace
}  // namespace c2ms
