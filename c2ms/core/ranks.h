// The order in which the locks of the session core are taken. docs/concurrency.md says why.
#pragma once

#include <cstdint>

namespace c2ms {

// Lock ranks, outermost first: a thread takes a lock only while all that it holds rank lower.
enum rank : uint8_t {
  rank_read_gate = 1,
  rank_strand,
  rank_download,
  rank_counters,
  rank_node_list,
  rank_unit_queue,
  rank_cache,
  rank_pack,
  rank_speed,
  rank_registry,
  rank_memory,
};

}  // namespace c2ms
