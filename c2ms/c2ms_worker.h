// A thread for work that blocks (name look-ups, report exchanges), so that neither the engine's
// threads nor a session's strand ever wait for it. Started with its first job.
#pragma once

#include <condition_variable>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

namespace c2ms {

class Worker {
 public:
  explicit Worker(const char *name) : name_(name) {}
  ~Worker() { stop(); }
  Worker(const Worker &) = delete;
  Worker &operator=(const Worker &) = delete;

  /// Queues a job; jobs run one after another. False: stopped, or memory or a thread can't be had.
  /// Any thread. A job's copy must not throw.
  template <class Work>
  bool post(Work work) {
    return push(new (std::nothrow) JobOf<Work>(std::move(work)));
  }

  /// Waits for the running job, drops the others and ends the thread. Later posts are refused.
  void stop();

 private:
  struct Job {
    virtual ~Job() = default;
    virtual void run() = 0;
    Job *next = nullptr;
  };
  template <class Work>
  struct JobOf : Job {
    explicit JobOf(Work &&given) : work(std::move(given)) {}
    void run() override { work(); }
    Work work;
  };

  bool push(Job *job);
  bool has_thread();
  Job *take_first();
  void run();

  const char *const name_;
  std::mutex mutex_;
  std::condition_variable changed_;
  Job *first_ = nullptr;
  Job *last_ = nullptr;
  std::thread thread_;
  bool stopped_ = false;
};

}  // namespace c2ms
