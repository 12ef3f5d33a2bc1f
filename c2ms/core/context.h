// What the rest of the library takes from the management context: memory of the arena, the entry
// server's name.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

/// Zeroed memory from the arena, or from the heap when the arena can't serve; NULL when neither
/// can. Any thread. The caller gives it back with c2ms_mem_free: 0, -1 (no context), -2 (no
/// pointer).
void *c2ms_mem_alloc(c2ms_mgmt *mgmt, int32_t size);
int c2ms_mem_free(c2ms_mgmt *mgmt, void *ptr);

/// Cuts a block of the arena down to `size` bytes where it is.
void c2ms_mem_shrink(c2ms_mgmt *mgmt, void *ptr, int32_t size);

/// Bytes of the largest block that the arena can serve now.
int32_t c2ms_mem_avail(c2ms_mgmt *mgmt);

namespace c2ms {

/// A copy of the configured entry server's name.
host_name entry_server(c2ms_mgmt *mgmt);

}  // namespace c2ms
