// Events between threads; file mutex, daemon and commands between processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <atomic>
#include <cmath>
#include <csignal>
#include <limits>

#include "adif/filemutex.h"
#include "adif/process.h"
#include "adif/sync.h"
#include "support/support.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
constexpr auto kForEver = steady_clock::time_point::max();

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
      WaitEventUntil(e_, kForEver, [&] { return ping >= i; });
      pong = i;
      SetEvent(other, 0);
    }
  });
  for (int i = 1; i <= kRounds; ++i) {
    ping = i;
    SetEvent(e_, 0);
    ASSERT_TRUE(WaitEventUntil(other, kForEver, [&] { return pong >= i; }));
  }
  peer.join();
  DestroyEvent(other);
}

TEST_F(Event, WaitingForAStateGivesItsLastAnswerAtTheDeadline) {
  const auto start = steady_clock::now(), past = steady_clock::time_point::min();
  EXPECT_FALSE(WaitEventUntil(e_, start + milliseconds(60), [] { return false; }));
  EXPECT_GE(steady_clock::now() - start, milliseconds(60));
  EXPECT_FALSE(WaitEventUntil(e_, past, [] { return false; }));
  EXPECT_TRUE(WaitEventUntil(e_, past, [] { return true; }));
  int asked = 0;  // false before the sleep, true after it, with nobody signalling
  EXPECT_TRUE(WaitEventUntil(e_, start + milliseconds(80), [&] { return ++asked == 2; }));
}

TEST_F(Event, SetEventAllEndsEveryWait) {
  std::atomic<int> asleep{0};
  std::atomic<bool> over{false};
  const Threads waiting(6, [&](int) {
    WaitEventUntil(e_, kForEver, [&, first = true]() mutable {
      if (std::exchange(first, false)) ++asleep;
      return over.load();
    });
  });
  while (asleep < 6) std::this_thread::yield();
  over = true;
  SetEventAll(e_, 1);
}

TEST_F(Event, WaitGivesTheValueAndForgetsEarlierSignals) {
  SetEvent(e_, 3);  // nobody waits: forgotten
  std::atomic<int> returned{0};
  int32_t value = 0, timed = -7;
  std::thread waiter([&] {
    value = WaitEvent(e_);
    ++returned;
    timed = TimedWaitEvent(e_, std::numeric_limits<float>::max());
    ++returned;
  });
  pause_ms(50);
  EXPECT_EQ(returned, 0);
  for (; returned < 2; pause_ms(1)) SetEvent(e_, static_cast<uint32_t>(-10));
  waiter.join();
  EXPECT_EQ(value, -10);
  EXPECT_EQ(timed, 0);
}

TEST_F(Event, TimeOutsAreCutToWholeSeconds) {
  for (const float timeout : {0.9F, 1.9F, -5.0F, NAN, -std::numeric_limits<float>::infinity()}) {
    const long whole = timeout > 1 ? 1000 : 0;
    const auto start = steady_clock::now();
    EXPECT_EQ(TimedWaitEvent(e_, timeout), -1);
    EXPECT_GE(ms_since(start), whole) << timeout;
    EXPECT_LT(ms_since(start), whole + 900) << timeout;
  }
}

