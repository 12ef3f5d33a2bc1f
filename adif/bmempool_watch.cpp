// What tests ask of pools: units at rest are filled and looked at again. See bmempool_watch.h.
#include "adif/bmempool_watch.h"

#include <cstring>

#include "adif/check.h"

#if defined(__SANITIZE_ADDRESS__)
#define ADIF_POISONS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ADIF_POISONS 1
#endif
#endif

#ifdef ADIF_POISONS
#include <sanitizer/asan_interface.h>
#endif

namespace adif {

namespace {

std::atomic<pool_mode> mode_of_new_pools{pool_mode::recycle};

#ifdef ADIF_POISONS
void poison(const uint8_t *at, size_t size) {
  ASAN_POISON_MEMORY_REGION(at, size);
}
void unpoison(const uint8_t *at, size_t size) {
  ASAN_UNPOISON_MEMORY_REGION(at, size);
}
uint64_t digest(const block_pool *, const void *) {
  return 0;  // an access is reported where it is made
}
#else
void poison(const uint8_t *, size_t) {}
void unpoison(const uint8_t *, size_t) {}

// FNV-1a over words: weak against an adversary, and quick; a stray write is none.
uint64_t digest(const block_pool *pool, const void *unit) {
  uint64_t sum = 0xcbf29ce484222325;
  for (int32_t i = 0; i < pool->watched_span_count; ++i) {
    const auto *at = static_cast<const uint8_t *>(unit) + pool->watched_spans[i].offset;
    for (uint32_t left = pool->watched_spans[i].size; left > 0;) {
      uint64_t word = 0;
      const uint32_t n = left < sizeof word ? left : sizeof word;
      std::memcpy(&word, at, n);
      sum = (sum ^ word) * 0x100000001b3;
      at += n;
      left -= n;
    }
  }
  return sum;
}
#endif

template <class Act>
void for_each_span(const block_pool *pool, void *unit, Act act) {
  for (int32_t i = 0; i < pool->watched_span_count; ++i)
    act(static_cast<uint8_t *>(unit) + pool->watched_spans[i].offset, pool->watched_spans[i].size);
}

}  // namespace

void pool_test_mode(pool_mode mode) {
  mode_of_new_pools = mode;
}

pool_mode current_pool_mode() {
  return mode_of_new_pools;
}

uint64_t begin_watch(const block_pool *pool, void *unit) {
  if (pool->mode == pool_mode::recycle) [[likely]]
    return 0;
  const uint64_t seal = digest(pool, unit);
  for_each_span(pool, unit, poison);
  return seal;
}

void end_watch(const block_pool *pool, const pool_slot &slot) {
  if (pool->mode == pool_mode::recycle) [[likely]]
    return;
  for_each_span(pool, slot.unit, unpoison);
  check(digest(pool, slot.unit) == slot.seal, "nobody touches a unit at rest", "adif/bmempool");
}

bool frees_on_return(const block_pool *pool) {
  if (!bypasses(pool)) return false;
  for (int32_t i = 0; i < pool->watched_span_count; ++i) {
    const pool_span &span = pool->watched_spans[i];
    if (span.offset == 0 && static_cast<int64_t>(span.size) == pool->unit_size) return true;
  }
  return false;
}

}  // namespace adif
