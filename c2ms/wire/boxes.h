// The walk over the boxes of an MP4 file in search of `moov`: one header at a time, without any
// input or output of its own. player/idx.cpp fetches the headers; the fuzz target calls it with
// any bytes.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

/// Results of c2ms_idx_box.
enum c2ms_box_result : int {
  box_is_moov = 1,       // the walk stays on it; its box_size is set
  box_passed = 0,        // the walk stands on the next box
  box_not_found = -100,  // no `moov` among the first 20
  box_past_end = -230,   // the next box would lie at or past the end of the media
};

/// Looks at the box whose first 16 bytes are walk->header (ISO/IEC 14496-12, 4.2: a big-endian
/// 32-bit size, a type, and with size 1 a 64-bit size), at walk->pos. Type `moov` is taken in
/// either case. Any other box is passed by its size as it stands: size 0 stays where it is, so a
/// file that ends so gives -100 after 20 rounds. A size of 0 of the `moov` itself means "to the end
/// of the media". Touches only the walk.
c2ms_box_result c2ms_idx_box(c2ms_box_walk *walk);

/// Whether a `moov` of `len` bytes at `offset` counts as lying at the end of a media of
/// `media_size` bytes: at most 1000 bytes more or less follow it, counted in 32 bits.
bool c2ms_idx_at_end(uint64_t media_size, uint64_t offset, uint32_t len);
