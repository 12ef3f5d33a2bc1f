// The session record's life: taken from the pool, registered, ended, given back.
#pragma once

#include <cstdint>

#include "c2ms.h"
#include "c2ms/core/records.h"

/// Takes a session from the pool, gives it id and token and registers it; it is live from here on.
/// NULL for NULL or without memory.
c2ms_sess *c2ms_sess_fetch(c2ms_mgmt *mgmt);

/// Pool init function: makes locks, events and stacks once, resets everything else. 0, -1 for NULL,
/// -2 without memory.
int c2ms_sess_init(c2ms_sess *sess);

/// Ends a closing session whose callers have left: gives back nodes, units, servers and cache,
/// reports its end (which may wait for agent and report server: session/reporting.h), then
/// unregisters it and returns the record to the pool. Not inside the strand. 0 (also when it was
/// recycled before), -1 for NULL.
int c2ms_sess_recycle(c2ms_sess *sess);

/// Pool free function; also frees a session that is still open when nobody else is there. 0, -1 for
/// NULL.
int c2ms_sess_free(c2ms_sess *sess);

/// 16 bytes of MD5 over an address, the time of day and the device's identity.
void c2ms_sess_random(c2ms_sess *sess, uint8_t *out);

namespace c2ms {

/// Who sends what an ending session has to report: nobody; the calling thread, which waits; a
/// thread of the library, with the record kept meanwhile; or, of a failed open, the reporting
/// threads.
enum class last_report : uint8_t { none, here, elsewhere, handed_over };

/// Ends all nodes of a session whose open has failed. Inside the strand.
void end_nodes(c2ms_sess *sess);

/// c2ms_sess_recycle with this choice.
int recycle_session(c2ms_sess *sess, last_report report);

}  // namespace c2ms
