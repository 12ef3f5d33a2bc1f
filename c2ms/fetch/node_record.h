// The node record: made and freed by its pool, and the running statistics of its transfers. What a
// node does stands in fetch/node.h.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

/// Pool init function: makes locks and embedded units once, resets everything else. 0, -1 for NULL.
int c2ms_node_init(c2ms_node *node);

/// Pool free function; also frees a node that is still in use when nobody else is there
/// (tear-down).
int c2ms_node_free(c2ms_node *node);

/// Accounts a completed or stalled transfer. Inside the strand. 0, -1 no node, -2 no unit.
int c2ms_node_perf_statistic(c2ms_node *node, c2ms_unit *unit);

namespace c2ms {
/// Gives device and timers back.
void drop_connection(c2ms_node *node);

/// The state's name as the dump prints it.
const char *node_state_name(uint32_t state);
}  // namespace c2ms
