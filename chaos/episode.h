// One chaos run, fixed by its seed but for the machine's timing.
#pragma once

#include <string>
#include <vector>

#include "viewer.h"

namespace chaos {

struct Episode {
  std::vector<std::string> findings;  // empty: nothing went wrong
  uint64_t injected = 0;              // faults committed
};

/// Runs it in this process and checks what is left. Ends the process when it hangs.
Episode run_episode(uint64_t seed, Tally &tally);

}  // namespace chaos
