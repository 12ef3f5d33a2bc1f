// Work in a process of its own.
#pragma once

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace support {

/// A record that a process shares with its children.
template <class Record>
class Shared {
 public:
  Shared() = default;
  ~Shared() { munmap(record_, sizeof(Record)); }
  Shared(const Shared &) = delete;
  Shared &operator=(const Shared &) = delete;
  Record &operator*() const { return *record_; }
  Record *operator->() const { return record_; }

 private:
  Record *const record_ =
      new (mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
          Record{};
};

/// How a process ended.
struct Ended {
  pid_t pid;
  int status;
  int code() const { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }
  int signal() const { return WIFSIGNALED(status) ? WTERMSIG(status) : 0; }
  std::string text() const {
    if (signal() == 0) return "exit status " + std::to_string(code());
    return signal() == SIGALRM ? "it hangs" : strsignal(signal());
  }
};

/// Starts a process that ends with what `work` returns, by exit(), so that the leak sanitizer
/// looks; or with SIGALRM after `limit_s`, when that is not 0.
template <class Work>
pid_t start_child(Work work, unsigned limit_s = 0) {
  std::fflush(stdout);  // or the child prints it again
  const pid_t child = fork();
  if (child != 0) return child;
  alarm(limit_s);
  std::exit(work());
}

/// Waits for a child to end; -1: for any.
inline Ended await_child(pid_t child = -1) {
  int status = 0;
  const pid_t ended = waitpid(child, &status, 0);
  return {ended, status};
}

/// What `work` returns in a process of its own, which leaves this one's output and static objects
/// alone; -1 if it ended otherwise.
template <class Work>
int in_child(Work work) {
  return await_child(start_child([&]() -> int { _exit(work()); })).code();
}

}  // namespace support
