// Packing into the Lzma86 container: header, filter and the SDK's encoder put together. Part of
// compress/lzma86.h.
#include <LzmaEnc.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <span>

#include "compress/lzma86_parts.h"
#include "compress/x86_filter.h"

namespace {

using namespace compress;

using Buffer = std::unique_ptr<uint8_t[]>;

struct Codec {
  int level;
  uint32_t dict_size;
};

void write_header(uint8_t *dest, bool filtered, uint64_t unpack_size) {
  dest[0] = filtered ? 1 : 0;
  for (size_t i = 0; i < sizeof unpack_size; ++i) {
    dest[size_at + i] = static_cast<uint8_t>(unpack_size >> (8 * i));
  }
}

/// LZMA of `in` into `out`; `*written` receives the stream's size. The properties, written to
/// `props`, depend on the codec's settings alone.
int encode_stream(std::span<uint8_t> out, size_t *written, uint8_t *props,
                  std::span<const uint8_t> in, const Codec &codec) {
  CLzmaEncProps settings;
  LzmaEncProps_Init(&settings);
  settings.level = codec.level;
  settings.dictSize = codec.dict_size;
  size_t written_props = props_size;
  size_t size = out.size();
  constexpr int no_end_mark = 0;
  const int result = LzmaEncode(out.data(), &size, in.data(), in.size(), &settings, props,
                                &written_props, no_end_mark, nullptr, &sdk_memory, &sdk_memory);
  *written = result == SZ_OK ? size : 0;
  return result;
}

/// A filtered copy of `src`, empty without memory; `*changed` tells whether the filter found
/// anything.
Buffer filtered_copy(std::span<const uint8_t> src, bool *changed) {
  Buffer copy(new (std::nothrow) uint8_t[src.size() + 1]);
  if (!copy) return copy;
  std::copy(src.begin(), src.end(), copy.get());
  *changed = compress::x86_encode({copy.get(), src.size()}) > 0;
  return copy;
}

/// Second try of the automatic mode: replaces the plain stream of `*size` bytes in `out` (0: it did
/// not fit) when the filtered one is smaller. `*better` tells whether it did.
int try_filtered(std::span<uint8_t> out, size_t *size, uint8_t *props, std::span<const uint8_t> src,
                 const Codec &codec, bool *better) {
  bool changed = false;
  const Buffer copy = filtered_copy(src, &changed);
  if (!copy) return SZ_ERROR_MEM;
  if (!changed) return SZ_OK;
  const size_t room = *size > 0 ? *size - 1 : out.size();
  const Buffer scratch(new (std::nothrow) uint8_t[room + 1]);
  if (!scratch) return SZ_ERROR_MEM;
  size_t written = 0;
  const int result =
      encode_stream({scratch.get(), room}, &written, props, {copy.get(), src.size()}, codec);
  if (result == SZ_ERROR_OUTPUT_EOF) return SZ_OK;
  if (result != SZ_OK) return result;
  std::memcpy(out.data(), scratch.get(), written);
  *size = written;
  *better = true;
  return SZ_OK;
}

}  // namespace

int Lzma86_Encode(uint8_t *dest, size_t *destLen, const uint8_t *src, size_t srcLen, int level,
                  uint32_t dictSize, ESzFilterMode filterMode) {
  const size_t room = *destLen;
  *destLen = 0;
  if (room < LZMA86_HEADER_SIZE) return SZ_ERROR_OUTPUT_EOF;
  const std::span<uint8_t> out(dest + LZMA86_HEADER_SIZE, room - LZMA86_HEADER_SIZE);
  const std::span<const uint8_t> in(src, srcLen);
  const Codec codec{level, dictSize};
  uint8_t *const props = dest + props_at;

  bool filtered = filterMode == SZ_FILTER_YES;
  size_t size = 0;
  int result = SZ_OK;
  if (filtered) {
    bool changed = false;
    const Buffer copy = filtered_copy(in, &changed);
    if (!copy) return SZ_ERROR_MEM;
    result = encode_stream(out, &size, props, {copy.get(), srcLen}, codec);
  } else {
    result = encode_stream(out, &size, props, in, codec);
  }
  if (filterMode == SZ_FILTER_AUTO && (result == SZ_OK || result == SZ_ERROR_OUTPUT_EOF)) {
    const int second = try_filtered(out, &size, props, in, codec, &filtered);
    if (second != SZ_OK || filtered) result = second;
  }
  if (result != SZ_OK) return result;
  write_header(dest, filtered, srcLen);
  *destLen = LZMA86_HEADER_SIZE + size;
  return SZ_OK;
}
