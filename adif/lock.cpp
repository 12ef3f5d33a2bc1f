// The lock order, checked in builds with C2MS_CHECKS, and the gate. See lock.h.
#include "adif/lock.h"

#include <array>

#include "adif/check.h"

namespace adif {

#ifdef C2MS_CHECKS
namespace {
// How often this thread holds each rank. A lock may be left in any order.
thread_local std::array<uint8_t, 32> held{};
}  // namespace

void rank_enter(uint8_t rank) {
  if (rank == 0) return;
  for (size_t r = rank; r < held.size(); ++r) {
    check(held[r] == 0, "locks are taken in the order of their ranks", "adif/lock");
  }
  ++held[rank];
}

void rank_leave(uint8_t rank) {
  if (rank == 0) return;
  check(held[rank] > 0, "a lock is left by its holder", "adif/lock");
  --held[rank];
}
#endif

bool Gate::enter_until(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  const auto free = [this] { return !held_; };
  if (deadline == std::chrono::steady_clock::time_point::max()) {
    free_.wait(lock, free);
  } else if (!free_.wait_until(lock, deadline, free)) {
    return false;
  }
  held_ = true;
  lock.unlock();
  rank_enter(rank_);
  return true;
}

void Gate::leave() {
  {
    const std::lock_guard lock(mutex_);
    held_ = false;
  }
  rank_leave(rank_);
  free_.notify_one();
}

}  // namespace adif
