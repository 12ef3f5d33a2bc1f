// Named networks with what must be reached on them, and networks made from a seed.
#pragma once

#include "reader.h"

namespace sim {

struct scenario {
  std::string name;
  network net;
  play_terms terms;
  // What must be reached. Where TCP in virtual time allows less than one would like, a little less
  // than is reached.
  double share = 0;                   // of the ideal
  double stalled = 0;                 // seconds at most
  double median_ms = 0, most_ms = 0;  // of seeks; of nine in ten
};

std::vector<scenario> named_scenarios(int pack_bytes);

/// A network, a film and a reader of the usual kinds.
scenario random_scenario(uint64_t seed);

}  // namespace sim
