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

#include <cstdint>

#include "c2ms/core/records.h"
#include "c2ms/core/time.h"

/// Points the cache at the whole media and walks its boxes to `moov`; only the packs of box headers
/// are asked for. Needs the read gate. Waits for headers until 30 s after `t0`, 10 s for each. 0:
/// sess->idx_opening.walk stands on it; -100 no `moov`, or a header came short; -230; the negative
/// result of a receive.
int c2ms_sess_idx_parse_moov(c2ms_sess *sess, c2ms::steady::time_point t0);

namespace c2ms {

/// c2ms_sess_idx_open for a session that is being opened, too. A call that counts itself into the
/// session, or the thread that opens it.
int open_index(c2ms_sess *sess, uint32_t *len);

}  // namespace c2ms
