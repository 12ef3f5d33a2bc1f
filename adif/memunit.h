// The memory unit carves blocks out of one region that the caller gives, such as the management
// arena from which the sessions' caches come. Blocks are aligned to 16 bytes; free neighbours
// merge, so a region whose blocks are all free is one block again.
//
// The unit's record lies at the start of the region; every block is a 16-byte header of four 32-bit
// words (granules of 16 bytes in this block, granules in the block before, mark, caller's line) and
// its payload. Calls walk the blocks from the first: the unit is for few, large blocks.
// No lock inside: one thread at a time. No call blocks. The region outlives the unit, which needs
// no release; it is the caller's to free.
#pragma once

#include <cstdint>
#include <cstring>

#include "adif/source_place.h"

struct mem_unit;

/// Lays a unit over `size` bytes at `region` (up to 64 GiB are used). Null when `region` is null or
/// too small for the record and one block of 16 bytes.
[[nodiscard]] mem_unit *mem_unit_init(void *region, int64_t size);

/// First block that fits `size` bytes, uninitialised, 16-aligned. Null for a null unit, a size
/// below 1, or no room.
[[nodiscard]] void *mem_unit_alloc_dbg(mem_unit *unit, int32_t size,
                                       adif::source_place caller = adif::source_place::current());
inline void *mem_unit_alloc(mem_unit *unit, int32_t size,
                            adif::source_place caller = adif::source_place::current()) {
  return mem_unit_alloc_dbg(unit, size, caller);
}

/// Gives a block back. 0; -1 for a null unit, -2 for a null pointer, -3 when `p` is not the start
/// of a block in use (outside, inside a block, or free already): nothing changes then.
int mem_unit_free_dbg(mem_unit *unit, void *p,
                      adif::source_place caller = adif::source_place::current());
inline int mem_unit_free(mem_unit *unit, void *p) {
  return mem_unit_free_dbg(unit, p);
}

/// Cuts block `p` down to `size` bytes where it is; what is left over becomes free. 0; -1 to -3 as
/// mem_unit_free(); -4 when `size` is below 1 or more than the block has.
int mem_unit_shrinkto(mem_unit *unit, void *p, int32_t size);

/// Bytes that the largest possible next mem_unit_alloc() can get; 0 when full, -1 for null.
int64_t mem_unit_availsize(const mem_unit *unit);
/// Where that allocation would lie; null when full or for null.
void *mem_unit_availp(const mem_unit *unit);
/// Bytes of one block that takes the whole unit; -1 for null.
int64_t mem_unit_totalsize(const mem_unit *unit);
/// Bytes that blocks in use occupy, headers and rounding included; -1 for null.
int64_t mem_unit_usedsize(const mem_unit *unit);
/// One past the last byte that a block can have; null for null.
void *mem_unit_endp(const mem_unit *unit);
/// A line for the unit and one for each block, to standard output.
void mem_unit_print(const mem_unit *unit);

/// The 32-bit word at `at`, in the machine's order and at any alignment.
inline uint32_t getuint32(const void *at) {
  uint32_t word;
  std::memcpy(&word, at, sizeof word);
  return word;
}
inline void putuint32(void *at, uint32_t word) {
  std::memcpy(at, &word, sizeof word);
}

namespace adif {

/// True while the blocks tile the unit, the links agree, free neighbours are merged and the count
/// of used bytes is right. For tests and checked builds.
bool mem_unit_invariant(const mem_unit *unit);

}  // namespace adif
