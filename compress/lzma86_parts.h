// What both halves of the container share: where its header's fields lie, and how the SDK's codec
// gets its memory. Of compress/lzma86.h alone.
#pragma once

#include <Types.h>

#include <cstdlib>

#include "compress/lzma86.h"

namespace compress {

inline constexpr size_t props_at = 1;
inline constexpr size_t props_size = 5;
inline constexpr size_t size_at = props_at + props_size;
static_assert(size_at + sizeof(uint64_t) == LZMA86_HEADER_SIZE);

inline ISzAlloc sdk_memory = {[](void *, size_t size) { return std::malloc(size); },
                              [](void *, void *address) { std::free(address); }};

}  // namespace compress
