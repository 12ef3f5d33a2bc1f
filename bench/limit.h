// The limit against which the library is measured: a bare client of the same server. One thread
// receives on K connections, with one range outstanding on each, straight into a ring of packs; a
// second thread copies out in order. It has no retry, no seek, no second request for a late pack,
// and no check of the bytes.
#pragma once

#include "bench/harness.h"

namespace bench {

struct limit_options {
  const served_file *file;
  int connections;
  int pack_bytes;
  int ring_bytes;
  int read_bytes;     ///< the consumer waits for so many bytes at a time
  int64_t packs = 0;  ///< fetched, from the beginning; 0: all
};

/// Fetches the whole file. Figures: seconds, cpu, bytes.
figures run_limit(const limit_options &options);

}  // namespace bench
