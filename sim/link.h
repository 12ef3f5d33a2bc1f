// One way from a server to the client in virtual time: a rate that may change, a short queue, a
// delay, losses. Packets keep their order. Times are seconds, rates are Mbit/s on the wire.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace sim {

inline constexpr int packet_bytes = 1448;  // payload; with its headers a packet is 1500 bytes long
inline constexpr double never = 1e9;

/// From `from` to `to` the rate is this part of the trace's.
struct change {
  double from = 0, to = never, part = 0;
};

struct link_terms {
  std::vector<double> mbit{8};  // one for each `step` seconds; repeats
  double step = 0.2;
  double round_trip = 0.03;
  double jitter = 0;  // added to a packet's delay, at most
  double loss = 0;    // of each packet, both ways
  std::vector<change> changes;
  // The server at the other end.
  double think = 0;     // seconds until it answers a request, at most; at least a tenth of it
  double cap_mbit = 0;  // of one connection; 0: none
  bool one_at_a_time =
      false;  // it reads a request when all of the answer before has been acknowledged

  double mbit_at(double now) const;
  double mean_mbit() const;
  std::string text() const;
};

link_terms steady(double mbit, double round_trip, double loss = 0);

class Link {
 public:
  /// `next` may be a link that all packets pass first: an access line that several share.
  Link(link_terms terms, uint64_t seed, Link *shared = nullptr);
  const link_terms &terms() const { return terms_; }
  /// Puts a packet into the queue at `now`: when it is at the other end, or `never` when it is
  /// lost.
  double send(double now, int bytes);
  /// True when a packet to the server is lost.
  bool loses_request(double now);
  double uniform() { return std::uniform_real_distribution<>()(random_); }

 private:
  double leaves_at(double from, double bits) const;
  link_terms terms_;
  std::mt19937_64 random_;
  Link *shared_;
  double busy_until_ = 0, last_arrival_ = 0;
};

}  // namespace sim
