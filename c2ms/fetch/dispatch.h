// Giving ready nodes work, and the Turn: a scope inside a session's strand that does so at its end.
#pragma once

#include "c2ms/core/strand_hold.h"

struct c2ms_sess;

namespace c2ms {

/// A turn in a session's strand. When the outermost one ends it
///   1. dispatches, if that has become due (mark_dispatch_due),
///   2. leaves the strand,
///   3. delivers the diagnostic lines, in the order in which they were said,
///   4. lets the engine's hook run, if anything was dispatched.
class Turn : public StrandHold {
 public:
  explicit Turn(c2ms_sess *sess) : StrandHold(sess) {}
  ~Turn();
};

/// Carries out a due dispatch now, unless this thread is inside the strand: then its Turn does it.
void dispatch_if_due(c2ms_sess *sess);

}  // namespace c2ms

/// Whether a dispatch would find both work and a node: the number of ready nodes, -1 for NULL, -100
/// when there is nothing to ask for, -200 when no node is ready. Takes no strand; any thread.
int c2ms_sess_dispatch_check(c2ms_sess *sess);

/// Lets every ready media node ask for something, the fastest first. 0. Enters the strand; any
/// thread.
int c2ms_sess_dispatch(c2ms_sess *sess);
