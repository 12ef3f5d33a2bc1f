// The session's figures as c2ms-get shows them: one line while it runs, several lines at the end,
// and JSON.
#pragma once

#include <c2ms.h>

#include <cstdio>
#include <string>

namespace get {

/// "buffer 3.1 MiB  nodes 3/4  received 12 MiB  discarded 0 B  waited 0.4 s".
std::string stats_words(const c2ms_stats &stats);

/// Writes to standard error: a line for the transfers, one for the waits, one for each node.
void print_stats(const c2ms_stats &stats);

/// Writes the JSON object. Every figure has its name from c2ms.h.
void print_stats_json(const c2ms_stats &stats, FILE *out);

}  // namespace get
