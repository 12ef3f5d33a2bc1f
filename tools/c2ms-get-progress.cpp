// Draws the progress line of c2ms-get.
#include "tools/c2ms-get-progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "tools/c2ms-get-stats.h"

namespace get {
namespace {

using namespace std::chrono_literals;

constexpr auto kDrawEvery = 100ms;
constexpr auto kAskEvery = 1s;
constexpr auto kSpeedWindow = 3s;
constexpr int kBarMin = 10, kBarMax = 40;

std::string text_of_time(double seconds) {
  if (seconds < 0 || seconds > 359'999) return "-:--";
  const int whole = static_cast<int>(seconds + 0.5);
  if (whole < 3600) return format("%d:%02d", whole / 60, whole % 60);
  return format("%d:%02d:%02d", whole / 3600, whole / 60 % 60, whole % 60);
}

int terminal_width() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
  return size.ws_col;
}

}  // namespace

std::string format(const char *pattern, ...) {
  char text[256];
  va_list arguments;
  va_start(arguments, pattern);
  std::vsnprintf(text, sizeof text, pattern, arguments);
  va_end(arguments);
  return text;
}

std::string text_of_bytes(double bytes) {
  static constexpr const char *units[] = {"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) return format("%.0f B", bytes);
  size_t unit = 0;
  for (bytes /= 1024; bytes >= 1000 && unit + 1 < std::size(units); ++unit) bytes /= 1024;
  return format(bytes < 10 ? "%.2f %s" : "%.1f %s", bytes, units[unit]);
}

std::string progress_line(const Figures &f, int width) {
  const double share =
      f.total > 0 ? static_cast<double>(f.received) / static_cast<double>(f.total) : 1.0;
  // Rounded down: 100 % means that every byte has arrived.
  std::string words = format("%5.1f%%  ", static_cast<int>(share * 1000) / 10.0);
  words += text_of_bytes(static_cast<double>(f.received)) + " of " +
           text_of_bytes(static_cast<double>(f.total)) + "  " + text_of_bytes(f.bytes_per_s) + "/s";
  if (f.buffer_percent >= 0) words += format("  buffer %d%%", f.buffer_percent);
  if (f.nodes_usable >= 0) words += format("  nodes %d/%d", f.nodes_usable, f.nodes);
  words += "  " + text_of_time(f.seconds_left) + " left";

  const int room = std::min(width - static_cast<int>(words.size()) - 4, kBarMax);
  if (room < kBarMin) return words.substr(0, static_cast<size_t>(std::max(width - 1, 0)));
  const auto full = static_cast<size_t>(share * room);
  std::string bar(full, '=');
  if (full < static_cast<size_t>(room)) bar += '>';
  bar.resize(static_cast<size_t>(room), ' ');
  return "[" + bar + "] " + words;
}

Progress::Progress(bool wanted, uint64_t total)
    : on_(wanted), terminal_(isatty(STDERR_FILENO) == 1) {
  figures_.total = total;
}

Progress::~Progress() {
  if (drawn_) std::fputc('\n', stderr);
}

void Progress::measure(Clock::time_point now, uint64_t received) {
  samples_.push_back({now, received});
  while (samples_.size() > 2 && now - samples_[1].time >= kSpeedWindow) samples_.pop_front();
  figures_.received = received;
  const std::chrono::duration<double> elapsed = now - samples_.front().time;
  const auto bytes = static_cast<double>(received - samples_.front().received);
  figures_.bytes_per_s = elapsed.count() > 0 ? bytes / elapsed.count() : 0;
  const auto rest = static_cast<double>(figures_.total - received);
  figures_.seconds_left = figures_.bytes_per_s > 0 ? rest / figures_.bytes_per_s : -1;
}

void Progress::ask(c2ms_sess *sess, Clock::time_point now) {
  int32_t percent = -1;
  c2ms_sess_bufratio(sess, &percent);  // writes the ratio also when it returns -400
  figures_.buffer_percent = percent;
  if (now < next_ask_) return;
  next_ask_ = now + kAskEvery;
  c2ms_stats stats;
  if (c2ms_sess_stats(sess, &stats, sizeof stats) != 0) return;
  figures_.nodes = static_cast<int>(stats.nodes);
  figures_.nodes_usable = static_cast<int>(stats.nodes_usable);
}

// On output that cannot be overwritten: one line per second.
void Progress::print_line(c2ms_sess *sess, Clock::time_point now, uint64_t received) {
  if (next_ask_ == Clock::time_point{}) {
    next_ask_ = now + kAskEvery;
    measure(now, received);
  }
  if (now < next_ask_) return;
  next_ask_ += kAskEvery;
  measure(now, received);
  c2ms_stats stats;
  if (c2ms_sess_stats(sess, &stats, sizeof stats) != 0) return;
  const double percent = static_cast<double>(received) * 100 /
                         static_cast<double>(std::max<uint64_t>(figures_.total, 1));
  const std::string line =
      format("c2ms-get: %5.1f%%  %s/s  ", percent, text_of_bytes(figures_.bytes_per_s).c_str()) +
      stats_words(stats) + "\n";
  std::fputs(line.c_str(), stderr);
}

void Progress::update(c2ms_sess *sess, uint64_t received) {
  const auto now = Clock::now();
  const bool complete = received == figures_.total;
  if (!on_) return;
  if (!terminal_) return print_line(sess, now, received);
  if (now < next_draw_ && !complete) return;
  next_draw_ = now + kDrawEvery;
  measure(now, received);
  ask(sess, now);
  // One write, and the terminal erases the rest of the line, so that nothing flickers.
  const std::string line = "\r" + progress_line(figures_, terminal_width()) + "\x1b[K";
  std::fwrite(line.data(), 1, line.size(), stderr);
  drawn_ = true;
}

}  // namespace get
