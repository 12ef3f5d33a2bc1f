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
  EXPECT_EQ(choose_run(lanes, 2, ring, {}).first, 100)
      << "of two that are as quick neither leaves it to the other";
  EXPECT_GT(choose_run(lanes, 1, ring, {}).first, 150)
      << "0.7 s for a pack, the others bring 80 by then";
  EXPECT_EQ(choose_run(lanes, 0, ring, {}).count, 1) << "what a reader waits for is spread";

  // Nearly all is asked for: the slow one gets nothing that the others bring sooner, a probe gets
  // the farthest.
  const stretch rest[] = {{100, 4}, {300, 2}};
  const ring_view full{kib16, 448, rest, 0};
  EXPECT_EQ(choose_run(lanes, 1, full, {}).count, 0);
  const run probe = choose_run(lanes, 1, full, {}, true);
  EXPECT_TRUE(probe.first == 301 && probe.count == 1);

  // Together they would have brought a part of it each, and nobody all of it.
  const lane many[] = {slow(0), slow(1), slow(2), slow(3), slow(4), slow(5)};
  const stretch last[] = {{100, 1}};
  EXPECT_EQ(choose_run(many, 0, {kib16, 448, last, 0}, {}).count, 1);
}

TEST(Choice, RunsAreLongWithALeadAndShortAfterASeek) {
  const stretch whole[] = {{100, 400}};
  const ring_view ring{kib16, 448, whole, 0};
  lane far = quick(0);
  far.round_trip = 0.2;
  const lane alone[] = {far};
  const int32_t usual = choose_run(alone, 0, ring, {}).count;
  EXPECT_GE(usual * kib16, 0.2 * far.rate) << "it covers the next request's round trip";
  EXPECT_LT(choose_run(alone, 0, ring, {.pace = 5e5, .since_seek = 0.5}).count, usual);
  EXPECT_GT(choose_run(alone, 0, ring, {.pace = 5e5, .lead = 2e6}).count, usual);
  far.brought = 0;
  const lane young[] = {far};
  EXPECT_LE(choose_run(young, 0, ring, {}).count, 3);

  // A fragment does not keep a busy connection busy, yet it is not left when the reader will miss
  // it.
  const stretch parts[] = {{100, 1}, {110, 300}};
  lane busy = quick(0);
  busy.owed = 20e3;
  const lane one[] = {busy};
  EXPECT_EQ(choose_run(one, 0, {kib16, 448, parts, 0}, {.pace = 5e5, .lead = 5e5}).first, 110);
  EXPECT_EQ(choose_run(one, 0, {kib16, 448, parts, 0}, {.pace = 5e5, .lead = 1e4}).first, 100);
}

TEST(Choice, AsksAheadWhileTheAnswerLastsARoundTrip) {
  lane one = quick(0);
  for (const auto &[owed, ahead] : {std::pair{20e3, true}, {200e3, false}}) {
    one.owed = owed;
    EXPECT_EQ(asks_ahead({&one, 1}, 0, {}), ahead) << owed;
  }
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
  const std::vector<lane> eight(8, busy);
  EXPECT_EQ(wants_connection(eight), 8u);

  const lane dead[] = {silent(quick(0), 1)}, alive[] = {busy};
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
  EXPECT_EQ(one.silence(now + 550'000), 0);
  EXPECT_EQ(one.owed() + one.brought(), 0);
}

}  // namespace
}  // namespace c2ms
