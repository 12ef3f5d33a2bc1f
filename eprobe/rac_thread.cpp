// POSIX threads behind the event core's own names. See rac_thread.h.
#include "eprobe/rac_thread.h"

#include <cerrno>
#include <cstdlib>
#include <new>

rac_mutex *rac_mutex_init() {
  auto *mutex = new (std::nothrow) rac_mutex;
  if (mutex == nullptr) return nullptr;
  if (pthread_mutex_init(&mutex->handle, nullptr) == 0) return mutex;
  delete mutex;
  return nullptr;
}

void rac_mutex_destroy(rac_mutex *mutex) {
  if (mutex == nullptr) return;
  pthread_mutex_destroy(&mutex->handle);
  delete mutex;
}

void rac_mutex_lock(rac_mutex *mutex) NO_THREAD_SAFETY_ANALYSIS {
  if (pthread_mutex_lock(&mutex->handle) != 0) std::abort();
}

void rac_mutex_unlock(rac_mutex *mutex) NO_THREAD_SAFETY_ANALYSIS {
  if (pthread_mutex_unlock(&mutex->handle) != 0) std::abort();
}

int rac_mutex_trylock(rac_mutex *mutex) NO_THREAD_SAFETY_ANALYSIS {
  const int result = pthread_mutex_trylock(&mutex->handle);
  if (result == EBUSY) return RAC_BUSY;
  if (result != 0) std::abort();
  return 0;
}

rac_cond *rac_cond_init() {
  auto *cond = new (std::nothrow) rac_cond;
  if (cond == nullptr) return nullptr;
  if (pthread_cond_init(&cond->handle, nullptr) == 0) return cond;
  delete cond;
  return nullptr;
}

void rac_cond_destroy(rac_cond *cond) {
  if (cond == nullptr) return;
  pthread_cond_destroy(&cond->handle);
  delete cond;
}

int rac_cond_wait(rac_cond *cond, rac_mutex *mutex) {
  return pthread_cond_wait(&cond->handle, &mutex->handle) == 0 ? 0 : -1;
}

int rac_cond_signal(rac_cond *cond) {
  return pthread_cond_signal(&cond->handle) == 0 ? 0 : -1;
}

int rac_cond_broadcast(rac_cond *cond) {
  return pthread_cond_broadcast(&cond->handle) == 0 ? 0 : -1;
}

int rac_create_thread(pthread_t *thread, void *(*start)(void *), void *arg) {
  return pthread_create(thread, nullptr, start, arg);
}

int rac_init_threads() {
  return 0;
}
