// Units, from the pool to a node: a unit is issued for a run of packs, waits in the session's queue
// if it is meant for one node or for a reader, and is taken by a node that is free.
//
// The queue holds only help (a second request for a late pack) and packs that a reader needs
// outside the prefetched range. Everything else is chosen when a node takes it (work.h). Queueing a
// unit only marks the session "dispatch due" (core/strand_hold.h).
#pragma once

#include <cstdint>

#include "c2ms.h"
#include "c2ms/core/records.h"

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
