// The descriptor that tells a host's poll loop when a read would return (c2ms_sess_ready_fd). It is
// lit when something may have changed (c2ms::light, core/wake.h) and put out here, by a call that
// has looked and found nothing.
#pragma once

#include "c2ms/core/records.h"

namespace c2ms {

/// Looks whether a read at the position would return, and lights or puts out the descriptor. Costs
/// nothing for a session that has none. Needs the read gate.
void refresh_ready(c2ms_sess *sess);
/// The same from a call without the gate. A reader that is inside looks itself when it leaves.
void refresh_ready_soon(c2ms_sess *sess);

/// Refreshes at the end of a call that holds the gate.
class ReadyGuard {
 public:
  explicit ReadyGuard(c2ms_sess *sess) : sess_(sess) {}
  ~ReadyGuard() { refresh_ready(sess_); }
  ReadyGuard(const ReadyGuard &) = delete;
  ReadyGuard &operator=(const ReadyGuard &) = delete;

 private:
  c2ms_sess *const sess_;
};

}  // namespace c2ms
