// A network in virtual time: links with a rate, a delay, a short queue and losses, and TCP connections over them, a
// packet at a time. Just enough of TCP to be unkind: slow start, a window that a loss cuts, bytes in order only.
// No sockets, no threads; the caller moves the time on, a millisecond at a step.
#pragma once

#include <cstdint>
#include <deque>
#include <random>
#include <vector>

namespace sim {

struct span_rate {
  double seconds, mbit;
};

struct link_spec {
  std::vector<span_rate> trace;  // repeats
  double round_trip = 0.03;
  double loss = 0;               // of each packet to the client
  double dies_at = -1;           // seconds; lets nothing through from then on
  double cut_at = -1, cut_to = 1;  // from then on its rate is this part of the trace's

  double mbit_at(double now) const;
};

inline link_spec steady(double mbit, double round_trip, double loss = 0) {
  return {{{1, mbit}}, round_trip, loss};
}

class Link {
 public:
  Link(link_spec spec, uint64_t seed) : spec_(std::move(spec)), random_(seed) {}
  const link_spec &spec() const { return spec_; }
  /// Puts a packet into the queue at `now`: when it leaves at the other end, or a negative number when it is lost.
  double send(double now, int bytes);

 private:
  double queue_bytes(double now) const;
  link_spec spec_;
  std::mt19937_64 random_;
  double busy_until_ = 0;
};

/// One TCP connection and the server at its end, which answers one request after the other.
class Connection {
 public:
  explicit Connection(Link *link) : link_(link) {}
  void open(double now);
  bool is_open(double now) const { return opened_at_ >= 0 && now >= opened_at_; }
  void close();
  void request(double now, int64_t bytes);
  /// Moves on to `now`: bytes that have arrived since the last step.
  int64_t step(double now);

 private:
  struct packet {
    double arrives, acknowledged;
    int bytes;
  };
  void send_packets(double now);
  Link *link_;
  double opened_at_ = -1;
  std::deque<std::pair<double, int64_t>> requests_;  // on their way to the server
  int64_t backlog_ = 0;                              // bytes that the server has to send
  std::deque<packet> in_flight_;
  int64_t flying_ = 0;
  double window_ = 0, threshold_ = 1e12;
  double last_cut_ = -1, last_arrival_ = 0, last_sent_ = 0;
};

}  // namespace sim
