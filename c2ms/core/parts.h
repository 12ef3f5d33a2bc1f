// The small types that the records (core/records.h) are made of: settings, states, counts.
#pragma once

#include <cstddef>
#include <cstdint>

#include "c2ms/core/limits.h"

struct c2ms_sess;
struct c2ms_trace_event;

namespace c2ms {

/// As long as a host's name can be (RFC 1035).
struct host_name {
  char text[256];
};

struct report_facts;

/// First member of each pooled record: tells a record whose locks exist from fresh zeroed memory.
struct pooled {
  uint32_t constructed;
};

/// How long the exchanges of the reporting channels wait, in milliseconds; tests shorten them.
struct report_waits {
  int ping_ms = 2000;
  int reply_ms = 8000;
  int connect_ms = 2000;
  int send_ms = 1000;
  int farewell_ms = 2000;  // for the ends of sessions, when the context is cleaned
};

/// How long a play bears with what does not go on; tests shorten them.
struct patience {
  int64_t stalled_us = c2ms::stalled_us;  // a server that owes an answer and sends nothing
  int64_t reopen_after_us = c2ms::reopen_after_us;  // no server is usable, or none answers
  int64_t settled_us = c2ms::settled_us;            // ready that long: the brake begins anew
  int64_t ratio_stalled_us = c2ms::ratio_stalled_us;
  int64_t index_open_ms = c2ms::index_open_ms;
  int64_t index_start_ms = c2ms::index_start_ms;
  int32_t index_receive_ms = c2ms::index_receive_ms;
  int32_t open_s = c2ms::open_timeouts;
  int32_t reporting_check_s = c2ms::reporting_check_time_s;
};

/// A server that described a film of some entry server (core/known.h); at_us 0: none.
struct known_record {
  uint32_t entry_ip = 0, entry_port = 0;
  uint32_t ip = 0, port = 0;
  int64_t at_us = 0;
};

/// A node that a session has opened to a server of the film before, without being told to: until
/// the entry server's list names it, nothing that its server says against the session counts.
enum class from_memory : uint8_t { no, unconfirmed, confirmed };

/// What a reporting thread has to do for a session on one channel; ended: all has been said.
enum class report_job : int { none, queued, running, ended };

/// Whether a thread of the library opens a session; abandoned: the player has closed it meanwhile.
enum class open_job : uint8_t { none, running, abandoned };

/// What the player wants of a session beside its media, for the thread that opens it.
struct open_wishes {
  int32_t (*prepare)(c2ms_sess *sess) = nullptr;  // after the description; NULL: nothing
  uint64_t cache_bytes = 0;                       // 0: all that is free
  uint64_t range_begin = 0, range_size = 0;       // size 0: to the end
  int32_t pack_size = 0;
  bool index = false;
};

/// What a node's range requests came to (player/stats.h).
struct tally {
  uint64_t received = 0;                           // bytes of payload
  uint64_t grown = 0;                              // those of them that made a pack longer
  uint64_t sent = 0, completed = 0, given_up = 0;  // requests; the rest of those sent is in flight
  uint64_t redundant = 0, won = 0;                 // for a pack that another node was asked for
  uint64_t wasted = 0;                             // completed, and filled no pack
  uint64_t failures = 0;                           // of the connection
};

/// A session's recorder (core/recorder.h).
struct recorder {
  c2ms_trace_event *events = nullptr;  // a ring; NULL while off
  uint32_t size = 0, count = 0;
  uint32_t next = 0;  // where the next event goes
  uint64_t lost = 0;
  int64_t start_us = 0;
};

/// What a cache is for: a play; the packed file, while an index is being opened; the box headers of
/// the media after that, of which nothing is prefetched. A player's seeks are for plays.
enum class cache_use : uint8_t { play, packed_index, box_headers };

/// Why a reader waited: no node could deliver, the pack came late, nothing had been asked for
/// before the seek (or the choice of the file), or whatever it was until the call was cancelled.
enum class wait_cause : uint8_t { no_node, late, seek, cancelled };
inline constexpr size_t wait_causes = 4;

/// A part of the arena that belongs to a session's cache.
struct cache_block {
  uint8_t *at = nullptr;
  int32_t bytes = 0;
};

struct wait_count {
  uint64_t count = 0, total_us = 0, longest_us = 0;
};

}  // namespace c2ms
