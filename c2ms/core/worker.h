// Threads for work that blocks (name look-ups, report exchanges), so that neither the engine's
// threads nor a session's strand ever wait for it. One is started when a job finds none free.
#pragma once

#include <array>
#include <condition_variable>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

namespace c2ms {

class Worker {
 public:
  static constexpr int most_threads = 16;

  /// `threads`: jobs that may run at once, 1 to most_threads.
  explicit Worker(const char *name, int threads = 1) : name_(name), most_(threads) {}
  ~Worker() { stop(); }
  Worker(const Worker &) = delete;
  Worker &operator=(const Worker &) = delete;

  /// Queues a job; jobs begin in order. False: stopped, or no memory, or there is no thread and
  /// none can be had. Any thread. A job's copy must not throw.
  template <class Work>
  bool post(Work work) {
    return push(new (std::nothrow) JobOf<Work>(std::move(work)));
  }

  /// Waits for the running jobs, drops the others and ends the threads. Later posts are refused.
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
  void start_thread();
  Job *take_first();
  void run();

  const char *const name_;
  const int most_;
  std::mutex mutex_;
  std::condition_variable changed_;
  Job *first_ = nullptr;
  Job *last_ = nullptr;
  int queued_ = 0;
  std::array<std::thread, most_threads> threads_;
  int started_ = 0, free_ = 0;  // threads; those of them that run no job
  bool stopped_ = false;
};

}  // namespace c2ms
