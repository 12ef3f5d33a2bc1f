// The one place of the foundation that writes to standard output by itself. See line_sink.h.
#include "adif/line_sink.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace {

std::atomic<adif::line_sink> target{nullptr};

void to_stdout(const char *line) {
  std::fputs(line, stdout);
  std::fflush(stdout);  // the process may be about to end
}

}  // namespace

void adif::set_line_sink(line_sink sink) {
  target = sink;
}

void adif::say_line(const char *format, ...) {
  char line[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  const line_sink sink = target;
  (sink != nullptr ? sink : to_stdout)(line);
}
