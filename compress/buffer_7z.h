// Compressed memory buffers in the Lzma86 container: what the media index and its tools call.
//
// The results are the LZMA SDK's codes: 0 success, 1 damaged data, 2 out of memory, 4 unsupported
// filter flag or properties, 5 bad parameter, 6 source too short, 7 destination too small, 10
// stopped. Any thread may call, on buffers of its own; the calls block for as long as the work
// takes. Source and destination must not overlap. Lengths are bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

/// What buffer_un7z_auto takes at most for a container that claims to unpack to more: a few
/// kilobytes can honestly unpack to hundreds of megabytes.
constexpr uint64_t kUn7zAutoMax = uint64_t{64} << 20;

/// Packs `src` into `dst`, with the x86 filter when that comes out smaller. `*dst_len` gives the
/// room and receives the packed size, 0 on failure. `level` and `dict_size` as in Lzma86_Encode.
/// Results: 5 when `dst`, `dst_len` or `src` is null (an empty source is a pointer and length 0);
/// else as Lzma86_Encode.
int buffer_7z(void *dst, size_t *dst_len, const void *src, size_t src_len, int level,
              uint32_t dict_size);

/// Reads the unpacked size that a container claims; a size from elsewhere is checked against what
/// the caller can afford before memory is taken for it.
/// Results: 5 when `src` or `size` is null or `src_len` is 0; 6 when `src_len` is below 14; else 0.
int buffer_un7z_size(const void *src, size_t src_len, uint64_t *size);

/// Unpacks `src` into `dst`. `*dst_len` gives the room (0 serves an empty content) and receives the
/// unpacked size, 0 on failure; what `dst` then holds is unspecified. It never takes memory by a
/// claimed size. Results: 5 when a pointer is null or `src_len` is 0; else as Lzma86_Decode.
int buffer_un7z(void *dst, size_t *dst_len, const void *src, size_t src_len);

/// The same; ends with result 10 soon after `stop` (empty: never) says true. It is asked before
/// every 256 KiB, on the calling thread.
int buffer_un7z_until(void *dst, size_t *dst_len, const void *src, size_t src_len,
                      const std::function<bool()> &stop);

/// Unpacks `src` into a new buffer of exactly the unpacked size, which the caller frees with
/// free(). Sets `*out_len` only on success.
///
/// A returned address alone is no success: when decoding fails, the buffer is freed, its address is
/// returned nevertheless and `*out_len` stays as it was. This is meant. Preset `*out_len` to 0,
/// treat a length that stayed 0 as failure, and then neither touch nor free the address. (An empty
/// content cannot be told from a failure; its one byte of memory is the price of that.)
///
/// Null when an argument is null, the header is too short, the claimed size is above `max_size`
/// (then no memory is taken at all) or there is no memory.
void *buffer_un7z_auto(size_t *out_len, const void *src, size_t src_len,
                       uint64_t max_size = kUn7zAutoMax);
