// Node records: the pool, the running statistics of a node's transfers and the orders in which
// nodes are kept. What a node does stands in fetch/node.h.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

/// Pool init function: makes locks and embedded units once, resets everything else. 0, -1 for NULL.
int c2ms_node_init(c2ms_node *node);

/// Takes a node from the pool, gives it its id and session and registers it. Inside the session's
/// strand. NULL for NULL or without memory.
c2ms_node *c2ms_node_fetch(c2ms_sess *session);

/// Ends the node: device, timers and download unit are given back, the session forgets it, the
/// record returns to the pool. Inside the strand; nothing of the node may be touched afterwards. 0;
/// -1 for NULL; harmless on a node that has been recycled already.
int c2ms_node_recycle(c2ms_node *node);

/// Pool free function; also frees a node that is still in use when nobody else is there
/// (tear-down).
int c2ms_node_free(c2ms_node *node);

/// Accounts a completed or stalled transfer. Inside the strand. 0, -1 no node, -2 no unit.
int c2ms_node_perf_statistic(c2ms_node *node, c2ms_unit *unit);

/// Two numbers by which a node is searched in a session's index.
struct c2ms_iport_key {
  uint32_t ip;
  uint32_t port;
};

// Comparisons: -1, 0, 1; -1 for a null first argument, -2 for a null second. By address: ip
// unsigned, then port signed. By performance: pointers to node pointers, higher average speed
// first, NaN counts as 0.
int c2ms_node_cmp_iport(const void *node, const void *key);
int c2ms_node_cmp_node_by_iport(const void *a, const void *b);
int c2ms_node_cmp_node_by_perf(const void *a, const void *b);
int c2ms_node_cmp_nodeid(const void *node, const void *key);
int c2ms_node_cmp_node(const void *a, const void *b);

namespace c2ms {
/// The state's name as the dump prints it.
const char *node_state_name(uint32_t state);
}  // namespace c2ms
