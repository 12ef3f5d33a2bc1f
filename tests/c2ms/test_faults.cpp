// One of four servers misbehaves, in every way the reference server knows: the bytes stay exact, no
// read waits longer than promised, and nobody is stormed with requests or connections.
#include "player.h"

namespace player {
namespace {

using refserver::fault;
using refserver::fault_kind;

struct misbehaviour {
  const char *name;
  fault order;
  double longest_wait;  // seconds a read may take
};

class OneOfFour : public ::testing::TestWithParam<misbehaviour> {};

TEST_P(OneOfFour, LeavesTheBytesExact) {
  constexpr uint64_t size = 6'000'001;
  // Slow enough that the bad node gets its share of requests.
  const refserver::node_options slow{.rate_bytes_per_s = 3e6};
  refserver::media_server server({.nodes = 4, .node = {slow, slow, slow, slow}});
  const auto id = server.add_generated("film.mp4", size);
  ASSERT_TRUE(server.start()) << server.error();
  fault order = GetParam().order;
  if (order.on == 0) order.on = refserver::on_media;
  server.set_fault(0, order);
  const Library library;
  Film film(library, server, id);
  ASSERT_EQ(film.error(), 0);
  ASSERT_GE(film.prepare(65536), 65536);
  EXPECT_TRUE(film.play(0, size, 50'000, Film::blocking));
  EXPECT_LT(film.longest_wait, GetParam().longest_wait * (sanitized ? 3 : 1));
  // What the library cuts short by closing the connection was committed, too.
  EXPECT_TRUE(server.injected(0, order.kind) > 0 || server.totals(0).accepted > 1)
      << "not committed";
  // A brake holds: a few attempts in these few seconds, no storm.
  EXPECT_LT(server.totals(0).accepted, 60u);
  EXPECT_LT(server.totals(0).requests, 150u);
}

constexpr double at_once = 1.0, stall = 14.0;

const misbehaviour kinds[] = {
    {"refuse", {.kind = fault_kind::refuse, .on = 7}, at_once},
    {"close_before", {.kind = fault_kind::close_at}, at_once},
    {"close_in_header", {.kind = fault_kind::close_at, .value = 5}, at_once},
    {"close_in_body", {.kind = fault_kind::close_at, .value = 20}, at_once},
    {"close_in_payload", {.kind = fault_kind::close_at, .value = 30'000, .from = 2}, at_once},
    {"reset_in_payload", {.kind = fault_kind::reset_at, .value = 40'000, .from = 3}, at_once},
    {"reset_in_header", {.kind = fault_kind::reset_at, .value = 13}, at_once},
    {"drop_accepted", {.kind = fault_kind::drop_accepted, .on = 7}, at_once},
    {"mute", {.kind = fault_kind::mute}, stall},
    {"stall", {.kind = fault_kind::stall_at, .value = 10'000}, stall},
    {"drip_header", {.kind = fault_kind::drip, .value = 37, .ms = 1}, at_once},
    {"twice", {.kind = fault_kind::twice}, at_once},
    {"unsolicited", {.kind = fault_kind::unsolicited}, at_once},
    {"wrong_command", {.kind = fault_kind::wrong_command}, at_once},
    {"wrong_sequence", {.kind = fault_kind::wrong_sequence}, at_once},
    {"wrong_version", {.kind = fault_kind::wrong_version}, at_once},
    {"length_1025", {.kind = fault_kind::total_length, .value = 1025}, at_once},
    {"length_2_31", {.kind = fault_kind::total_length, .value = 1u << 31}, at_once},
    {"length_2_32", {.kind = fault_kind::total_length, .value = UINT32_MAX}, at_once},
    {"length_13", {.kind = fault_kind::total_length, .value = 13}, at_once},
    {"length_0", {.kind = fault_kind::total_length, .value = 0}, at_once},
    {"short_pdu", {.kind = fault_kind::short_pdu, .value = 30}, at_once},
    {"payload_longer", {.kind = fault_kind::payload_longer}, at_once},
    {"payload_shorter", {.kind = fault_kind::payload_shorter, .value = 1000}, at_once},
    {"payload_empty", {.kind = fault_kind::payload_empty}, at_once},
    {"refusal", {.kind = fault_kind::refusal, .value = 10}, at_once},
    {"down_for_a_while", {.kind = fault_kind::down, .ms = 700, .from = 3, .count = 1}, at_once}};

INSTANTIATE_TEST_SUITE_P(Kinds, OneOfFour, ::testing::ValuesIn(kinds),
                         [](const auto &test) { return std::string(test.param.name); });

// What a hostile description or list may do: nothing is served by such a server, nothing is
// believed.
TEST(Hostile, ControlAnswers) {
  const fault orders[] = {
      {.kind = fault_kind::cipher_garbage},
      {.kind = fault_kind::cipher_length},
      {.kind = fault_kind::desc_truncated},
      {.kind = fault_kind::desc_truncated, .value = 60},
      {.kind = fault_kind::desc_size, .value = 1ull << 63},
      {.kind = fault_kind::total_length, .value = 17},
      {.kind = fault_kind::short_pdu, .value = 14},
  };
  for (const fault &wanted : orders) {
    fault order = wanted;
    order.on = refserver::on_desc;
    refserver::media_server server({.nodes = 2});
    const auto id = server.add_generated("film.mp4", 500'000);
    ASSERT_TRUE(server.start());
    server.set_fault(0, order);
    const Library library;
    Film film(library, server, id);
    ASSERT_EQ(film.error(), 0) << refserver::fault_describe(order.kind).name;
    ASSERT_EQ(film.size(), 500'000u) << refserver::fault_describe(order.kind).name;
    ASSERT_GE(film.prepare(8192), 8192);
    EXPECT_TRUE(film.play(0, 500'000, 10'000, Film::blocking));
    EXPECT_LT(server.totals(0).accepted, 20u);
  }
}

TEST(Outage, ReadingGoesOnWhenServersReturn) {
  refserver::media_server server({.nodes = 4});
  constexpr uint64_t size = 30'000'001;
  const auto id = server.add_generated("film.mp4", size);
  ASSERT_TRUE(server.start());
  const Library library;
  Film film(library, server, id);
  ASSERT_GE(film.prepare(65536), 65536);
  ASSERT_TRUE(film.play(0, 1'000'000, 65536, Film::blocking));
  server.kill_all(true);
  std::thread revival([&] {
    std::this_thread::sleep_for(5s);
    server.revive_all();
  });
  const auto before = server.totals().accepted;
  EXPECT_TRUE(film.play(1'000'000, size, 100'000, Film::blocking));
  revival.join();
  EXPECT_LT(film.longest_wait, 5.0 + 5.0);
  EXPECT_LT(server.totals().accepted - before, 60u);
}

// The servers refuse while the film plays: buffered bytes are delivered, then the reader is told
// why.
TEST(Outage, RefusalsReachTheReader) {
  refserver::media_server server({.nodes = 2});
  constexpr uint64_t size = 30'000'001;
  const auto id = server.add_generated("film.mp4", size);
  ASSERT_TRUE(server.start());
  const Library library;
  Film film(library, server, id);
  ASSERT_GE(film.prepare(65536), 65536);
  ASSERT_TRUE(film.play(0, 65'536, 65'536, Film::blocking));
  for (int node : {refserver::entry_server, 0, 1})
    server.set_fault(node, {.kind = fault_kind::refusal, .value = 40});
  std::vector<uint8_t> buf(65536);
  int result = 0;
  uint64_t pos = 65'536;
  const auto begin = clock::now();
  while ((result = c2ms_sess_read(film.get(), buf.data(), 65536, 0)) > 0) {
    ASSERT_TRUE(film.right(pos, buf.data(), result));
    pos += static_cast<uint64_t>(result);
  }
  EXPECT_EQ(result, C2MS_IN_DEBT);
  EXPECT_LT(seconds_since(begin), 3.0);
}

}  // namespace
}  // namespace player
