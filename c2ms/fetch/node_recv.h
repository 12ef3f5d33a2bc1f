// What arrives on a node's connection and what it leads to, and the life check.
//
// Everything here runs inside the session's strand. A function marked [may end the node] may have
// recycled it: the caller touches nothing of it afterwards.
#pragma once

#include "c2ms/core/records.h"
#include "c2ms/core/registry.h"
#include "c2ms/core/strand_hold.h"

/// The node's device is readable. Payload is received with the strand left:
/// `strand` is paused, and stays so when nothing but payload has come. [may end the node]
int c2ms_node_recv(const c2ms::node_ref &ref, rac_connection *device, c2ms::StrandHold &strand);

// What a complete response leads to. 0, or -1 to -4 missing arguments, -100 not complete, -200
// refused (the node is closed), -300 not to be understood (the node retries). [may end the node]
int c2ms_node_recv_srvlist(c2ms_sess *session, c2ms_node *node, c2ms_unit *unit, bool *closed_flag);
int c2ms_node_recv_descmedia(c2ms_sess *session, c2ms_node *node, c2ms_unit *unit,
                             bool *closed_flag);
int c2ms_node_recv_getmedia(c2ms_node *node, c2ms_unit *unit);

/// The life timer fired: a node whose server owes an answer and has been silent for too long drops
/// its connection and retries. [may end the node]
int c2ms_node_lifecheck(c2ms_node *node);
