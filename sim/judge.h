// What must hold on every network, whoever tuned for it.
#pragma once

#include <string>

#include "scenarios.h"

namespace sim {

struct verdict {
  outcome got;
  std::string faults;   // empty: all holds
  double stalled = 0;   // seconds beyond what the reachable fluid has
  double slower = 0;    // of a download: its time by that of the reachable fluid
  double seek = 0;      // of nine seeks in ten, by one exchange
};

/// Seconds of one exchange on a network: a request, its answer and the look that noticed that it was wanted.
double exchange(const network &net);

verdict judge(const scenario &one, uint64_t seed, bool verbose = false);

}  // namespace sim
