// Threads, mutexes and condition variables of the event core, on POSIX threads. The core's records
// hold mutexes by pointer, so that a pool or a queue can be made and unmade at run time. A mutex
// error is a broken process: it aborts. Where a call can fail, the result says so.
#pragma once

#include <pthread.h>

#include "adif/annotations.h"

struct CAPABILITY("mutex") rac_mutex {
  pthread_mutex_t handle;
};

struct rac_cond {
  pthread_cond_t handle;
};

inline constexpr int RAC_BUSY = -2;

/// A new mutex with default attributes; NULL on failure. The caller ends it with rac_mutex_destroy.
rac_mutex *rac_mutex_init();
void rac_mutex_destroy(rac_mutex *mutex);
void rac_mutex_lock(rac_mutex *mutex) ACQUIRE(mutex);
void rac_mutex_unlock(rac_mutex *mutex) RELEASE(mutex);
/// 0 when taken, RAC_BUSY when somebody holds it.
int rac_mutex_trylock(rac_mutex *mutex) TRY_ACQUIRE(0, mutex);

/// A new condition variable, NULL on failure; wait (with `mutex` held) and signal give 0 or -1. The
/// engine itself waits on one only in probe_barrier and for the end of its workers; offered to
/// callers as well.
rac_cond *rac_cond_init();
void rac_cond_destroy(rac_cond *cond);
int rac_cond_wait(rac_cond *cond, rac_mutex *mutex) REQUIRES(mutex);
int rac_cond_signal(rac_cond *cond);
int rac_cond_broadcast(rac_cond *cond);

/// pthread_create with default attributes; its result.
int rac_create_thread(pthread_t *thread, void *(*start)(void *), void *arg);
/// Nothing to prepare here; always 0.
int rac_init_threads();

/// Holds a mutex for a scope.
class SCOPED_CAPABILITY rac_guard {
 public:
  explicit rac_guard(rac_mutex *mutex) ACQUIRE(mutex) : mutex_(mutex) { rac_mutex_lock(mutex); }
  ~rac_guard() RELEASE() { rac_mutex_unlock(mutex_); }
  rac_guard(const rac_guard &) = delete;
  rac_guard &operator=(const rac_guard &) = delete;

 private:
  rac_mutex *mutex_;
};
