// The watch over a session's transfers while a deadline is near: late packs get help, hopeless
// answers are given up, and a server that does not answer what it was asked ahead is found out.
// Looks whenever a request has been sent or an answer has ended, and every 20 ms while a reader
// waits or has little ahead of it. What decides is in fetch/choice.h.
#pragma once

#include "c2ms/core/records.h"

namespace c2ms {

/// Looks now, and starts the timer for the next look while there is something to watch. Inside the
/// strand. The timer's handle belongs to the session; the pump clears it and calls this. [may end
/// connections]
void watch_session(c2ms_sess *sess);

/// Starts the timer if it is not running and there is something to watch. Inside the strand.
void start_watch(c2ms_sess *sess);

}  // namespace c2ms
