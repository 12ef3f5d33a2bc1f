// How fast a reader takes bytes while they are there. A player takes them at the media's rate; a
// download takes what comes. Fed with each read; no lock, no clock.
#pragma once

#include <cstdint>

namespace c2ms {

class Pace {
 public:
  /// A read at `now_us` has delivered `bytes`, `waited_us` of it spent waiting for them.
  void delivered(int64_t now_us, int64_t bytes, int64_t waited_us);

  /// The reader has gone elsewhere: the window begins anew, the pace stays.
  void interrupted() { since_us_ = 0; }

  /// Forgets everything: another film.
  void reset() { *this = {}; }

  /// Bytes per second; 0 while it is not known, or the reader takes whatever comes.
  double rate() const { return rate_; }

 private:
  double rate_ = 0;
  int64_t since_us_ = 0;  // the window; 0: none
  int64_t bytes_ = 0;
  int64_t waited_us_ = 0;
};

}  // namespace c2ms
