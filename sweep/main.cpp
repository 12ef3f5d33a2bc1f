// sweep: many short plays through the library, in each of which one thing fails, in processes of
// their own. Called by ./dev sweep and by CTest. Status 0: every one ended as it may.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "cases.h"

namespace {

using namespace sweep;

struct Row {
  int cases = 0, ends[5] = {};
  double slowest = 0;
  std::string slowest_name;
  std::map<std::string, int> errors;
};

int usage() {
  std::fprintf(stderr,
               "usage: sweep [--quick] [--jobs N] [--verbose] [WHAT]\n"
               "  WHAT: the beginning of the cases' names: allocations, calls/play/recv, ...\n");
  return 2;
}

void tell_failure(const Case &one, const Outcome &outcome) {
  std::printf("%s: %s\n  replay: ./dev sweep %s\n%s", one.name.c_str(), outcome.why.c_str(),
              one.name.c_str(), outcome.output.c_str());
  std::fflush(stdout);
}

void summarize(const std::map<std::string, Row> &rows) {
  std::printf("%-22s %6s %10s %6s %6s %12s %7s %8s\n", "", "cases", "carried on", "error", "fatal",
              "not reached", "failed", "slowest");
  for (const auto &[name, row] : rows) {
    const auto n = [&row = row](verdict what) { return row.ends[static_cast<int>(what)]; };
    std::printf("%-22s %6d %10d %6d %6d %12d %7d %6.1f s  %s\n", name.c_str(), row.cases,
                n(verdict::carried_on), n(verdict::error_said), n(verdict::fatal),
                n(verdict::not_reached), n(verdict::failed), row.slowest, row.slowest_name.c_str());
    for (const auto &[error, count] : row.errors) std::printf("%12d x %s\n", count, error.c_str());
  }
}

/// The first two parts of a name.
std::string group_of(const std::string &name) {
  const size_t first = name.find('/');
  return name.substr(0, name.find('/', first + 1));
}

}  // namespace

int main(int count, char **words) {
  bool quick = false, verbose = false;
  int jobs = 24;
  std::string what;
  for (int i = 1; i < count; ++i) {
    const std::string word = words[i];
    if (word == "--quick") {
      quick = true;
    } else if (word == "--verbose") {
      verbose = true;
    } else if (word == "--jobs" && i + 1 < count) {
      jobs = std::max(1, std::atoi(words[++i]));
    } else if (word[0] != '-' && what.empty()) {
      what = word;
    } else {
      return usage();
    }
  }
  const std::string conf = configuration();
  World world;
  std::map<std::string, Row> rows;
  int failed = 0;
  const auto tell = [&](const Case &one, const Outcome &outcome) {
    Row &row = rows[group_of(one.name)];
    ++row.cases;
    ++row.ends[static_cast<int>(outcome.what)];
    if (outcome.what == verdict::error_said || outcome.what == verdict::fatal)
      ++row.errors[outcome.why];
    if (outcome.took_s > row.slowest) row.slowest = outcome.took_s, row.slowest_name = one.name;
    if (outcome.what == verdict::failed) ++failed, tell_failure(one, outcome);
    if (verbose)
      std::printf("%6.2f s %s %s\n", outcome.took_s, one.name.c_str(), outcome.why.c_str());
  };
  const auto counting = [&](const Case &one) {
    std::vector<uint32_t> counts;
    run_cases({one}, 1, [&](const Case &, const Outcome &outcome) {
      counts = outcome.counts;
      if (outcome.what == verdict::failed) ++failed, tell_failure(one, outcome);
    });
    return counts;
  };
  const std::vector<Case> cases = cases_of(what, quick, world, counting);
  run_cases(cases, jobs, tell);
  unlink(conf.c_str());
  summarize(rows);
  return failed > 0 || cases.empty() ? 1 : 0;
}
