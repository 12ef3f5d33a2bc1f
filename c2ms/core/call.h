// A player's call into a session: counted while it is inside, so that the record is not recycled
// meanwhile, and ended when the session closes or is cancelled.
#pragma once

#include <cstdint>

struct c2ms_mgmt;
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

/// Counts an open or a close under way into its context (NULL: none), and out: c2ms_mgmt_clean
/// waits for it. Delivers the diagnostic lines of the call.
class ContextCall {
 public:
  explicit ContextCall(c2ms_mgmt *mgmt);
  ~ContextCall();
  ContextCall(const ContextCall &) = delete;
  ContextCall &operator=(const ContextCall &) = delete;

 private:
  c2ms_mgmt *const mgmt_;
};

/// Counts a player's call into a session; false when the session is closing, closed or not open:
/// the call then touches nothing and returns refusal(). Delivers the diagnostic lines of the call.
class CallGuard {
 public:
  explicit CallGuard(c2ms_sess *sess);
  ~CallGuard();
  CallGuard(const CallGuard &) = delete;
  CallGuard &operator=(const CallGuard &) = delete;
  explicit operator bool() const { return refusal_ == 0; }
  /// C2MS_CLOSED, C2MS_OPENING, or what has ended the open; 0 inside.
  int32_t refusal() const { return refusal_; }

 private:
  const CallCount count_;
  const int32_t refusal_;
};

/// True when a call must end that has found the session's `cancel` as `seen` when it began: cancel
/// is on, or has been since.
bool cancelled_since(const c2ms_sess *sess, uint32_t seen);
/// The same for the call that holds the read gate.
bool cancelled(const c2ms_sess *sess);

}  // namespace c2ms
