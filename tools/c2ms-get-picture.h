// The picture of a play (--timeline): what was read when, which server brought which part, where
// the reader had to wait. Called by the trace alone.
#pragma once

#include <c2ms.h>

#include <cstdint>
#include <cstdio>
#include <vector>

namespace get {

/// Writes the events as SVG, about 900 units wide. `media_size` in bytes.
void write_picture(FILE *out, const std::vector<c2ms_trace_event> &events, uint64_t media_size);

}  // namespace get
