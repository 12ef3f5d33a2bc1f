// Timers through the probe's face: never early, lost, doubled or somebody else's.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>

#include "engine.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Shot {
  Clock::time_point started;
  uint32_t period_ms = 0;
  std::atomic<int> fired{0};
  std::atomic<bool> early{false};
  bool stopped = false;
  int at_most = 1;  // once it was stopped and no callback ran any more, what it had fired by then

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

/// Starts as many timers as there are, then stops them: all slots are back if it is
/// PROBE_MAX_TIMERS.
uint32_t free_timers(rac_core *core) {
  std::vector<rac_timer *> taken;
  Shot never;
  while (rac_timer *timer = never.start(core, 3600000)) taken.push_back(timer);
  for (rac_timer *timer : taken) StopTimer(timer);
  return static_cast<uint32_t>(taken.size());
}

/// Keeps 100 timers of random periods going; stops some of them, by old handles too.
struct Juggler {
  std::deque<Shot> shots;

  void run(rac_core *core, unsigned seed, Clock::time_point end) {
    struct Place {
      Shot *shot;
      rac_timer *timer, *old;
    };
    std::vector<Place> places(100);
    std::mt19937 random(seed);
    const auto start = [&](Place &place) {
      place = {&shots.emplace_back(), nullptr, place.timer};
      while ((place.timer = place.shot->start(core, random() % 150)) == nullptr) pause_ms(1);
    };
    for (Place &place : places) start(place);
    for (unsigned i = 0; Clock::now() < end; ++i) {
      Place &place = places[random() % places.size()];
      StopTimer(place.old);  // by now perhaps another thread's timer has the slot
      if (place.shot->fired == 0) {
        if (random() % 8 != 0) {
          std::this_thread::yield();
          continue;
        }
        StopTimer(place.timer);
        place.shot->stopped = true;
        if (i % 16 == 0) {
          probe_barrier(core);
          place.shot->at_most = place.shot->fired;
        }
      }
      start(place);
    }
  }
};

TEST(Timers, FiveHundredAreNeverEarlyLostDoubledOrResurrected) {
  Random random;
  Juggler jugglers[5];
  Engine engine(8);
  const auto end = Clock::now() + std::chrono::milliseconds(2500);
  Threads(5, [&](int i) {
    jugglers[i].run(engine.core, random.seed() + static_cast<unsigned>(i), end);
  }).join();
  for (Juggler &juggler : jugglers) {
    for (const Shot &shot : juggler.shots)
      ASSERT_TRUE(shot.stopped || eventually([&] { return shot.fired > 0; })) << "lost";
  }
  probe_barrier(engine.core);
  for (Juggler &juggler : jugglers) {
    EXPECT_GT(juggler.shots.size(), 1000u);
    for (const Shot &shot : juggler.shots) {
      ASSERT_LE(shot.fired, shot.at_most) << "doubled or resurrected";
      ASSERT_FALSE(shot.early) << shot.period_ms;
    }
  }
  EXPECT_EQ(free_timers(engine.core), PROBE_MAX_TIMERS);
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

TEST(Timers, OfOneWorkerExpireInOrderOfStartAndDoNotStarve) {
  struct Numbered {
    std::vector<Numbered *> *order;  // the one worker's, until all have fired
    std::atomic<size_t> *done;
  };
  std::vector<Numbered *> order;
  std::atomic<size_t> done{0};
  std::vector<Numbered> timers(300, {&order, &done});
  Chain chain{};
  Shot other, shots[5];
  Engine engine(1);
  for (Numbered &timer : timers) {
    const auto note = [](void *arg, void *, int, int) {
      auto *self = static_cast<Numbered *>(arg);
      self->order->push_back(self);
      ++*self->done;
      return 0;
    };
    StartTimer2(engine.core, 30, 0, 0, note, &timer);
  }
  ASSERT_TRUE(eventually([&] { return done == timers.size(); }));
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));

  chain.core = engine.core;
  StartTimer2(engine.core, 0, 0, 0, Chain::on_timer, &chain);
  other.start(engine.core, 5);
  EXPECT_TRUE(eventually([&] { return other.fired == 1 && chain.links == 2000; }));
  probe_barrier(engine.core);  // a timer goes back when its callback has ended
  EXPECT_FALSE(chain.wrong);
  // A worker at rest looks by itself only every 3 s: the best of five is woken for its timer.
  long soonest = 3000;
  for (Shot &shot : shots) {
    pause_ms(100);  // it comes to rest
    shot.start(engine.core, 1);
    EXPECT_TRUE(eventually([&] { return shot.fired == 1; }));
    soonest = std::min(soonest, ms_since(shot.started));
  }
  probe_barrier(engine.core);
  EXPECT_LT(soonest, 1500);
  EXPECT_EQ(free_timers(engine.core), PROBE_MAX_TIMERS);
}

