// What must hold after a run: nothing of it is left in the library, nor of the library in the
// process.
#pragma once

#include "c2ms.h"
#include "c2ms/core/records.h"
#include "support/findings.h"

namespace support {

/// What the process holds.
struct Holdings {
  int descriptors = 0;
  int threads = 0;
  int64_t heap_bytes = 0;      // in use; 0 where the sanitizer has an allocator of its own
  int64_t resident_bytes = 0;  // of the process
};
Holdings holdings_now();

/// What a context holds beside its sessions.
struct Idle {
  int32_t arena = 0;
  uint32_t connections = 0, timers = 0;
};
Idle idle_of(c2ms_mgmt *mgmt);

/// Every session is closed: pools, registries, timers, connections and arena are as at the start.
void check_idle(Findings &findings, c2ms_mgmt *mgmt, const Idle &before);

/// Library and servers are gone: descriptors and threads are as before.
void check_gone(Findings &findings, const Holdings &before);

}  // namespace support
