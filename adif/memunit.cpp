// An allocator over one region of memory: blocks in a row, each with a header. See memunit.h.
#include "adif/memunit.h"

#include <algorithm>
#include <cinttypes>

#include "adif/check.h"
#include "adif/line_sink.h"

namespace {

constexpr int64_t kGranule = 16;
constexpr int64_t kHeader = 16;

// Words of a block's header, by byte offset.
constexpr int kLength = 0;    // granules, header included
constexpr int kPrevious = 4;  // granules of the block before; 0 in the first block
constexpr int kMark = 8;
constexpr int kLine = 12;  // of the source that took the block

constexpr uint32_t kUsedMark = 0x55534544;
constexpr uint32_t kFreeMark = 0x46524545;

}  // namespace

struct mem_unit {
  uint8_t *first;     // first block
  uint32_t granules;  // of all blocks
  uint32_t used;      // of the blocks in use
};

namespace {

constexpr int64_t kRecord = (int64_t{sizeof(mem_unit)} + kGranule - 1) / kGranule * kGranule;

uint8_t *end_of(const mem_unit *unit) {
  return unit->first + unit->granules * kGranule;
}
uint32_t length(const uint8_t *block) {
  return getuint32(block + kLength);
}
bool is_free(const uint8_t *block) {
  return getuint32(block + kMark) == kFreeMark;
}

// A length of 0 means that somebody wrote over the header; a walk must not go round in a circle.
uint8_t *after(uint8_t *block) {
  adif::check(length(block) > 0, "length(block) > 0", "adif/memunit");
  return block + length(block) * kGranule;
}

int64_t payload(const uint8_t *block) {
  return length(block) * kGranule - kHeader;
}

// Writes a block's header and tells its follower.
void lay(const mem_unit *unit, uint8_t *block, uint32_t granules, uint32_t mark, uint32_t line) {
  putuint32(block + kLength, granules);
  putuint32(block + kMark, mark);
  putuint32(block + kLine, line);
  uint8_t *const next = after(block);
  if (next < end_of(unit)) putuint32(next + kPrevious, granules);
}

// Cuts `block` down to `granules`; what is behind becomes a free block of its own.
void split(const mem_unit *unit, uint8_t *block, uint32_t granules) {
  const uint32_t rest = length(block) - granules;
  if (rest == 0) return;
  putuint32(block + kLength, granules);
  uint8_t *const tail = after(block);
  putuint32(tail + kPrevious, granules);
  lay(unit, tail, rest, kFreeMark, 0);
}

// Merges a free block with its follower when that is free too.
void merge_next(const mem_unit *unit, uint8_t *block) {
  const uint8_t *const next = after(block);
  if (next == end_of(unit) || !is_free(next)) return;
  lay(unit, block, length(block) + length(next), kFreeMark, 0);
}

uint32_t granules_for(int32_t size) {
  return static_cast<uint32_t>((int64_t{size} + kGranule - 1) / kGranule + kHeader / kGranule);
}

// The block in use whose payload starts at `p`. Headers can't be trusted to lie before any pointer,
// so the blocks are walked.
uint8_t *block_in_use(const mem_unit *unit, const void *p) {
  for (uint8_t *block = unit->first; block < end_of(unit); block = after(block)) {
    if (block + kHeader == p) return is_free(block) ? nullptr : block;
  }
  return nullptr;
}

uint8_t *largest_free(const mem_unit *unit) {
  uint8_t *best = nullptr;
  for (uint8_t *block = unit->first; block < end_of(unit); block = after(block)) {
    if (is_free(block) && (best == nullptr || length(block) > length(best))) best = block;
  }
  return best;
}

}  // namespace

mem_unit *mem_unit_init(void *region, int64_t size) {
  if (region == nullptr) return nullptr;
  const int64_t skip = -static_cast<int64_t>(reinterpret_cast<uintptr_t>(region) % kGranule) & 15;
  if (size < skip + kRecord + kHeader + kGranule) return nullptr;
  auto *const unit = reinterpret_cast<mem_unit *>(static_cast<uint8_t *>(region) + skip);
  unit->first = reinterpret_cast<uint8_t *>(unit) + kRecord;
  unit->granules =
      static_cast<uint32_t>(std::min<int64_t>((size - skip - kRecord) / kGranule, UINT32_MAX));
  unit->used = 0;
  putuint32(unit->first + kPrevious, 0);
  lay(unit, unit->first, unit->granules, kFreeMark, 0);
  return unit;
}

