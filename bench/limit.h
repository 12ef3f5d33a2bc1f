// The limit that the library is measured against: a bare client over the same server. One thread
// receives on K connections, one range outstanding on each, straight into a ring of packs; a second
// copies out in order. No retry, no seek, no second node for a late pack, no check of what comes.
#pragma once

#include "bench/harness.h"

namespace bench {

struct limit_options {
  const served_file *file;
  int connections;
  int pack_bytes;
  int ring_bytes;
  int read_bytes;     ///< the consumer waits for this much at a time
  int64_t packs = 0;  ///< fetched, from the beginning; 0: all
};

/// Fetches the whole file. Figures: seconds, cpu, bytes.
figures run_limit(const limit_options &options);

}  // namespace bench
