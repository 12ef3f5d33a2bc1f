#include "c2ms/c2ms_worker.h"

#include <pthread.h>
#include <signal.h>

#include <exception>
#include <memory>

namespace c2ms {

namespace {

// Threads of the library leave signals to the player.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before_);
  }
  ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

}  // namespace

// With the lock held.
bool Worker::has_thread() {
  if (thread_.joinable()) return true;
  const BlockedSignals blocked;
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::exception &) {  // no thread, or no memory for one
    return false;
  }
  pthread_setname_np(thread_.native_handle(), name_);
  return true;
}

bool Worker::push(Job *job) {
  std::unique_ptr<Job> refused(job);
  const std::lock_guard lock(mutex_);
  if (job == nullptr || stopped_ || !has_thread()) return false;
  (first_ == nullptr ? first_ : last_->next) = job;
  last_ = refused.release();
  changed_.notify_one();
  return true;
}

// With the lock held.
Worker::Job *Worker::take_first() {
  Job *const job = first_;
  if (job != nullptr) first_ = job->next;
  return job;
}

void Worker::stop() {
  std::thread ending;
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    while (Job *const job = take_first()) delete job;
    ending.swap(thread_);
    changed_.notify_one();
  }
  if (ending.joinable()) ending.join();
}

void Worker::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return stopped_ || first_ != nullptr; });
    if (stopped_) return;
    const std::unique_ptr<Job> job(take_first());
    lock.unlock();
    job->run();
    lock.lock();
  }
}

}  // namespace c2ms
