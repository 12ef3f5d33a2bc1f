// See choice.h.
#include "c2ms/fetch/choice.h"

#include <algorithm>

namespace c2ms {

namespace {

constexpr double assumed_rate =
    250'000;  // 2 Mbit/s: of the first connection, before anything is known
constexpr double least_round_trip = 0.0005;
// Shorter silences than this or half a round trip are how packets bunch: TCP sends a window at
// once. All of a round trip finds outages on far ways too late.
constexpr double long_silence = 0.1;
constexpr double sooner = 0.95;  // of two that are as quick neither leaves it to the other

// How long a request should take to come. Two are under way on a connection, so three round trips
// each keep it busy even when a run is cut short by its neighbours. A rate that still rises doubles
// within a round trip, and the one that is known is that of the round trip before.
constexpr double round_trips_of_run = 3;
constexpr double round_trips_growing = 4;
constexpr double least_run_s = 0.06;  // requests cost bytes, packets and time of both processors
constexpr double most_run_s =
    0.5;  // with any lead: what a connection holds when it dies must be fetched again
constexpr double lead_share = 8;     // of the lead that a run may take to come
constexpr double ring_share = 2.25;  // two runs of each connection leave the ring some room
constexpr double first_run_bytes = 48 * 1024;  // a little more than TCP's first windows carry
// A rate that small requests have held down looks like a slow connection: where they take no time
// to speak of, requests are at least so big.
constexpr double small_run_bytes = 64 * 1024, small_run_s = 0.25;

// The next request leaves earlier than a round trip before the end: the answer may come quicker
// than it did so far. It does where the rate still rises.
constexpr double ahead_trips = 2, ahead_growing = 3;
constexpr double least_ahead_s = 0.02;  // how late a program may learn that something has come

// After a seek another one is likely. What is under way then delays it, so connections owe little:
// round trips of a run, and how long before its end the next request leaves. On near ways that is a
// round trip, and the connections stay busy; on far ways it would hold up the next seek for longer
// than they gain.
constexpr double seeks_again_s = 4;
constexpr double run_after_seek = 0.5, ahead_after_seek = 1;
// The farther the way, the less: 200 ms up to a round trip of 100 ms, 100 ms for one of 200 ms. (Of
// seeks over ways of 600 ms, the median was 0.8 of that with 200 ms for all, and over near ones the
// same.)
constexpr double most_ahead_after_seek_s = 0.2, ahead_after_seek_s2 = 0.02;

constexpr double comfortable_lead =
    2;  // seconds; with more, small requests wait until they are bigger
constexpr double helps_much =
    0.5;  // of the time that the pack would need otherwise: estimates err by a third
constexpr double helps_slack = 0.03;  // a look at it each 20 ms, and some

// Below the 3 % that are allowed: what is under way when the budget ends comes on top of it.
constexpr double free_repeats = 256 * 1024;
constexpr double repeated_share = 0.02;

constexpr size_t most_connections = 8;  // of a session
constexpr size_t most_each = 4;         // of them to one server
// Bytes: half of TCP's first window. Who brings less in a round trip is hardly held up by its
// window: a second connection would halve its rate, and twice as many packs would take twice as
// long. Half, since losses, and servers that limit a connection, keep windows small where a second
// one does bring more.
constexpr double least_window = 5 * 1448;
constexpr double opens_within = 1;  // seconds; a server that takes longer is not waited for

// The mean of what is known: of connections to the same server, else of all.
double known_rate(std::span<const lane> lanes, size_t who) {
  double beside = 0, all = 0;
  int count_beside = 0, count = 0;
  for (const lane &one : lanes) {
    if (!one.usable || one.rate <= 0) continue;
    all += one.rate;
    ++count;
    if (one.server != lanes[who].server) continue;
    beside += one.rate;
    ++count_beside;
  }
  if (count_beside > 0) return beside / count_beside;
  return count == 0 ? assumed_rate : all / count;
}

double rate_of(std::span<const lane> lanes, size_t who) {
  return lanes[who].rate > 0 ? lanes[who].rate : known_rate(lanes, who);
}

double round_trip_of(const lane &one) {
  return std::max(one.round_trip, least_round_trip);
}

bool is_silent(const lane &one) {
  return one.silence > std::max(long_silence, one.round_trip / 2);
}

// A connection that owes nothing is no better than those beside it: connections die together on one
// way.
double silence_beside(std::span<const lane> lanes, size_t who) {
  double least = 0;
  for (const lane &one : lanes) {
    if (!one.usable || one.server != lanes[who].server || one.owed <= 0) continue;
    if (!is_silent(one)) return 0;
    least = least > 0 ? std::min(least, one.silence) : one.silence;
  }
  return least;
}

double sum_of_rates(std::span<const lane> lanes) {
  double sum = 0;
  for (size_t i = 0; i < lanes.size(); ++i) {
    if (lanes[i].usable) sum += rate_of(lanes, i);
  }
  return sum;
}

// Whole packs that the others bring within `span` seconds beyond what they owe already. Parts of
// packs do not count: together they would look like a pack that nobody brings.
int64_t others_bring(std::span<const lane> lanes, size_t who, double span, double pack_bytes) {
  int64_t sum = 0;
  for (size_t i = 0; i < lanes.size(); ++i) {
    if (i == who || !lanes[i].usable) continue;
    const double bytes = rate_of(lanes, i) * (span * sooner - free_in(lanes, i));
    if (bytes > 0) sum += static_cast<int64_t>(bytes / pack_bytes);
  }
  return sum;
}

bool sought(const reader_view &reader) {
  return reader.since_seek < seeks_again_s;
}

double run_round_trips(const lane &one, const reader_view &reader) {
  if (sought(reader)) return run_after_seek;
  return one.growing ? round_trips_growing : round_trips_of_run;
}

// Seconds before an answer's end at which the next request should leave.
double ahead_span(const lane &one, const reader_view &reader) {
  const double round_trip = round_trip_of(one);
  if (sought(reader)) {
    const double most = std::min(most_ahead_after_seek_s, ahead_after_seek_s2 / round_trip);
    return std::min(round_trip * ahead_after_seek, most);
  }
  return round_trip * (one.growing ? ahead_growing : ahead_trips);
}

// Bytes that a request should be for.
double run_bytes(std::span<const lane> lanes, size_t who, const ring_view &ring,
                 const reader_view &reader) {
  const lane &one = lanes[who];
  double span = std::max(least_run_s, run_round_trips(one, reader) * round_trip_of(one));
  if (reader.pace > 0)
    span = std::max(span, std::min(reader.lead / reader.pace / lead_share, most_run_s));
  const double ring_bytes = static_cast<double>(ring.packs) * ring.pack_bytes;
  if (!sought(reader))
    span = std::max(span, std::min(small_run_bytes / rate_of(lanes, who), small_run_s));
  span = std::min(span, ring_bytes / (ring_share * std::max(sum_of_rates(lanes), 1.0)));
  // A connection that has brought little cannot bring much at once, whatever its first packets
  // looked like: twice as much as so far, as slow start does.
  return std::min(rate_of(lanes, who) * span, std::max(first_run_bytes, 2 * one.brought));
}

size_t connections_beside(std::span<const lane> lanes, size_t who) {
  return static_cast<size_t>(std::count_if(lanes.begin(), lanes.end(), [&](const lane &one) {
    return one.server == lanes[who].server;
  }));
}

double window_of(const lane &one) {
  return one.rate * one.round_trip;
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
  if (one.owed > 0) return std::max(round_trip_of(one), arrives_in(lanes, who, one.owed));
  return round_trip_of(one) + silence_beside(lanes, who);
}

double arrives_in(std::span<const lane> lanes, size_t who, double bytes) {
  if (bytes <= 0) return 0;
  // A connection that has been silent for long is expected to be silent for as long again.
  const double silent = is_silent(lanes[who]) ? lanes[who].silence : 0;
  return silent + bytes / rate_of(lanes, who);
}

double needed_in(std::span<const lane> lanes, const ring_view &ring, const reader_view &reader,
                 double ahead) {
  if (reader.pace > 0) return std::max(ahead, 0.0) / reader.pace;
  double room = 0;
  for (const stretch &one : ring.idle) room += static_cast<double>(one.count) * ring.pack_bytes;
  return room / std::max(sum_of_rates(lanes), 1.0);
}

run choose_run(std::span<const lane> lanes, size_t who, const ring_view &ring,
               const reader_view &reader, bool probe) {
  const double rate = rate_of(lanes, who);
  const double pack_bytes = ring.pack_bytes;
  const double starts = free_in(lanes, who);
  // The first pack that the others would not have brought when this connection has.
  const int64_t distance = others_bring(lanes, who, starts + pack_bytes / rate, pack_bytes);
  const double wanted = run_bytes(lanes, who, ring, reader);
  found at = find_at(ring, distance);
  if (at.in == nullptr) return probe ? farthest(ring) : run{};
  // What comes first is left for the request after this one only when the reader will not miss it
  // before that.
  const bool in_time = reader.pace > 0 && reader.lead / reader.pace > 2 * (starts + wanted / rate);
  if (lanes[who].owed > 0 && (at.in != &ring.idle.front() || in_time)) {
    at = long_enough(ring, at, wanted - lanes[who].owed);
  }
  const int32_t most = at.in->count - at.offset;
  const int32_t first = at.in->first + at.offset;
  int32_t count = 1;
  while (count < most && count * pack_bytes < wanted) {
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
  return one.rate > 0 && one.owed <= one.rate * std::max(ahead_span(one, reader), least_ahead_s);
}

size_t choose_helper(std::span<const lane> lanes, uint32_t holder, double missing, double expected,
                     double needed) {
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
  // A rate that still rises tells little of the rest, and a new connection begins lower still.
  if (lanes[who].growing && !is_silent(lanes[who])) return false;
  return rest > std::max(least, round_trips * round_trip_of(lanes[who]));
}

int32_t choose_help(std::span<const lane> lanes, size_t helper, int32_t late, int32_t pack_bytes) {
  const double packs = rate_of(lanes, helper) * least_run_s / pack_bytes;
  return std::clamp(static_cast<int32_t>(packs), 1, std::max(late, 1));
}

size_t wants_connection(std::span<const lane> lanes) {
  const size_t none = lanes.size();
  if (lanes.size() >= most_connections) return none;
  // Every server gets another one before one of them gets two.
  size_t least = none;
  for (size_t i = 0; i < lanes.size(); ++i) {
    if (lanes[i].silence < opens_within) least = std::min(least, connections_beside(lanes, i));
  }
  if (least >= most_each) return none;
  size_t rivals = 0, best = none;
  bool settled = true;
  for (size_t i = 0; i < lanes.size(); ++i) {
    const lane &one = lanes[i];
    if (one.silence >= opens_within || connections_beside(lanes, i) > least) continue;
    ++rivals;
    settled = settled && one.rate > 0 && !one.growing;
    if (!one.usable || one.owed <= 0 || is_silent(one) || window_of(one) < least_window) continue;
    if (best == none || window_of(one) > window_of(lanes[best])) best = i;
  }
  // Where not every server can have one, those get it that bring most in a round trip, and that
  // must be known.
  const bool enough = lanes.size() + rivals <= most_connections;
  return enough || settled ? best : none;
}

bool may_repeat(double twice, double received, bool waits) {
  return waits || twice < free_repeats + repeated_share * received;
}

}  // namespace c2ms
