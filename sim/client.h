// A player's session in virtual time: the ring, the reader and the connections, with the library's own estimates and
// choice (c2ms/fetch) between them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "c2ms/fetch/choice.h"
#include "c2ms/fetch/estimate.h"
#include "network.h"

namespace sim {

struct play_spec {
  double film_bytes = 40e6;
  double pace = 0;            // bytes per second; 0: a download
  int pack_bytes = 32 * 1024;
  double ring_bytes = 8 << 20;
  int connections_each = 1;
  double seek_each = 0;       // seconds of playing between two seeks; 0: none
  double most_seconds = 400;
};

struct outcome {
  double seconds = 0;     // to the end
  double stalled = 0;     // seconds, the start left out
  double longest = 0;
  double start = 0;       // until two seconds of media were there
  double twice = 0;       // bytes
  double delivered = 0;
  int requests = 0;
  std::vector<double> seeks;  // seconds each
};

outcome play(const std::vector<link_spec> &links, const play_spec &spec, uint64_t seed, bool verbose = false);

/// What a fluid that fills all links at once would do with the same ring: the least that is possible.
outcome fluid(const std::vector<link_spec> &links, const play_spec &spec);

/// Seconds that the links need for the film when nothing is lost between them.
double ideal_seconds(const std::vector<link_spec> &links, const play_spec &spec);

}  // namespace sim
