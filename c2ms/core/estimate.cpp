// See estimate.h.
#include "c2ms/core/estimate.h"

#include <algorithm>

#include "c2ms/core/time.h"

namespace c2ms {

namespace {

constexpr int64_t least_window_us = 20'000;  // shorter ones measure how packets bunch, not the rate
constexpr int64_t most_window_us =
    300'000;  // a window holds a round trip: TCP sends in bursts, one each
constexpr int64_t least_pause_us = 3'000;
constexpr int64_t least_elapsed_us =
    200;  // an answer that came at once: its span is not known better
constexpr double least_memory_us =
    150'000;  // of the rate; twice the round trip when that is longer
constexpr double most_memory_us = 1'000'000;
constexpr int64_t round_trip_memory_us = 10'000'000;  // then a longer one is believed
constexpr double rises = 1.25;                        // in three round trips, or it has settled
constexpr double growth_round_trips = 3;

}  // namespace

void Estimate::exchanged(int64_t now_us, int64_t took_us) {
  if (round_trip_us_ != 0) return;
  round_trip_us_ = static_cast<double>(std::max<int64_t>(took_us, 1));
  round_trip_at_us_ = now_us;
}

void Estimate::asked(int64_t now_us, int64_t bytes) {
  if (owed_ <= 0) {
    owed_ = 0;
    asked_at_us_ = now_us;
    awaits_first_ = true;
    heard_at_us_ = window_at_us_ = now_us + static_cast<int64_t>(round_trip_us_);
    window_bytes_ = 0;
    excused_us_ = 0;
  } else if (rate_ > 0) {
    const auto lasts_us = static_cast<int64_t>(static_cast<double>(owed_) * 1e6 / rate_);
    excused_us_ = std::max(static_cast<int64_t>(round_trip_us_) - lasts_us, int64_t{0});
    excused_until_us_ = now_us + 2 * static_cast<int64_t>(round_trip_us_);
  }
  owed_ += bytes;
}

void Estimate::received(int64_t now_us, int64_t bytes) {
  if (awaits_first_) measure_round_trip(now_us);
  owed_ = std::max<int64_t>(owed_ - bytes, 0);
  excuse_pause(now_us);
  heard_at_us_ = now_us;
  window_bytes_ += bytes;
  brought_ += bytes;
  measure_rate(now_us, owed_ == 0);
}

void Estimate::let_off(int64_t bytes) {
  owed_ = std::max<int64_t>(owed_ - bytes, 0);
}

void Estimate::disconnected() {
  owed_ = brought_ = 0;
  awaits_first_ = false;
  peak_ = 0;
}

double Estimate::silence(int64_t now_us) const {
  if (owed_ <= 0) return 0;
  return static_cast<double>(std::max<int64_t>(now_us - heard_at_us_, 0)) * 1e-6;
}

bool Estimate::growing(int64_t now_us) const {
  return static_cast<double>(now_us - peak_at_us_) < growth_round_trips * round_trip_us_;
}

void Estimate::measure_round_trip(int64_t now_us) {
  awaits_first_ = false;
  const auto trip = static_cast<double>(std::max<int64_t>(now_us - asked_at_us_, 1));
  const bool unknown = round_trip_us_ == 0 || now_us - round_trip_at_us_ > round_trip_memory_us;
  // Nothing could come before the first byte while the round trip was not known.
  if (round_trip_us_ == 0 || now_us < window_at_us_) window_at_us_ = now_us;
  if (!unknown && trip > round_trip_us_ * 1.1) return;
  round_trip_at_us_ = now_us;
  round_trip_us_ = unknown ? trip : std::min(round_trip_us_, trip);
}

// A pause for want of a request says nothing about the connection's rate.
void Estimate::excuse_pause(int64_t now_us) {
  const int64_t pause = now_us - heard_at_us_;
  if (excused_us_ == 0 || pause < least_pause_us) return;
  if (now_us < excused_until_us_) window_at_us_ += std::min(pause, excused_us_);
  excused_us_ = 0;
}

// A window ends when it is long enough, or with the last byte that is owed.
void Estimate::measure_rate(int64_t now_us, bool ended) {
  int64_t elapsed = now_us - window_at_us_;
  const int64_t whole =
      std::clamp(static_cast<int64_t>(round_trip_us_), least_window_us, most_window_us);
  if (elapsed < whole && !ended) return;
  // All of a short answer at once says only how long it took altogether.
  if (elapsed < least_elapsed_us) elapsed = std::max(now_us - asked_at_us_, least_elapsed_us);
  const double sample = static_cast<double>(window_bytes_) * 1e6 / static_cast<double>(elapsed);
  const double memory_us = std::clamp(2 * round_trip_us_, least_memory_us, most_memory_us);
  const double weight = static_cast<double>(elapsed) / (static_cast<double>(elapsed) + memory_us);
  rate_ = rate_ == 0 ? sample : rate_ + weight * (sample - rate_);
  window_at_us_ = now_us;
  window_bytes_ = 0;
  if (rate_ < peak_ * rises) return;
  peak_ = rate_;
  peak_at_us_ = now_us;
}

}  // namespace c2ms
