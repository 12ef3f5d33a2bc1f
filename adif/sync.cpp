// Critical sections and events on POSIX threads. See sync.h.
#include "adif/sync.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include "adif/kalloc.h"

using std::chrono::nanoseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

int InitializeCriticalSection(CRITICAL_SECTION *section) {
  return section == nullptr ? -1 : pthread_mutex_init(section, nullptr);
}

int DeleteCriticalSection(CRITICAL_SECTION *section) {
  return section == nullptr ? -1 : pthread_mutex_destroy(section);
}

int EnterCriticalSection(CRITICAL_SECTION *section) {
  return section == nullptr ? -1 : pthread_mutex_lock(section);
}

int LeaveCriticalSection(CRITICAL_SECTION *section) {
  return section == nullptr ? -1 : pthread_mutex_unlock(section);
}

event *CreateEvent() {
  auto *const e = static_cast<event *>(kzalloc_dbg(sizeof(event)));
  if (e == nullptr) return nullptr;
  pthread_mutex_init(&e->lock, nullptr);
  pthread_cond_init(&e->cond, nullptr);
  return e;
}

void DestroyEvent(event *e) {
  if (e == nullptr) return;
  pthread_cond_destroy(&e->cond);
  pthread_mutex_destroy(&e->lock);
  kfree_dbg(e);
}

void SetEvent(event *e, uint32_t value) {
  if (e == nullptr) return;
  const adif::section_guard guard(&e->lock);
  e->value = value;
  pthread_cond_signal(&e->cond);
}

void SetEventAll(event *e, uint32_t value) {
  if (e == nullptr) return;
  const adif::section_guard guard(&e->lock);
  e->value = value;
  pthread_cond_broadcast(&e->cond);
}

int32_t WaitEvent(event *e) {
  if (e == nullptr) return -1;
  const adif::section_guard guard(&e->lock);
  // Once, without a condition (meant): a spurious wake-up ends the wait too.
  pthread_cond_wait(&e->cond, &e->lock);
  return static_cast<int32_t>(e->value);
}

namespace {

// The kernel takes no time before the clock's zero, and time_t must hold the seconds.
timespec to_timespec(steady_clock::time_point deadline) {
  const nanoseconds since = std::max(deadline.time_since_epoch(), steady_clock::duration::zero());
  const auto whole = std::chrono::duration_cast<seconds>(since);
  timespec result{};
  result.tv_sec = static_cast<time_t>(whole.count());
  result.tv_nsec = static_cast<long>((since - whole).count());
  return result;
}

// Whole seconds of a time-out, with a century as "for ever".
seconds whole_seconds(float value) {
  constexpr float century = 3.2e9F;
  if (std::isnan(value)) return seconds(0);
  return seconds(static_cast<int64_t>(std::clamp(value, -century, century)));
}

}  // namespace

int TimedWaitEvent(event *e, float timeout_seconds) {
  if (e == nullptr) return -10;
  // On the monotonic clock: a wait is not changed by setting the time of day.
  const timespec deadline = to_timespec(steady_clock::now() + whole_seconds(timeout_seconds));
  const adif::section_guard guard(&e->lock);
  return pthread_cond_clockwait(&e->cond, &e->lock, CLOCK_MONOTONIC, &deadline) == 0 ? 0 : -1;
}

namespace adif {

void signal_lasting_event(event *e, uint32_t value) {
  if (e == nullptr) return;
  // Signalled after the lock is left, so that the woken thread does not run into it. The event must
  // outlive the call, which only the caller can promise.
  {
    const section_guard guard(&e->lock);
    e->value = value;
  }
  pthread_cond_signal(&e->cond);
}

bool sleep_on_event(event *e, steady_clock::time_point deadline) {
  if (deadline == steady_clock::time_point::max()) {
    return pthread_cond_wait(&e->cond, &e->lock) == 0;
  }
  const timespec until = to_timespec(deadline);
  return pthread_cond_clockwait(&e->cond, &e->lock, CLOCK_MONOTONIC, &until) == 0;
}

}  // namespace adif
