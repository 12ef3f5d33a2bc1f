// What the chaos program's parts share: dice that a seed fixes, and the watch over calls.
#pragma once

#include <atomic>
#include <cstdint>
#include <random>

#include "support/findings.h"
#include "support/slack.h"

namespace chaos {

using support::clock;
using support::Findings;
using support::milliseconds;
using support::seconds_since;
using support::slack;

/// Random choices of one thread: the same for the same seed and role.
class Dice {
 public:
  Dice(uint64_t seed, uint64_t role) : engine_(seed * 1'000'003 + role) {}
  uint64_t below(uint64_t n) { return n == 0 ? 0 : engine_() % n; }
  int between(int low, int high) {
    return low + static_cast<int>(below(static_cast<uint64_t>(high - low + 1)));
  }
  bool one_in(uint64_t n) { return below(n) == 0; }
  /// As likely small as large: every power of two up to `high` has its turn.
  uint64_t spread(uint64_t high) {
    uint64_t bits = 0;
    while (bits < 63 && (uint64_t{1} << bits) <= high) ++bits;
    return std::min(below(uint64_t{1} << (1 + below(bits + 1))), high);
  }
  template <class Table>
  const auto &of(const Table &table) {
    return table[below(std::size(table))];
  }

 private:
  std::mt19937_64 engine_;
};

/// What a thread is doing, for the watchdog.
using current_call = std::atomic<const char *>;

/// Makes a call that must be back within `limit_s`.
template <class Call>
auto timed(Findings &findings, current_call &current, const char *name, double limit_s, Call call) {
  current = name;
  const auto begin = clock::now();
  const auto result = call();
  const double took = seconds_since(begin);
  current = nullptr;
  if (took > limit_s * slack()) findings.add("%s took %.2f s, at most %.2f", name, took, limit_s);
  return result;
}

}  // namespace chaos
