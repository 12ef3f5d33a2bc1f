// The one place of the engine that reads the time. See rac_time.h.
#include "eprobe/rac_time.h"

#include <sys/time.h>

#include <ctime>

std::atomic<uint32_t> rac_current_msec{0};
std::atomic<uint32_t> rac_time_lock{0};

namespace {

int64_t monotonic_us() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

int64_t wall_ahead_of_monotonic_us() {
  timeval wall{};
  gettimeofday(&wall, nullptr);
  return int64_t{wall.tv_sec} * 1000000 + wall.tv_usec - monotonic_us();
}

}  // namespace

uint32_t rac_clock_msec() {
  // Read once: the wall clock may be set afterwards, and timers must not notice.
  static const int64_t ahead_us = wall_ahead_of_monotonic_us();
  return static_cast<uint32_t>((monotonic_us() + ahead_us) / 1000);
}

void rac_time_update(uint32_t sec, uint32_t msec) {
  if (rac_time_lock.load(std::memory_order_relaxed) != 0) return;
  if (rac_atomic_cmp_set(&rac_time_lock, 0, 1) == 0) return;
  const uint32_t now = sec == 0 ? rac_clock_msec() : sec * 1000 + msec;
  rac_current_msec.store(now, std::memory_order_relaxed);
  rac_time_lock.store(0, std::memory_order_relaxed);
}
