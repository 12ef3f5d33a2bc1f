// An index and the media that it belongs to, both from a server: unpacking keeps to its bound and
// its codes, and the walk over the boxes ends, stays inside the media and finds `moov` only where
// the bytes say so.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "adif/kalloc.h"
#include "c2ms/core/records.h"
#include "c2ms/wire/boxes.h"
#include "c2ms/wire/unpack.h"
#include "compress/buffer_7z.h"
#include "container.h"
#include "require.h"

namespace {

void unpack(const uint8_t *data, size_t size) {
  const bool patient = fuzz::may_take_long(data, size);
  if (!patient && !fuzz::has_small_tables(data, size)) return;
  const uint64_t bound = patient ? fuzz::big_bound : fuzz::small_bound;
  uint8_t *out = nullptr;
  uint32_t len = 0;
  const int result = c2ms_idx_unpack(data, size, bound, &out, &len);
  if (result == 0) {
    require(out != nullptr && len >= 1 && len <= bound);
    const std::vector<uint8_t> every_byte(out, out + len);
    std::free(out);
    out = nullptr;
    adif::fail_allocations(1);
    require(c2ms_idx_unpack(data, size, bound, &out, &len) == idx_no_memory && out == nullptr);
    adif::fail_allocations(0);
    return;
  }
  require(out == nullptr && len == 0);
  require(result == idx_not_readable || result == idx_empty || result == idx_no_memory ||
          result == idx_damaged);
  require((size < 14) == (result == idx_not_readable));
  uint64_t claimed = 0;
  if (buffer_un7z_size(data, size, &claimed) == 0 && claimed > UINT32_MAX)
    require(c2ms_idx_unpack(data, size, UINT64_MAX, &out, &len) == idx_no_memory);
}

// The input is the media's beginning, zeros follow; the first 8 bytes choose its size.
void walk(const uint8_t *data, size_t size) {
  c2ms_box_walk state;
  std::memcpy(&state.media_size, data, std::min<size_t>(size, 8));
  if (state.media_size == 0 || size < 8) state.media_size = size + 1;
  int rounds = 0;
  for (c2ms_box_result result = box_passed; result == box_passed;) {
    require(state.pos < state.media_size && ++rounds <= 20);
    std::memset(state.header, 0, sizeof state.header);
    if (state.pos < size) {
      std::memcpy(state.header, data + state.pos, std::min<uint64_t>(16, size - state.pos));
    }
    const uint64_t before = state.pos;
    result = c2ms_idx_box(&state);
    require(state.pos >= before && state.pos < state.media_size);
    if (result == box_passed) continue;
    require(result == box_is_moov || result == box_past_end ||
            (result == box_not_found && rounds == 20));
    if (result != box_is_moov) continue;
    require(state.pos == before && state.box_size <= state.media_size - state.pos);
    require((state.header[4] | 0x20) == 'm' && (state.header[7] | 0x20) == 'v');
    c2ms_idx_at_end(state.media_size, state.pos, static_cast<uint32_t>(state.box_size));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  unpack(data, size);
  walk(data, size);
  return 0;
}
