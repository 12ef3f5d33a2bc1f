#include "child.h"

#include <execinfo.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>

#include "c2ms.h"
#include "crypto/gcrypt_ready.h"

namespace sweep {

namespace {

using clock = std::chrono::steady_clock;

#ifdef __SANITIZE_ADDRESS__
constexpr int limit_s = 100;
constexpr int finding_status = 77;  // of the sanitizer
#else
constexpr int limit_s = 40;
#endif

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

[[noreturn]] void be_child(const Case &one, Report *report, int output) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  close(output);
  current = report;
  report->doing = "set-up";
  trace_crashes();
  alarm(limit_s);
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
  // exit() lets the leak sanitizer look.
  std::exit(0);
}

std::string text_of(int output) {
  std::string text(20'000, '\0');
  const ssize_t n = pread(output, text.data(), text.size(), 0);
  text.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return text;
}

std::string describe(int status) {
  if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
  const int number = WTERMSIG(status);
  return number == SIGALRM || number == SIGKILL ? "it hangs" : std::string(strsignal(number));
}

/// A documented fatal end of a start: no memory for a configuration record, or no base or thread.
bool is_failed_start(int code, const Report &report, const std::string &output) {
  if (std::strcmp(report.doing, "start") != 0) return false;
  return code == 2 || (code == 1 && output.find("memory NULL! exit(1)") != std::string::npos);
}

verdict judge_end(const Case &one, int status, const Report &report, const std::string &output) {
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  const bool told = output.find(one.text) != std::string::npos;
  switch (one.expected) {
    case ending::exits_1:
    case ending::exits_2:
      return told && code == (one.expected == ending::exits_1 ? 1 : 2) ? verdict::fatal
                                                                       : verdict::failed;
    case ending::aborts:
      return told && WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT ? verdict::fatal
                                                                        : verdict::failed;
    default:
      break;
  }
  if (one.expected == ending::lives_or_exits && is_failed_start(code, report, output))
    return verdict::fatal;
  if (code != 0 || !report.over || report.findings > 0) return verdict::failed;
  if (report.error != 0) return verdict::error_said;
  return verdict::carried_on;
}

Outcome judge(const Case &one, int status, const Report &report, int output, double took) {
  Outcome outcome;
  const std::string printed = text_of(output);
  outcome.took_s = took;
  outcome.what = judge_end(one, status, report, printed);
  for (const auto &count : report.counts) outcome.counts.push_back(count);
  if (outcome.what == verdict::error_said)
    outcome.why = std::string(report.error_in) + " gave " + std::to_string(report.error);
  if (outcome.what == verdict::fatal) outcome.why = describe(status);
  if (outcome.what == verdict::failed) {
    outcome.why = describe(status) + " in step \"" + report.doing.load() + "\"";
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
  Report *report;
  int output;
  clock::time_point begin;
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
    int status = 0;
    const pid_t pid = wait(&status);
    const auto found = running.find(pid);
    if (found == running.end()) return;
    const Running &ended = found->second;
    const double took = std::chrono::duration<double>(clock::now() - ended.begin).count();
    tell(*ended.one, judge(*ended.one, status, *ended.report, ended.output, took));
    munmap(ended.report, sizeof(Report));
    close(ended.output);
    running.erase(found);
  };
  const auto begin = [&](const Case &one) {
    void *const memory =
        mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    const int output = memfd_create("sweep", MFD_CLOEXEC);
    auto *const report = new (memory) Report{};
    std::fflush(stdout);  // or the child prints it again
    const pid_t pid = fork();
    if (pid == 0) be_child(one, report, output);
    running[pid] = {&one, report, output, clock::now()};
  };
  while (next < cases.size() || !running.empty()) {
    while (next < cases.size() && running.size() < static_cast<size_t>(jobs)) begin(cases[next++]);
    wait_for_one();
  }
}

}  // namespace sweep
