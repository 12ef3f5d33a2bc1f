// Timers of sessions and nodes: they fire as events of the context (c2ms_mgmt::on_event), and carry
// the id of the session or node that they belong to.
#pragma once

#include "c2ms/core/records.h"

namespace c2ms {

inline rac_timer *start_timer(c2ms_mgmt *mgmt, uint32_t msec, uint32_t command, uint32_t id) {
  return StartTimer2(mgmt->probe, msec, command, id, mgmt->on_event, mgmt);
}

/// Stops a timer, if it runs, and forgets it.
inline void stop_timer(rac_timer **timer) {
  StopTimer(*timer);
  *timer = nullptr;
}

}  // namespace c2ms
