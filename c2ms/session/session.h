// Opening, reopening and closing, as the rest of the folder sees it; c2ms.h describes the player's
// calls.
#pragma once

#include <cstdint>

#include "c2ms.h"
#include "c2ms/core/records.h"

/// Records what a server's answer means for the session: 10, 20, 30, 40 and 400 are the codes -1007
/// to -1010 and -1004, anything else is 0. Wakes opener and reader. 0, -1 for NULL. Any thread.
int c2ms_sess_set_status(c2ms_sess *sess, int32_t code);

/// Keeps the agent's refusal (20, 30 or 40, as above) until the session is closed: every read and
/// receive returns it, a waiting one at once. Any thread while the session can't be recycled.
void c2ms_sess_refuse(c2ms_sess *sess, int32_t code);

/// Starts the timer of the next speed window, unless it runs. Inside the strand.
void c2ms_sess_start_speed_timer(c2ms_sess *sess);

/// Starts the timer of the next session check, unless it runs. Inside the strand.
void c2ms_sess_start_check_timer(c2ms_sess *sess);

namespace c2ms {

/// The address (network order) of the session's entry server; 0 when there is none. May block in a
/// name look-up: never inside a strand.
uint32_t resolve_entry(c2ms_sess *sess);

/// Starts an entry exchange with the server at `address`, unless one is under way. Inside the
/// strand. 0, or -100 when it can't be started.
int start_entry_exchange(c2ms_sess *sess, uint32_t address);

/// The same from an engine thread, which must not look a name up: a dotted host is asked at once,
/// another one when the resolver's thread has its address. Inside the strand.
void reopen_later(c2ms_sess *sess);

/// While the media has not been described and every server that the last list named has failed,
/// asks the entry server for another list: 250 ms after the last one, then 500 ms, doubling. Inside
/// the strand.
void ask_entry_again(c2ms_sess *sess);

}  // namespace c2ms
