// The media server as a whole: rates and how connections share them, many clients and callers at
// once, spread addresses.
#include "raw_client.h"

using namespace refserver;
using namespace rawtest;

namespace {

// Four connections of one limited server ask for as much: together they never get more than the
// rate allows, and they end together, as each gets its share all the time.
TEST(Rate, IsSharedEvenlyAndNeverExceeded) {
  constexpr double rate = 400'000, burst = 0.02 * rate;
  constexpr uint32_t each = 50'000;
  media_server server({.nodes = 1, .node = {{.rate_bytes_per_s = 0.01}}, .check_auth = false});
  const file_id film = server.add_generated("film.mp4", 1'000'000);
  ASSERT_TRUE(server.start()) << server.error();
  {
    raw_client clients[4] = {{server, 0}, {server, 0}, {server, 0}, {server, 0}};
    for (raw_client &client : clients) client.send(make_request(3, 1, film, 0, each));
    ASSERT_TRUE(eventually([&] { return server.totals(0).requests == 4; }));
    server.set_rate(0, rate);  // now they start as one
    for (raw_client &client : clients) EXPECT_EQ(client.receive_response().size(), 37U + each);
  }
  double first_done = 1e9, last_done = 0, start = 0;
  for (const request_record &entry : server.log(0)) {
    start = std::max(start, entry.time_s);
    first_done = std::min(first_done, entry.done_s);
    last_done = std::max(last_done, entry.done_s);
  }
  EXPECT_GE(last_done - start, (4.0 * each - burst) / rate);
  EXPECT_GE(first_done - start, 0.7 * (last_done - start));
}

TEST(Service, SpreadAddressesShareOnePort) {
  media_server server({.nodes = 3, .spread_addresses = true, .check_auth = false});
  const file_id film = server.add_generated("film.mp4", 100);
  ASSERT_TRUE(server.start()) << server.error();
  EXPECT_EQ(server.address(entry_server), "127.0.0.1");
  EXPECT_EQ(server.address(2), "127.0.0.4");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(server.port(i), server.port(entry_server));
    raw_client client(server, i);
    client.send(make_request(3, 1, film, 0, 100));
    EXPECT_EQ(client.receive_response().size(), 137U);
    EXPECT_EQ(server.totals(i).media, 1U);
  }
  media_server second({.nodes = 0, .port = server.port(entry_server)});
  EXPECT_FALSE(second.start());
  EXPECT_NE(second.error().find(std::to_string(server.port(0))), std::string::npos);
}

}  // namespace
