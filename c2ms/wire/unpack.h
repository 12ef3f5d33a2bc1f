// Unpacks the packed index, which a server sent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

/// Results of the index calls beside the session codes.
enum c2ms_idx_result : int {
  idx_not_open = -100,  // of c2ms_sess_idx_read; as result of the walk: no `moov` (wire/boxes.h)
  idx_no_buffer = -101,
  idx_receive_failed = -200,  // five times
  idx_timed_out = -201,
  idx_not_readable = -300,  // no container
  idx_empty = -301,
  idx_no_memory = -350,  // or more than the bound
  idx_damaged = -400,    // or the unpacking got no memory
  idx_no_moov = -401,
};

/// Unpacks a packed index. What it claims to unpack to is compared with `bound` before memory is
/// taken. 0:
/// `*out` is the caller's to free() and holds `*out_len` bytes; or idx_not_readable, idx_empty,
/// idx_no_memory, idx_damaged, or idx_damaged soon after `stop` says true, with both untouched. Any
/// thread.
int c2ms_idx_unpack(const uint8_t *packed, size_t len, uint64_t bound, uint8_t **out,
                    uint32_t *out_len, const std::function<bool()> &stop = {});
