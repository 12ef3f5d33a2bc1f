// The list of what went wrong in a run.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

namespace support {

/// From any thread.
class Findings {
 public:
  __attribute__((format(printf, 2, 3))) void add(const char *format, ...) {
    char line[400];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    const std::lock_guard lock(mutex_);
    if (lines_.size() < most) lines_.emplace_back(line);
  }
  std::vector<std::string> lines() {
    const std::lock_guard lock(mutex_);
    return lines_;
  }
  bool any() { return !lines().empty(); }

 private:
  static constexpr size_t most = 20;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace support
