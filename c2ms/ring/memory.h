// A session's share of the context's memory: one block, or a few when it has been resized.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

namespace c2ms {

/// Takes all that the arena has in one block, rounded down to whole packs; one session at a time.
/// It may be nothing. Needs the read gate.
void take_all_memory(c2ms_sess *sess, int32_t pack_size);

/// Takes blocks of `bytes` (whole packs) in all. False, and nothing is taken, when the arena has
/// not that much, or only in too many places. Needs the read gate.
bool take_memory(c2ms_sess *sess, int64_t bytes, int32_t pack_size);

/// Gives the last blocks back so that `bytes` are left, a block in the middle cut down. No pack
/// lies in what goes. Needs the read gate.
void keep_memory(c2ms_sess *sess, int64_t bytes);

/// Bytes of all blocks.
int64_t memory_of(const c2ms_sess *sess);

}  // namespace c2ms
