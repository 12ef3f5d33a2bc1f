// The engine's millisecond clock. It is the wall clock of the process's first reading, advanced by
// the monotonic clock: it never jumps and never runs backwards. 32 bits, wrapping; compare two
// readings by their signed difference. Thread-safe.
#pragma once

#include <atomic>
#include <cstdint>

/// A fresh reading. Timer keys, waits and expiry are computed from this.
uint32_t rac_clock_msec();

/// The published copy of the clock, refreshed after every wait of a worker; cheap to read and a
/// little old.
extern std::atomic<uint32_t> rac_current_msec;
extern std::atomic<uint32_t> rac_time_lock;

/// Publishes sec * 1000 + msec, or a fresh reading when `sec` is 0. Does nothing while another
/// thread publishes.
void rac_time_update(uint32_t sec, uint32_t msec);

/// Stores `set` if the word is `old`: 1 if it did, else 0. A compare followed by a store, not an
/// atomic exchange (meant): two threads may both succeed, and a racing clock update merely skips
/// one refresh.
inline int rac_atomic_cmp_set(std::atomic<uint32_t> *word, uint32_t old, uint32_t set) {
  if (word->load(std::memory_order_relaxed) != old) return 0;
  word->store(set, std::memory_order_relaxed);
  return 1;
}
