// How any thread wakes a base, and which base is next. The bottom of the engine's calls: whoever
// hands something to a base needs this and nothing of the loop itself. Thread-safe, never blocks.
#pragma once

#include "eprobe/rac_core.h"

/// The next base in turn, by one of the core's two cursors.
rac_base *rac_next_base(rac_core *core, std::atomic<int32_t> *cursor);

/// Makes the base start another turn. Writes no byte when one is on its way already or when the
/// caller is the base's own thread. 0, or -1 if the wake-up could not be sent; a worker that is
/// awake then sends it later.
int rac_base_notify(rac_base *base);
