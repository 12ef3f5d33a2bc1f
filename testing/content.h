// Media content that identifies itself: every byte is a function of the file's id and of its
// position. So the server needs no file on disk, and a test can check any byte at any position,
// also beyond 4 GiB, without asking the server. Used by the media server and by tests.
//
// The function: the 64-bit little-endian word number w (bytes 8w .. 8w+7) is the finaliser of
// SplitMix64 (Steele, Lea, Flood: "Fast splittable pseudorandom number generators", 2014) over
// seed + (w + 1) * 0x9e3779b97f4a7c15, the seed being the xor of the id's two little-endian halves.
// A byte from another file or another place therefore agrees only by chance, one time in 256.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace refserver {

/// Names one file: the MD5 of its path or name.
using file_id = std::array<uint8_t, 16>;

/// Writes the content bytes [position, position + size) of generated file `id` to `out`.
/// Any thread may call it. Writes several GB/s.
void content_fill(const file_id &id, uint64_t position, void *out, size_t size);

/// The one content byte at `position`.
uint8_t content_byte(const file_id &id, uint64_t position);

/// Compares `size` bytes that a reader got for `position` with the content.
/// Returns the index of the first byte that differs, or `size` when all agree.
size_t content_mismatch(const file_id &id, uint64_t position, const void *data, size_t size);

}  // namespace refserver
