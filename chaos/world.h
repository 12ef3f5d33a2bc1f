// The world of one chaos run: media servers on loopback with content that identifies itself, and
// the weather over them, which switches faults at random until it calms down.
#pragma once

#include <memory>
#include <string>

#include "books.h"
#include "testing/media_server.h"

namespace chaos {

struct World {
  explicit World(uint64_t seed);

  /// Faults at random until `storm` is over; then every server is healthy again.
  void rage(milliseconds storm);

  /// Where in the film these bytes lie, or nowhere.
  uint64_t place_of(const uint8_t *bytes, size_t count) const;
  static constexpr uint64_t nowhere = UINT64_MAX;

  uint64_t injected() const;  ///< faults that were really committed

  Dice dice;
  bool refuses;       ///< servers refuse at times: reads may end with the code
  bool leaves_stuck;  ///< connections that a fault has silenced stay so after the storm
  const int nodes;
  Findings findings;
  Books books;
  refserver::media_server server;
  uint64_t size;
  refserver::file_id film{}, index{};
  std::string packed;       ///< the index file
  uint32_t index_size = 0;  ///< unpacked: so many first bytes of the film
  std::atomic<bool> calm{false};

 private:
  void strike();
  refserver::fault any_fault();
  int any_server() { return dice.between(refserver::entry_server, nodes - 1); }
};

}  // namespace chaos
