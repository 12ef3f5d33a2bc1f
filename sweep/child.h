// One case in a process of its own: what it tells, how it ended, and what that is worth.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "plan.h"
#include "support/findings.h"

namespace sweep {

/// What a case writes while it runs, in memory that its parent shares.
struct Report {
  std::atomic<const char *> doing;  ///< the step under way
  std::atomic<bool> over;           ///< the case has come to its end
  std::atomic<int32_t> error;       ///< the first error that the library said, 0: none
  char error_in[24];                ///< the step that said it
  std::atomic<uint32_t> findings;
  char finding[4][200];  ///< the first ones
  std::atomic<uint32_t> injected;
  std::atomic<uint32_t> counts[calls];
  void find(support::Findings &&all) {
    for (const std::string &line : all.lines()) find("%s", line.c_str());
  }
  __attribute__((format(printf, 2, 3))) void find(const char *format, ...);
  void said(const char *step, int32_t result);
  void take_counts();
};

/// How a case may end.
enum class ending : uint8_t {
  lives,           ///< carries on, or an error that is documented
  lives_or_exits,  ///< the same; or the exits that are documented for a start that fails
  exits_1,
  exits_2,
  aborts,
};

struct Case {
  std::string name;
  std::function<void(Report &)> run;
  ending expected = ending::lives;
  std::string text{};  ///< what a fatal end must have printed
};

enum class verdict : uint8_t { carried_on, error_said, fatal, failed, not_reached };

struct Outcome {
  verdict what = verdict::failed;
  std::string why;     ///< of a failure, or the error
  std::string output;  ///< of a failure: what the process printed, with a back trace
  double took_s = 0;
  std::vector<uint32_t> counts;
};

/// Runs the cases, `jobs` at once, and tells each outcome.
void run_cases(const std::vector<Case> &cases, int jobs,
               const std::function<void(const Case &, const Outcome &)> &tell);

}  // namespace sweep
