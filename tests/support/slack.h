// How much wider bounds on time are than on a desk's machine with the build that players get.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdlib>

namespace support {

using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif

/// Every bound is multiplied by this: a sanitizer's cost, and C2MS_SLACK in the environment
/// (emulators, machines under load).
inline double slack() {
  static const double factor = [] {
    const char *const given = std::getenv("C2MS_SLACK");
    return (sanitized ? 8 : 1) * (given != nullptr ? std::max(1.0, std::atof(given)) : 1.0);
  }();
  return factor;
}

inline double seconds_since(clock::time_point start) {
  return std::chrono::duration<double>(clock::now() - start).count();
}

/// How many seconds `work` takes.
template <typename Work>
double took(Work work) {
  const auto begin = clock::now();
  work();
  return seconds_since(begin);
}

}  // namespace support
