// The library's one way to take and give back heap memory. Every container, frame and iterator goes
// through these calls, so that a test can make any allocation fail. Blocks are malloc's: aligned
// for every type. All calls may be made by any thread and never print, stop or throw: a failure is
// null, and each caller decides what that means. The caller's place is there for debuggers and
// tracers only.
#pragma once

#include <cstdint>
#include <memory>

#include "adif/source_place.h"

/// `size` bytes, uninitialised. Null when `size` is below 1 or memory has run out.
[[nodiscard]] void *kalloc_dbg(int64_t size,
                               adif::source_place caller = adif::source_place::current());

/// `size` zero bytes. Null when `size` is below 1 or memory has run out.
[[nodiscard]] void *kzalloc_dbg(int64_t size,
                                adif::source_place caller = adif::source_place::current());

/// Resizes block `p` (null: takes a new block); the old pointer is dead on success. Null when
/// `size` is below 1 or memory has run out; `p` is then still the caller's, unchanged.
[[nodiscard]] void *krealloc_dbg(void *p, int64_t size,
                                 adif::source_place caller = adif::source_place::current());

/// Gives block `p` back; null is ignored.
void kfree_dbg(void *p, adif::source_place caller = adif::source_place::current());

namespace adif {

struct kfree {
  void operator()(void *p) const { kfree_dbg(p); }
};

/// Owns one block of the calls above. No destructor of T is run: for plain records and arrays.
template <class T>
using kptr = std::unique_ptr<T, kfree>;

/// Counts as "from now on" in fail_allocations().
inline constexpr int32_t kFailForGood = INT32_MAX;

/// For tests: counted from this call, over all threads, allocation number `nth` (1 is the next one)
/// and the `count` - 1 after it give null. `nth` 0 ends it. Off, it costs a relaxed load.
void fail_allocations(int32_t nth, int32_t count = 1);

/// How many allocations failed because of the last fail_allocations().
int32_t failed_allocations();

/// True while a test lets every allocation fail for good: a retry without a bound must end then.
bool allocations_fail_for_good();

}  // namespace adif
