// Readers: a download, a play, a play with seeks. What came of each, and what a fluid that fills
// all links would do.
#pragma once

#include "client.h"

namespace sim {

struct network {
  std::vector<link_terms> links;
  double access_mbit = 0;  // of a line that all links share; 0: none
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

/// What a fluid is made of: all that the links carry, or nine tenths of what as many connections as
/// the client may open bring over them when all of it is welcome, in whatever order it comes.
enum class source { links, connections };

/// The same by a fluid with the same ring, which has no packs.
outcome fluid(const network &net, const play_terms &terms, source of);

/// Seconds until the film is there when none of that is lost.
double ideal_seconds(const network &net, const play_terms &terms, source of);

}  // namespace sim
