// What the data calls (c2ms_sess_read.cpp) and the index calls (c2ms_sess_idx.cpp) share: the read
// gate, which every call holds while it moves bytes out of the cache or changes file, buffer or
// index.
#pragma once

#include "adif/annotations.h"
#include "c2ms/c2ms_records.h"
#include "c2ms/c2ms_time.h"

namespace c2ms {

inline constexpr auto no_limit = steady::time_point::max();
inline constexpr auto one_try = steady::time_point::min();

/// Holds a session's read gate, if it could be entered before the deadline.
class GateGuard {
 public:
  GateGuard(c2ms_sess *sess, steady::time_point deadline) NO_THREAD_SAFETY_ANALYSIS
      : gate_(sess->read_gate),
        entered_(gate_.enter_until(deadline)) {}
  ~GateGuard() NO_THREAD_SAFETY_ANALYSIS {
    if (entered_) gate_.leave();
  }
  GateGuard(const GateGuard &) = delete;
  GateGuard &operator=(const GateGuard &) = delete;
  explicit operator bool() const { return entered_; }

 private:
  adif::Gate &gate_;
  const bool entered_;
};

/// Makes a waiting reader give way to who wants to change file, buffer or index. NULL: nothing.
void interrupt_reader(c2ms_cache *cache);

}  // namespace c2ms
