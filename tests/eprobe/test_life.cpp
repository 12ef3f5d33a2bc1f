// The life of an instance: start, stop, restart, fatal outcomes, hook, monitor, rest.
#include <gtest/gtest.h>
#include <signal.h>

#include <regex>

#include "engine.h"
#include "eprobe/rac_core.h"

namespace {

struct Counter {
  rac_core *core = nullptr;
  std::atomic<int> calls{0};
  std::atomic<int> result{0};
  int nowait = 0, restarted = 0;

  static int stop_probe(void *arg, void *, int, int) {
    auto *self = static_cast<Counter *>(arg);
    self->result = probe_barrier(self->core);
    StopProbe(self->core);
    self->restarted = StartProbe(self->core, self->nowait);
    ++self->calls;
    return 0;
  }
  static int check(void *arg, int zero) {
    auto *self = static_cast<Counter *>(arg);
    if (zero != 0) std::abort();
    return self->result;
  }
  static int pump(void *arg, int) {
    ++static_cast<Counter *>(arg)->calls;
    return 0;
  }
};

TEST(Life, ThreadsAreClampedAndSplitTheConnections) {
  for (const auto &[asked, got] : {std::pair{0u, 1u}, {8u, 8u}, {200u, 128u}}) {
    rac_core *core = probe_create(asked);
    EXPECT_EQ(core->nbases, got);
    EXPECT_EQ(core->bases[0].connections_per_base, 1024 / got);
    probe_cleanup(core);
  }
}

TEST(Life, RestartAfterStopKeepsDevicesAndTimers) {
  rac_core *core = probe_create(3);
  Listener listener;
  Recorder recorder;
  rac_connection *device =
      ConnectRemote2(core, &loopback, listener.port, 0, nullptr, Recorder::on_event, &recorder);
  for (int run = 0; run < 20; ++run) {
    EXPECT_EQ(StartProbe(core, 1), 0);
    EXPECT_EQ(StartProbe(core, 1), 0) << "running already";
    EXPECT_NE(StartTimer2(core, 0, 0, 0, Recorder::on_event, &recorder), nullptr);
    EXPECT_TRUE(run % 2 != 0 || recorder.gets(IOE_TIMEOUT, run + 1));
    std::thread second([core] { EXPECT_EQ(StopProbe(core), 0); });
    EXPECT_EQ(StopProbe(core), 0);
    second.join();
  }
  // A timer that was set and not fired when a run ended fires in the next.
  StartProbe(core, 1);
  EXPECT_TRUE(recorder.gets(IOE_TIMEOUT, 20));
  EXPECT_TRUE(recorder.gets(IOE_CONNECTED, 1));
  const int peer = accept(listener.fd, nullptr, nullptr);
  EXPECT_EQ(tcp_nb_send(peer, "x", 1), 1);
  EXPECT_TRUE(recorder.reads(1));
  StopProbe(core);
  EXPECT_EQ(RemoveDevice(device), 0) << "of a stopped engine: closed by the clean-up";
  EXPECT_EQ(probe_barrier(core), 0) << "nothing runs: nothing to wait for";
  probe_cleanup(core);
  EXPECT_EQ(GetDeviceFD(device), -1);
  EXPECT_EQ(sock_read_ready(peer, 5000), 1);
  EXPECT_EQ(tcp_nb_receive(peer, &recorder, 1, nullptr), -1) << "the clean-up closed the device";
  close(peer);
}

TEST(Life, StopFromACallbackEndsAWaitingStart) {
  for (int nowait : {0, 1}) {
    Counter timer;
    Recorder again;
    timer.core = probe_create(2);
    timer.nowait = nowait;
    StartTimer2(timer.core, 20, 0, 0, Counter::stop_probe, &timer);
    std::atomic<bool> back{false};
    std::thread second([&] {
      if (nowait == 0) StartProbe(timer.core, 0);
      back = true;
    });
    EXPECT_EQ(StartProbe(timer.core, nowait), 0);
    EXPECT_TRUE(eventually([&] { return timer.calls == 1; }));
    // Does nothing, unless the second start came after the callback's stop and began another run.
    EXPECT_TRUE(eventually([&] { return StopProbe(timer.core) == 0 && back; }));
    second.join();
    EXPECT_EQ(timer.result, -2) << "a callback cannot wait for itself";
    EXPECT_EQ(timer.restarted, -2) << "nor serve its base together with another worker";
    StartProbe(timer.core, 1);
    StartTimer2(timer.core, 1, 0, 0, Recorder::on_event, &again);
    EXPECT_TRUE(again.gets(IOE_TIMEOUT, 1));
    probe_cleanup(timer.core);
  }
}

TEST(Life, AnIdleEngineUsesNoProcessorTime) {
  Counter hook;  // refuses: must not keep anybody awake
  Engine engine(8);
  RegisterHook(engine.core, Counter::check, &hook, Counter::pump, &hook);
  StartTimer2(engine.core, 600000, 0, 0, nullptr, nullptr);
  probe_barrier(engine.core);
  EXPECT_LT(cpu_us_within(500), 100000);
}

TEST(Life, TheBarrierWaitsForACallbackOnAWorkerThatIsNamedAndBlocksSignals) {
  struct Seen {
    std::atomic<bool> begun{false}, over{false};
    char name[16] = "";
    sigset_t mask;
  } seen;
  const auto look = [](void *arg, void *, int, int) {
    auto *self = static_cast<Seen *>(arg);
    self->begun = true;
    pthread_getname_np(pthread_self(), self->name, sizeof self->name);
    pthread_sigmask(SIG_SETMASK, nullptr, &self->mask);
    pause_ms(100);
    self->over = true;
    return 0;
  };
  Engine engine(2);
  StartTimer2(engine.core, 0, 0, 0, look, &seen);
  ASSERT_TRUE(eventually([&] { return seen.begun.load(); }));
  EXPECT_EQ(probe_barrier(engine.core), 0);
  ASSERT_TRUE(seen.over);
  EXPECT_STREQ(seen.name, "c2ms-0");
  for (int signal : {SIGINT, SIGTERM, SIGCHLD, SIGALRM, SIGUSR1})
    EXPECT_EQ(sigismember(&seen.mask, signal), 1) << signal;
}

TEST(Hook, RunsOnTurnsAndOnCallWhileItsCheckAgrees) {
  Counter hook, other;
  Recorder timer;
  Engine engine(2);
  EXPECT_EQ(DrivePump(engine.core), -1) << "no hook";
  RegisterHook(engine.core, Counter::check, &hook, nullptr, &hook);
  EXPECT_EQ(DrivePump(engine.core), -1) << "no pump";
  RegisterHook(engine.core, Counter::check, &hook, Counter::pump, &hook);
  EXPECT_EQ(DrivePump(engine.core), 0);
  EXPECT_EQ(hook.calls, 0) << "the check says 0";
  hook.result = 1;
  EXPECT_EQ(DrivePump(engine.core), 0);
  EXPECT_GE(hook.calls, 1);
  const int before = hook.calls;
  StartTimer2(engine.core, 0, 0, 0, Recorder::on_event, &timer);
  EXPECT_TRUE(timer.gets(IOE_TIMEOUT, 1));
  EXPECT_TRUE(eventually([&] { return hook.calls > before; })) << "a turn";

  EXPECT_EQ(RemoveHookOf(engine.core, &other), 1);
  EXPECT_EQ(DrivePump(engine.core), 0) << "still set";
  EXPECT_EQ(RemoveHookOf(engine.core, &hook), 0);
  EXPECT_EQ(RemoveHookOf(engine.core, nullptr), 1) << "an empty hook is nobody's";
  EXPECT_EQ(DrivePump(engine.core), -1);
  probe_barrier(engine.core);
  const int last = hook.calls;
  probe_barrier(engine.core);
  EXPECT_EQ(hook.calls, last);
}

TEST(Hook, ItsWordsAreReadTogether) {
  Engine engine(4);
  static int words[2];  // each function aborts if it meets the other's argument
  const probe_hook first = [](void *arg, int) { return arg == words ? 1 : (std::abort(), 0); };
  const probe_hook second = [](void *arg, int) { return arg == words + 1 ? 1 : (std::abort(), 0); };
  std::atomic<bool> stop{false};
  std::thread driver([&] {
    while (!stop) DrivePump(engine.core);
  });
  for (int i = 0; i < 3000; ++i) {
    RegisterHook(engine.core, first, words, first, words);
    RegisterHook(engine.core, second, words + 1, second, words + 1);
    if (i % 8 == 0) RemoveHook(engine.core);
  }
  stop = true;
  driver.join();
  RemoveHook(engine.core);
}

TEST(Monitor, AppendsAReportEachPeriod) {
  const Folder folder;
  const std::string file = folder / "monitor";
  write_file(file, "before\n");
  Engine engine(2);
  EXPECT_EQ(probe_set_profile_monitor(engine.core, "/nonexistent/file", 1001), -1);
  const auto set = std::chrono::steady_clock::now();
  EXPECT_EQ(probe_set_profile_monitor(engine.core, file.c_str(), 1001), 0);
  EXPECT_EQ(probe_set_profile_monitor(engine.core, file.c_str(), 1001), 0) << "on already";
  EXPECT_TRUE(eventually([&] { return read_file(file) != "before\n"; }));
  EXPECT_GE(ms_since(set), 1000) << "not before the period";
  const std::regex two(
      "before\n("
      "={22}\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d={22}\n\n"
      "Probe event model\t\t\t: select\n"
      "Probe worker threads\t\t\t: 2\n"
      "Probe thread max connections\t\t: 512\n"
      "Probe total connections\t\t\t: 1024\n"
      "Probe used connections\t\t\t: 2\n"
      "Probe free  connections\t\t\t: 1022\n"
      "Probe total timers\t\t\t: 512\n"
      "Probe used timers\t\t\t: 1\n"
      "Probe free  timers\t\t\t: 511\n\n"
      "Thread\tconnections\ttimers\n"
      "0\t0\t\t0\n"
      "1\t0\t\t0\n\n*){2,}");
  EXPECT_TRUE(eventually([&] { return std::regex_match(read_file(file), two); }))
      << read_file(file);
}

}  // namespace
