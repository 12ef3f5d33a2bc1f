#include "c2ms/c2ms_diag.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "c2ms.h"

namespace c2ms {

namespace {

using diag_fn = void (*)(void *, const char *);

void to_stdout(void *, const char *line) {
  std::fputs(line, stdout);
  std::fflush(stdout);
}

std::mutex target_lock;
diag_fn target = to_stdout;
void *target_arg = nullptr;

thread_local std::vector<std::string> waiting;

bool silent() {
  const std::lock_guard lock(target_lock);
  return target == nullptr;
}

}  // namespace

void diag(const char *format, ...) {
  if (silent()) return;
  char line[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  waiting.emplace_back(line);
}

void diag_deliver() {
  if (waiting.empty()) return;
  // Taken whole first: the player's function may lead back here.
  const std::vector<std::string> lines = std::move(waiting);
  waiting.clear();
  diag_fn fn;
  void *arg;
  {
    const std::lock_guard lock(target_lock);
    fn = target;
    arg = target_arg;
  }
  if (fn == nullptr) return;
  for (const std::string &line : lines) fn(arg, line.c_str());
}

}  // namespace c2ms

void c2ms_set_diag(void (*fn)(void *arg, const char *line), void *arg) {
  const std::lock_guard lock(c2ms::target_lock);
  c2ms::target = fn;
  c2ms::target_arg = arg;
}
