// The player's API from four threads at once, sessions shared between them.
#pragma once

#include <cstdint>

#include "adif/bmempool.h"

namespace chaos {

/// Makes so many calls; 0 when every one of them was right.
int drive(int64_t calls, uint64_t seed, adif::pool_mode pools);

}  // namespace chaos
