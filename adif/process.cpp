// Becoming a daemon, and running a command. See process.h.
#include "adif/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace {

template <class Call>
auto retry_interrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

// The child goes on, the parent ends. False when there is no child.
bool go_on_in_child() {
  const pid_t child = fork();
  if (child > 0) _exit(0);
  return child == 0;
}

int write_pid(int fd) {
  char text[32];
  const int size = std::snprintf(text, sizeof text, "%d", static_cast<int>(getpid()));
  const auto length = static_cast<size_t>(size);
  return retry_interrupted([&] { return write(fd, text, length); }) == size ? 0 : -1;
}

}  // namespace

int daemonize(const char *pid_file, const char *work_dir) {
  if (pid_file == nullptr || work_dir == nullptr) return -1;
  if (!go_on_in_child()) return -1;
  // Two forks: the first leaves the process group, the second the right to a terminal.
  setsid();
  signal(SIGHUP, SIG_IGN);
  if (!go_on_in_child()) return -1;
  // A folder that is not there leaves the daemon where it is (meant).
  const int entered = chdir(work_dir);
  (void)entered;
  umask(0);

  // Emptied only once it is ours: until then it names the daemon that holds it.
  const int fd = open(pid_file, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return fd;
  if (retry_interrupted([&] { return flock(fd, LOCK_EX); }) != 0) return -1;
  if (ftruncate(fd, 0) != 0) return -1;
  return write_pid(fd);
}

int exec_cmd(const char *file, char *const argv[], int wait_flag) {
  if (file == nullptr || argv == nullptr) return -1;
  const pid_t child = fork();
  if (child < 0) return -1;
  if (child == 0) {
    // The caller may be a thread that blocks all signals, and a program inherits the mask.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execvp(file, argv);
    _exit(1);
  }
  // With SIGCHLD ignored this fails once the child has ended, which is all that is asked.
  if (wait_flag != 0) retry_interrupted([&] { return waitpid(child, nullptr, 0); });
  return 0;
}
