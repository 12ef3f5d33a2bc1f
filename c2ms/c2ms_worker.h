// A thread for work that blocks (name look-ups, report exchanges), so that neither the engine's
// threads nor a session's strand ever wait for it. Started with its first job.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace c2ms {

class Worker {
 public:
  explicit Worker(const char *name) : name_(name) {}
  ~Worker() { stop(); }
  Worker(const Worker &) = delete;
  Worker &operator=(const Worker &) = delete;

  /// Queues a job; jobs run one after another. False: stopped, or no thread could be started. Any
  /// thread.
  bool post(std::function<void()> job);

  /// Waits for the running job, drops the others and ends the thread. Later posts are refused.
  void stop();

 private:
  void run();

  const char *const name_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> jobs_;
  std::thread thread_;
  bool stopped_ = false;
};

}  // namespace c2ms
