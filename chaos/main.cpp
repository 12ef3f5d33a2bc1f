// chaos: seeded runs of the library against servers that misbehave at random, in several processes
// at once. Called by ./dev chaos and by CTest. Status 0: no run found anything.
#include <array>
#include <cstdio>
#include <cstdlib>

#include "adif/bmempool.h"
#include "driver.h"
#include "episode.h"
#include "support/aftermath.h"
#include "support/child.h"

namespace {

using namespace chaos;

struct options {
  double seconds = 0;   // 0: no limit of time
  uint64_t seed = 0;    // of the first run
  uint64_t seeds = 0;   // runs; 0: no limit of number
  uint64_t repeat = 0;  // runs of the one seed
  int jobs = 4;
  adif::pool_mode pools = adif::pool_mode::recycle;
  int64_t driver_calls = 0;
  bool verbose = false;
};

/// What a process tells while it runs, in memory that all share.
struct progress {
  std::atomic<uint64_t> seed, runs, failed, injected, calls, bytes, opens, failed_opens, indexes;
  std::atomic<int64_t> heap_growth, resident_early, resident_late;
  std::atomic<double> slowest;
};

constexpr int most_jobs = 64;
constexpr uint64_t warm_up = 10;  // runs after which memory must not grow any more

int usage() {
  std::fprintf(
      stderr,
      "usage: chaos [--seconds S] [--seeds N] [--seed FIRST] [--jobs J] [--repeat N] [--verbose]\n"
      "             [--pools recycle|quarantine|bypass]\n"
      "       chaos --driver CALLS [--seed N]\n");
  return 2;
}

bool parse(int count, char **words, options *out) {
  for (int i = 1; i < count; ++i) {
    const std::string word = words[i];
    if (word == "--verbose") {
      out->verbose = true;
      continue;
    }
    if (i + 1 == count) return false;
    const char *const value = words[++i];
    if (word == "--seconds") {
      out->seconds = std::atof(value);
    } else if (word == "--seeds") {
      out->seeds = std::strtoull(value, nullptr, 10);
    } else if (word == "--seed") {
      out->seed = std::strtoull(value, nullptr, 10);
    } else if (word == "--repeat") {
      out->repeat = out->seeds = std::strtoull(value, nullptr, 10);
    } else if (word == "--jobs") {
      out->jobs = std::clamp(std::atoi(value), 1, most_jobs);
    } else if (word == "--driver") {
      out->driver_calls = std::atoll(value);
    } else if (word == "--pools") {
      const std::string mode = value;
      if (mode == "quarantine") out->pools = adif::pool_mode::quarantine;
      if (mode == "bypass") out->pools = adif::pool_mode::bypass;
    } else {
      return false;
    }
  }
  return out->driver_calls > 0 || out->seconds > 0 || out->seeds > 0;
}

void report(uint64_t seed, const std::vector<std::string> &findings) {
  std::string text = "seed " + std::to_string(seed) + " failed\n";
  for (const std::string &line : findings) text += "  " + line + "\n";
  text += "  replay: ./dev chaos --repeat 20 --seed " + std::to_string(seed) + "\n";
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
}

/// Runs every jobs-th seed.
int work(const options &wanted, int job, clock::time_point begin, progress *mine) {
  c2ms_set_diag(nullptr, nullptr);
  adif::pool_test_mode(wanted.pools);
  Tally tally;
  int64_t heap_early = 0;
  for (uint64_t i = static_cast<uint64_t>(job);; i += static_cast<uint64_t>(wanted.jobs)) {
    if (wanted.seeds > 0 && i >= wanted.seeds) break;
    if (wanted.seconds > 0 && seconds_since(begin) > wanted.seconds) break;
    const uint64_t seed = wanted.repeat > 0 ? wanted.seed : wanted.seed + i;
    mine->seed = seed;
    const auto start = clock::now();
    const Episode episode = run_episode(seed, tally);
    const double took = seconds_since(start);
    if (wanted.verbose) std::printf("seed %llu: %.2f s\n", (unsigned long long)seed, took);
    mine->slowest = std::max(mine->slowest.load(), took);
    mine->injected += episode.injected;
    if (!episode.findings.empty()) ++mine->failed, report(seed, episode.findings);
    const uint64_t runs = ++mine->runs;
    const support::Holdings now = support::holdings_now();
    if (runs <= warm_up) heap_early = now.heap_bytes, mine->resident_early = now.resident_bytes;
    mine->heap_growth = now.heap_bytes - heap_early;
    mine->resident_late = now.resident_bytes;
  }
  mine->calls = tally.calls.load();
  mine->bytes = tally.bytes.load();
  mine->opens = tally.opens.load();
  mine->failed_opens = tally.failed_opens.load();
  mine->indexes = tally.indexes.load();
  return 0;
}

/// Waits for the processes; how many ended otherwise than by returning.
int gather(const std::vector<pid_t> &children, const progress *shared) {
  int lost = 0;
  for (size_t job = 0; job < children.size(); ++job) {
    const support::Ended ended = support::await_child(children[job]);
    if (ended.code() == 0) continue;
    ++lost;
    report(shared[job].seed, {"the process ended with " + ended.text()});
  }
  return lost;
}

/// True when some process's memory has grown with its runs.
bool grown(const progress &one) {
  if (one.runs < 3 * warm_up) return false;
  // One descriptor or record forgotten in each run would be more than this.
  const auto later_runs = static_cast<int64_t>(one.runs - warm_up);
  return one.heap_growth > 65536 + 200 * later_runs;
}

int summarize(const options &wanted, const progress *shared, double took, int lost) {
  progress sum{};
  bool leaks = false;
  for (int job = 0; job < wanted.jobs; ++job) {
    const progress &one = shared[job];
    sum.runs += one.runs, sum.failed += one.failed, sum.injected += one.injected;
    sum.calls += one.calls, sum.bytes += one.bytes, sum.indexes += one.indexes;
    sum.opens += one.opens, sum.failed_opens += one.failed_opens;
    sum.heap_growth = std::max(sum.heap_growth.load(), one.heap_growth.load());
    sum.resident_early = std::max(sum.resident_early.load(), one.resident_early.load());
    sum.resident_late = std::max(sum.resident_late.load(), one.resident_late.load());
    sum.slowest = std::max(sum.slowest.load(), one.slowest.load());
    leaks = leaks || grown(one);
  }
  const auto n = [](const auto &value) { return static_cast<long long>(value.load()); };
  std::printf("%lld runs from seed %llu in %.0f s, slowest %.1f s: %lld failed, %d died\n",
              n(sum.runs), static_cast<unsigned long long>(wanted.seed), took, sum.slowest.load(),
              n(sum.failed), lost);
  std::printf("%lld calls, %lld opens (%lld failed), %lld index opens, %lld MB, %lld faults\n",
              n(sum.calls), n(sum.opens), n(sum.failed_opens), n(sum.indexes),
              n(sum.bytes) / 1'000'000, n(sum.injected));
  std::printf(
      "heap grew by at most %lld bytes; resident %lld KiB after %llu runs, %lld at the end\n",
      n(sum.heap_growth), n(sum.resident_early) / 1024, static_cast<unsigned long long>(warm_up),
      n(sum.resident_late) / 1024);
  if (leaks) std::printf("memory grows\n");
  const bool idle = sum.runs == 0 || sum.injected == 0 || sum.bytes == 0;
  return lost > 0 || sum.failed > 0 || leaks || idle ? 1 : 0;
}

}  // namespace

int main(int count, char **words) {
  options wanted;
  if (!parse(count, words, &wanted)) return usage();
  if (wanted.driver_calls > 0) return drive(wanted.driver_calls, wanted.seed, wanted.pools);
  if (wanted.seeds > 0)
    wanted.jobs = static_cast<int>(std::min<uint64_t>(wanted.seeds, wanted.jobs));
  const support::Shared<std::array<progress, most_jobs>> memory;
  progress *const shared = memory->data();
  const auto begin = clock::now();
  std::vector<pid_t> children;
  for (int job = 0; job < wanted.jobs; ++job) {
    children.push_back(
        support::start_child([&] { return work(wanted, job, begin, &shared[job]); }));
  }
  const int lost = gather(children, shared);
  return summarize(wanted, shared, seconds_since(begin), lost);
}
