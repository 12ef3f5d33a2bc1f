// Nodes: one TCP connection of a session to one server, and the state machine that drives it from
// connecting through the server-list and description exchanges to repeated range downloads.
//
// Everything here runs inside the session's strand. A function marked [may end the node] may have
// recycled it: the caller touches nothing of it afterwards.
#pragma once

#include <cstdint>

#include "adif/source_place.h"
#include "c2ms/core/records.h"

/// Takes a node from the pool, gives it its id and session and registers it. Inside the session's
/// strand. NULL for NULL or without memory.
c2ms_node *c2ms_node_fetch(c2ms_sess *session);

/// Ends the node: device, timers and download unit are given back, the session forgets it, the
/// record returns to the pool. Inside the strand; nothing of the node may be touched afterwards. 0;
/// -1 for NULL; harmless on a node that has been recycled already.
int c2ms_node_recycle(c2ms_node *node);

/// Opens a node to a server whose address is known (network order) and starts connecting. host:
/// name or dotted address for diagnosis, NULL: the address as text. NULL when the session has its
/// most media nodes, the address is none, or the connection can't even be tried.
c2ms_node *c2ms_node_open(c2ms_sess *session, const char *host, uint32_t ip, uint32_t port,
                          uint8_t type, uint16_t load, uint32_t level);

/// Starts connecting; only from DISCONNECTED. A node that is no media node is given up after more
/// than 3 failed attempts (the entry server then gives the session status 400). 0, or -100. [may
/// end the node]
int c2ms_node_connect(c2ms_node *node);

/// Drops the connection; the download goes back to the queue. No reconnect. 0, -1 for NULL.
int c2ms_node_disconnect_dbg(c2ms_node *node,
                             adif::source_place caller = adif::source_place::current());

/// Drops the connection after a failure and lets the connect timer try again: at once the first
/// time, a media node then after 250 ms, doubling. Counts the failure. 0, -1 for NULL.
int c2ms_node_retry(c2ms_node *node);

/// The connection is made: asks for the server list or the description, by the node's type. 0, or
/// the failed send's result (the node then retries).
int c2ms_node_get_connected(c2ms_node *node);

/// Send a request; -2 unless connected.
int c2ms_node_get_srvlist(c2ms_node *node);
int c2ms_node_desc_media(c2ms_node *node);

/// A ready media node takes a unit and sends it, or goes on with the one that it was asked for
/// ahead. 0 when it did or is not ready; -100 nothing to do; or the failed send's result (the node
/// then retries).
int c2ms_node_download_start_dbg(c2ms_node *node,
                                 adif::source_place caller = adif::source_place::current());
/// Gives the node's units back to the queue, or ends the one that is received. 0, -1 for NULL, -2
/// none (end only).
int c2ms_node_download_exit(c2ms_node *node);
int c2ms_node_download_end(c2ms_node *node);

/// Moves to a state; the session counters of a media node follow. 0, -1 for NULL, -2 without
/// session.
int c2ms_node_state_to(c2ms_node *node, uint32_t state);

/// c2ms_node_recycle.
int c2ms_node_close(c2ms_node *node);

namespace c2ms {

/// True when a node that is receiving should send its next request now: it will reach the server
/// before the answer ends, and no request is ahead already.
bool may_ask_ahead(c2ms_node *node);

/// Sends the next request of a node whose answer is still coming. False when the connection has
/// failed; nothing else may be sent on it.
bool ask_ahead(c2ms_node *node);

/// Drops a connection whose answer nobody wants any more, and connects again at once. Not a
/// failure. As c2ms_node_connect.
int connect_anew(c2ms_node *node);

/// Arms the timer that the node's state needs, unless it runs: none was free when it was due.
void rearm(c2ms_node *node);

}  // namespace c2ms
