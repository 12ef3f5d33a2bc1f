// A TCP connection in virtual time, a packet at a time, and the server at its end, which answers
// one request after the other. Enough of TCP to be unkind: slow start that ends early or with
// losses, cubic growth, repeats after a round trip, timeouts that double, a window that pauses make
// small, bytes in order only.
#pragma once

#include <deque>

#include "link.h"

namespace sim {

class Connection {
 public:
  explicit Connection(Link *link) : link_(link) {}
  void open(double now);
  bool is_open(double now) const { return now >= opened_at_; }
  void request(double now, int64_t bytes);
  /// Moves on to `now`: bytes that have arrived since the last step.
  int64_t step(double now);

 private:
  struct segment {
    int bytes;
    bool arrived = false, acknowledged = false;
  };
  struct flight {  // one sending of a segment
    int64_t segment;
    double sent, arrives;
    double told = never;  // when the receiver acknowledges it
    bool counted = true;  // in flying_; false once a timeout has written it off
  };
  void read_requests(double now);
  void acknowledge(double now);
  void tell(flight &one);
  bool finds_queue(const flight &one, double now);
  void grow(const flight &one, double now);
  void cut(double now);
  void time_out(double now);
  void send(double now);
  void forget_window(double now);
  void put(int64_t which, double now);
  int64_t deliver(double now);
  bool quiet() const { return segments_.empty() && backlog_ == 0 && requests_.empty(); }

  Link *link_;
  double opened_at_ = never;
  std::deque<std::pair<double, int64_t>> requests_;  // when each reaches the server, its bytes
  double request_there_ = 0;
  double answers_at_ = 0;  // when the server starts the answer at hand
  int64_t backlog_ = 0;    // bytes that the server has still to send
  std::deque<segment> segments_;
  int64_t first_segment_ = 0, delivered_ = 0;
  std::deque<flight> air_;  // in the order of sending
  size_t heard_ = 0;        // of air_: those that have arrived or were lost
  std::deque<int64_t> repeats_;
  double window_ = 10, threshold_ = never;  // packets
  double flying_ = 0;
  double most_ = 0, epoch_ = 0;  // cubic: the window at the last cut, when that was
  double back_ = 0;              // seconds from then until it is as large again
  bool was_cut_ = false;
  int64_t acknowledged_ = 0, untold_ = -1;  // packets; the place in air_ of one that waits
  double used_ = 0, used_up_at_ = 0;        // of the window, while it was not the limit
  bool limited_ = false;                    // by the window
  double last_cut_ = -1, last_sent_ = 0, last_heard_ = 0, paced_until_ = 0;
  double round_at_ = 0, round_least_ = 0;  // of slow start: when it began, the least of its queue
  int round_count_ = 0;
  bool train_ = false;
  double round_trip_ = 0;  // smoothed
  int timeouts_ = 0;
};

}  // namespace sim
