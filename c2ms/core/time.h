// The session core's clock: wall time at the first use, advanced by the monotonic clock, so that a
// change of the system's date never looks like elapsed time.
#pragma once

#include <sys/time.h>

#include <chrono>
#include <cstdint>

namespace c2ms {

using steady = std::chrono::steady_clock;

/// Microseconds since the epoch; never runs backwards.
int64_t now_us();

/// The same as seconds and microseconds.
inline timeval to_tv(int64_t us) {
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(us / 1'000'000);
  tv.tv_usec = static_cast<suseconds_t>(us % 1'000'000);
  return tv;
}

inline timeval now_tv() {
  return to_tv(now_us());
}

inline int64_t to_us(const timeval &tv) {
  return int64_t{tv.tv_sec} * 1'000'000 + tv.tv_usec;
}

inline bool is_set(const timeval &tv) {
  return tv.tv_sec != 0;
}

}  // namespace c2ms
