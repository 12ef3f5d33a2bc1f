// Taking a record from its pool, and giving it back. Without memory in the pool, or without a pool
// (while a context is torn down), a record comes from the heap and goes back there.
#pragma once

#include "adif/bmempool.h"
#include "adif/kalloc.h"

namespace c2ms {

/// A record that `init` has made ready; NULL without memory. Any thread.
template <class Record>
Record *fetch_record(block_pool *pool, int (*init)(Record *)) {
  int status = 0;
  auto *record = static_cast<Record *>(blockFetchUnit(pool, &status));
  if (record != nullptr) return record;
  record = static_cast<Record *>(kzalloc_dbg(sizeof(Record)));
  return record != nullptr && init(record) == 0 ? record : nullptr;
}

template <class Record>
int return_record(block_pool *pool, Record *record, int (*free_record)(Record *)) {
  return pool == nullptr ? free_record(record) : recycleUnit(pool, record);
}

}  // namespace c2ms
