// The strand of a session: its outermost lock. One event or call of a session at a time runs inside
// it, so that what belongs to the session needs no lock of its own.
//
// Enter it with a Turn (fetch/dispatch.h), which carries out what has become due when it ends; with
// a bare StrandHold (strand_hold.h) where nothing can become due.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

#include "adif/annotations.h"

namespace c2ms {

/// A recursive lock that knows its holder and keeps the session's diagnostic lines in order.
class CAPABILITY("strand") Strand {
 public:
  void enter() ACQUIRE();
  void leave() RELEASE();
  /// For its holder: true when leaving once lets others in.
  bool outermost() const { return depth_ == 1; }
  /// True for the thread that holds it.
  bool mine() const { return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id(); }

  /// Its holder has said something (diag) whose place among the session's lines matters.
  void spoke() { spoke_ = true; }
  /// Lines are said inside the strand and delivered outside. A holder that has spoken takes a
  /// number before it leaves, and delivers when all numbers before its own have been delivered.
  bool take_number(uint32_t *number);
  void await_number(uint32_t number) const;
  void delivered();

 private:
  std::mutex mutex_;
  std::atomic<std::thread::id> owner_{};
  int depth_ = 0;
  bool spoke_ = false;
  uint32_t next_number_ = 0;
  std::atomic<uint32_t> delivers_{0};  // the number whose lines are delivered now
};

}  // namespace c2ms
