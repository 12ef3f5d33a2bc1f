// The live line of c2ms-get: bar, percent, amounts, speed, buffer, nodes, time left. Where no line
// can be redrawn: figures of the session, a line a second. Used by the thread that fetches alone.
#pragma once

#include <c2ms.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>

namespace get {

/// What one line shows.
struct Figures {
  uint64_t received = 0;  // bytes
  uint64_t total = 0;
  double bytes_per_s = 0;
  int buffer_percent = -1;  // -1: unknown, left out
  int nodes_usable = -1;    // -1: unknown, left out
  int nodes = 0;
  double seconds_left = -1;  // negative: unknown
};

/// A text of at most 255 characters by printf's rules.
[[gnu::format(printf, 1, 2)]] std::string format(const char *pattern, ...);

/// Bytes as a short text: "517 B", "1.50 MiB".
std::string text_of_bytes(double bytes);

/// The line, at most `width` columns; the bar takes what the words leave.
std::string progress_line(const Figures &figures, int width);

class Progress {
 public:
  using Clock = std::chrono::steady_clock;

  /// Draws on standard error if `wanted`: one line over and over on a terminal, else a line a
  /// second.
  Progress(bool wanted, uint64_t total);
  ~Progress();  // ends the line

  /// Call as often as one likes: it redraws at most ten times a second, and asks the session for
  /// its nodes at most once a second.
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
