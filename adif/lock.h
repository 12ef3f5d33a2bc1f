// Annotated locks with a rank: the library's own records are guarded by these.
//
// A thread may take a lock only while every lock it holds has a lower rank. Builds with C2MS_CHECKS
// abort on any other order; clang checks which fields need which lock. Rank 0 is exempt from the
// order.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "adif/annotations.h"

namespace adif {

/// Records in checking builds that this thread takes (leaves) a lock of `rank`; aborts on a wrong
/// order.
#ifdef C2MS_CHECKS
void rank_enter(uint8_t rank);
void rank_leave(uint8_t rank);
#else
inline void rank_enter(uint8_t) {}
inline void rank_leave(uint8_t) {}
#endif

/// A mutex that knows its place in the lock order. Not recursive.
class CAPABILITY("mutex") Mutex {
 public:
  explicit constexpr Mutex(uint8_t rank) : rank_(rank) {}
  Mutex(const Mutex &) = delete;
  Mutex &operator=(const Mutex &) = delete;
  void lock() ACQUIRE() {
    rank_enter(rank_);
    mutex_.lock();
  }
  void unlock() RELEASE() {
    const uint8_t rank = rank_;  // once unlocked, the record may be another thread's to give back
    mutex_.unlock();
    rank_leave(rank);
  }

 private:
  std::mutex mutex_;
  const uint8_t rank_;
};

/// Holds a Mutex for a scope.
class SCOPED_CAPABILITY Guard {
 public:
  explicit Guard(Mutex &mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~Guard() RELEASE() { mutex_.unlock(); }
  Guard(const Guard &) = delete;
  Guard &operator=(const Guard &) = delete;

 private:
  Mutex &mutex_;
};

/// A lock that can be waited for until a deadline, for long holds (a reader in a session). Not
/// recursive.
class CAPABILITY("mutex") Gate {
 public:
  explicit Gate(uint8_t rank) : rank_(rank) {}
  /// True when the gate was entered before `deadline` (time_point::max(): waits without limit; a
  /// past deadline: one try).
  bool enter_until(std::chrono::steady_clock::time_point deadline) TRY_ACQUIRE(true);
  void leave() RELEASE();

 private:
  std::mutex mutex_;
  std::condition_variable free_;
  bool held_ = false;
  const uint8_t rank_;
};

}  // namespace adif
