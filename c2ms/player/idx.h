// The index of a media: a compressed file of its own, fetched through the session's cache, unpacked
// into memory and laid over the part of the media that it stands for (the window, ring/cache.h).
// The player's calls are described in c2ms.h; here is what the session core and the tests need
// beside them.
//
// Both opens go the same way: note the range that the cache serves, point the cache at the index
// file, receive it into a buffer of its own, unpack it, for MP4 media walk the boxes of the media
// to its `moov`, publish the window, point the cache back at the media. Whatever ends an open, the
// cache is on the media again, at position 0. All of it happens under the read gate.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "c2ms/core/records.h"
#include "c2ms/core/time.h"

/// Results of the index calls beside the session codes.
enum c2ms_idx_result : int {
  idx_not_open =
      -100,  // of c2ms_sess_idx_read; as result of the walk: no `moov` (wire/boxes.h)
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

/// Points the cache at the whole media and walks its boxes to `moov`; only the packs of box headers
/// are asked for. Needs the read gate. Waits for headers until 30 s after `t0`, 10 s for each. 0:
/// sess->idx_opening.walk stands on it; -100 no `moov`, or a header came short; -230; the negative
/// result of a receive.
int c2ms_sess_idx_parse_moov(c2ms_sess *sess, c2ms::steady::time_point t0);

/// Gives back what the index calls hold of a session that nobody is inside any more.
void c2ms_sess_idx_release(c2ms_sess *sess);
