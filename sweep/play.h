// A play through the library from start to stop, in which anything may fail: each step gives what
// is documented, and once nothing fails any more everything must come right.
#pragma once

#include "c2ms.h"
#include "child.h"
#include "world.h"

namespace sweep {

enum class script : uint8_t {
  play,   ///< start, open by name, read, seek, read, close, stop
  index,  ///< the same with the index opened first, in one call
  steps,  ///< and call by call
  film,   ///< the usual start: begun, waited for, read at positions, ended
};
inline constexpr const char *script_names[] = {"play", "index", "steps", "film"};

/// Starts the world. `arm` is called when the library is about to be started. Then a second,
/// healthy play. The seconds that the first took.
double run_play(Report &report, World &world, script which, const std::function<void()> &arm);

}  // namespace sweep
