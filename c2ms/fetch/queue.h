// The session's scheduler: the nodes that a session downloads from, the queue of units that wait
// for one, the match of both (best node first, lowest offset first), and the receive speeds.
//
// Queueing a unit only marks the session "dispatch due" (core/strand.h): the dispatch runs in the
// strand when its outermost level is left, and as the engine's hook.
#pragma once

#include <cstdint>

#include "c2ms.h"
#include "c2ms/ring/cache.h"
#include "c2ms/core/records.h"

/// Enters a node into the session's index and, when it is a media node, into the node list. 0, -1,
/// -2.
int c2ms_sess_node_add(c2ms_sess *sess, c2ms_node *node);
/// Removes it by pointer. 0, -1, -2.
int c2ms_sess_node_del(c2ms_sess *sess, c2ms_node *node);
/// A node of this address (network order) and port, or NULL.
c2ms_node *c2ms_sess_node_find(c2ms_sess *sess, uint32_t addr, uint32_t port);
/// Media nodes of the session; those that could take a unit now. -1 for NULL.
int c2ms_sess_node_num(c2ms_sess *sess);
int c2ms_sess_node_readynum(c2ms_sess *sess);
/// Sorts the node list, fastest first. 0, -1 for NULL.
int c2ms_sess_node_sort(c2ms_sess *sess);

/// A unit for `count` neighbouring idle packs from `first` on, or for as many of them as are still
/// idle; or for what packs that others are fetching lack. The caller owns it. NULL when there is
/// nothing to ask for, or no memory.
c2ms_unit *c2ms_sess_unit_issue(c2ms_sess *sess, int32_t first, int32_t count);
c2ms_unit *c2ms_sess_unit_issue_again(c2ms_sess *sess, int32_t first, int32_t count);
/// Queues a unit by its offset. 0, -1, -2.
int c2ms_sess_unit_put(c2ms_sess *sess, c2ms_unit *unit);
/// Takes back a unit that a node gave up: its packs are idle again and are chosen anew. 0, -1, -2.
/// The unit is not the caller's afterwards.
int c2ms_sess_unit_requeue(c2ms_sess *sess, c2ms_unit *unit);
/// What a node should ask for: the queued unit with the lowest offset that is still wanted, else
/// the run of packs that the choice gives it (fetch/work.h). NULL when there is nothing for
/// it. The caller owns the unit. Inside the strand. Without a node: the first idle pack.
c2ms_unit *c2ms_sess_unit_get(c2ms_sess *sess, c2ms_node *node = nullptr);
/// Recycles every queued unit. 0, -1 for NULL.
int c2ms_sess_unit_clear(c2ms_sess *sess);
/// Recycles the queued units that are not wanted any more (after a seek).
void c2ms_sess_unit_purge(c2ms_sess *sess);
/// Units in the queue, 0 for NULL.
int c2ms_sess_unit_num(c2ms_sess *sess);

/// Whether a dispatch would find both work and a node: ready nodes, -1 NULL, -100 no unit waits,
/// -200 no node is ready. No lock, any thread.
int c2ms_sess_dispatch_check(c2ms_sess *sess);
/// Starts one unit on each ready media node, best first. 0. Enters the strand.
int c2ms_sess_dispatch(c2ms_sess *sess);

/// Counts received bytes. 0, -1 for NULL.
int c2ms_sess_recv_byte(c2ms_sess *sess, int64_t n);
/// Closes a speed window and starts the timer of the next. Inside the strand. 0; -1, -2 no session
/// or context.
int c2ms_sess_recvspeed_count(c2ms_sess *sess);
