#include "c2ms/c2ms_worker.h"

#include <pthread.h>
#include <signal.h>

#include <system_error>

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

bool Worker::post(std::function<void()> job) {
  const std::lock_guard lock(mutex_);
  if (stopped_) return false;
  if (!thread_.joinable()) {
    const BlockedSignals blocked;
    try {
      thread_ = std::thread([this] { run(); });
    } catch (const std::system_error &) {
      return false;
    }
    pthread_setname_np(thread_.native_handle(), name_);
  }
  jobs_.push_back(std::move(job));
  changed_.notify_one();
  return true;
}

void Worker::stop() {
  std::thread ending;
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    jobs_.clear();
    ending.swap(thread_);
    changed_.notify_one();
  }
  if (ending.joinable()) ending.join();
}

void Worker::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return stopped_ || !jobs_.empty(); });
    if (stopped_) return;
    const std::function<void()> job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job();
    lock.lock();
  }
}

}  // namespace c2ms
