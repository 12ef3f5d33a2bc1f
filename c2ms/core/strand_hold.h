// Holding a session's strand.
#pragma once

#include "c2ms/core/records.h"

namespace c2ms {

/// Holds a session's strand for a scope, and nothing more: what became due inside stays due.
class StrandHold {
 public:
  explicit StrandHold(c2ms_sess *sess);
  ~StrandHold();
  StrandHold(const StrandHold &) = delete;
  StrandHold &operator=(const StrandHold &) = delete;

  /// Lets others in while payload bytes are received; only at the outermost level. After resume(),
  /// which may be left out, the caller looks nodes and sessions up again: they may be gone.
  void pause();
  void resume();
  /// False while paused.
  bool inside() const { return !paused_; }

 protected:
  c2ms_sess *session() const { return sess_; }
  /// Leaves before the scope ends.
  void let_go();

 private:
  c2ms_sess *const sess_;
  bool paused_ = false;
};

/// Aborts in checking builds when the calling thread is not inside the session's strand.
#ifdef C2MS_CHECKS
void check_inside(const c2ms_sess *sess, const char *function = __builtin_FUNCTION());
#else
inline void check_inside(const c2ms_sess *) {}
#endif

/// Marks a session "dispatch due": there may be work for its nodes. The strand's next Turn carries
/// the dispatch out when it ends. Any thread.
void mark_dispatch_due(c2ms_sess *sess);

}  // namespace c2ms
