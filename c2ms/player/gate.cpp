// See gate.h.
#include "c2ms/player/gate.h"

#include "c2ms/core/wake.h"

bool c2ms::enter_gate(c2ms_sess *sess, steady::time_point deadline,
                      c2ms_cache *interrupted) NO_THREAD_SAFETY_ANALYSIS {
  if (interrupted == nullptr) return sess->read_gate.enter_until(deadline);
  // For as long as it takes: a reader that comes in between must give way as well.
  interrupted->gate_seekers.fetch_add(1);
  c2ms_cache_wake(interrupted);
  const bool entered = sess->read_gate.enter_until(deadline);
  interrupted->gate_seekers.fetch_sub(1);
  return entered;
}
