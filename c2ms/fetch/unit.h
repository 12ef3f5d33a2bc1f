// Units: one request and its response. The unit builds and sends the request, parses the response
// as its bytes arrive on the non-blocking socket and writes media payload straight into its pack.
// It reports results; the node (fetch/node.h) acts on them.
//
// Download units are used under the node's download lock, control units inside the session's
// strand.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

/// Results of sending and receiving.
enum c2ms_unit_result : int {
  unit_not_sendable = -100,   // not in UNIT_INIT
  unit_nothing_read = -100,   // the peer has gone before the first byte of a control response
  unit_not_wanted = -140,     // its pack has moved on
  unit_socket_failed = -200,  // error, or closed within a response
  unit_oversized = -300,      // total length above 1024 or below what the response needs
  unit_wrong_command = -400,
  unit_wrong_sequence = -500,
  unit_bad_payload = -600,  // longer than the range asked for
};

/// Pool init function: resets the record, makes its frame once. 0, -1 for NULL.
int c2ms_unit_init(c2ms_unit *unit);

/// Takes a unit from the pool and gives it its id. NULL for NULL or without memory. Any thread.
c2ms_unit *c2ms_unit_fetch(c2ms_sess *session);

/// Leaves its pack and returns to the pool. The caller holds the unit alone; no pack's lock. 0, -1.
int c2ms_unit_recycle(c2ms_unit *unit);

/// Pool free function. 0, -1 for NULL.
int c2ms_unit_free(c2ms_unit *unit);

/// Prepare a control request (server list, description), or the request of a download that has been
/// bound to its packs (c2ms_cache_bind). 0, or -1, -2, -3 for the first missing argument or link.
int c2ms_unit_init_srvlist(c2ms_node *node, c2ms_unit *unit);
int c2ms_unit_init_descmedia(c2ms_node *node, c2ms_unit *unit);
int c2ms_unit_init_download(c2ms_sess *session, c2ms_unit *unit);

/// 1 when the unit may still deliver into its pack (control units always), else 0. The second form
/// is for holders of the pack's lock.
int c2ms_unit_verify(c2ms_unit *unit);
bool c2ms_unit_verify_in(c2ms_unit *unit, c2ms_pack *pack) REQUIRES(pack->lock);

/// Sends the request in one non-blocking attempt. 0; -1 no unit; -2 no node; unit_not_sendable,
/// unit_not_wanted, or unit_socket_failed when it did not go out whole.
int c2ms_unit_send(c2ms_unit *unit, int fd);

/// Receives what there is of a control response; UNIT_END tells that it is whole, and bytes that
/// came behind it are dropped. closed_flag is set when the peer has closed (a whole response counts
/// all the same). 0, or a negative result: the unit is back in UNIT_INIT.
int c2ms_unit_recv_control(c2ms_node *node, c2ms_unit *unit, int fd, bool *closed_flag);

/// The same for a download, payload included; bounded work, the rest comes with the next event. A
/// unit without a valid pack reads its payload and throws it away, so that the stream stays
/// aligned.
int c2ms_unit_recv(c2ms_unit *unit, int fd);

/// Orders units by their range's offset: -1 when a is lower or either is NULL, 0, 1.
int c2ms_unit_cmp_unit_by_offset(const void *a, const void *b);

namespace c2ms {
/// The state's name as the dump prints it.
const char *unit_state_name(uint8_t state);
/// True when the answer to a whole download held fewer bytes than were asked for.
bool is_short_answer(const c2ms_unit &unit);
}  // namespace c2ms
