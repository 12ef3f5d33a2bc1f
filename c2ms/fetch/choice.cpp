#include "c2ms/fetch/choice.h"

#include <algorithm>

namespace c2ms {

namespace {

constexpr double assumed_rate = 250'000;    // of the first connection, before anything is known
constexpr double least_round_trip = 0.0005;
constexpr double long_silence = 0.1;        // shorter ones are how packets bunch
constexpr double least_run_s = 0.06;        // of a request that is one of many
constexpr double most_run_s = 0.5;
constexpr double least_run_bytes = 64 * 1024;
// A run covers the round trip of the next request, with some room for a rate that grows.
constexpr double round_trips_of_run = 1.5;
constexpr double small_run_s = 0.25;  // what least_run_bytes may take of a slow connection
constexpr double ahead_trips = 1.5;
constexpr double lead_share = 8;            // of the lead that a run may take to come
// Two runs of each connection, the answer and the one asked for ahead, must leave the ring some room.
constexpr double ring_share = 2.25;
constexpr double comfortable_lead = 2;      // seconds; with more, small requests wait until they are bigger
constexpr double helps_much = 0.5;          // of the time that the pack would need otherwise
constexpr double helps_slack = 0.03;

double known_rate(std::span<const lane> lanes) {
  double sum = 0;
  int count = 0;
  for (const lane &one : lanes) {
    if (!one.usable || one.rate <= 0) continue;
    sum += one.rate;
    ++count;
  }
  return count == 0 ? assumed_rate : sum / count;
}

double rate_of(std::span<const lane> lanes, size_t who) {
  return lanes[who].rate > 0 ? lanes[who].rate : known_rate(lanes);
}

double round_trip_of(const lane &one) {
  return std::max(one.round_trip, least_round_trip);
}

double sum_of_rates(std::span<const lane> lanes) {
  double sum = 0;
  for (size_t i = 0; i < lanes.size(); ++i) {
    if (lanes[i].usable) sum += rate_of(lanes, i);
  }
  return sum;
}

// Bytes that the others bring within `span` seconds beyond what they owe already.
double others_bring(std::span<const lane> lanes, size_t who, double span) {
  double sum = 0;
  for (size_t i = 0; i < lanes.size(); ++i) {
    if (i == who || !lanes[i].usable) continue;
    sum += rate_of(lanes, i) * std::max(span - free_in(lanes, i), 0.0);
  }
  return sum;
}

// How long a run should take to come.
double run_span(std::span<const lane> lanes, size_t who, const ring_view &ring,
                const reader_view &reader) {
  double span = std::max(least_run_s, round_trips_of_run * round_trip_of(lanes[who]));
  if (reader.pace > 0) {
    const double by_lead = std::min(reader.lead / reader.pace / lead_share, most_run_s);
    span = std::max(span, by_lead);
  }
  const double ring_bytes = static_cast<double>(ring.packs) * ring.pack_bytes;
  return std::min(span, ring_bytes / (ring_share * std::max(sum_of_rates(lanes), 1.0)));
}

// How much a run should hold: enough that the connection is never without a request, by time and, where that takes no
// time to speak of, by size.
double run_bytes(std::span<const lane> lanes, size_t who, const ring_view &ring, const reader_view &reader) {
  const double rate = lanes[who].rate;
  if (rate <= 0) return least_run_bytes;
  return std::max(rate * run_span(lanes, who, ring, reader), std::min(least_run_bytes, rate * small_run_s));
}

struct found {
  const stretch *in = nullptr;
  int32_t offset = 0;    // in that stretch
  int64_t distance = 0;  // idle packs before it
};

// The first idle pack that has at least `distance` idle packs before it.
found find_at(const ring_view &ring, int64_t distance) {
  int64_t passed = 0;
  for (const stretch &idle : ring.idle) {
    if (passed + idle.count > distance) {
      const auto offset = static_cast<int32_t>(std::max<int64_t>(distance - passed, 0));
      return {&idle, offset, passed + offset};
    }
    passed += idle.count;
  }
  return {};
}

run farthest(const ring_view &ring) {
  if (ring.idle.empty()) return {};
  const stretch &last = ring.idle.back();
  return {last.first + last.count - 1, 1};
}

// True when a request for so little should wait for more: nobody is in a hurry.
bool nibbles(const ring_view &ring, const reader_view &reader, const found &at, double wanted,
             int32_t count) {
  if (reader.pace <= 0 || reader.lead < comfortable_lead * reader.pace) return false;
  const bool may_grow = at.in == &ring.idle.back() && at.offset + count == at.in->count;
  const double most = static_cast<double>(ring.packs) * ring.pack_bytes / 16;
  return may_grow && static_cast<double>(count) * ring.pack_bytes < std::min(wanted, most);
}

}  // namespace

double free_in(std::span<const lane> lanes, size_t who) {
  const lane &one = lanes[who];
  const double rest = arrives_in(lanes, who, one.owed);
  return std::max(round_trip_of(one), rest);
}

double arrives_in(std::span<const lane> lanes, size_t who, double bytes) {
  const lane &one = lanes[who];
  if (bytes <= 0) return 0;
  // A connection that has been silent for long is expected to be silent for as long again.
  const double silent = one.silence > long_silence ? one.silence : 0;
  return silent + bytes / rate_of(lanes, who);
}

run choose_run(std::span<const lane> lanes, size_t who, const ring_view &ring,
               const reader_view &reader,
               bool probe) {
  const double rate = rate_of(lanes, who);
  const double pack_bytes = ring.pack_bytes;
  const double starts = free_in(lanes, who);
  // The first pack that the others would not have brought when this connection has.
  const double ahead = others_bring(lanes, who, starts + pack_bytes / rate) - pack_bytes;
  const auto distance = static_cast<int64_t>(std::max(ahead, 0.0) / pack_bytes + 0.5);
  const found at = find_at(ring, distance);
  if (at.in == nullptr) return probe ? farthest(ring) : run{};
  const double wanted = run_bytes(lanes, who, ring, reader);
  const int32_t most = at.in->count - at.offset;
  const int32_t first = at.in->first + at.offset;
  int32_t count = 1;
  while (count < most && count * pack_bytes < wanted) {
    // What a reader waits for is spread: each pack to who brings it first.
    if (first + count < ring.urgent_end) {
      const double arrives = starts + (count + 1) * pack_bytes / rate;
      const double before = static_cast<double>(at.distance + 1) * pack_bytes;
      if (others_bring(lanes, who, arrives) > before) break;
    }
    ++count;
  }
  if (nibbles(ring, reader, at, wanted, count)) return probe ? farthest(ring) : run{};
  return {first, count};
}

bool asks_ahead(std::span<const lane> lanes, size_t who) {
  const lane &one = lanes[who];
  return one.rate > 0 && one.owed <= one.rate * std::max(round_trip_of(one) * ahead_trips, 0.02);
}

size_t choose_helper(std::span<const lane> lanes, uint32_t holder, double missing, double expected, double needed) {
  size_t best = lanes.size();
  double soonest = expected * helps_much - helps_slack;
  if (expected <= needed) return best;
  for (size_t i = 0; i < lanes.size(); ++i) {
    if (!lanes[i].usable || lanes[i].server == holder) continue;
    const double brings = free_in(lanes, i) + missing / rate_of(lanes, i);
    if (brings >= soonest) continue;
    soonest = brings;
    best = i;
  }
  return best;
}

bool is_hopeless(std::span<const lane> lanes, size_t who) {
  // A new connection costs a round trip each for itself, the description and the request.
  constexpr double round_trips = 4, least = 0.2;
  const double rest = arrives_in(lanes, who, lanes[who].owed);
  return rest > std::max(least, round_trips * round_trip_of(lanes[who]));
}

}  // namespace c2ms
