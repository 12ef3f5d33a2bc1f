// Events between threads; file mutex, daemon and commands between processes.
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "adif/filemutex.h"
#include "adif/process.h"
#include "adif/sync.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

class Event : public testing::Test {
 protected:
  ~Event() override { DestroyEvent(e_); }
  event *const e_ = CreateEvent();
};

// Each side waits for the other without limit: one lost wake-up and the test never ends.
TEST_F(Event, PingPongLosesNoWakeUp) {
  constexpr int kRounds = 30000;
  event *const other = CreateEvent();
  std::atomic<int> ping{0}, pong{0};
  std::thread peer([&] {
    for (int i = 1; i <= kRounds; ++i) {
      WaitEventUntil(e_, steady_clock::time_point::max(), [&] { return ping >= i; });
      pong = i;
      SetEvent(other, 0);
    }
  });
  for (int i = 1; i <= kRounds; ++i) {
    ping = i;
    SetEvent(e_, 0);
    ASSERT_TRUE(WaitEventUntil(other, steady_clock::time_point::max(), [&] { return pong >= i; }));
  }
  peer.join();
  DestroyEvent(other);
}

TEST_F(Event, WaitingForAStateGivesItsLastAnswerAtTheDeadline) {
  const auto never = [] { return false; };
  const auto start = steady_clock::now();
  EXPECT_FALSE(WaitEventUntil(e_, start + milliseconds(60), never));
  EXPECT_GE(steady_clock::now() - start, milliseconds(60));
  EXPECT_FALSE(WaitEventUntil(e_, steady_clock::time_point::min(), never)) << "long past";
  EXPECT_TRUE(WaitEventUntil(e_, steady_clock::time_point::min(), [] { return true; }));
  int asked = 0;  // false before the sleep, true after it, with nobody signalling
  EXPECT_TRUE(WaitEventUntil(e_, start + milliseconds(80), [&] { return ++asked == 2; }));
  EXPECT_FALSE(WaitEventUntil(nullptr, start, never));
}

TEST_F(Event, SetEventAllEndsEveryWait) {
  std::atomic<int> asleep{0};
  std::atomic<bool> over{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&] {
      bool first = true;
      WaitEventUntil(e_, steady_clock::time_point::max(), [&] {
        if (std::exchange(first, false)) ++asleep;
        return over.load();
      });
    });
  }
  while (asleep < 6) std::this_thread::yield();
  over = true;
  SetEventAll(e_, 1);
  for (std::thread &t : threads) t.join();
}

TEST_F(Event, WaitGivesTheValueAndForgetsEarlierSignals) {
  SetEvent(e_, 3);  // nobody waits: forgotten
  std::atomic<bool> returned{false};
  int32_t value = 0;
  std::thread waiter([&] {
    value = WaitEvent(e_);
    returned = true;
  });
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_FALSE(returned);
  while (!returned) {
    SetEvent(e_, static_cast<uint32_t>(-10));
    std::this_thread::sleep_for(milliseconds(5));
  }
  waiter.join();
  EXPECT_EQ(value, -10);
  EXPECT_EQ(WaitEvent(nullptr), -1);
  EXPECT_EQ(TimedWaitEvent(nullptr, 1.0F), -10);
  EXPECT_EQ(EnterCriticalSection(nullptr), -1);
}

TEST_F(Event, TimeOutsAreCutToWholeSeconds) {
  const struct {
    float timeout;
    milliseconds least, most;
  } rows[] = {{0.9F, milliseconds(0), milliseconds(900)},
              {1.9F, milliseconds(1000), milliseconds(1900)},
              {-5.0F, milliseconds(0), milliseconds(900)},
              {NAN, milliseconds(0), milliseconds(900)},
              {-std::numeric_limits<float>::infinity(), milliseconds(0), milliseconds(900)}};
  for (const auto &row : rows) {
    const auto start = steady_clock::now();
    EXPECT_EQ(TimedWaitEvent(e_, row.timeout), -1);
    EXPECT_GE(steady_clock::now() - start, row.least) << row.timeout;
    EXPECT_LT(steady_clock::now() - start, row.most) << row.timeout;
  }
  std::atomic<bool> woken{false};
  std::thread waiter([&] {
    EXPECT_EQ(TimedWaitEvent(e_, std::numeric_limits<float>::max()), 0);
    woken = true;
  });
  while (!woken) {
    SetEvent(e_, 0);
    std::this_thread::sleep_for(milliseconds(1));
  }
  waiter.join();
}

