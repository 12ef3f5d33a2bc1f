// The Lzma86 container over whole memory buffers, under the LZMA SDK's names and result codes.
// Called by the buffer calls of compress/buffer_7z.h, which is what the rest of the library uses.
//
// Layout: filter flag (1 byte: 0 none, 1 x86 branch filter), LZMA properties (5 bytes: lc/lp/pb,
// then the dictionary size), unpacked size (8 bytes, little-endian), LZMA stream without end mark.
// Format: LZMA SDK (public domain), the stream as in its lzma.txt; the filter in
// compress/x86_filter.h.
//
// All calls are free of shared state: any thread may make them, on buffers of its own. They block
// for as long as the work takes. Source and destination must not overlap.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

constexpr size_t LZMA86_HEADER_SIZE = 14;

/// Filter modes of Lzma86_Encode.
enum ESzFilterMode {
  SZ_FILTER_NO = 0,
  SZ_FILTER_YES = 1,
  SZ_FILTER_AUTO = 2,  // both ways, the smaller is kept; without the filter when they are equal
};

/// Packs `src` into `dest`. `*destLen` gives the room in bytes and receives the container's size, 0
/// on failure (what `dest` holds is then unspecified). `level` is 0 (fast) to 9, negative for the
/// default 5; `dictSize` 4096 to 2^27 bytes (2^30 with 64-bit pointers), 0 for the level's own.
/// Needs about 12 times the dictionary in memory, and with a filter that converts something up to
/// twice the source. Results: 0; 2 out of memory; 5 bad dictionary size; 7 `dest` is too small.
int Lzma86_Encode(uint8_t *dest, size_t *destLen, const uint8_t *src, size_t srcLen, int level,
                  uint32_t dictSize, ESzFilterMode filterMode);

/// Reads the unpacked size in bytes from the header, which is what the packer claims and no more:
/// check it before memory is taken for it. Results: 0; 6 fewer than 14 bytes.
int Lzma86_GetUnpackSize(const uint8_t *src, size_t srcLen, uint64_t *unpackSize);

/// Unpacks a container into `dest`. `*destLen` gives the room in bytes and receives the stored
/// size, 0 on failure (what `dest` holds is then unspecified); `*srcLen` receives how many bytes
/// were used: bytes behind the stream are no error. Exactly the stored size must come out, and the
/// stream must end there. Takes at most 7 MiB of memory for the codec's tables, whatever the header
/// claims. Results: 0; 1 damaged, or longer or shorter than stored; 2 out of memory; 4 unknown
/// filter flag or LZMA properties; 6 `src` ends too early; 7 the stored size exceeds the room
/// (nothing was decoded).
int Lzma86_Decode(uint8_t *dest, size_t *destLen, const uint8_t *src, size_t *srcLen);

/// The same, asking `stop` (empty: never) before every 256 KiB that come out; when it says true the
/// result is 10 and nothing is delivered.
int Lzma86_DecodeUntil(uint8_t *dest, size_t *destLen, const uint8_t *src, size_t *srcLen,
                       const std::function<bool()> &stop);
