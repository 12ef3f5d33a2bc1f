#include "c2ms/fetch/choice.h"

#include <algorithm>
#include <cstdlib>

namespace c2ms {

namespace {

double T(const char *n, double d) { const char *v = getenv(n); return v ? atof(v) : d; }
const double assumed_rate = T("AR", 250) * 1000;    // of the first connection, before anything is known
constexpr double sooner = 0.95;  // of two that are as quick neither leaves it to the other
constexpr double least_round_trip = 0.0005;
constexpr double long_silence = 0.1;        // shorter ones are how packets bunch
const double least_run_s = T("LR", 0.06);        // of a request that is one of many
constexpr double most_run_s = 0.5;
const double first_run_bytes = T("LB", 48) * 1024;
// A run covers the round trip of the next request, with some room for a rate that grows.
const double round_trips_of_run = T("RT", 2);
const double round_trips_growing = T("RG2", 3);
const double seeks_again = T("SA", 2);  // seconds in which another seek is likely
const double lead_share = T("LS", 8);            // of the lead that a run may take to come
// Two runs of each connection, the answer and the one asked for ahead, must leave the ring some room.
const double ring_share = T("RG", 2.25);
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

// Whole packs that the others bring within `span` seconds beyond what they owe already. Parts of packs do not count:
// together they would look like a pack that nobody brings.
int64_t others_bring(std::span<const lane> lanes, size_t who, double span, double pack_bytes) {
  int64_t sum = 0;
  for (size_t i = 0; i < lanes.size(); ++i) {
    if (i == who || !lanes[i].usable) continue;
    const double bytes = rate_of(lanes, i) * (span * sooner - free_in(lanes, i));
    if (bytes > 0) sum += static_cast<int64_t>(bytes / pack_bytes);
  }
  return sum;
}

// How long a run should take to come.
double run_span(std::span<const lane> lanes, size_t who, const ring_view &ring,
                const reader_view &reader) {
  double span = std::max(least_run_s, (reader.since_seek < seeks_again ? T("RF", .5) : lanes[who].growing ? round_trips_growing : round_trips_of_run) * round_trip_of(lanes[who]));
  if (reader.pace > 0) {
    const double by_lead = std::min(reader.lead / reader.pace / lead_share, most_run_s);
    span = std::max(span, by_lead);
  }
  const double ring_bytes = static_cast<double>(ring.packs) * ring.pack_bytes;
  return std::min(span, ring_bytes / (ring_share * std::max(sum_of_rates(lanes), 1.0)));
}

struct found {
  const stretch *in = nullptr;
  int32_t offset = 0;    // in that stretch
  int64_t distance = 0;  // idle packs before it

  int32_t count() const { return in->count - offset; }  // packs of the stretch from there on
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

// The first stretch from `at` on that keeps a connection busy with `least` bytes, or the longest.
found long_enough(const ring_view &ring, const found &at, double least) {
  found next = at, best = at;
  for (; next.in <= &ring.idle.back(); next = {next.in + 1, 0, next.distance + next.count()}) {
    if (next.count() > best.count()) best = next;
    if (static_cast<double>(next.count()) * ring.pack_bytes >= least) return next;
  }
  return best;
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
  const int64_t distance = others_bring(lanes, who, starts + pack_bytes / rate, pack_bytes);
  // A connection that has brought little cannot bring much at once, whatever its first packets looked like.
  const double wanted = std::min(rate * run_span(lanes, who, ring, reader), std::max(first_run_bytes, lanes[who].brought * T("BR", 1)));
  found at = find_at(ring, distance);
  if (at.in == nullptr) return probe ? farthest(ring) : run{};
  // What comes first is left for the request after this one only when the reader will not miss it before that.
  const bool in_time = reader.pace > 0 && reader.lead / reader.pace > 2 * (starts + wanted / rate);
  if (lanes[who].owed > 0 && (at.in != &ring.idle.front() || in_time)) {
    at = long_enough(ring, at, wanted * T("LE", 1) - lanes[who].owed);
  }
  const int32_t most = at.in->count - at.offset;
  const int32_t first = at.in->first + at.offset;
  int32_t count = 1;
  while (count < most && (count + 1) * pack_bytes <= wanted) {
    // What a reader waits for is spread: each pack to who brings it first.
    if (first + count < ring.urgent_end) {
      const double arrives = starts + (count + 1) * pack_bytes / rate;
      if (others_bring(lanes, who, arrives, pack_bytes) > at.distance) break;
    }
    ++count;
  }
  if (nibbles(ring, reader, at, wanted, count)) return probe ? farthest(ring) : run{};
  return {first, count};
}

bool asks_ahead(std::span<const lane> lanes, size_t who, const reader_view &reader) {
  const lane &one = lanes[who];
  const double ahead_trips = reader.since_seek < seeks_again ? T("AS", 1) : T("AT", 1.5);
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
  constexpr double round_trips = 4, least = 0.2, least_unknown = 2;
  const double rest = arrives_in(lanes, who, lanes[who].owed);
  if (lanes[who].rate <= 0) return rest > least_unknown;
  return rest > std::max(least, round_trips * round_trip_of(lanes[who]));
}

size_t wants_connection(std::span<const lane> lanes) {
  const size_t most = static_cast<size_t>(T("MC", 8)), most_each = 4;
  size_t best = lanes.size(), least = lanes.size();
  if (lanes.size() >= most) return best;
  auto count = [&](size_t who) {
    size_t sum = 0;
    for (const lane &one : lanes) sum += one.server == lanes[who].server;
    return sum;
  };
  size_t rival = 0;
  for (size_t i = 0; i < lanes.size(); ++i) {
    if (lanes[i].silence < 1) least = std::min(least, count(i));
  }
  for (size_t i = 0; i < lanes.size(); ++i) {
    const lane &one = lanes[i];
    if (one.silence > 1 || count(i) > least) continue;
    ++rival;
  }
  const bool enough = rival <= most - lanes.size();
  for (size_t i = 0; i < lanes.size(); ++i) {
    const lane &one = lanes[i];
    if (one.silence > 1 || count(i) > least) continue;
    if (!enough && (one.rate <= 0 || one.growing)) return lanes.size();
  }
  for (size_t i = 0; i < lanes.size(); ++i) {
    const lane &one = lanes[i];
    if (!one.usable || one.rate <= 0 || one.owed <= 0 || one.silence > long_silence) continue;
    if (count(i) > least || count(i) >= most_each) continue;
    if (best < lanes.size() && one.rate * one.round_trip <= lanes[best].rate * lanes[best].round_trip) continue;
    best = i;
  }
  return best;
}

bool may_repeat(double twice, double received, bool waits) {
  return waits || twice < 256 * 1024 + 0.02 * received;
}

}  // namespace c2ms
