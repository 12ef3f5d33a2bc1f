// Every fault of the media server does what its name says, to exactly the requests that it was
// ordered for, and is counted when it was committed.
#include <algorithm>
#include <set>

#include "raw_client.h"

using namespace refserver;
using namespace rawtest;

namespace {

constexpr uint32_t list = 1, description = 2, media = 3;
constexpr uint64_t offset = 1000;
constexpr uint32_t length = 500;

using steady = std::chrono::steady_clock;

/// One entry and two nodes that serve a film.
struct fixture {
  media_server server{
      {.nodes = 2, .node = {{.load = 1}, {.load = 2}}, .entry = {.load = 3}, .check_auth = false}};
  file_id film = server.add_generated("film.mp4", 100'000);

  fixture() { EXPECT_TRUE(server.start()) << server.error(); }

  bytes request(uint32_t command) const { return make_request(command, 77, film, offset, length); }
  bytes ask(uint32_t command, raw_client &client) const {
    client.send(request(command));
    return client.receive_response();
  }
  int connect_result(int node) const { return raw_client(server, node).connect_errno(); }
};

/// Bytes cut out of a response and, in hex, what comes in their place.
struct change {
  size_t at, cut;
  std::string put;
};
constexpr size_t all = 1 << 30, end = all;  // what lies behind the end counts as the end

struct content_case {
  fault order;
  uint32_t command;
  std::vector<change> changes;  ///< to the response that a good request gets
  const char *ending = "open";
};

std::vector<content_case> content_cases(const fixture &f) {
  using enum fault_kind;
  raw_client client(f.server, entry_server);
  const std::string plain_list = hex(f.ask(list, client)), plain_media = hex(f.ask(media, client));
  const std::string a = plain_list.substr(40, 20), b = plain_list.substr(60, 20);
  uint8_t port[2], more[3];
  put16(port, f.server.port(entry_server));
  content_fill(f.film, offset + length, more, 3);
  const std::string nobodys = "00000025800000030000004e0000" + std::string(46, '0');
  std::string many;
  for (int i = 0; i < 32767; ++i) many += a + b;
  return {
      {{mute}, description, {{0, all, ""}}},
      {{close_at, 0}, list, {{0, all, ""}}, "closed"},
      {{close_at, 137}, media, {{137, all, ""}}, "closed"},
      {{close_at, 537}, media, {}, "closed"},
      {{reset_at, 0}, description, {{0, all, ""}}, "reset"},
      {{reset_at, 300}, media, {{300, all, ""}}, "reset"},
      {{stall_at, 100}, media, {{100, all, ""}}},
      {{drip}, description, {}},
      {{twice}, media, {{end, 0, plain_media}}},
      {{unsolicited}, media, {{end, 0, nobodys}}},
      {{wrong_command}, list, {{7, 1, "11"}}},
      {{wrong_sequence}, media, {{8, 4, "0000004e"}}},
      {{wrong_version}, description, {{12, 2, "fdfc"}}},
      {{total_length, 0xfffffffe}, description, {{0, 4, "fffffffe"}}},
      {{total_length, 20}, media, {{0, 4, "00000014"}}},
      {{short_pdu, 17}, media, {{0, 4, "00000011"}, {17, 20, ""}}},
      {{short_pdu, 14}, list, {{0, 4, "0000000e"}, {14, all, ""}}},
      {{refusal}, media, {{14, 4, "0000000a"}, {32, 4, "00000000"}, {37, all, ""}}},
      {{refusal, 2}, list, {{0, 4, "00000012"}, {14, all, "00000002"}}},
      {{payload_longer, 3}, media, {{32, 4, "000001f7"}, {end, 0, hex(more)}}},
      {{payload_shorter}, media, {{32, 4, "000001f3"}, {536, all, ""}}},
      {{payload_shorter, 499}, media, {{32, 4, "00000001"}, {38, all, ""}}},
      {{payload_empty}, media, {{32, 4, "00000000"}, {37, all, ""}}},
      {{list_size, 0}, list, {{0, 4, "00000014"}, {18, all, "0000"}}},
      {{list_size, 65535}, list, {{0, 4, "000a000a"}, {18, all, "ffff" + many + a}}},
      {{list_count, 65535}, list, {{18, 2, "ffff"}}},
      {{list_zero}, list, {{20, 6, std::string(12, '0')}, {30, 6, std::string(12, '0')}}},
      {{list_zero, 1}, list, {{20, 4, "00000000"}, {30, 4, "00000000"}}},
      {{list_duplicates}, list, {{30, 10, a}}},
      {{list_self}, list, {{0, 4, "0000001e"}, {18, all, "00017f000001" + hex(port) + "02000300"}}},
      {{desc_size, uint64_t{1} << 63}, description, {{54, 8, "8000000000000000"}}},
      {{desc_type, 99}, description, {{62, 1, "63"}}},
      {{desc_truncated, 10}, description, {{0, 4, "0000001c"}, {28, all, ""}}},
  };
}

// The second of three equal requests suffers, the others do not.
TEST(Faults, ChangeTheOrderedResponseOnly) {
  fixture f;
  std::set<fault_kind> seen;
  for (const content_case &row : content_cases(f)) {
    fault order = row.order;
    SCOPED_TRACE(std::string(fault_describe(order.kind).name) + " " + std::to_string(order.value));
    seen.insert(order.kind);
    order.from = 2;
    order.count = 1;
    const uint64_t before = f.server.injected(entry_server, order.kind);
    f.server.set_fault(entry_server, order);
    raw_client first(f.server, entry_server), second(f.server, entry_server),
        third(f.server, entry_server);
    const bytes plain = f.ask(row.command, first);
    EXPECT_EQ(f.server.injected(entry_server, order.kind), before);
    std::string expected = hex(plain);
    for (auto change = row.changes.rbegin(); change != row.changes.rend(); ++change)
      expected.replace(std::min(2 * change->at, expected.size()), 2 * change->cut, change->put);
    second.send(f.request(row.command));
    EXPECT_EQ(hex(second.receive(expected.size() / 2)), expected);
    EXPECT_EQ(second.ending(row.ending), row.ending);
    EXPECT_EQ(f.ask(row.command, third), plain);
    EXPECT_EQ(f.server.injected(entry_server, order.kind), before + 1);
  }
  // The rest is a matter of connections (below), or of ciphers, which the library is played on.
  seen.insert({fault_kind::refuse, fault_kind::drop_accepted, fault_kind::down,
               fault_kind::cipher_garbage, fault_kind::cipher_length});
  for (const fault_info &info : fault_table())
    EXPECT_TRUE(seen.contains(info.kind)) << info.name << " is not tested";
}

TEST(Faults, TimesAreNeverShort) {
  fixture f;
  const struct {
    fault order;
    int delay_ms;
    size_t first_part;  ///< comes first, and soon enough to measure the rest
    long least_ms;      ///< from the request to the whole response
  } timed[] = {
      {{}, 120, 0, 120},
      {{.kind = fault_kind::stall_at, .value = 100, .ms = 150}, 0, 100, 150},
      {{.kind = fault_kind::drip, .value = 20, .ms = 5}, 0, 20, 100},
      {{.kind = fault_kind::unsolicited, .ms = 100}, 0, 537, 100},
  };
  for (const auto &row : timed) {
    SCOPED_TRACE(fault_describe(row.order.kind).name);
    f.server.set_fault(1, row.order);
    f.server.set_delay(1, row.delay_ms);
    raw_client client(f.server, 1);
    const auto start = steady::now();
    client.send(f.request(media));
    EXPECT_EQ(client.receive(row.first_part).size(), row.first_part);
    const size_t rest = 537 - row.first_part + (row.first_part == 537 ? 37 : 0);
    EXPECT_EQ(client.receive(rest).size(), rest);
    EXPECT_GE(ms_since(start), row.least_ms);
  }
}

TEST(Ports, RefuseDropAndGoDown) {
  fixture f;
  const auto comes_back = [&f] { return eventually([&] { return f.connect_result(0) == 0; }); };
  raw_client old(f.server, 0);
  EXPECT_EQ(f.ask(list, old).size(), 40U);
  f.server.set_fault(0, {.kind = fault_kind::refuse});
  EXPECT_EQ(f.connect_result(0), ECONNREFUSED);
  EXPECT_EQ(f.ask(list, old).size(), 40U) << "old connections live on";
  f.server.clear_faults(0);
  EXPECT_EQ(f.connect_result(0), 0);

  auto start = steady::now();
  f.server.set_fault(0, {.kind = fault_kind::refuse, .ms = 100});
  EXPECT_TRUE(comes_back());
  EXPECT_GE(ms_since(start), 100);
  EXPECT_EQ(f.server.injected(0, fault_kind::refuse), 2U);

  f.server.set_fault(0, {.kind = fault_kind::drop_accepted, .from = 2, .count = 1});
  for (const char *expected : {"open", "reset", "open"})
    EXPECT_EQ(raw_client(f.server, 0).ending(expected), expected);
  EXPECT_EQ(f.server.injected(0, fault_kind::drop_accepted), 1U);

  f.server.set_fault(0, {.kind = fault_kind::down, .ms = 150, .count = 1, .on = on_media});
  EXPECT_EQ(f.ask(list, old).size(), 40U);
  start = steady::now();
  EXPECT_TRUE(f.ask(media, old).empty());
  EXPECT_TRUE(comes_back());
  EXPECT_GE(ms_since(start), 150);
  raw_client client(f.server, 0);
  EXPECT_EQ(f.ask(media, client).size(), 537U);

  // Who is killed for good while down does not come back by the clock.
  f.server.set_fault(0, {.kind = fault_kind::down, .ms = 50});
  EXPECT_TRUE(f.ask(list, client).empty());
  f.server.kill_node(0);
  pause_ms(100);
  EXPECT_EQ(f.connect_result(0), ECONNREFUSED);
}

TEST(Faults, AreReadFromText) {
  int node = 0;
  std::string error;
  const auto order =
      fault_parse("close_at:3,value=0x20,ms=5,from=2,on=media,on=desc,node=1", &node, &error);
  ASSERT_TRUE(order) << error;
  EXPECT_EQ(order->kind, fault_kind::close_at);
  EXPECT_TRUE(order->count == 3 && order->value == 32 && order->ms == 5 && order->from == 2);
  EXPECT_EQ(order->on, on_media | on_desc);
  EXPECT_EQ(node, 1);
  EXPECT_TRUE(fault_parse("mute", &node, &error) && node == every_node);
  EXPECT_TRUE(fault_parse("mute,node=entry", &node, &error) && node == entry_server);
  for (const char *wrong :
       {"", "none", "mut", "mute:", "mute:x", "mute:-1", "mute,ms", "mute,ms=-1", "mute,from=0",
        "mute,on=all", "mute,value=1 ", "mute,", "mute,a=1", "mute:99999999999"}) {
    error.clear();
    EXPECT_FALSE(fault_parse(wrong, &node, &error)) << wrong;
    EXPECT_NE(error, "") << wrong;
  }
}

}  // namespace
