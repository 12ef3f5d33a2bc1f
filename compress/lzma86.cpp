// Unpacking the Lzma86 container: header, the SDK's decoder and filter put together.
#include "compress/lzma86.h"

#include <LzmaDec.h>

#include <algorithm>
#include <span>

#include "compress/lzma86_parts.h"
#include "compress/x86_filter.h"

namespace {

using namespace compress;

/// The SDK's decoder with its tables.
class Decoder {
 public:
  Decoder() { LzmaDec_Construct(&state_); }
  ~Decoder() { LzmaDec_FreeProbs(&state_, &sdk_memory); }
  Decoder(const Decoder &) = delete;
  Decoder &operator=(const Decoder &) = delete;

  int begin(const uint8_t *props, uint8_t *dest, size_t size) {
    const int result = LzmaDec_AllocateProbs(&state_, props, props_size, &sdk_memory);
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

int Lzma86_GetUnpackSize(const uint8_t *src, size_t srcLen, uint64_t *unpackSize) {
  if (srcLen < LZMA86_HEADER_SIZE) return SZ_ERROR_INPUT_EOF;
  uint64_t size = 0;
  for (size_t i = 0; i < sizeof size; ++i) size |= uint64_t{src[size_at + i]} << (8 * i);
  *unpackSize = size;
  return SZ_OK;
}

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
  const int result = decode_stream(dest, size, src + props_at, in, &used, stop);
  *srcLen = LZMA86_HEADER_SIZE + used;
  if (result != SZ_OK) return result;
  if (src[0] == 1) compress::x86_decode({dest, size});
  *destLen = size;
  return SZ_OK;
}