class Processes : public testing::Test {
 protected:
  Processes() {
    std::string name = testing::TempDir() + "c2ms-sync-XXXXXX";
    folder_ = mkdtemp(name.data());
  }
  ~Processes() override { std::filesystem::remove_all(folder_); }

  // What `work` returns in a process of its own.
  template <class Work>
  static int in_child(Work work) {
    const pid_t child = fork();
    if (child == 0) _exit(work());
    int status = 0;
    waitpid(child, &status, 0);
    return WEXITSTATUS(status);
  }

  std::string read_file(const std::string &path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  std::string folder_;
};

TEST_F(Processes, AFileMutexExcludesOtherProcesses) {
  const std::string path = folder_ + "/lock";
  EXPECT_EQ(file_mutex_init(path.c_str()), nullptr) << "the file must exist";
  EXPECT_EQ(file_mutex_locked(path.c_str()), 0);
  struct stat info {};
  ASSERT_EQ(stat(path.c_str(), &info), 0) << "the question creates it";
  EXPECT_EQ(info.st_mode & 0777, 0u);
  chmod(path.c_str(), 0600);

  file_mutex *const fm = file_mutex_init(path.c_str());
  ASSERT_NE(fm, nullptr);
  const auto try_in_child = [&] {
    return in_child([&] {
      file_mutex *const own = file_mutex_init(path.c_str());
      const int result = file_mutex_lock(own);
      return file_mutex_locked(path.c_str()) * 10 + (result == 0 ? 1 : 0);
    });
  };
  EXPECT_EQ(try_in_child(), 1) << "free: the child gets it";
  EXPECT_EQ(file_mutex_lock(fm), 0);
  EXPECT_EQ(try_in_child(), 10) << "held here: it sees that and doesn't get it";
  EXPECT_EQ(file_mutex_locked(path.c_str()), 0) << "not by another process";
  EXPECT_EQ(try_in_child(), 10) << "and asking did not drop it";
  EXPECT_EQ(file_mutex_unlock(fm), 0);
  EXPECT_EQ(try_in_child(), 1);
  EXPECT_EQ(file_mutex_lock(fm), 0);
  file_mutex_destroy(fm);
  EXPECT_EQ(try_in_child(), 1) << "destroying releases";
}

TEST_F(Processes, CommandsRunAndAreWaitedFor) {
  const std::string out = folder_ + "/out";
  const std::string script = "sleep 0.2; echo done > " + out;
  char shell[] = "sh", flag[] = "-c", missing[] = "/no/such/command";
  char *const argv[] = {shell, flag, const_cast<char *>(script.c_str()), nullptr};
  for (const auto disposition : {SIG_DFL, SIG_IGN}) {
    const auto before = std::signal(SIGCHLD, disposition);
    EXPECT_EQ(exec_cmd("sh", argv, 1), 0);
    EXPECT_EQ(read_file(out), "done\n") << "over when the call returns";
    std::filesystem::remove(out);
    char *const none[] = {missing, nullptr};
    EXPECT_EQ(exec_cmd(missing, none, 1), 0);
    std::signal(SIGCHLD, before);
  }
  EXPECT_EQ(exec_cmd(nullptr, argv, 1), -1);
}

// Another daemon's pid stays in the file until the lock is ours.
TEST_F(Processes, ADaemonLocksItsPidFileBeforeItWrites) {
  const std::string pid_file = folder_ + "/pid", report = folder_ + "/report";
  std::ofstream(pid_file) << "another's, and longer";
  const int held = open(pid_file.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(held, LOCK_EX), 0);

  EXPECT_EQ(in_child([&] {
              close(held);  // an inherited descriptor would hold the lock for the daemon itself
              const int result = daemonize(pid_file.c_str(), folder_.c_str());
              const bool detached = getpgrp() != getpid() && getsid(0) == getpgrp();
              std::ofstream("report.new") << result << detached << " " << getpid();
              std::filesystem::rename("report.new", "report");  // in the work directory
              return 0;
            }),
            0)
      << "the caller ends with 0";
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_EQ(read_file(pid_file), "another's, and longer");
  close(held);

  const auto deadline = steady_clock::now() + seconds(30);
  while (!std::filesystem::exists(report) && steady_clock::now() < deadline) {
    std::this_thread::sleep_for(milliseconds(5));
  }
  EXPECT_EQ(read_file(report), "01 " + read_file(pid_file));
}

}  // namespace
