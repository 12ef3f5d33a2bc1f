// Session records: the pool, a session's life from fetch to recycling, its list of servers, its ids
// and token, and the two registries through which events find their objects.
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

/// The next sequence id of the session's requests; 0 for NULL. Any thread.
uint32_t c2ms_sess_pduid(c2ms_sess *sess);

/// The servers that entry servers named, by the triple (address, port, type). Add: a known one
/// counts up; 0, -1 no session, -2 no memory.
int c2ms_sess_server_add(c2ms_sess *sess, const char *name, uint32_t addr, uint32_t port,
                         uint8_t type);
c2ms_server *c2ms_sess_server_get(c2ms_sess *sess, uint32_t addr, uint32_t port, uint8_t type);
int c2ms_sess_server_clear(c2ms_sess *sess);
/// True when a server of this address and port has been asked for its list.
bool c2ms_sess_server_lists(c2ms_sess *sess, uint32_t addr, uint32_t port);

/// By id: 1, 0, -1; -1 for a NULL first argument, -2 for a NULL second. A key is a pointer to a
/// uint32_t.
int c2ms_sess_cmp_sess(const void *a, const void *b);
int c2ms_sess_cmp_sessid(const void *sess, const void *key);

// Registries, ordered by id. Add: 0, -1, -2, -3 without memory. Get and delete: the object, or
// NULL. Any thread; what is found may be gone a moment later: see "the door" in core/strand.h.
// Deletion compares id and pointer, so that an old handle never removes a record's new owner.
int c2ms_sess_add(c2ms_mgmt *mgmt, c2ms_sess *sess);
c2ms_sess *c2ms_sess_get(c2ms_mgmt *mgmt, uint32_t id);
c2ms_sess *c2ms_sess_del_by(c2ms_mgmt *mgmt, uint32_t id);
c2ms_sess *c2ms_sess_del(c2ms_mgmt *mgmt, c2ms_sess *sess);
int c2ms_node_add(c2ms_mgmt *mgmt, c2ms_node *node);
c2ms_node *c2ms_node_get(c2ms_mgmt *mgmt, uint32_t id);
c2ms_node *c2ms_node_del_by(c2ms_mgmt *mgmt, uint32_t id);
c2ms_node *c2ms_node_del(c2ms_mgmt *mgmt, c2ms_node *node);

namespace c2ms {

/// Who sends what an ending session has to report: nobody, the calling thread (which waits), or the
/// reporting thread.
enum class last_report : uint8_t { none, here, handed_over };

/// c2ms_sess_recycle with this choice.
int recycle_session(c2ms_sess *sess, last_report report);

/// Lets the waiting opener look again.
void wake_opener(c2ms_sess *sess);
/// Wakes everybody who waits in a call on the session.
void wake_waiters(c2ms_sess *sess);
/// Waits until no player's call is inside a closing session. Not inside the strand.
void wait_idle(c2ms_sess *sess);

}  // namespace c2ms
