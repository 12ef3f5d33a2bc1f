// The watch over a session's transfers: late packs get help, hopeless answers are given up, and a
// server that does not answer what it was asked ahead is found out. Looks soon after each dispatch,
// every 20 ms while a reader waits or has little ahead of it, and every 100 ms while anything else
// is under way. What decides is in fetch/choice.h.
#pragma once

#include "c2ms/core/records.h"

namespace c2ms {

/// Looks now, and starts the timer for the next look while there is something to watch. Inside the
/// strand. The timer's handle belongs to the session; the pump clears it and calls this. [may end
/// connections]
void watch_session(c2ms_sess *sess);

/// Starts the timer for a look within 100 ms, unless it runs. Inside the strand.
void start_watch(c2ms_sess *sess);

/// The same for a look within 20 ms. Inside the strand.
void watch_soon(c2ms_sess *sess);

}  // namespace c2ms
