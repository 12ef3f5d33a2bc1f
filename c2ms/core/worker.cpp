// See worker.h.
#include "c2ms/core/worker.h"

#include <pthread.h>

#include <exception>
#include <memory>

#include "c2ms/core/blocked_signals.h"

namespace c2ms {

// With the lock held.
void Worker::start_thread() {
  const BlockedSignals blocked;
  std::thread &thread = threads_[static_cast<size_t>(started_)];
  try {
    thread = std::thread([this] { run(); });
  } catch (const std::exception &) {  // no thread, or no memory for one
    return;
  }
  pthread_setname_np(thread.native_handle(), name_);
  ++started_;
  ++free_;
}

bool Worker::push(Job *job) {
  std::unique_ptr<Job> refused(job);
  const std::lock_guard lock(mutex_);
  if (job == nullptr || stopped_) return false;
  if (queued_ >= free_ && started_ < most_) start_thread();
  if (started_ == 0) return false;
  ++queued_;
  (first_ == nullptr ? first_ : last_->next) = job;
  last_ = refused.release();
  changed_.notify_one();
  return true;
}

// With the lock held.
Worker::Job *Worker::take_first() {
  Job *const job = first_;
  if (job == nullptr) return nullptr;
  first_ = job->next;
  --queued_;
  return job;
}

void Worker::stop() {
  std::array<std::thread, most_threads> ending;
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    while (Job *const job = take_first()) delete job;
    ending.swap(threads_);
    changed_.notify_all();
  }
  for (std::thread &thread : ending) {
    if (thread.joinable()) thread.join();
  }
}

void Worker::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return stopped_ || first_ != nullptr; });
    if (stopped_) return;
    const std::unique_ptr<Job> job(take_first());
    --free_;
    lock.unlock();
    job->run();
    lock.lock();
    ++free_;
  }
}

}  // namespace c2ms
