// The timers of a session.
#pragma once

#include "c2ms/core/records.h"

/// Starts the timer of the next speed window, unless it runs. Inside the strand.
void c2ms_sess_start_speed_timer(c2ms_sess *sess);

/// Starts the timer of the next session check, unless it runs. Inside the strand.
void c2ms_sess_start_check_timer(c2ms_sess *sess);

/// Closes a window of the receive speed and starts the timer of the next. Inside the strand. 0; -1,
/// -2 no session or context.
int c2ms_sess_recvspeed_count(c2ms_sess *sess);

namespace c2ms {
/// Starts every timer that a session and its nodes lack because none was free when it was due. Each
/// timer of the session that expires does this, so that none of them stays lost while another one
/// is left; so do the waiting open and a reopen. Inside the strand.
void rearm_timers(c2ms_sess *sess);
}  // namespace c2ms
