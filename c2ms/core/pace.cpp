// See pace.h.
#include "c2ms/core/pace.h"

#include <algorithm>

#include "c2ms/core/time.h"

namespace c2ms {

namespace {
constexpr int64_t window_us = 1'000'000;
constexpr int64_t pause_us = 5'000'000;  // a paused player says nothing of its pace
constexpr double new_weight = 0.3;
}  // namespace

void Pace::delivered(int64_t now_us, int64_t bytes, int64_t waited_us) {
  if (since_us_ == 0 || now_us - since_us_ > pause_us) {
    since_us_ = now_us;
    bytes_ = waited_us_ = 0;
    return;
  }
  bytes_ += bytes;
  waited_us_ += waited_us;
  const int64_t elapsed = now_us - since_us_;
  if (elapsed < window_us) return;
  // Who waits for most of the time would take more if it were there.
  const bool takes_all = waited_us_ > elapsed / 2;
  const double sample = static_cast<double>(bytes_) * 1e6 / static_cast<double>(elapsed);
  if (takes_all) {
    rate_ = 0;
  } else {
    rate_ = rate_ == 0 ? sample : rate_ + new_weight * (sample - rate_);
  }
  since_us_ = now_us;
  bytes_ = waited_us_ = 0;
}

}  // namespace c2ms
