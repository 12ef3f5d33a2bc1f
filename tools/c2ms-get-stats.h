// What the session told of itself, as c2ms-get shows it: a line while it runs, lines at the end,
// JSON.
#pragma once

#include <c2ms.h>

#include <cstdio>
#include <string>

namespace get {

/// "buffer 3.1 MiB  nodes 3/4  received 12 MiB  discarded 0 B  waited 0.4 s".
std::string stats_words(const c2ms_stats &stats);

/// A line for the transfers, one for the waits, one for each node; to standard error.
void print_stats(const c2ms_stats &stats);

/// The JSON object, every figure under the name that it has in c2ms.h.
void print_stats_json(const c2ms_stats &stats, FILE *out);

}  // namespace get
