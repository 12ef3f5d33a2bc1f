// What a connection may be expected to bring: its rate and its round trip as moving estimates. The
// node feeds it with each request that leaves and each piece of an answer; the choice (choice.h)
// reads it.
//
// No lock and no clock: the caller guards it and says what time it is, in microseconds that never
// run backwards. Rates are bytes per second, spans are seconds.
#pragma once

#include <cstdint>

namespace c2ms {

class Estimate {
 public:
  /// Something small, the connection itself or a description, took `took_us` from request to
  /// answer.
  void exchanged(int64_t now_us, int64_t took_us);

  /// A request for `bytes` has been sent.
  void asked(int64_t now_us, int64_t bytes);

  /// `bytes` of what was asked for have arrived.
  void received(int64_t now_us, int64_t bytes);

  /// `bytes` of what was asked for will not come: the answer was short.
  void let_off(int64_t bytes);

  /// The connection is gone with all that it owed. What was learnt of the server stays.
  void disconnected();

  /// Bytes that are still to come.
  int64_t owed() const { return owed_; }

  /// Bytes that have come since it was connected.
  int64_t brought() const { return brought_; }

  /// Bytes per second while it has something to send; 0 while nothing is known.
  double rate() const { return rate_; }

  /// Seconds from a request to the first byte of its answer, the smallest of late; 0 while nothing
  /// is known.
  double round_trip() const { return round_trip_us_ * 1e-6; }

  /// True while the rate still rises from one round trip to the next, as it does on a young
  /// connection.
  bool growing(int64_t now_us) const;

  /// Seconds for which bytes that could have come have not come. 0 while nothing is owed.
  double silence(int64_t now_us) const;

 private:
  void measure_round_trip(int64_t now_us);
  void excuse_pause(int64_t now_us);
  void measure_rate(int64_t now_us, bool ended);

  int64_t owed_ = 0, brought_ = 0;
  double rate_ = 0;
  double peak_ = 0;  // of the rate, and when it last rose much above the one before
  int64_t peak_at_us_ = 0;
  double round_trip_us_ = 0;
  int64_t round_trip_at_us_ = 0;  // when the smallest was last confirmed
  int64_t asked_at_us_ = 0;       // when the connection was last asked while it owed nothing
  bool awaits_first_ = false;     // nothing of the answer to that request has come
  int64_t excused_us_ = 0;        // of a pause that is ours: the request left too late to fill it
  int64_t excused_until_us_ = 0;
  int64_t heard_at_us_ = 0;   // the last byte, or when the first could come
  int64_t window_at_us_ = 0;  // the rate's window
  int64_t window_bytes_ = 0;
};

}  // namespace c2ms
