// Readers: a download, a play, a play with seeks. What came of each, and what a fluid that fills
// all links would do.
#pragma once

#include "client.h"

namespace sim {

struct network {
  std::vector<link_terms> links;
  double access_mbit = 0;   // of a line that all links share; 0: none
  bool slow_start = false;  // of a fluid: links come up as TCP's first windows do
};

struct play_terms {
  client_terms client;
  double pace = 0;       // bytes per second; 0: a download
  double seek_each = 0;  // seconds of playing between two seeks; 0: none
  int seeks = 30;
  double most_seconds = 400;
};

struct outcome {
  double seconds = 0;  // to the end
  double stalled = 0;  // seconds, the start left out
  double longest = 0;
  double start = 0;                // until two seconds of media were there
  double read = 0;                 // bytes that the reader has taken
  double received = 0, twice = 0;  // bytes
  double starved = 0;
  int requests = 0, connections = 0;
  std::vector<double> seeks;  // seconds each, in order of length
  bool complete = false;
};

outcome play(const network &net, const play_terms &terms, uint64_t seed, bool verbose = false);

/// The same by a fluid with the same ring, which fills all links at once.
outcome fluid(const network &net, const play_terms &terms);

/// What TCP can reach of a network: a part of each rate, less where packets get lost, and a link
/// that was silent for some time needs as long again until it is used. Its fluid is what a play is
/// measured by.
network reachable(const network &net);

/// Seconds that the links need for the film when nothing is lost between them.
double ideal_seconds(const network &net, const play_terms &terms);

}  // namespace sim
