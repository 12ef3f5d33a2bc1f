// What decides in the transfer: which packs a connection asks for next, how many at once, when it
// may be asked ahead of its answer's end, who helps with a late pack, which answer is hopeless.
// Pure functions of a few numbers: work.h gathers them, the nodes carry out what comes back. The
// simulation (sim/) does the same without sockets, on thousands of networks.
//
// The rule behind all of them: a pack goes to who is expected to bring it first (earliest
// completion first, the blocking estimation of multipath schedulers), and a connection never waits
// for a request that could be under way.
//
// Rates are bytes per second, spans are seconds, places are pack numbers of the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace c2ms {

/// A connection, as the choice sees it.
struct lane {
  double rate = 0;        // while it is kept busy; 0: not known yet
  double round_trip = 0;  // from a request to its first byte
  double owed = 0;        // bytes still to come of what it has been asked for
  double brought = 0;     // bytes, since it was connected
  double silence = 0;     // how long bytes that could have come have not come
  uint32_t server = 0;    // connections with the same number share a server, and mostly a way to it
  bool growing = false;   // its rate still rises: it could bring more than it is known to
  bool usable = false;    // it delivers, or could
};

/// Neighbouring packs that nobody has been asked for.
struct stretch {
  int32_t first = 0, count = 0;
};

/// The part of the ring ahead of the reader.
struct ring_view {
  int32_t pack_bytes = 0;
  int32_t packs = 0;              // that the ring holds ahead of the reader
  std::span<const stretch> idle;  // nearest first; of a long list the nearest are enough
  int32_t urgent_end = 0;         // packs before this one are what a reader waits for, or soon will
};

/// The reader.
struct reader_view {
  double pace = 0;          // bytes per second that it takes; 0: not known, or whatever comes
  double lead = 0;          // bytes ahead of it without a hole
  double since_seek = 1e9;  // seconds since it came to this place; a play's start is no seek
};

/// Neighbouring packs to be asked for by one request; count 0: none.
struct run {
  int32_t first = 0, count = 0;
};

/// What connection `who` should ask for now. With `probe` it gets one pack, the farthest, where its
/// rate alone would get it nothing: a server that has recovered is found out by that.
run choose_run(std::span<const lane> lanes, size_t who, const ring_view &ring,
               const reader_view &reader, bool probe = false);

/// True when the next request should leave now: else the answer that is under way would end before
/// it reaches the server.
bool asks_ahead(std::span<const lane> lanes, size_t who, const reader_view &reader);

/// Seconds until a new request's first byte could arrive on a connection.
double free_in(std::span<const lane> lanes, size_t who);

/// Seconds until the first `bytes` of what a connection owes have arrived.
double arrives_in(std::span<const lane> lanes, size_t who, double bytes);

/// Seconds until the reader comes to what lies `ahead` bytes ahead of it; while its pace is not
/// known, until the ring has no room left to go on without that.
double needed_in(std::span<const lane> lanes, const ring_view &ring, const reader_view &reader,
                 double ahead);

/// Who should be asked for `missing` bytes that are expected in `expected` seconds and needed in
/// `needed`: the connection that brings them soonest and much sooner than that, or lanes.size()
/// when help would come no sooner, or is not needed. Connections that have been asked for these
/// bytes, or cannot be asked now, are passed as not usable.
size_t choose_helper(std::span<const lane> lanes, uint32_t holder, double missing, double expected,
                     double needed);

/// How many of `late` neighbouring packs that are late alike the helper is asked for at once.
int32_t choose_help(std::span<const lane> lanes, size_t helper, int32_t late, int32_t pack_bytes);

/// True when an answer of which nothing is wanted any more should be given up: reading the rest
/// takes longer than a new connection.
bool is_hopeless(std::span<const lane> lanes, size_t who);

/// A lane whose server should get one more connection, asked while there are packs that nobody has
/// been asked for; lanes.size() when none should. Connections that are being opened are lanes too:
/// not usable, their silence is the time since then. One that is not its server's first and has had
/// nothing to do for half a minute is closed.
size_t wants_connection(std::span<const lane> lanes);

/// True when a pack may be asked for that is under way already: of `received` bytes `twice` have
/// come a second time. A reader that `waits` is helped always.
bool may_repeat(double twice, double received, bool waits);

}  // namespace c2ms
