// Containers from a server: unpacking ends with a known result, within the memory that was allowed,
// and what it yields survives packing and unpacking. The input also serves as code for the branch
// filter.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "compress/buffer_7z.h"
#include "compress/x86_filter.h"
#include "container.h"
#include "require.h"

namespace {

constexpr size_t kRepackMax = 8192;  // the encoder is slow beside the decoder

void repack(const uint8_t *plain, size_t size) {
  std::vector<uint8_t> packed(size * 5 / 4 + 100);
  size_t packed_size = packed.size();
  require(buffer_7z(packed.data(), &packed_size, plain, size, 1, 1 << 12) == 0);
  std::vector<uint8_t> again(size + 1);
  size_t again_size = size;
  require(buffer_un7z(again.data(), &again_size, packed.data(), packed_size) == 0);
  require(again_size == size && std::memcmp(again.data(), plain, size) == 0);
}

/// Whatever slice comes next, none is decoded once that is wished.
void stop(const uint8_t *data, size_t size, uint64_t stored) {
  std::vector<uint8_t> plain(stored + 1);
  for (int slices = 0; slices < 3; ++slices) {
    int asked = 0;
    size_t length = stored;
    const int result = buffer_un7z_until(plain.data(), &length, data, size,
                                         [&asked, slices] { return asked++ == slices; });
    constexpr int stopped = 10;
    require((result == stopped) == (asked > slices) && length == (result == 0 ? stored : 0));
  }
}

void unpack(const uint8_t *data, size_t size, uint64_t stored) {
  std::vector<uint8_t> plain(stored + 1);
  size_t length = stored;
  const int result = buffer_un7z(plain.data(), &length, data, size);
  require(result == 0 || result == 1 || result == 4 || result == 6);
  require(length == (result == 0 ? stored : 0));
  if (fuzz::may_take_long(data, size)) {
    if (result == 0 && length <= kRepackMax) repack(plain.data(), length);
    stop(data, size, stored);
  }
  if (stored > 0) {  // and never into less than the stored size
    length = stored - 1;
    const int short_room = buffer_un7z(plain.data(), &length, data, size);
    require(short_room == (data[0] > 1 ? 4 : 7) && length == 0);
  }
}

void filter(const uint8_t *data, size_t size) {
  const std::vector<uint8_t> plain(data, data + size);
  std::vector<uint8_t> copy = plain;
  require(compress::x86_encode(copy) == compress::x86_decode(copy) && copy == plain);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  filter(data, size);
  uint64_t stored = 0;
  const int header = buffer_un7z_size(data, size, &stored);
  require(header == (size == 0 ? 5 : size < 14 ? 6 : 0));
  const bool patient = fuzz::may_take_long(data, size);
  const uint64_t bound = patient ? fuzz::big_bound : fuzz::small_bound;
  size_t length = 0;
  uint8_t nowhere = 0;
  if (header != 0) require(buffer_un7z(&nowhere, &length, data, size) == header && length == 0);
  if (header != 0 || stored > bound) {
    require(buffer_un7z_auto(&length, data, size, bound) == nullptr && length == 0);
    return 0;
  }
  if (!patient && !fuzz::has_small_tables(data, size)) return 0;
  unpack(data, size, stored);
  if (stored == 0) return 0;  // an empty content and a freed address look alike
  void *const whole = buffer_un7z_auto(&length, data, size, bound);
  require(whole != nullptr && (length == 0 || length == stored));
  if (length > 0) std::free(whole);
  return 0;
}
