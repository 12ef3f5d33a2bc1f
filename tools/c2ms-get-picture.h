// The picture of a play (--timeline): when each part was read, which server brought it, and where
// the reader had to wait. Only c2ms-get-trace.cpp calls this.
#pragma once

#include <c2ms.h>

#include <cstdint>
#include <cstdio>
#include <vector>

namespace get {

/// Writes the events as SVG, about 900 units wide. `media_size` in bytes.
void write_picture(FILE *out, const std::vector<c2ms_trace_event> &events, uint64_t media_size);

}  // namespace get
