// See diag.h.
#include "c2ms/core/diag.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <utility>

#include "adif/kalloc.h"
#include "adif/line_sink.h"
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
bool quiet = false;  // every context until now has asked for it
bool any_context = false;

struct waiting_line {
  waiting_line *next;
  char text[];
};

// Nothing here has a destructor: a thread's first one needs memory, and the C library ends the
// process when there is none. Every thread delivers what it has said.
struct waiting_lines {
  waiting_line *first, *last;
};
constinit thread_local waiting_lines waiting{};

bool silent() {
  const std::lock_guard lock(target_lock);
  return target == nullptr || (target == to_stdout && quiet);
}

struct receiver {
  diag_fn fn;
  void *arg;
  void operator()(const char *line) const {
    if (fn != nullptr) fn(arg, line);
  }
};

receiver current_receiver() {
  const std::lock_guard lock(target_lock);
  if (target == to_stdout && quiet) return {nullptr, nullptr};
  return {target, target_arg};
}

// Not kept in memory, which may be what is missing: the process may end after this line.
void on_foundation_line(const char *line) {
  diag_deliver();
  current_receiver()(line);
}

}  // namespace

void diag_new_context(bool wants_quiet) {
  adif::set_line_sink(on_foundation_line);
  const std::lock_guard lock(target_lock);
  quiet = wants_quiet && (quiet || !any_context);
  any_context = true;
}

void diag(const char *format, ...) {
  if (silent()) return;
  char line[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  const size_t size = std::strlen(line) + 1;
  auto *const kept =
      static_cast<waiting_line *>(kalloc_dbg(static_cast<int64_t>(sizeof(waiting_line) + size)));
  if (kept == nullptr) return;  // without memory it is not said
  kept->next = nullptr;
  std::memcpy(kept->text, line, size);
  (waiting.first == nullptr ? waiting.first : waiting.last->next) = kept;
  waiting.last = kept;
}

void diag_deliver() {
  if (waiting.first == nullptr) return;
  // Taken whole first: the player's function may lead back here.
  waiting_line *line = waiting.first;
  waiting = {};
  const receiver tell = current_receiver();
  while (line != nullptr) {
    tell(line->text);
    kfree_dbg(std::exchange(line, line->next));
  }
}

}  // namespace c2ms

void c2ms_set_diag(void (*fn)(void *arg, const char *line), void *arg) {
  const std::lock_guard lock(c2ms::target_lock);
  c2ms::target = fn;
  c2ms::target_arg = arg;
}
