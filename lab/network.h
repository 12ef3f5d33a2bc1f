// The emulated network: the links of all servers and the access link that they may share. It takes
// packets with the time at which they came and gives them back in order of the time at which they
// arrive.
#pragma once

#include <cstdint>
#include <cstdio>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "lab/link.h"

namespace lab {

inline constexpr nanoseconds sample_period = 100 * millisecond;

struct network_settings {
  uint64_t seed = 1;
  std::vector<link_settings> links;
  bool has_access = false;  ///< all that goes to the client passes this, too
  rate_trace access_trace;
  size_t access_queue_bytes = SIZE_MAX;
};

/// Reads the settings; empty, or what is wrong. One line each:
///   seed N                            access QUEUE_BYTES
///   link ADDRESS DELAY_MS JITTER_MS QUEUE_BYTES
///   and then of the link (or access link) named last:
///   rate MS MBIT                      a step of its trace
///   loss down|up SINGLE BURST_SHARE BURST_LENGTH
///   outage FROM_MS TO_MS              once, counted from the first packet
std::string read_settings(std::FILE *in, network_settings *settings);

using packet = std::vector<uint8_t>;

bool is_ipv4(const packet &bytes);

struct arrival {
  nanoseconds when = 0;
  bool to_client = false;
  packet bytes;
};

struct way_counts {
  uint64_t packets = 0, bytes = 0;  ///< delivered
  uint64_t queue_full = 0, lost = 0, outage = 0;
};

struct link_record {
  way_counts down, up;
  std::vector<uint64_t> sent;    ///< bytes delivered to the client, for each sample period
  std::vector<uint64_t> queued;  ///< most bytes in its queue, likewise
};

class network {
 public:
  explicit network(const network_settings &settings);

  /// A packet of a server (`to_client`) or of the client. What belongs to no link is dropped.
  void take(nanoseconds now, bool to_client, packet bytes);
  /// When the next packet gets anywhere; `never` without any.
  nanoseconds next();
  /// A packet that has arrived by now, the earliest first; nothing when there is none.
  std::optional<arrival> pop(nanoseconds now);

  size_t links() const { return routes_.size(); }
  uint32_t address(size_t link) const { return routes_[link].path.address(); }
  const link_record &record(size_t link) const { return routes_[link].record; }
  uint64_t access_full() const { return access_full_; }

 private:
  struct moving {
    nanoseconds when;
    packet bytes;
  };
  /// A link and what travels on it; both ways keep their order, so that queues are enough.
  struct route {
    link path;
    std::deque<moving> down, up;
    link_record record;
  };
  void count(route &r, bool to_client, const verdict &v, size_t size, nanoseconds now);
  std::deque<moving> *first();
  bool leads_to_access(const std::deque<moving> *queue) const;

  std::vector<route> routes_;
  std::optional<bottleneck> access_;
  std::deque<moving> behind_access_;
  uint64_t access_full_ = 0;
};

}  // namespace lab
