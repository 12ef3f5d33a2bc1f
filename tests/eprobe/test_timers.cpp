// Timers through the probe's face: never early, lost, doubled or somebody else's.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <random>
#include <vector>

#include "engine.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Shot {
  Clock::time_point started;
  uint32_t period_ms = 0;
  std::atomic<int> fired{0};
  std::atomic<bool> early{false};

  static int on_timer(void *arg, void *, int event, int kind) {
    auto *self = static_cast<Shot *>(arg);
    const auto age = Clock::now() - self->started;
    if (age + std::chrono::milliseconds(1) < std::chrono::milliseconds(self->period_ms))
      self->early = true;
    if (event == IOE_TIMEOUT && kind == PROBE_TIMER) ++self->fired;
    return 0;
  }
  rac_timer *start(rac_core *core, uint32_t ms) {
    started = Clock::now();
    period_ms = ms;
    return StartTimer2(core, ms, 1, 2, on_timer, this);
  }
};

/// Starts as many timers as there are, then stops them; all slots are back if it is
/// PROBE_MAX_TIMERS.
uint32_t free_timers(rac_core *core) {
  std::vector<rac_timer *> taken;
  Shot never;
  while (rac_timer *timer = never.start(core, 3600000)) taken.push_back(timer);
  for (rac_timer *timer : taken) StopTimer(timer);
  return static_cast<uint32_t>(taken.size());
}

TEST(Timers, AFullPoolFiresEachOnceAndNoneEarly) {
  std::vector<Shot> shots(PROBE_MAX_TIMERS);
  Shot one_more;
  Engine engine(8);
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  for (Shot &shot : shots) ASSERT_NE(shot.start(engine.core, 300 + random() % 300), nullptr);
  if (Clock::now() - shots[0].started < std::chrono::milliseconds(200)) {
    EXPECT_EQ(one_more.start(engine.core, 1), nullptr) << "the pool is empty";
  }
  for (Shot &shot : shots) {
    EXPECT_TRUE(eventually([&] { return shot.fired > 0; })) << shot.period_ms;
  }
  probe_barrier(engine.core);
  for (Shot &shot : shots) {
    EXPECT_EQ(shot.fired, 1);
    EXPECT_FALSE(shot.early) << shot.period_ms;
  }
  EXPECT_EQ(free_timers(engine.core), PROBE_MAX_TIMERS);
}

TEST(Timers, EqualDeadlinesExpireInOrderOfStart) {
  Engine engine(1);
  std::vector<int> order;  // the one worker's until `done`
  std::atomic<size_t> done{0};
  struct Numbered {
    std::vector<int> *order;
    std::atomic<size_t> *done;
    int number;
  };
  std::vector<Numbered> timers;
  for (int i = 0; i < 300; ++i) timers.push_back({&order, &done, i});
  for (Numbered &timer : timers) {
    StartTimer2(
        engine.core, 30, 0, 0,
        [](void *arg, void *, int, int) {
          auto *self = static_cast<Numbered *>(arg);
          self->order->push_back(self->number);
          ++*self->done;
          return 0;
        },
        &timer);
  }
  ASSERT_TRUE(eventually([&] { return done == timers.size(); }));
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(Timers, StopFromAnyThreadLeavesAtMostOneShotAndNoSlot) {
  Engine engine(4);
  constexpr int THREADS = 4, ROUNDS = 1500;
  std::vector<std::unique_ptr<Shot>> kept;  // started and never stopped
  std::vector<std::unique_ptr<Shot>> stopped;
  std::mutex lock;
  std::atomic<bool> fired_after_stop{false};
  std::vector<std::thread> threads;
  for (unsigned id = 0; id < THREADS; ++id) {
    threads.emplace_back([&, id] {
      std::mt19937 random(id);
      for (int i = 0; i < ROUNDS; ++i) {
        auto shot = std::make_unique<Shot>();
        rac_timer *timer = shot->start(engine.core, random() % 4);
        const bool stop = timer != nullptr && random() % 2 == 0;
        if (stop) {
          if (random() % 2 == 0) std::this_thread::yield();
          StopTimer(timer);
          StopTimer(timer);  // by now perhaps another thread's timer has the slot
          if (i % 50 == 0) {
            probe_barrier(engine.core);
            const int before = shot->fired;
            std::this_thread::sleep_for(std::chrono::milliseconds(8));
            if (shot->fired != before) fired_after_stop = true;
          }
        }
        std::lock_guard guard(lock);
        if (timer != nullptr) (stop ? stopped : kept).push_back(std::move(shot));
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  for (auto &shot : kept) {
    EXPECT_TRUE(eventually([&] { return shot->fired == 1; })) << "lost";
  }
  probe_barrier(engine.core);
  EXPECT_FALSE(fired_after_stop);
  for (auto &shot : kept) EXPECT_TRUE(shot->fired == 1 && !shot->early);
  for (auto &shot : stopped) EXPECT_TRUE(shot->fired <= 1 && !shot->early);
  EXPECT_EQ(free_timers(engine.core), PROBE_MAX_TIMERS);
}

TEST(Timers, AnOldHandleFindsNothing) {
  Shot first, second;
  Engine engine(2);
  rac_timer *old = first.start(engine.core, 1000);
  EXPECT_EQ(GetTimeoutCmd(old), 1u);
  EXPECT_EQ(GetTimeoutPara(old), 2u);
  StopTimer(old);
  rac_timer *next = second.start(engine.core, 20);
  ASSERT_EQ(reinterpret_cast<uintptr_t>(old) & 1023, reinterpret_cast<uintptr_t>(next) & 1023)
      << "the test wants the same slot";
  EXPECT_NE(old, next);
  EXPECT_EQ(GetTimeoutCmd(old), 0u);
  EXPECT_EQ(GetTimeoutPara(old), 0u);
  StopTimer(old);
  EXPECT_TRUE(eventually([&] { return second.fired == 1; }));
  EXPECT_EQ(first.fired, 0);
  EXPECT_EQ(StopTimer(nullptr), 0);
  EXPECT_EQ(GetTimeoutCmd(nullptr), 0u);
  EXPECT_EQ(StartTimer2(nullptr, 1, 0, 0, nullptr, nullptr), nullptr);
}

/// Restarts itself from inside its handler; another timer that is due must not starve meanwhile.
struct Chain {
  rac_core *core;
  std::atomic<int> links{0};
  std::atomic<bool> wrong{false};

  static int on_timer(void *arg, void *handle, int, int) {
    auto *self = static_cast<Chain *>(arg);
    auto *timer = static_cast<rac_timer *>(handle);
    const auto link = static_cast<uint32_t>(self->links.load());
    StopTimer(timer);  // running: does nothing
    if (GetTimeoutCmd(timer) != link || GetTimeoutPara(timer) != link) self->wrong = true;
    if (++self->links < 2000) StartTimer2(self->core, 0, link + 1, link + 1, on_timer, self);
    return 0;
  }
};

TEST(Timers, HandlersStartAndStopTimersWithoutStarvingOthers) {
  Chain chain{};
  Shot other;
  Engine engine(1);
  chain.core = engine.core;
  StartTimer2(engine.core, 0, 0, 0, Chain::on_timer, &chain);
  other.start(engine.core, 5);
  EXPECT_TRUE(eventually([&] { return other.fired == 1; }));
  EXPECT_TRUE(eventually([&] { return chain.links == 2000; }));
  EXPECT_FALSE(chain.wrong);
  EXPECT_EQ(free_timers(engine.core), PROBE_MAX_TIMERS);
}

}  // namespace
