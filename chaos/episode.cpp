// See episode.h.
#include "episode.h"

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "pair.h"
#include "support/library.h"

namespace chaos {

namespace {

/// Ends the process when a run is not over in time, and says which calls have not returned.
class Watchdog {
 public:
  Watchdog(uint64_t seed, std::vector<const current_call *> calls)
      : thread_([this, seed, watched = std::move(calls)] {
          std::unique_lock lock(mutex_);
          const auto limit = std::chrono::seconds(static_cast<int>(150 * std::min(slack(), 2.0)));
          if (over_.wait_for(lock, limit, [this] { return done_; })) return;
          std::fprintf(stderr, "seed %llu hangs in:", static_cast<unsigned long long>(seed));
          for (const current_call *call : watched) {
            const char *const name = call->load();
            std::fprintf(stderr, " %s", name != nullptr ? name : "-");
          }
          std::fprintf(stderr, "\n");
          std::abort();
        }) {}
  ~Watchdog() {
    {
      const std::lock_guard lock(mutex_);
      done_ = true;
    }
    over_.notify_one();
    thread_.join();
  }

 private:
  std::mutex mutex_;
  std::condition_variable over_;
  bool done_ = false;
  std::thread thread_;
};

/// A library with short periods.
class Library : public support::Library {
 public:
  explicit Library(World &world) : findings_(world.findings) { support::shorten_waits(get()); }
  /// With its sessions closed.
  ~Library() { check(findings_); }

 private:
  Findings &findings_;
};

void run_viewers(World &world, Tally &tally, uint64_t seed, bool two_libraries,
                 milliseconds storm) {
  const Library one(world);
  std::unique_ptr<Library> other;
  if (two_libraries) other = std::make_unique<Library>(world);
  Viewer first(world, one.get(), tally, seed, 1);
  Viewer second(world, two_libraries ? other->get() : one.get(), tally, seed, 2);
  const Watchdog watchdog(seed, {&first.current, &second.current});
  std::thread threads[] = {
      std::thread([&] { first.storm(), first.finish(); }),
      std::thread([&] { second.storm(), second.finish(); }),
  };
  world.rage(storm);
  for (std::thread &thread : threads) thread.join();
}

void run_pair(World &world, Tally &tally, uint64_t seed, milliseconds storm) {
  const Library library(world);
  Pair pair(world, library.get(), tally, seed);
  Viewer last(world, library.get(), tally, seed, 3);
  const Watchdog watchdog(seed, {&pair.reader_call, &pair.other_call, &last.current});
  std::thread reader([&] { pair.read_on(); });
  std::thread other([&] { pair.disturb(); });
  world.rage(storm);
  other.join();
  reader.join();
  last.finish();
}

}  // namespace

Episode run_episode(uint64_t seed, Tally &tally) {
  const support::Holdings before = support::holdings_now();
  const auto begin = clock::now();
  Episode episode;
  Findings left;
  {
    World world(seed);
    if (!world.server.start()) return {{world.server.error()}};
    const milliseconds storm(world.dice.between(100, 500));
    const uint64_t layout = world.dice.below(3);
    if (layout == 2) {
      run_pair(world, tally, seed, storm);
    } else {
      run_viewers(world, tally, seed, layout == 1, storm);
    }
    world.books.audit(world.findings, world.server, world.nodes, seconds_since(begin));
    episode.injected = world.injected();
    episode.findings = world.findings.lines();
  }
  support::check_gone(left, before);
  for (const std::string &line : left.lines()) episode.findings.push_back(line);
  return episode;
}

}  // namespace chaos
