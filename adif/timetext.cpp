// Calendar time to text and back. See timetext.h.
#include "adif/timetext.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "adif/frame.h"

namespace {

constexpr int shortest_text = 19;
constexpr int longest_text = 63;

/// The fifth entry runs into the sixth, as it does in a table of four-byte slots whose fifth lacks
/// its terminator, and December is beyond the entries that are tried: both are settled behaviour.
constexpr std::string_view month_names[] = {"Jan", "Feb", "Mar", "Apr", "May Jun", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov"};

int format_time(time_t t, const char *format, char *buf, int size) {
  if (!buf || size < 1) return -1;
  *buf = '\0';
  tm fields;
  if (!localtime_r(&t, &fields)) return -1;
  const size_t len = strftime(buf, static_cast<size_t>(size), format, &fields);
  if (len == 0) *buf = '\0';
  return static_cast<int>(len);
}

/// atoi without its undefined cases: what lies beyond is held at a bound that tm can compute with.
int number(std::string_view field) {
  char digits[longest_text + 1] = {};
  field.copy(digits, longest_text);
  constexpr long bound = 100'000'000;
  return static_cast<int>(std::clamp(std::strtol(digits, nullptr, 10), -bound, bound));
}

/// Takes the field up to `separator` from the front of the text, empty if the separator is missing.
std::string_view take_field(std::string_view *text, char separator) {
  if (separator == ' ') text->remove_prefix(std::min(text->find_first_not_of(' '), text->size()));
  const size_t end = text->find(separator);
  if (end == text->npos) return {};
  const std::string_view field = text->substr(0, end);
  text->remove_prefix(end + 1);
  return field;
}

bool read_named_month(std::string_view text, tm *fields) {
  const std::string_view month = take_field(&text, ' ');
  const std::string_view day = take_field(&text, ' ');
  const std::string_view year = take_field(&text, ' ');
  const std::string_view hour = take_field(&text, ':');
  const std::string_view minute = take_field(&text, ':');
  for (std::string_view field : {month, day, year, hour, minute, text}) {
    if (field.empty()) return false;
  }
  const auto *name = std::find(std::begin(month_names), std::end(month_names), month);
  // An unknown name leaves January (meant).
  if (name != std::end(month_names)) fields->tm_mon = static_cast<int>(name - month_names);
  fields->tm_mday = number(day);
  fields->tm_year = number(year) - 1900;
  fields->tm_hour = number(hour);
  fields->tm_min = number(minute);
  fields->tm_sec = number(text);
  return true;
}

bool read_numeric(const char *text, tm *fields) {
  const int read =
      std::sscanf(text, "%04d-%02d-%02d %02d:%02d:%02d", &fields->tm_year, &fields->tm_mon,
                  &fields->tm_mday, &fields->tm_hour, &fields->tm_min, &fields->tm_sec);
  fields->tm_year -= 1900;
  fields->tm_mon -= 1;
  return read == 6;
}

}  // namespace

int time_to_string(time_t t, char *buf, int size) {
  return format_time(t, "%Y-%m-%d %H:%M:%S", buf, size);
}

int time_to_datestring(time_t t, char *buf, int size) {
  return format_time(t, "%Y-%m-%d", buf, size);
}

int convert_time_to_string(time_t t, char *buf, int size) {
  return format_time(t, "%a, %d %b %Y %H:%M:%S GMT", buf, size);
}

int convert_time_to_string2(time_t t, char *buf, int size) {
  return format_time(t, "%A, %d-%b-%Y %H:%M:%S GMT", buf, size);
}

int time_to_frame(time_t t, frame_t **handle) {
  char text[32];
  const int len = time_to_string(t, text, sizeof text);
  return len < 1 ? -1 : putnLastBytes(handle, text, len);
}

char *get_curtime_str(time_t *t_out) {
  const time_t now = time(nullptr);
  if (t_out) *t_out = now;
  return ctime(&now);
}

int wtime(wtime_t *out) {
  if (!out) return -1;
  timespec now;
  if (clock_gettime(CLOCK_REALTIME, &now) != 0) return -1;
  out->seconds = now.tv_sec;
  out->milliseconds = static_cast<int32_t>(now.tv_nsec / 1'000'000);
  return 0;
}

time_t get_time_from_string(const char *text, int len) {
  if (!text) return -1;
  // A text that fills the buffer is as much too long as one that goes beyond it.
  const size_t n = len < 0 ? strnlen(text, longest_text + 1) : static_cast<size_t>(len);
  if (n < shortest_text || n > longest_text) return -1;
  char copy[longest_text + 1] = {};
  std::memcpy(copy, text, n);

  tm fields = {};
  // The C library finds out whether daylight saving time held then.
  fields.tm_isdst = -1;
  if (!read_named_month(copy, &fields) && !read_numeric(copy, &fields)) return -1;
  return mktime(&fields);
}