/// Carries its plan out in each of four runs: 'i' starts itself again, 'o' another timer.
struct Planner {
  const char *plan, *outcome;  // by step of the plan: '+' a timer, '-' none
  int runs_expected;
  rac_core *core = nullptr;
  std::atomic<int> runs{0};
  std::atomic<bool> wrong{false};

  static int on_timer(void *arg, void *, int, int) {
    auto *self = static_cast<Planner *>(arg);
    Shot other;
    std::string got;
    if (++self->runs > 4) return 0;
    for (const char *step = self->plan; *step != 0; ++step) {
      const bool made = *step == 'i' ? self->start() : other.start(self->core, 3600000) != nullptr;
      got += made ? '+' : '-';
    }
    if (got != self->outcome) self->wrong = true;
    return 0;
  }
  bool start() { return StartTimer2(core, 1, 7, 8, on_timer, this) != nullptr; }
};

TEST(Timers, AHandlerFindsItsOwnSlotAgainWhenAllAreTaken) {
  const auto take_all = [](rac_core *core) {
    static Shot never;
    rac_timer *last = nullptr;
    while (rac_timer *timer = never.start(core, 3600000)) last = timer;
    return last;
  };
  Planner rows[] = {{"i", "+", 5}, {"oi", "-+", 5}, {"ii", "+-", 5}, {"o", "-", 1}};
  for (Planner &row : rows) {
    SCOPED_TRACE(row.plan);
    Engine engine(1);
    row.core = engine.core;
    StopTimer(take_all(engine.core));
    ASSERT_TRUE(row.start());
    EXPECT_TRUE(eventually([&] { return row.runs == row.runs_expected; }, std::chrono::seconds(9)))
        << "lost after " << row.runs;
    probe_barrier(engine.core);
    EXPECT_FALSE(row.wrong);
    EXPECT_EQ(free_timers(engine.core), 1u) << "it gives back one slot, its own";
  }
  const Folder folder;
  const std::string file = folder / "monitor";
  Engine engine(2);
  ASSERT_EQ(probe_set_profile_monitor(engine.core, file.c_str(), 1001), 0);
  take_all(engine.core);
  EXPECT_TRUE(eventually([&] {
    const std::string report = read_file(file);
    return report.find("Probe free  timers\t\t\t: 0") !=
           report.rfind("Probe free  timers\t\t\t: 0");
  })) << "the monitor goes on";
}

TEST(Timers, AnOldHandleFindsNothing) {
  Shot first, second;
  Engine engine(2);
  rac_timer *old = first.start(engine.core, 1000);
  EXPECT_TRUE(GetTimeoutCmd(old) == 1 && GetTimeoutPara(old) == 2);
  StopTimer(old);
  rac_timer *next = second.start(engine.core, 20);
  ASSERT_EQ(reinterpret_cast<uintptr_t>(old) & 1023, reinterpret_cast<uintptr_t>(next) & 1023)
      << "the test wants the same slot";
  EXPECT_EQ(GetTimeoutCmd(old) + GetTimeoutPara(old), 0u);
  StopTimer(old);
  EXPECT_TRUE(eventually([&] { return second.fired == 1; }));
  EXPECT_EQ(first.fired, 0);
}

}  // namespace
