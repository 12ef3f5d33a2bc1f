// What must hold on every network, whoever tuned for it.
//
// Always: the whole film arrives, what arrives twice stays within its budget, and no connection is
// idle that would long have brought what the reader waits for.
//
// Measured by a fluid on what TCP can reach of the network (reachable): a play stalls no longer
// than the fluid's and one exchange, it starts within 1.3 times the fluid's start and four
// exchanges, a download takes no more than a tenth and four exchanges longer. An exchange is the
// longest round trip of the network, with jitter and the server's delay. A network on which that
// fails is behind: few may be.
#pragma once

#include "scenarios.h"

namespace sim {

struct verdict {
  outcome got, best;   // best: the fluid's
  std::string broken;  // what must hold always and does not
  std::string behind;  // what the fluid does better
  double stalled = 0;  // seconds beyond the fluid's
};

verdict judge(const scenario &one, uint64_t seed, bool verbose = false);

/// The same for a named scenario: what it must reach is in its record.
verdict judge_named(const scenario &one, uint64_t seed, bool verbose = false);

/// The time below which `part` of the seeks were, in ms.
double seek_ms(const outcome &got, double part);

/// One line, for a table.
std::string summary(const scenario &one, const verdict &v);

}  // namespace sim
