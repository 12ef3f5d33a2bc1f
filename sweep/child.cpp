// See child.h.
#include "child.h"

#include <execinfo.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

#include "c2ms.h"
#include "crypto/gcrypt_ready.h"
#include "support/child.h"
#include "support/slack.h"

namespace sweep {

namespace {

using support::Ended;

Report *current = nullptr;  // in a child

void end_with_trace(int number) {
  void *frames[60];
  const int count = backtrace(frames, 60);
  dprintf(STDERR_FILENO, "signal %d in: %s\n", number, current->doing.load());
  backtrace_symbols_fd(frames, count, STDERR_FILENO);
  signal(number, SIG_DFL);
  raise(number);
}

void trace_crashes() {
  void *frame[1];
  backtrace(frame, 1);  // loads what it needs while memory can be had
  signal(SIGALRM, end_with_trace);
#ifndef __SANITIZE_ADDRESS__
  for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) signal(number, end_with_trace);
#endif
  signal(SIGABRT, end_with_trace);
}

int be_child(const Case &one, Report *report, int output) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  close(output);
  current = report;
  report->doing = "set-up";
  trace_crashes();
  // Silent but for the line that an end for want of memory is known by.
  c2ms_set_diag(
      [](void *, const char *line) {
        if (std::strstr(line, "memory NULL! exit(1)") != nullptr) std::fputs(line, stdout);
      },
      nullptr);
  // An allocation that fails inside libgcrypt's own initialisation leaves it in FIPS mode for the
  // rest of the process, where no context can start: not the library's to mend.
  crypto::gcrypt_works();
  const plan::Exempt exempt;  // the library's calls are counted where it is called
  one.run(*report);
  plan::stop();
  report->take_counts();
  report->over = true;
  return 0;
}

std::string text_of(int output) {
  std::string text(20'000, '\0');
  const ssize_t n = pread(output, text.data(), text.size(), 0);
  text.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return text;
}

/// A documented fatal end of a start: no memory for a configuration record, or no base or thread.
bool is_failed_start(int code, const Report &report, const std::string &output) {
  if (std::strcmp(report.doing, "start") != 0) return false;
  return code == 2 || (code == 1 && output.find("memory NULL! exit(1)") != std::string::npos);
}

verdict judge_end(const Case &one, const Ended &ended, const Report &report,
                  const std::string &output) {
  const int code = ended.code();
  const bool told = output.find(one.text) != std::string::npos;
  switch (one.expected) {
    case ending::exits_1:
    case ending::exits_2:
      return told && code == (one.expected == ending::exits_1 ? 1 : 2) ? verdict::fatal
                                                                       : verdict::failed;
    case ending::aborts:
      return told && ended.signal() == SIGABRT ? verdict::fatal : verdict::failed;
    default:
      break;
  }
  if (one.expected == ending::lives_or_exits && is_failed_start(code, report, output))
    return verdict::fatal;
  if (code != 0 || !report.over || report.findings > 0) return verdict::failed;
  if (report.error != 0) return verdict::error_said;
  return verdict::carried_on;
}

Outcome judge(const Case &one, const Ended &ended, const Report &report, int output, double took) {
  Outcome outcome;
  const std::string printed = text_of(output);
  outcome.took_s = took;
  outcome.what = judge_end(one, ended, report, printed);
  for (const auto &count : report.counts) outcome.counts.push_back(count);
  if (outcome.what == verdict::error_said)
    outcome.why = std::string(report.error_in) + " gave " + std::to_string(report.error);
  if (outcome.what == verdict::fatal) outcome.why = ended.text();
  if (outcome.what == verdict::failed) {
    outcome.why = ended.text() + " in step \"" + report.doing.load() + "\"";
    for (uint32_t i = 0; i < std::min<uint32_t>(report.findings, 4); ++i)
      outcome.why += std::string("; ") + report.finding[i];
    outcome.output = printed;
  } else if (report.injected == 0 && one.expected == ending::lives_or_exits && report.over) {
    outcome.what = verdict::not_reached;
  }
  return outcome;
}

struct Running {
  const Case *one;
  std::unique_ptr<support::Shared<Report>> report;
  int output;
  support::clock::time_point begin;
};

}  // namespace

void Report::find(const char *format, ...) {
  const uint32_t place = findings.fetch_add(1);
  if (place >= 4) return;
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(finding[place], sizeof finding[place], format, arguments);
  va_end(arguments);
}

void Report::said(const char *step, int32_t result) {
  if (error != 0) return;
  error = result;
  std::snprintf(error_in, sizeof error_in, "%s", step);
}

void Report::take_counts() {
  injected = plan::injected();
  for (int i = 0; i < calls; ++i) counts[i] = plan::count(static_cast<call>(i));
}

void run_cases(const std::vector<Case> &cases, int jobs,
               const std::function<void(const Case &, const Outcome &)> &tell) {
  std::map<pid_t, Running> running;
  size_t next = 0;
  const auto wait_for_one = [&] {
    const Ended ended = support::await_child();
    const auto found = running.find(ended.pid);
    if (found == running.end()) return;
    const auto &[one, report, output, begin] = found->second;
    tell(*one, judge(*one, ended, **report, output, support::seconds_since(begin)));
    close(output);
    running.erase(found);
  };
  const auto begin = [&](const Case &one) {
    auto report = std::make_unique<support::Shared<Report>>();
    const int output = memfd_create("sweep", MFD_CLOEXEC);
    const auto limit_s = static_cast<unsigned>(40 * std::min(support::slack(), 3.0));
    const pid_t pid =
        support::start_child([&] { return be_child(one, &**report, output); }, limit_s);
    running[pid] = {&one, std::move(report), output, support::clock::now()};
  };
  while (next < cases.size() || !running.empty()) {
    while (next < cases.size() && running.size() < static_cast<size_t>(jobs)) begin(cases[next++]);
    wait_for_one();
  }
}

}  // namespace sweep
