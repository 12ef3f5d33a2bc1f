// See strand_hold.h.
#include "c2ms/core/strand_hold.h"

#include "adif/check.h"

namespace c2ms {

StrandHold::StrandHold(c2ms_sess *sess) NO_THREAD_SAFETY_ANALYSIS : sess_(sess) {
  sess_->strand.enter();
}

StrandHold::~StrandHold() NO_THREAD_SAFETY_ANALYSIS {
  if (!paused_) sess_->strand.leave();
}

void StrandHold::let_go() NO_THREAD_SAFETY_ANALYSIS {
  paused_ = true;
  sess_->strand.leave();
}

void StrandHold::pause() NO_THREAD_SAFETY_ANALYSIS {
  adif::check(sess_->strand.outermost(), "sess->strand.outermost()", "c2ms/core/strand");
  let_go();
}

void StrandHold::resume() NO_THREAD_SAFETY_ANALYSIS {
  sess_->strand.enter();
  paused_ = false;
}

#ifdef C2MS_CHECKS
void check_inside(const c2ms_sess *sess, const char *function) {
  adif::check(sess->strand.mine(), "sess->strand.mine()", "c2ms/core/strand", function);
}
#endif

void mark_dispatch_due(c2ms_sess *sess) {
  sess->dispatch_due.store(true);
}

}  // namespace c2ms
