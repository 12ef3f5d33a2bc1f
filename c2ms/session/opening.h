// Opening a media: from the URL to the first description, and what prepares the session then. An
// open runs on the caller's thread, or on a thread of the library while the player has the session
// already and may wait, cancel and close.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

namespace c2ms {

/// What ends an open from outside, asked about once a second while servers are waited for.
using open_question = int32_t (*)(void);

/// Takes a session for this URL; it is opening from here on. NULL, with C2MS_INVALID_PARAMETER,
/// C2MS_INVALID_URL, C2MS_UNSUPPORTED_SCHEME, C2MS_NO_MEMORY or C2MS_CLOSED in `err`.
c2ms_sess *begin_open(c2ms_mgmt *mgmt, const char *url, int32_t *err);

/// Opens it on this thread: asks the entry server, waits for a description, prepares. 0, or what
/// has ended the open, which is kept in `opened` as well. The session's record stays the caller's.
int32_t run_open(c2ms_sess *sess, open_question ask);

/// The same on a thread of the library. False when none can be had.
bool run_open_elsewhere(c2ms_sess *sess);

/// Gives back a session whose open has failed. The reporting side hears of it on its own threads.
void drop_failed(c2ms_sess *sess);

/// A closing session whose open still runs elsewhere: the thread that runs it gives it back. False
/// when none runs.
bool leave_to_opener(c2ms_sess *sess);

}  // namespace c2ms