// As this user and, for root, as another one, whom the file's permissions keep out of the file.
TEST(Processes, AFileMutexExcludesOtherProcesses) {
  const Folder folder;
  const std::string path = folder / "lock";
  EXPECT_EQ(file_mutex_init(path.c_str()), nullptr) << "the file must exist";
  EXPECT_EQ(file_mutex_locked(path.c_str()), 0);
  using std::filesystem::perms;  // the question creates the file
  EXPECT_EQ(std::filesystem::status(path).permissions(), perms::none);
  const bool root = geteuid() == 0;
  chmod(folder.path.c_str(), 0755);
  const auto as_nobody = [&] {
    if (root && setuid(65534) != 0) return 99;
    return (file_mutex_init(path.c_str()) == nullptr) + 10 * -file_mutex_locked(path.c_str());
  };
  EXPECT_EQ(in_child(as_nobody), 11) << "no permission: no mutex and no answer";
  chmod(path.c_str(), 0666);

  file_mutex *const fm = file_mutex_init(path.c_str());
  ASSERT_NE(fm, nullptr);
  // What another process finds: tens tell that it sees the lock, ones that it gets it.
  const auto found = [&](bool other_user) {
    return in_child([&] {
      if (other_user && root && setuid(65534) != 0) return 99;
      file_mutex *const own = file_mutex_init(path.c_str());
      const int result = file_mutex_lock(own);
      return file_mutex_locked(path.c_str()) * 10 + (result == 0 ? 1 : 0);
    });
  };
  for (const bool other_user : {false, true}) {
    EXPECT_EQ(found(other_user), 1);
    EXPECT_EQ(file_mutex_lock(fm), 0);
    EXPECT_EQ(found(other_user), 10);
    EXPECT_EQ(file_mutex_locked(path.c_str()), 0) << "not by another process";
    EXPECT_EQ(found(other_user), 10) << "and asking did not drop it";
    EXPECT_EQ(file_mutex_unlock(fm), 0);
  }
  EXPECT_EQ(found(false), 1);
  EXPECT_EQ(file_mutex_lock(fm), 0);
  file_mutex_destroy(fm);
  EXPECT_EQ(found(false), 1) << "destroying releases";
}

TEST(Processes, CommandsRunAndAreWaitedFor) {
  const Folder folder;
  const std::string out = folder / "out", script = "sleep 0.2; echo done > " + out;
  char shell[] = "sh", flag[] = "-c", missing[] = "/no/such/command";
  char *const argv[] = {shell, flag, const_cast<char *>(script.c_str()), nullptr};
  char *const none[] = {missing, nullptr};
  for (const auto disposition : {SIG_DFL, SIG_IGN}) {
    const auto before = std::signal(SIGCHLD, disposition);
    EXPECT_EQ(exec_cmd("sh", argv, 1), 0);
    EXPECT_EQ(read_file(out), "done\n") << "over when the call returns";
    std::filesystem::remove(out);
    EXPECT_EQ(exec_cmd("sh", argv, 0), 0);
    EXPECT_EQ(read_file(out), "") << "not waited for";
    EXPECT_TRUE(eventually([&] { return read_file(out) == "done\n"; }));
    std::filesystem::remove(out);
    EXPECT_EQ(exec_cmd(missing, none, 1), 0);
    std::signal(SIGCHLD, before);
  }
  const std::string ends = "kill $$; echo alive > " + out;
  char *const ending[] = {shell, flag, const_cast<char *>(ends.c_str()), nullptr};
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  EXPECT_EQ(exec_cmd("sh", ending, 1), 0);
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  EXPECT_EQ(read_file(out), "") << "a blocked caller's command takes signals";
}

// Another daemon's pid stays in the file until the lock is ours. The caller's output is closed.
TEST(Processes, ADaemonLocksItsPidFileBeforeItWrites) {
  const Folder folder;
  const std::string pid_file = folder / "pid", report = folder / "report";
  write_file(pid_file, "another's, and longer");
  const int held = open(pid_file.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(held, LOCK_EX), 0);
  const auto become_daemon = [&] {
    for (int fd : {0, 1, 2, held}) close(fd);  // an inherited `held` would keep the lock
    const int result = daemonize(pid_file.c_str(), folder.path.c_str());
    const bool detached = getpgrp() != getpid() && getsid(0) == getpgrp();
    write_file("report.new",
               std::to_string(result) + (detached ? "1 " : "0 ") + std::to_string(getpid()));
    std::filesystem::rename("report.new", "report");  // in the work directory
    for (int i = 0; i < 500 && read_file("over").empty(); ++i) pause_ms(10);
    return 0;
  };
  EXPECT_EQ(in_child(become_daemon), 0) << "the caller ends with 0";
  pause_ms(100);
  EXPECT_EQ(read_file(pid_file), "another's, and longer");
  close(held);
  EXPECT_TRUE(eventually([&] { return std::filesystem::exists(report); }));
  EXPECT_EQ(read_file(report), "01 " + read_file(pid_file));
  const int again = open(pid_file.c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_NE(flock(again, LOCK_EX | LOCK_NB), 0) << "the lock lasts as long as the daemon";
  write_file(folder / "over", "now");
  EXPECT_TRUE(eventually([&] { return flock(again, LOCK_EX | LOCK_NB) == 0; }));
  close(again);
}

}  // namespace
