// Critical sections and events: mutual exclusion, and a sleep that another thread ends with a
// value. Every module of the library that has more than one thread uses them.
//
// An event is a bare signal without memory: a SetEvent() made while nobody waits is lost, and a
// spurious wake-up ends a wait early. That is meant. WaitEventUntil() is the way to wait for a
// state without losing a wake-up: it tests the state under the event's own lock just before each
// sleep, and setters change the state first and signal after.
#pragma once

#include <pthread.h>

#include <chrono>
#include <cstdint>

/// Embedded by value in the record that it protects. Not recursive: a thread that enters a section
/// which it holds already waits for ever.
using CRITICAL_SECTION = pthread_mutex_t;

/// Each gives the POSIX result (0 is success) of pthread_mutex_init, _destroy, _lock and _unlock;
/// -1 for null. Enter blocks without limit.
int InitializeCriticalSection(CRITICAL_SECTION *section);
int DeleteCriticalSection(CRITICAL_SECTION *section);
int EnterCriticalSection(CRITICAL_SECTION *section);
int LeaveCriticalSection(CRITICAL_SECTION *section);

struct event {
  uint32_t value;  ///< what the last SetEvent() handed over
  pthread_cond_t cond;
  pthread_mutex_t lock;
};

/// A new event of value 0, ended by DestroyEvent(). Null when memory has run out.
[[nodiscard]] event *CreateEvent();

/// Frees the event, on which no thread may wait any more; null is ignored.
void DestroyEvent(event *e);

/// Stores `value` and wakes at most one waiting thread. Any thread, also with locks of a lower rank
/// held; null is ignored.
void SetEvent(event *e, uint32_t value);

/// The same, but wakes every waiting thread: for states that end all waits, and for events whose
/// waiters wait for different things.
void SetEventAll(event *e, uint32_t value);

/// Sleeps once, without limit, and gives the value stored by then; -1 for null. May wake for no
/// reason, and hands over only the last of several values: look at your own state afterwards.
int32_t WaitEvent(event *e);

/// Sleeps once, for at most `timeout_seconds` cut to whole seconds (0.5 is 0; kept), on the
/// monotonic clock. 0 when woken, -1 when the time is over or the wait failed, -10 for null. Not
/// the stored value.
int TimedWaitEvent(event *e, float timeout_seconds);

namespace adif {

/// Holds a mutex for the life of the guard.
class [[nodiscard]] section_guard {
 public:
  explicit section_guard(CRITICAL_SECTION *section) : section_(section) {
    pthread_mutex_lock(section_);
  }
  ~section_guard() { pthread_mutex_unlock(section_); }
  section_guard(const section_guard &) = delete;
  section_guard &operator=(const section_guard &) = delete;

 private:
  CRITICAL_SECTION *const section_;
};

/// SetEvent() for an event that nobody destroys while it is signalled: signals with the event's
/// lock left, so that a waiter of the same processor is not woken only to wait for that lock.
void signal_lasting_event(event *e, uint32_t value);

/// One sleep of WaitEventUntil(), with the event's lock held. False once the deadline has passed.
bool sleep_on_event(event *e, std::chrono::steady_clock::time_point deadline);

}  // namespace adif

/// Waits until `ready()` is true; time_point::max() is no limit. `ready` runs with the event's lock
/// held: it reads atomics, or enters a lock that no thread holds while it signals this event. A
/// waiter is never overslept by a setter that changes the state first and calls SetEvent() after
/// (SetEventAll() when several threads wait for different states). True when ready; at the deadline
/// the last answer of `ready()`; false for null.
template <class Ready>
bool WaitEventUntil(event *e, std::chrono::steady_clock::time_point deadline, Ready ready) {
  if (e == nullptr) return false;
  const adif::section_guard guard(&e->lock);
  for (bool in_time = true;; in_time = adif::sleep_on_event(e, deadline)) {
    if (ready()) return true;
    if (!in_time) return false;
  }
}
