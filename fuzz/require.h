// What a fuzz target asserts.
#pragma once

#include <cstdlib>

/// Ends the process, which the fuzzer and the replay tell of, where something does not hold.
[[gnu::noinline]] inline void require(bool holds) {
  if (!holds) std::abort();
}
