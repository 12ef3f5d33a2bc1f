// See cases.h.
#include "cases.h"

#include <algorithm>
#include <charconv>
#include <thread>

#include "play.h"
#include "support/slack.h"

namespace sweep {

namespace {

// A counting run gives some hundred calls of a kind: of each up to this number all are done, of
// those behind it every seventh.
constexpr uint32_t all_up_to = 400;
constexpr uint32_t step_behind = 7;
constexpr uint32_t quick_numbers = 3;  // of each kind and script
constexpr int storm_seeds = 3;

Case failing_case(World &world, script which, call kind, uint32_t nth, bool for_good) {
  const std::string family = kind == call::allocation ? "allocations/" : "calls/";
  const std::string name = kind == call::allocation ? "" : std::string(name_of(kind)) + "/";
  return {family + script_names[static_cast<int>(which)] + "/" + name +
              (for_good ? "good/" : "once/") + std::to_string(nth),
          [=, &world](Report &report) {
            run_play(report, world, which, [=] { plan::arm(kind, nth, for_good); });
          },
          which == script::film ? ending::lives : ending::lives_or_exits};
}

/// How many calls of each kind a play makes: the most of a few runs.
std::vector<uint32_t> count_calls(World &world, script which, const counter &count) {
  std::vector<uint32_t> most(calls);
  for (int run = 0; run < 3; ++run) {
    const std::vector<uint32_t> made =
        count(failing_case(world, which, call::allocation, 0, false));
    for (size_t i = 0; i < most.size(); ++i) most[i] = std::max(most[i], made[i]);
  }
  return most;
}

bool begins(const std::string &text, const std::string &with) {
  return text.compare(0, with.size(), with) == 0;
}

/// The number at the end of a full name that is asked for; 0: there is none.
uint32_t asked_number(const std::string &what, const std::string &stem) {
  uint32_t number = 0;
  if (begins(what, stem)) std::from_chars(&what[stem.size()], &what[0] + what.size(), number);
  return number;
}

class Collection {
 public:
  Collection(const std::string &what, bool quick) : what_(what), quick_(quick) {}

  bool wants(const std::string &stem) const { return begins(stem, what_) || begins(what_, stem); }
  bool is_quick() const { return quick_; }
  const std::string &what() const { return what_; }

  void add(Case one) {
    if (begins(one.name, what_)) cases.push_back(std::move(one));
  }

  /// Numbers 1 to `most`, thinned out.
  std::vector<uint32_t> numbers(uint32_t most) const {
    std::vector<uint32_t> chosen;
    if (quick_) {
      for (uint32_t i = 0; i < quick_numbers; ++i)
        if (const uint32_t n = 1 + i * most / quick_numbers; n <= most) chosen.push_back(n);
      return chosen;
    }
    for (uint32_t n = 1; n <= most; n += n < all_up_to ? 1 : step_behind) chosen.push_back(n);
    return chosen;
  }

  std::vector<Case> cases;

 private:
  const std::string what_;
  const bool quick_;
};

void add_failing(Collection *all, World &world, const counter &count) {
  for (const script which : {script::play, script::index, script::steps, script::film}) {
    std::vector<uint32_t> most;
    for (int kind = 0; kind < calls; ++kind) {
      for (const bool for_good : {false, true}) {
        const auto make = [&](uint32_t nth) {
          return failing_case(world, which, static_cast<call>(kind), nth, for_good);
        };
        std::string stem = make(0).name;
        stem.pop_back();
        if (!all->wants(stem)) continue;
        if (const uint32_t asked = asked_number(all->what(), stem); asked > 0) {
          all->add(make(asked));
          continue;
        }
        if (most.empty()) most = count_calls(world, which, count);
        for (const uint32_t nth : all->numbers(most[static_cast<size_t>(kind)]))
          all->add(make(nth));
      }
    }
  }
}

void run_storm(Report &report, World &world, script which, weather kind, uint32_t percent,
               uint64_t seed) {
  run_play(report, world, which, [=] { plan::storm(kind, percent, seed); });
  if (report.injected == 0) report.find("there was no storm");
}

void add_storms(Collection *all, World &world) {
  for (const script which : {script::play, script::steps, script::film}) {
    for (const weather kind : {weather::eintr, weather::eagain, weather::pieces, weather::all}) {
      for (const uint32_t percent : {10u, 50u, 90u}) {
        for (uint64_t seed = 1; seed <= (all->is_quick() ? 1 : storm_seeds); ++seed) {
          const std::string name = std::string("storms/") + script_names[static_cast<int>(which)] +
                                   "/" + weather_names[static_cast<int>(kind)] + "/" +
                                   std::to_string(percent) + "/" + std::to_string(seed);
          all->add({name, [=, &world](Report &report) {
                      run_storm(report, world, which, kind, percent, seed);
                    }});
        }
      }
    }
  }
}

constexpr int64_t day_s = 86'400;

/// A play that takes about a second, while the wall clock jumps and comes back.
void run_clock(Report &report, int64_t jump_s, int period_ms) {
  World world({.nodes = 2,
               .node = {{.rate_bytes_per_s = 1e5}, {.rate_bytes_per_s = 1e5}},
               .keep_log = false});
  std::atomic<bool> over{false};
  std::thread jumper([&] {
    for (bool away = true; !over; away = !away) {
      std::this_thread::sleep_for(std::chrono::milliseconds(period_ms));
      plan::clock_ahead = away ? jump_s : 0;
    }
  });
  const double took = run_play(report, world, script::play, [] {});
  over = true;
  jumper.join();
  if (took > 5 * support::slack()) report.find("the play took %.1f s", took);
  // Nothing is given up before its time, so nothing is asked for twice.
  const uint64_t asked = world.server.totals().media,
                 packs = 2 * (world.film.bytes.size() / 8192 + 1);
  if (asked > packs)
    report.find("%llu requests for %llu packs", static_cast<unsigned long long>(asked),
                static_cast<unsigned long long>(packs));
}

void add_clock(Collection *all) {
  const std::pair<const char *, int64_t> jumps[] = {
      {"back-a-day", -day_s}, {"on-a-day", day_s}, {"on-ten-years", 3653 * day_s}};
  for (const auto &[name, jump_s] : jumps) {
    for (const int period_ms : {30, 170}) {
      all->add(
          {std::string("clock/") + name + "/" + std::to_string(period_ms),
           [jump = jump_s, period_ms](Report &report) { run_clock(report, jump, period_ms); }});
    }
  }
}

void run_pipe(Report &report, World &world, script which) {
  const double took = run_play(report, world, which, [] { plan::brim = true; });
  // A wake-up that is lost costs at least the next timer's period.
  if (took > 0.9 * support::slack()) report.find("the play took %.1f s", took);
}

void add_pipe(Collection *all, World &world) {
  for (const script which : {script::play, script::index, script::steps}) {
    for (int i = 1; i <= (all->is_quick() ? 1 : 4); ++i) {
      all->add(
          {std::string("pipe/") + script_names[static_cast<int>(which)] + "/" + std::to_string(i),
           [=, &world](Report &report) { run_pipe(report, world, which); }});
    }
  }
}

}  // namespace

std::vector<Case> cases_of(const std::string &what, bool quick, World &world,
                           const counter &count) {
  Collection all(what, quick);
  add_failing(&all, world, count);
  add_storms(&all, world);
  add_clock(&all);
  add_pipe(&all, world);
  std::vector<Case> others;
  add_fatal(&others);
  add_closing(&others);
  for (Case &one : others) all.add(std::move(one));
  return std::move(all.cases);
}

}  // namespace sweep
