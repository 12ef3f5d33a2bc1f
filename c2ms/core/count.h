// What the library counts while it plays: transfers for each node, waits for each reader, speeds.
//
// Transfers are counted where they happen, under the session's speed lock; a node that ends leaves
// its counts with the session. Nothing is counted per byte: a slice of payload, a request and a
// wait each cost one hold of a lock that was taken there anyway, or a few instructions.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

/// Counts received bytes. 0, -1 for NULL.
int c2ms_sess_recv_byte(c2ms_sess *sess, int64_t n);

namespace c2ms {

/// Adds one node's counts to a sum.
void add_tally(tally &sum, const tally &more);

/// Payload that arrived for a unit: `got` bytes, of which `grown` made its pack longer. The
/// unit's node keeps it (its download lock is held).
void count_payload(c2ms_unit *unit, int32_t got, int32_t grown);
/// Bytes of a pack that is not complete are thrown away.
void count_forgotten(c2ms_sess *sess, int32_t bytes);

/// A request's answer was taken whole; nothing when it has been counted. One that filled its pack
/// is counted before the pack's lock is left, so that who reads the pack finds it counted and
/// recorded; any other in the strand. The unit's node keeps it.
void count_completed(c2ms_unit *unit);

/// A node's request is out; it was refused or given up (nothing when none is out). A failure of the
/// connection. In the strand.
void count_sent(c2ms_node *node, c2ms_unit *unit);
void count_given_up(c2ms_node *node, c2ms_unit *unit);
void count_failure(c2ms_node *node);
/// The node ends: the session keeps its counts.
void count_departed(c2ms_node *node);

/// A reader has waited this long for one pack. Any cause of enum wait_cause.
void count_wait(c2ms_cache *cache, wait_cause cause, int64_t waited_us) REQUIRES(cache->lock);

/// Everything begins at nothing: a record that is used again.
void reset_stats(c2ms_sess *sess);

/// A media node's state changes: the session's counters of ready, usable and downloading nodes
/// follow. True when the last usable node went: who waits for bytes must look at the status.
bool count_states(c2ms_sess *sess, uint32_t from, uint32_t to) REQUIRES(sess->counter_lock);

/// Closes a window of the receive speed and begins the next.
void count_speed(c2ms_sess *sess);

}  // namespace c2ms
