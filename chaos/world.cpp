// See world.h.
#include "world.h"

#include <thread>

#include "compress/buffer_7z.h"

namespace chaos {

namespace {

using refserver::fault;
using refserver::fault_kind;

refserver::server_options options_of(Dice &dice, int nodes) {
  refserver::server_options options;
  options.nodes = nodes;
  options.encipher = dice.one_in(2);
  options.entry_is_node = dice.one_in(3);
  options.keep_log = false;
  for (int i = 0; i < nodes; ++i) {
    refserver::node_options node;
    if (dice.one_in(2)) node.rate_bytes_per_s = 2e6 + static_cast<double>(dice.below(20'000'000));
    if (dice.one_in(4)) node.delay_ms = dice.between(1, 20);
    options.node.push_back(node);
  }
  return options;
}

/// The limits between which a kind's numbers are drawn.
struct range_of {
  fault_kind kind;
  uint64_t value;  // at most; drawn with a spread
  int ms;          // at most; at least 1 where it is not 0
};

// Sizes and types in descriptions are left out: a session believes the first one that it gets.
constexpr range_of kinds[] = {
    {fault_kind::refuse, 0, 150},
    {fault_kind::drop_accepted, 0, 0},
    {fault_kind::down, 0, 150},
    {fault_kind::mute, 0, 0},
    {fault_kind::close_at, 70'000, 0},
    {fault_kind::reset_at, 70'000, 0},
    {fault_kind::stall_at, 70'000, 200},
    {fault_kind::drip, 60, 1},
    {fault_kind::twice, 0, 0},
    {fault_kind::unsolicited, 3000, 20},
    {fault_kind::wrong_command, 0, 0},
    {fault_kind::wrong_sequence, 40, 0},
    {fault_kind::wrong_version, 0xffff, 0},
    {fault_kind::total_length, UINT32_MAX, 0},
    {fault_kind::short_pdu, 100, 0},
    {fault_kind::payload_longer, 70'000, 0},
    {fault_kind::payload_shorter, 70'000, 0},
    {fault_kind::payload_empty, 0, 0},
    {fault_kind::list_size, 6, 0},
    {fault_kind::list_count, 0xffff, 0},
    {fault_kind::list_zero, 1, 0},
    {fault_kind::list_duplicates, 0, 0},
    {fault_kind::list_self, 0, 0},
    {fault_kind::cipher_garbage, 0, 0},
    {fault_kind::cipher_length, 0, 0},
    {fault_kind::desc_truncated, 80, 0},
};

constexpr uint64_t refusals[] = {2, 9, 10, 20, 30, 40, 400, UINT32_MAX};

}  // namespace

World::World(uint64_t seed)
    : dice(seed, 0),
      refuses(dice.one_in(4)),
      leaves_stuck(dice.one_in(8)),
      nodes(dice.between(1, 4)),
      server(options_of(dice, nodes)),
      size(300'000 + dice.below(1'500'000)) {
  film = server.add_generated("film-" + std::to_string(seed) + ".mkv", size, 9);
  if (dice.one_in(3)) return;
  // The index of a media that is no MP4 stands for its first bytes.
  index_size = static_cast<uint32_t>(1 + dice.below(dice.one_in(2) ? 3000 : 60'000));
  std::string plain(index_size, '\0');
  refserver::content_fill(film, 0, plain.data(), plain.size());
  packed.resize(plain.size() * 2 + 1000);
  size_t length = packed.size();
  buffer_7z(packed.data(), &length, plain.data(), plain.size(), 1, 1 << 16);
  packed.resize(length);
  index = server.add_bytes("index-" + std::to_string(seed), packed, 0);
  server.set_index(film, index);
}

fault World::any_fault() {
  if (refuses && dice.one_in(6)) return {.kind = fault_kind::refusal, .value = dice.of(refusals)};
  const range_of &range = dice.of(kinds);
  fault order{.kind = range.kind, .value = range.value == 0 ? 0 : dice.spread(range.value)};
  // A header that announces a longer body, within the limit, takes media bytes for its own: no
  // receiver can tell, the protocol has no checksum.
  if (range.kind == fault_kind::total_length && order.value > 37 && order.value <= 1024)
    order.value += 1024;
  order.ms = range.ms == 0 ? 0 : dice.between(1, range.ms);
  order.from = static_cast<uint32_t>(dice.between(1, 4));
  order.count = static_cast<uint32_t>(dice.between(1, 6));
  const uint8_t on = refserver::fault_describe(range.kind).on;
  if (dice.one_in(2)) order.on = on & static_cast<uint8_t>(1u << dice.below(3));
  return order;
}

void World::strike() {
  const int node = any_server();
  switch (dice.below(10)) {
    case 0:
      return server.clear_faults(node);
    case 1:
      return server.kill_node(node, dice.one_in(2));
    case 2:
      for (int i = refserver::entry_server; i < nodes; ++i) server.revive_node(i);
      return;
    case 3:
      return server.set_rate(node, dice.one_in(3) ? 0 : 2e5 + double(dice.below(3'000'000)));
    case 4:
      return server.set_delay(node, dice.between(0, 40));
    case 5:
      return dice.one_in(4) ? server.kill_all(dice.one_in(2)) : server.revive_all();
    default:
      return dice.one_in(2) ? server.set_fault(node, any_fault())
                            : server.add_fault(node, any_fault());
  }
}

void World::rage(milliseconds storm) {
  const auto end = clock::now() + storm;
  // Most runs let the session open before the first strike.
  if (!dice.one_in(3)) std::this_thread::sleep_for(milliseconds(dice.between(5, 60)));
  while (clock::now() < end) {
    strike();
    std::this_thread::sleep_for(std::chrono::microseconds(dice.below(15'000)));
  }
  for (int i = refserver::entry_server; i < nodes; ++i) {
    server.clear_faults(i);
    server.set_rate(i, 0);
    server.set_delay(i, 0);
  }
  if (!leaves_stuck) server.kill_all(true);
  server.revive_all();
  calm = true;
}

uint64_t World::place_of(const uint8_t *bytes, size_t count) const {
  for (uint64_t at = 0; at + count <= size; ++at)
    if (refserver::content_mismatch(film, at, bytes, count) == count) return at;
  return nowhere;
}

uint64_t World::injected() const {
  uint64_t sum = 0;
  for (int node = refserver::entry_server; node < nodes; ++node)
    for (int kind = 1; kind < refserver::fault_kinds; ++kind)
      sum += server.injected(node, static_cast<fault_kind>(kind));
  return sum;
}

}  // namespace chaos
