// The Lzma86 container: header, filter and the SDK's codec put together.
#include "compress/lzma86.h"

#include <LzmaDec.h>
#include <LzmaEnc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <span>

#include "compress/x86_filter.h"

namespace {

constexpr size_t kPropsAt = 1;
constexpr size_t kSizeAt = kPropsAt + LZMA_PROPS_SIZE;
static_assert(kSizeAt + sizeof(uint64_t) == LZMA86_HEADER_SIZE);

using Buffer = std::unique_ptr<uint8_t[]>;

void *sdk_alloc(void *, size_t size) {
  return size == 0 ? nullptr : std::malloc(size);
}
void sdk_free(void *, void *address) {
  std::free(address);
}
ISzAlloc g_alloc = {sdk_alloc, sdk_free};

struct Codec {
  int level;
  uint32_t dict_size;
};

void write_header(uint8_t *dest, bool filtered, uint64_t unpack_size) {
  dest[0] = filtered ? 1 : 0;
  for (size_t i = 0; i < sizeof unpack_size; ++i) {
    dest[kSizeAt + i] = static_cast<uint8_t>(unpack_size >> (8 * i));
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
  size_t props_size = LZMA_PROPS_SIZE;
  size_t size = out.size();
  constexpr int no_end_mark = 0;
  const int result = LzmaEncode(out.data(), &size, in.data(), in.size(), &settings, props,
                                &props_size, no_end_mark, nullptr, &g_alloc, &g_alloc);
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
  uint8_t *const props = dest + kPropsAt;

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

int Lzma86_GetUnpackSize(const uint8_t *src, size_t srcLen, uint64_t *unpackSize) {
  if (srcLen < LZMA86_HEADER_SIZE) return SZ_ERROR_INPUT_EOF;
  uint64_t size = 0;
  for (size_t i = 0; i < sizeof size; ++i) size |= uint64_t{src[kSizeAt + i]} << (8 * i);
  *unpackSize = size;
  return SZ_OK;
}

namespace {

/// The SDK's decoder with its tables.
class Decoder {
 public:
  Decoder() { LzmaDec_Construct(&state_); }
  ~Decoder() { LzmaDec_FreeProbs(&state_, &g_alloc); }
  Decoder(const Decoder &) = delete;
  Decoder &operator=(const Decoder &) = delete;

  int begin(const uint8_t *props, uint8_t *dest, size_t size) {
    const int result = LzmaDec_AllocateProbs(&state_, props, LZMA_PROPS_SIZE, &g_alloc);
    if (result != SZ_OK) return result;
    state_.dic = dest;
    state_.dicBufSize = size;
    LzmaDec_Init(&state_);
    return SZ_OK;
  }

  /// Decodes up to `limit` bytes of output, which is the end when `last`. `*used` bytes of `src`
  /// were taken.
  int decode(size_t limit, bool last, const uint8_t *src, size_t available, size_t *used) {
    *used = available;
    const int result = LzmaDec_DecodeToDic(&state_, limit, src, used,
                                           last ? LZMA_FINISH_END : LZMA_FINISH_ANY, &status_);
    const bool starved = result == SZ_OK && status_ == LZMA_STATUS_NEEDS_MORE_INPUT;
    return starved ? SZ_ERROR_INPUT_EOF : result;
  }

  size_t written() const { return state_.dicPos; }
  bool ended() const { return status_ == LZMA_STATUS_FINISHED_WITH_MARK; }

 private:
  CLzmaDec state_;
  ELzmaStatus status_ = LZMA_STATUS_NOT_SPECIFIED;
};

constexpr size_t kSlice = size_t{256} << 10;

/// LZMA of `in` into `dest`, exactly `size` bytes; `*used` bytes of `in` were taken.
int decode_stream(uint8_t *dest, size_t size, const uint8_t *props, std::span<const uint8_t> in,
                  size_t *used, const std::function<bool()> &stop) {
  constexpr size_t kLeastInput = 5;  // what the range coder begins with
  *used = 0;
  if (in.size() < kLeastInput) return SZ_ERROR_INPUT_EOF;
  Decoder decoder;
  int result = decoder.begin(props, dest, size);
  for (bool last = false; result == SZ_OK && !last && !decoder.ended();) {
    if (stop && stop()) return SZ_ERROR_PROGRESS;
    const size_t limit = std::min(size - decoder.written(), kSlice) + decoder.written();
    last = limit == size;
    size_t taken = 0;
    result = decoder.decode(limit, last, in.data() + *used, in.size() - *used, &taken);
    *used += taken;
  }
  if (result != SZ_OK) return result;
  return decoder.written() == size ? SZ_OK : SZ_ERROR_DATA;  // an end mark before the stored size
}

}  // namespace

int Lzma86_Decode(uint8_t *dest, size_t *destLen, const uint8_t *src, size_t *srcLen) {
  return Lzma86_DecodeUntil(dest, destLen, src, srcLen, {});
}

int Lzma86_DecodeUntil(uint8_t *dest, size_t *destLen, const uint8_t *src, size_t *srcLen,
                       const std::function<bool()> &stop) {
  const size_t room = *destLen;
  const size_t available = *srcLen;
  *destLen = *srcLen = 0;
  uint64_t stored = 0;
  const int header = Lzma86_GetUnpackSize(src, available, &stored);
  if (header != SZ_OK) return header;
  if (src[0] > 1) return SZ_ERROR_UNSUPPORTED;
  if (stored > room) return SZ_ERROR_OUTPUT_EOF;

  // (The SDK takes a full destination for success unless it is told that the stream must end
  // there.)
  const auto size = static_cast<size_t>(stored);
  const std::span<const uint8_t> in(src + LZMA86_HEADER_SIZE, available - LZMA86_HEADER_SIZE);
  size_t used = 0;
  const int result = decode_stream(dest, size, src + kPropsAt, in, &used, stop);
  *srcLen = LZMA86_HEADER_SIZE + used;
  if (result != SZ_OK) return result;
  if (src[0] == 1) compress::x86_decode({dest, size});
  *destLen = size;
  return SZ_OK;
}
