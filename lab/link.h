// One link of the emulated network: a rate that may change over time, a queue that drops what finds
// it full, delay, jitter and loss. Nothing here knows the real clock: times are nanoseconds since
// the network's first packet, and every decision follows from them and the seed.
#pragma once

#include <cstdint>
#include <deque>
#include <random>
#include <utility>
#include <vector>

namespace lab {

using nanoseconds = int64_t;

inline constexpr nanoseconds millisecond = 1'000'000;
inline constexpr nanoseconds never = INT64_MAX;

/// A rate over time: steps that repeat. Without any step there is no limit.
class rate_trace {
 public:
  void add_step(nanoseconds duration, double bits_per_s);
  /// When `bits` are through that begin to pass at `start`; `never` when all steps are 0.
  nanoseconds finish(nanoseconds start, double bits) const;

 private:
  std::vector<nanoseconds> ends_;  ///< of the steps, counted from the trace's begin
  std::vector<double> bits_per_ns_;
  double bits_per_turn_ = 0;
};

/// Which packets are lost: single ones by chance, and all of a bad time whose begin and end are by
/// chance, too.
struct loss_settings {
  double single = 0;        ///< share of the packets
  double burst_share = 0;   ///< share of the packets that bad times take
  double burst_length = 1;  ///< packets, on average
};

class packet_loss {
 public:
  packet_loss(const loss_settings &settings, uint64_t seed);
  bool next();  ///< is the next packet lost?

 private:
  double single_, begins_, ends_;
  bool bad_ = false;
  std::mt19937_64 random_;
};

/// The queue before a rate. It holds bytes, the packet under way among them.
class bottleneck {
 public:
  rate_trace trace;
  size_t limit_bytes = SIZE_MAX;

  /// When a packet of `size` bytes that comes at `now` has left; -1: the queue is full.
  nanoseconds pass(nanoseconds now, size_t size);
  size_t queued_bytes(nanoseconds now);

 private:
  struct leaving {
    nanoseconds when;
    size_t size;
  };
  std::deque<leaving> queue_;
  size_t queued_ = 0;
  nanoseconds free_ = 0;
};

struct link_settings {
  uint32_t address = 0;  ///< the server's, host order
  rate_trace trace;      ///< from the server to the client; the other way has no limit
  size_t queue_bytes = SIZE_MAX;
  nanoseconds delay = 0;   ///< each way
  nanoseconds jitter = 0;  ///< each way at most this much more; packets stay in order
  loss_settings down, up;
  std::vector<std::pair<nanoseconds, nanoseconds>> outages;  ///< begin and end
};

enum class fate : uint8_t { delivered, queue_full, lost, outage };

/// What becomes of a packet.
struct verdict {
  fate what = fate::delivered;
  nanoseconds when = 0;  ///< at the link's other end
};

class link {
 public:
  link(const link_settings &settings, uint64_t seed);
  verdict down(nanoseconds now, size_t size);  ///< from the server
  verdict up(nanoseconds now);                 ///< to the server
  uint32_t address() const { return settings_.address; }
  size_t queued_bytes(nanoseconds now) { return queue_.queued_bytes(now); }

 private:
  struct way {
    packet_loss loss;
    nanoseconds last = 0;  ///< the last packet's arrival
  };
  bool in_outage(nanoseconds when) const;
  verdict travel(way &direction, nanoseconds leaves);

  link_settings settings_;
  bottleneck queue_;
  std::mt19937_64 random_;
  way down_, up_;
};

}  // namespace lab
