// Calendar time to text and back. Times are seconds since the epoch; texts are in local time (TZ).
// Thread-safe but for get_curtime_str. Day and month names follow the process's locale.
#pragma once

#include <cstdint>
#include <ctime>

struct frame_t;

/// Write "2009-01-02 10:20:30" or "2009-01-02" with a NUL. Return the characters before it; 0, with
/// an empty text, when `size` is too small; -1 for a null buffer, `size` < 1 or a time whose year
/// does not fit.
int time_to_string(time_t t, char *buf, int size);
int time_to_datestring(time_t t, char *buf, int size);

/// Write "Fri, 02 Jan 2009 10:20:30 GMT" and "Friday, 02-Jan-2009 10:20:30 GMT". The local time is
/// labelled GMT without being converted: meant; do not send it where UTC is expected. Results as
/// time_to_string.
int convert_time_to_string(time_t t, char *buf, int size);
int convert_time_to_string2(time_t t, char *buf, int size);

/// Appends time_to_string's text, at most 31 characters, to a frame. Returns the characters
/// appended; -1 for a null handle or a failure.
int time_to_frame(time_t t, frame_t **handle);

/// The current time as ctime(3) writes it, with its line feed, in ctime's static buffer: not
/// thread-safe. `*t_out` (may be null) receives the seconds.
char *get_curtime_str(time_t *t_out);

struct wtime_t {
  time_t seconds;
  int32_t milliseconds;  // 0..999
};

/// The current wall-clock time. 0, or -1 for null.
int wtime(wtime_t *out);

/// Reads "Jan 2 2009 10:20:30" (fields separated by runs of blanks, then colons) or, when that does
/// not give six fields, "2009-01-02 10:20:30". `len` below 0: the text is NUL-terminated.
/// Returns local-time seconds; -1 for null, a length outside 19..63, or neither form.
/// In the first form "May" and "Dec" are never recognised, and an unknown month name counts as
/// January: meant. Month names are compared with case.
time_t get_time_from_string(const char *text, int len);
