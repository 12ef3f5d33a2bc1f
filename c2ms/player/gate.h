// What the data calls (player/data.cpp) and the index calls (player/idx.cpp) share: the read
// gate, which every call holds while it moves bytes out of the cache or changes file, buffer or
// index.
#pragma once

#include "adif/annotations.h"
#include "c2ms/core/call.h"
#include "c2ms/core/records.h"
#include "c2ms/core/time.h"

namespace c2ms {

inline constexpr auto no_limit = steady::time_point::max();
inline constexpr auto one_try = steady::time_point::min();

bool enter_gate(c2ms_sess *sess, steady::time_point deadline, c2ms_cache *interrupted);

/// Holds a session's read gate, if it could be entered before the deadline.
class GateGuard {
 public:
  /// `interrupted`: NULL, or the cache whose reader shall give way: it ends with what it has.
  GateGuard(c2ms_sess *sess, steady::time_point deadline,
            c2ms_cache *interrupted = nullptr) NO_THREAD_SAFETY_ANALYSIS
      : sess_(sess),
        cancel_seen_(sess->cancel.load()),
        entered_(enter_gate(sess, deadline, interrupted)) {
    if (entered_) sess->cancel_seen = cancel_seen_;
  }
  ~GateGuard() NO_THREAD_SAFETY_ANALYSIS {
    if (entered_) sess_->read_gate.leave();
  }
  GateGuard(const GateGuard &) = delete;
  GateGuard &operator=(const GateGuard &) = delete;
  explicit operator bool() const { return entered_; }
  /// Whether cancel is on or has been since this guard was made, entered or not.
  bool cancelled() const { return cancelled_since(sess_, cancel_seen_); }

 private:
  c2ms_sess *const sess_;
  const uint32_t cancel_seen_;
  const bool entered_;
};

}  // namespace c2ms
