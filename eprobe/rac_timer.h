// Timers: their pool, their start on a base and the end of their use. Thread-safe.
#pragma once

#include "eprobe/rac_core.h"

/// Makes (unmakes) the pool of `timer_n` timers with their events, and one spare timer for each
/// base, which must be there: 0, or -1 without memory.
int rac_timer_init(rac_core *core);
void rac_timer_destroy(rac_core *core);

/// A fresh timer; NULL when the pool is empty.
rac_timer *rac_get_timer(rac_core *core);
/// The same from the worker's spare slot, for a handler that starts its own timer again: `words`
/// are those of the timer whose handler is running on this thread. NULL for any other, on any other
/// thread, and from the second time in one run of a handler.
rac_timer *rac_get_spare_timer(rac_core *core, const rac_timer_words &words);
/// Gives the slot of a timer whose use has ended back to the pool.
void rac_free_timer(rac_core *core, rac_timer *t);
/// Ends the timer's present use, set or running, and gives its slot back: to the worker whose spare
/// one is in use, else to the pool.
void rac_close_timer(rac_core *core, rac_timer *t);

/// Starts the timer on the next base round-robin (one that is set keeps its base). It may have
/// expired and its slot serve another before this returns. Always 0.
int rac_dispatch_timer(rac_core *core, rac_timer *t, uint32_t msec);

/// Ends the use `generation` unless it is over or its handler is running: then false.
bool rac_stop_timer(rac_timer *t, uint32_t generation);
