// A player's call into a session: counted while it is inside, so that the record is not recycled
// meanwhile, and ended when the session closes or is cancelled.
#pragma once

#include <cstdint>

struct c2ms_sess;

namespace c2ms {

/// False once the session, or the whole library, is closing or closed: everything that waits ends.
bool is_live(const c2ms_sess *sess);

/// Counts a player's call into a session, and out.
class CallCount {
 public:
  explicit CallCount(c2ms_sess *sess);
  ~CallCount();
  CallCount(const CallCount &) = delete;
  CallCount &operator=(const CallCount &) = delete;

 private:
  c2ms_sess *const sess_;
};

/// Counts a player's call into a session; false when the session is closing or closed: the call
/// then touches nothing and returns C2MS_CLOSED. Delivers the diagnostic lines of the call.
class CallGuard {
 public:
  explicit CallGuard(c2ms_sess *sess);
  ~CallGuard();
  CallGuard(const CallGuard &) = delete;
  CallGuard &operator=(const CallGuard &) = delete;
  explicit operator bool() const { return entered_; }

 private:
  const CallCount count_;
  const bool entered_;
};

/// True when a call must end that has found the session's `cancel` as `seen` when it began: cancel
/// is on, or has been since.
bool cancelled_since(const c2ms_sess *sess, uint32_t seen);
/// The same for the call that holds the read gate.
bool cancelled(const c2ms_sess *sess);

}  // namespace c2ms
