// Where the foundation's few lines for operators go: to standard output, or to the function that
// the program above sets. Any thread; the sink runs on the thread that says the line.
#pragma once

namespace adif {

/// Gets one line with its line feed; the text lives until it returns.
using line_sink = void (*)(const char *line);

/// Sends all later lines of the process to `sink`; null: to standard output, as at first.
void set_line_sink(line_sink sink);

/// Formats a line of at most 511 characters and hands it over. Needs no memory. Call it with no
/// lock held that the sink may want.
void say_line(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace adif
