// Every fault of the media server does what its name says, to exactly the requests that it was
// ordered for, and is counted when it was committed.
#include <gtest/gtest.h>

#include "raw_client.h"

using namespace refserver;
using namespace rawtest;

namespace {

using clock_type = std::chrono::steady_clock;

double ms_since(clock_type::time_point start) {
  return std::chrono::duration<double, std::milli>(clock_type::now() - start).count();
}

constexpr uint64_t film_size = 100'000;
constexpr uint32_t list = 1, description = 2, media = 3;
constexpr uint64_t offset = 1000;
constexpr uint32_t length = 500;

/// One entry and two nodes that serve a film; `plain` is what a good request of each command gets.
struct fixture {
  media_server server{
      {.nodes = 2, .node = {{.load = 1}, {.load = 2}}, .entry = {.load = 3}, .check_auth = false}};
  file_id film = server.add_generated("film.mp4", film_size);

  fixture() { EXPECT_TRUE(server.start()) << server.error(); }

  bytes ask(uint32_t command, raw_client &client) {
    client.send(make_request(command, 77, film, offset, length));
    return client.receive_response();
  }
};

// --- changes to the plain response that a fault is to make ---

using change = bytes (*)(fixture &, bytes plain, const fault &);

bytes same(fixture &, bytes plain, const fault &) {
  return plain;
}

bytes first_bytes(fixture &, bytes plain, const fault &f) {
  plain.resize(f.value);
  return plain;
}

template <size_t at>
bytes word_at(fixture &, bytes plain, const fault &f) {
  put32(&plain[at], static_cast<uint32_t>(f.value));
  return plain;
}

// Cuts a control PDU to `keep` bytes and corrects its length.
bytes shorter_pdu(bytes plain, size_t keep) {
  plain.resize(keep);
  put32(plain.data(), static_cast<uint32_t>(keep));
  return plain;
}

bytes list_of(const bytes &plain, const std::vector<bytes> &entries) {
  bytes out = shorter_pdu(plain, 20);
  put16(&out[18], static_cast<uint16_t>(entries.size()));
  for (const bytes &entry : entries) out.insert(out.end(), entry.begin(), entry.end());
  put32(out.data(), static_cast<uint32_t>(out.size()));
  return out;
}

bytes entry_of(const bytes &plain, size_t i) {
  return bytes(plain.begin() + 20 + 10 * i, plain.begin() + 30 + 10 * i);
}

bytes cycled_list(fixture &, bytes plain, const fault &f) {
  std::vector<bytes> entries;
  for (size_t i = 0; i < f.value; ++i) entries.push_back(entry_of(plain, i % 2));
  return list_of(plain, entries);
}

bytes doubled_list(fixture &, bytes plain, const fault &) {
  return list_of(plain, {entry_of(plain, 0), entry_of(plain, 0)});
}

bytes own_list(fixture &f, bytes plain, const fault &) {
  bytes entry = entry_of(plain, 0);
  put16(&entry[4], f.server.port(entry_server));
  put16(&entry[7], 3);
  return list_of(plain, {entry});
}

bytes zeroed_list(fixture &, bytes plain, const fault &f) {
  for (const size_t at : {20, 30}) {
    put32(&plain[at], 0);
    if (f.value == 0) put16(&plain[at + 4], 0);
  }
  return plain;
}

bytes counted_list(fixture &, bytes plain, const fault &f) {
  put16(&plain[18], static_cast<uint16_t>(f.value));
  return plain;
}

bytes refused(fixture &f, bytes plain, const fault &order) {
  const bool is_media = get32(&plain[4]) == 0x80000003;
  plain = is_media ? word_at<32>(f, shorter_pdu(plain, 37), {}) : shorter_pdu(plain, 18);
  put32(&plain[14], static_cast<uint32_t>(order.value == 0 ? 10 : order.value));
  return plain;
}

bytes short_pdu(fixture &, bytes plain, const fault &f) {
  bytes out = shorter_pdu(plain, f.value);
  if (get32(&plain[4]) == 0x80000003) out.insert(out.end(), plain.begin() + 37, plain.end());
  return out;
}

bytes payload_of(fixture &f, bytes plain, int64_t size) {
  put32(&plain[32], static_cast<uint32_t>(size));
  plain.resize(37 + size);
  content_fill(f.film, offset, plain.data() + 37, size);
  return plain;
}

bytes longer(fixture &f, bytes plain, const fault &order) {
  return payload_of(f, plain, length + static_cast<int64_t>(std::max<uint64_t>(order.value, 1)));
}

bytes fewer(fixture &f, bytes plain, const fault &order) {
  return payload_of(f, plain, length - static_cast<int64_t>(std::max<uint64_t>(order.value, 1)));
}

bytes no_payload(fixture &f, bytes plain, const fault &) {
  return payload_of(f, plain, 0);
}

bytes doubled(fixture &, bytes plain, const fault &) {
  const bytes once = plain;
  plain.insert(plain.end(), once.begin(), once.end());
  return plain;
}

bytes followed(fixture &, bytes plain, const fault &f) {
  bytes extra = from_hex("00000025800000030000004e0000" + std::string(46, '0'));
  if (f.value != 0) extra.resize(f.value);
  plain.insert(plain.end(), extra.begin(), extra.end());
  return plain;
}

bytes described_size(fixture &, bytes plain, const fault &f) {
  put32(&plain[54], static_cast<uint32_t>(f.value >> 32));
  put32(&plain[58], static_cast<uint32_t>(f.value));
  return plain;
}

template <size_t at, uint8_t mask>
bytes flipped(fixture &, bytes plain, const fault &) {
  plain[at] ^= mask;
  return plain;
}

bytes typed(fixture &, bytes plain, const fault &f) {
  plain[62] = static_cast<uint8_t>(f.value);
  return plain;
}

bytes truncated(fixture &, bytes plain, const fault &f) {
  return shorter_pdu(plain, 18 + f.value);
}

bytes other_version(fixture &, bytes plain, const fault &) {
  put16(&plain[12], 0x0203 ^ 0xffff);
  return plain;
}

bytes next_sequence(fixture &, bytes plain, const fault &) {
  put32(&plain[8], 78);
  return plain;
}

struct content_case {
  fault order;
  uint32_t command;
  change expected;
  const char *ending;
};

const content_case content_cases[] = {
    {{fault_kind::mute}, description, first_bytes, "open"},
    {{fault_kind::close_at, 0}, list, first_bytes, "closed"},
    {{fault_kind::close_at, 20}, media, first_bytes, "closed"},
    {{fault_kind::close_at, 137}, media, first_bytes, "closed"},
    {{fault_kind::close_at, 537}, media, first_bytes, "closed"},
    {{fault_kind::reset_at, 0}, description, first_bytes, "reset"},
    {{fault_kind::reset_at, 13}, list, first_bytes, "reset"},
    {{fault_kind::reset_at, 300}, media, first_bytes, "reset"},
    {{fault_kind::stall_at, 100}, media, first_bytes, "open"},
    {{fault_kind::drip}, description, same, "open"},
    {{fault_kind::twice}, list, doubled, "open"},
    {{fault_kind::twice}, media, doubled, "open"},
    {{fault_kind::unsolicited}, media, followed, "open"},
    {{fault_kind::unsolicited, 5}, description, followed, "open"},
    {{fault_kind::wrong_command}, list, flipped<7, 0x10>, "open"},
    {{fault_kind::wrong_sequence}, media, next_sequence, "open"},
    {{fault_kind::wrong_version}, description, other_version, "open"},
    {{fault_kind::total_length, 1025}, media, word_at<0>, "open"},
    {{fault_kind::total_length, 0x80000000}, list, word_at<0>, "open"},
    {{fault_kind::total_length, 0xffffffff}, description, word_at<0>, "open"},
    {{fault_kind::total_length, 13}, list, word_at<0>, "open"},
    {{fault_kind::total_length, 20}, media, word_at<0>, "open"},
    {{fault_kind::short_pdu, 17}, media, short_pdu, "open"},
    {{fault_kind::short_pdu, 14}, list, short_pdu, "open"},
    {{fault_kind::refusal}, media, refused, "open"},
    {{fault_kind::refusal, 2}, list, refused, "open"},
    {{fault_kind::refusal, 40}, media, refused, "open"},
    {{fault_kind::refusal, 0xffffffff}, description, refused, "open"},
    {{fault_kind::payload_longer, 3}, media, longer, "open"},
    {{fault_kind::payload_shorter}, media, fewer, "open"},
    {{fault_kind::payload_shorter, 499}, media, fewer, "open"},
    {{fault_kind::payload_empty}, media, no_payload, "open"},
    {{fault_kind::list_size, 0}, list, cycled_list, "open"},
    {{fault_kind::list_size, 6}, list, cycled_list, "open"},
    {{fault_kind::list_size, 65535}, list, cycled_list, "open"},
    {{fault_kind::list_count, 65535}, list, counted_list, "open"},
    {{fault_kind::list_zero}, list, zeroed_list, "open"},
    {{fault_kind::list_zero, 1}, list, zeroed_list, "open"},
    {{fault_kind::list_duplicates}, list, doubled_list, "open"},
    {{fault_kind::list_self}, list, own_list, "open"},
    {{fault_kind::desc_size, 0}, description, described_size, "open"},
    {{fault_kind::desc_size, uint64_t{1} << 63}, description, described_size, "open"},
    {{fault_kind::desc_type, 99}, description, typed, "open"},
    {{fault_kind::desc_truncated, 10}, description, truncated, "open"},
};

// The second of three equal requests suffers, the others do not.
TEST(Faults, ChangeTheOrderedResponseOnly) {
  fixture f;
  bool seen[fault_kinds] = {};
  for (const content_case &row : content_cases) {
    fault order = row.order;
    SCOPED_TRACE(std::string(fault_describe(order.kind).name) + " " + std::to_string(order.value));
    seen[static_cast<size_t>(order.kind)] = true;
    order.from = 2;
    order.count = 1;
    const uint64_t before = f.server.injected(entry_server, order.kind);
    f.server.set_fault(entry_server, order);
    raw_client first(f.server, entry_server), second(f.server, entry_server),
        third(f.server, entry_server);
    const bytes plain = f.ask(row.command, first);
    EXPECT_EQ(f.server.injected(entry_server, order.kind), before);
    second.send(make_request(row.command, 77, f.film, offset, length));
    const bytes expected = row.expected(f, plain, order);
    EXPECT_EQ(hex(second.receive(expected.size())), hex(expected));
    const bool stays = std::string(row.ending) == "open";
    EXPECT_EQ(second.ending(stays ? 20 : 20'000), row.ending);
    EXPECT_EQ(f.ask(row.command, third), plain);
    EXPECT_EQ(f.server.injected(entry_server, order.kind), before + 1);
  }
  // The rest is a matter of connections, of time or of ciphers and has tests below.
  for (const fault_kind elsewhere :
       {fault_kind::refuse, fault_kind::drop_accepted, fault_kind::down, fault_kind::cipher_garbage,
        fault_kind::cipher_length})
    seen[static_cast<size_t>(elsewhere)] = true;
  for (const fault_info &info : fault_table())
    EXPECT_TRUE(seen[static_cast<size_t>(info.kind)]) << info.name << " is not tested";
}

TEST(Faults, OfCiphersSpoilPlainServersToo) {
  fixture f;
  raw_client client(f.server, 0);
  const bytes plain = f.ask(description, client);
  const bytes key = {77 + 106,
                     10,
                     200,
                     static_cast<uint8_t>(0x40 + f.film[0]),
                     static_cast<uint8_t>(0x41 + f.film[1]),
                     0x88,
                     f.film[7],
                     f.film[8]};
  f.server.set_fault(0, {.kind = fault_kind::cipher_length});
  f.server.add_fault(0, {.kind = fault_kind::cipher_garbage});  // the first one goes first
  const bytes cut = f.ask(description, client);
  EXPECT_EQ(get32(&cut[14]), 1U);
  EXPECT_EQ(cut.size(), 18U + 72 - 3);
  f.server.set_fault(0, {.kind = fault_kind::cipher_garbage});
  const bytes garbage = f.ask(description, client);
  EXPECT_EQ(get32(&garbage[14]), 1U);
  const bytes body = decipher_blocks(key, bytes(garbage.begin() + 18, garbage.end()));
  EXPECT_EQ(hex(body), hex(plain).substr(36) + "000009") << "a padding count above 8";
  EXPECT_EQ(f.server.injected(0, fault_kind::cipher_garbage), 1U);
  EXPECT_EQ(f.server.injected(0, fault_kind::cipher_length), 1U);
}

// --- time ---

TEST(Faults, TimesAreNeverShort) {
  fixture f;
  struct timed_case {
    fault order;
    int delay_ms;
    size_t first_part;  ///< comes first, and soon enough to measure the rest
    double least_ms;    ///< from the request to the whole response
  };
  const timed_case timed[] = {
      {{}, 120, 0, 120},
      {{.kind = fault_kind::stall_at, .value = 100, .ms = 150}, 0, 100, 150},
      {{.kind = fault_kind::stall_at, .value = 0, .ms = 100}, 50, 0, 150},
      {{.kind = fault_kind::drip, .value = 20, .ms = 5}, 0, 20, 100},
      {{.kind = fault_kind::unsolicited, .ms = 100}, 0, 537, 100},
  };
  for (const timed_case &row : timed) {
    SCOPED_TRACE(fault_describe(row.order.kind).name);
    f.server.set_fault(1, row.order);
    f.server.set_delay(1, row.delay_ms);
    raw_client client(f.server, 1);
    const auto start = clock_type::now();
    client.send(make_request(media, 77, f.film, offset, length));
    EXPECT_EQ(client.receive(row.first_part).size(), row.first_part);
    const size_t rest = 537 - row.first_part + (row.first_part == 537 ? 37 : 0);
    EXPECT_EQ(client.receive(rest).size(), rest);
    EXPECT_GE(ms_since(start), row.least_ms);
  }
}

// A peer that goes away while the server waits for something is forgotten.
TEST(Faults, StalledConnectionsEndWithTheirPeer) {
  fixture f;
  for (const fault &order : {fault{.kind = fault_kind::mute}, fault{.kind = fault_kind::stall_at},
                             fault{.kind = fault_kind::drip, .ms = 1000}}) {
    f.server.set_fault(0, order);
    {
      raw_client client(f.server, 0);
      const uint64_t before = f.server.totals(0).requests;
      client.send(make_request(media, 77, f.film, offset, length));
      while (f.server.totals(0).requests == before) usleep(1000);
    }
    const auto start = clock_type::now();
    while (f.server.totals(0).open > 0 && ms_since(start) < 20'000) usleep(1000);
    EXPECT_EQ(f.server.totals(0).open, 0U);
  }
}

// --- ports ---

int connect_result(fixture &f, int node) {
  return raw_client(f.server, node).connect_errno();
}

int connect_until(fixture &f, int node, int wanted) {
  const auto start = clock_type::now();
  int result = connect_result(f, node);
  while (result != wanted && ms_since(start) < 20'000) {
    usleep(2000);
    result = connect_result(f, node);
  }
  return result;
}

TEST(Ports, KillAndReviveKeepTheirNumbers) {
  fixture f;
  for (const bool reset : {false, true}) {
    const uint16_t port = f.server.port(0);
    raw_client client(f.server, 0), other(f.server, 1);
    EXPECT_EQ(f.ask(media, client).size(), 537U);
    f.server.kill_node(0, reset);
    EXPECT_EQ(client.ending(20'000), reset ? "reset" : "closed");
    EXPECT_EQ(connect_result(f, 0), ECONNREFUSED);
    EXPECT_EQ(f.ask(media, other).size(), 537U) << "the other node does not notice";
    f.server.revive_node(0);
    EXPECT_EQ(f.server.port(0), port);
    raw_client again(f.server, 0);
    EXPECT_EQ(f.ask(media, again).size(), 537U);
  }
  f.server.kill_all();
  for (int i = entry_server; i < 2; ++i) EXPECT_EQ(connect_result(f, i), ECONNREFUSED);
  EXPECT_EQ(f.server.totals().open, 0U);
  f.server.revive_all();
  for (int i = entry_server; i < 2; ++i) EXPECT_EQ(connect_result(f, i), 0);
}

TEST(Ports, RefuseDropAndGoDown) {
  fixture f;
  raw_client old(f.server, 0);
  EXPECT_EQ(f.ask(list, old).size(), 40U);
  f.server.set_fault(0, {.kind = fault_kind::refuse});
  EXPECT_EQ(connect_result(f, 0), ECONNREFUSED);
  EXPECT_EQ(f.ask(list, old).size(), 40U) << "old connections live on";
  f.server.clear_faults(0);
  EXPECT_EQ(connect_result(f, 0), 0);

  auto start = clock_type::now();
  f.server.set_fault(0, {.kind = fault_kind::refuse, .ms = 100});
  EXPECT_EQ(connect_until(f, 0, 0), 0);
  EXPECT_GE(ms_since(start), 100);
  EXPECT_EQ(f.server.injected(0, fault_kind::refuse), 2U);

  f.server.set_fault(0, {.kind = fault_kind::drop_accepted, .from = 2, .count = 1});
  for (const char *expected : {"open", "reset", "open"}) {
    raw_client client(f.server, 0);
    EXPECT_EQ(client.ending(expected[0] == 'o' ? 20 : 20'000), expected);
  }
  EXPECT_EQ(f.server.injected(0, fault_kind::drop_accepted), 1U);

  f.server.set_fault(0, {.kind = fault_kind::down, .ms = 150, .count = 1, .on = on_media});
  EXPECT_EQ(f.ask(list, old).size(), 40U);
  start = clock_type::now();
  EXPECT_TRUE(f.ask(media, old).empty());
  EXPECT_EQ(connect_until(f, 0, 0), 0);
  EXPECT_GE(ms_since(start), 150);
  raw_client client(f.server, 0);
  EXPECT_EQ(f.ask(media, client).size(), 537U);

  // Who is killed for good while down does not come back by the clock.
  f.server.set_fault(0, {.kind = fault_kind::down, .ms = 50});
  EXPECT_TRUE(f.ask(list, client).empty());
  f.server.kill_node(0);
  usleep(100'000);
  EXPECT_EQ(connect_result(f, 0), ECONNREFUSED);
}

TEST(Faults, AreReadFromText) {
  int node = 0;
  std::string error;
  const auto order =
      fault_parse("close_at:3,value=0x20,ms=5,from=2,on=media,on=desc,node=1", &node, &error);
  ASSERT_TRUE(order) << error;
  EXPECT_EQ(order->kind, fault_kind::close_at);
  EXPECT_EQ(order->count, 3U);
  EXPECT_EQ(order->value, 32U);
  EXPECT_EQ(order->ms, 5);
  EXPECT_EQ(order->from, 2U);
  EXPECT_EQ(order->on, on_media | on_desc);
  EXPECT_EQ(node, 1);
  ASSERT_TRUE(fault_parse("mute", &node, &error));
  EXPECT_EQ(node, every_node);
  ASSERT_TRUE(fault_parse("mute,node=entry", &node, &error));
  EXPECT_EQ(node, entry_server);
  for (const char *wrong :
       {"", "none", "mut", "mute:", "mute:x", "mute:-1", "mute,ms", "mute,ms=-1", "mute,from=0",
        "mute,on=all", "mute,value=1 ", "mute,", "mute,a=1", "mute:99999999999"}) {
    error.clear();
    EXPECT_FALSE(fault_parse(wrong, &node, &error)) << wrong;
    EXPECT_NE(error, "") << wrong;
  }
}

}  // namespace