void *mem_unit_alloc_dbg(mem_unit *unit, int32_t size, adif::source_place caller) {
  if (unit == nullptr || size < 1) return nullptr;
  const uint32_t wanted = granules_for(size);
  for (uint8_t *block = unit->first; block < end_of(unit); block = after(block)) {
    if (!is_free(block) || length(block) < wanted) continue;
    // A header without payload is no use to anybody: the block keeps it.
    const uint32_t taken = length(block) - wanted > 1 ? wanted : length(block);
    split(unit, block, taken);
    lay(unit, block, taken, kUsedMark, static_cast<uint32_t>(caller.line));
    unit->used += taken;
    return block + kHeader;
  }
  return nullptr;
}

int mem_unit_free_dbg(mem_unit *unit, void *p, adif::source_place) {
  if (unit == nullptr) return -1;
  if (p == nullptr) return -2;
  uint8_t *const block = block_in_use(unit, p);
  if (block == nullptr) return -3;
  unit->used -= length(block);
  lay(unit, block, length(block), kFreeMark, 0);
  merge_next(unit, block);
  uint8_t *const before = block - getuint32(block + kPrevious) * kGranule;
  if (before != block && is_free(before)) merge_next(unit, before);
  return 0;
}

int mem_unit_shrinkto(mem_unit *unit, void *p, int32_t size) {
  if (unit == nullptr) return -1;
  if (p == nullptr) return -2;
  uint8_t *const block = block_in_use(unit, p);
  if (block == nullptr) return -3;
  if (size < 1 || size > payload(block)) return -4;
  const uint32_t kept = granules_for(size);
  const uint32_t rest = length(block) - kept;
  // One granule alone can only grow a free follower: a free block needs room behind its header.
  const uint8_t *const next = after(block);
  if (rest == 0 || (rest == 1 && (next == end_of(unit) || !is_free(next)))) return 0;
  split(unit, block, kept);
  merge_next(unit, after(block));
  unit->used -= rest;
  return 0;
}

int64_t mem_unit_availsize(const mem_unit *unit) {
  if (unit == nullptr) return -1;
  const uint8_t *const block = largest_free(unit);
  return block == nullptr ? 0 : std::min<int64_t>(payload(block), INT32_MAX);
}

void *mem_unit_availp(const mem_unit *unit) {
  uint8_t *const block = unit == nullptr ? nullptr : largest_free(unit);
  return block == nullptr ? nullptr : block + kHeader;
}

int64_t mem_unit_totalsize(const mem_unit *unit) {
  return unit == nullptr ? -1 : unit->granules * kGranule - kHeader;
}

int64_t mem_unit_usedsize(const mem_unit *unit) {
  return unit == nullptr ? -1 : unit->used * kGranule;
}

void *mem_unit_endp(const mem_unit *unit) {
  return unit == nullptr ? nullptr : end_of(unit);
}

void mem_unit_print(const mem_unit *unit) {
  if (unit == nullptr) return;
  adif::say_line("mem_unit %p: total %" PRId64 " used %" PRId64 " avail %" PRId64 "\n",
                 static_cast<const void *>(unit), mem_unit_totalsize(unit), mem_unit_usedsize(unit),
                 mem_unit_availsize(unit));
  for (uint8_t *block = unit->first; block < end_of(unit); block = after(block)) {
    adif::say_line("  %p: %" PRId64 " bytes %s, line %" PRIu32 "\n",
                   static_cast<void *>(block + kHeader), payload(block),
                   is_free(block) ? "free" : "used", getuint32(block + kLine));
  }
}

namespace adif {

bool mem_unit_invariant(const mem_unit *unit) {
  uint64_t used = 0;
  uint32_t previous = 0;
  bool free_before = false;
  uint8_t *block = unit->first;
  for (; block < end_of(unit); block = after(block)) {
    const bool free_now = is_free(block);
    if (length(block) < 2 || length(block) > unit->granules) return false;
    if (!free_now && getuint32(block + kMark) != kUsedMark) return false;
    if (getuint32(block + kPrevious) != previous || (free_now && free_before)) return false;
    used += free_now ? 0 : length(block);
    previous = length(block);
    free_before = free_now;
  }
  return block == end_of(unit) && used == unit->used;
}

}  // namespace adif
