// See strand.h.
#include "c2ms/core/strand.h"

#include <utility>

#include "adif/lock.h"
#include "c2ms/core/ranks.h"

namespace c2ms {

void Strand::enter() NO_THREAD_SAFETY_ANALYSIS {
  if (mine()) {
    ++depth_;
    return;
  }
  adif::rank_enter(rank_strand);
  mutex_.lock();
  owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  depth_ = 1;
}

void Strand::leave() NO_THREAD_SAFETY_ANALYSIS {
  if (--depth_ > 0) return;
  owner_.store(std::thread::id(), std::memory_order_relaxed);
  mutex_.unlock();
  adif::rank_leave(rank_strand);
}

bool Strand::take_number(uint32_t *number) {
  if (!std::exchange(spoke_, false)) return false;
  *number = next_number_++;
  return true;
}

void Strand::await_number(uint32_t number) const {
  for (uint32_t now = delivers_.load(); now != number; now = delivers_.load()) delivers_.wait(now);
}

void Strand::delivered() {
  delivers_.fetch_add(1);
  delivers_.notify_all();
}

}  // namespace c2ms
