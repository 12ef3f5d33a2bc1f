// The progress line of c2ms-get: bar, percent, amounts, speed, buffer, nodes, time left. Where a
// line cannot be redrawn: the session's figures, one line per second. Only the fetching thread uses
// it.
#pragma once

#include <c2ms.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>

namespace get {

/// The contents of one line.
struct Figures {
  uint64_t received = 0;  // bytes
  uint64_t total = 0;
  double bytes_per_s = 0;
  int buffer_percent = -1;  // -1: unknown, left out
  int nodes_usable = -1;    // -1: unknown, left out
  int nodes = 0;
  double seconds_left = -1;  // negative: unknown
};

/// Formats like printf; at most 255 characters.
[[gnu::format(printf, 1, 2)]] std::string format(const char *pattern, ...);

/// Bytes as a short text: "517 B", "1.50 MiB".
std::string text_of_bytes(double bytes);

/// The line, at most `width` columns. The bar takes the columns that the words leave free.
std::string progress_line(const Figures &figures, int width);

class Progress {
 public:
  using Clock = std::chrono::steady_clock;

  /// Draws on standard error if `wanted`: on a terminal one line that is redrawn, elsewhere one
  /// line per second.
  Progress(bool wanted, uint64_t total);
  ~Progress();  // ends the line

  /// May be called at any rate: it redraws at most ten times a second, and asks the session for its
  /// nodes at most once a second.
  void update(c2ms_sess *sess, uint64_t received);

 private:
  struct Sample {
    Clock::time_point time;
    uint64_t received;
  };

  void measure(Clock::time_point now, uint64_t received);
  void ask(c2ms_sess *sess, Clock::time_point now);
  void print_line(c2ms_sess *sess, Clock::time_point now, uint64_t received);

  bool drawn_ = false;
  const bool on_, terminal_;
  Figures figures_;
  std::deque<Sample> samples_;  // of the last seconds, oldest first
  Clock::time_point next_draw_{};
  Clock::time_point next_ask_{};
};

}  // namespace get
