// Bits, integers, base64 and hexadecimal text in frames. See framecodec.h.
#include "adif/framecodec.h"

#include <algorithm>
#include <cstring>

#include "adif/base64.h"
#include "adif/framext.h"
#include "adif/strutil.h"

namespace {

constexpr int too_short = -100;

/// Appends what `code(in, n, out)` writes, at most `most` bytes, behind the room's own content.
template <class Code>
int append_coded(const frame_t *from, frame_t **to, int64_t most, Code code) {
  if (!to || frameLength(from) < 1 || most > INT32_MAX) return -1;
  if (putnLastBytes(to, nullptr, static_cast<int>(most)) < 0) return -1;
  // Taken only now: `from` may be the frame that has just grown.
  const uint8_t *in = bytePointer(from);
  const int written = code(in, from->length, bytePointer(*to) + (*to)->length);
  if (written > 0) (*to)->length += written;
  return written;
}

const char *as_text(const uint8_t *bytes) {
  return reinterpret_cast<const char *>(bytes);
}

}  // namespace

int setBit(frame_t *frame, int bit, int value) {
  if (bit < 0 || bit / 8 >= frameLength(frame)) return -1;
  const auto mask = static_cast<uint8_t>(0x80U >> (bit % 8));
  uint8_t &byte = bytePointer(frame)[bit / 8];
  byte = static_cast<uint8_t>(value ? byte | mask : byte & ~mask);
  return 0;
}

int shiftBitLeft(frame_t *frame, int n) {
  if (!frame || n < 0) return -1;
  uint8_t *bytes = bytePointer(frame);
  // Beyond the content there are zeros, which are shifted in.
  const auto at = [&](int64_t i) { return i < frame->length ? bytes[i] : 0U; };
  for (int64_t i = 0; i < frame->length; ++i) {
    const int64_t from = i + n / 8;
    bytes[i] = static_cast<uint8_t>((at(from) << 8 | at(from + 1)) >> (8 - n % 8));
  }
  return 0;
}

int shiftBitRight(frame_t *frame, int n) {
  if (!frame || n < 0) return -1;
  uint8_t *bytes = bytePointer(frame);
  const auto at = [&](int64_t i) { return i >= 0 ? bytes[i] : 0U; };
  // From the end, so that a byte is read before it is overwritten.
  for (int64_t i = int64_t{frame->length} - 1; i >= 0; --i) {
    const int64_t from = i - n / 8;
    bytes[i] = static_cast<uint8_t>((at(from - 1) << 8 | at(from)) >> (n % 8));
  }
  return 0;
}

int peekUintvar(const frame_t *frame, int offset, uint32_t *value) {
  if (!frame || !adif::offset_fits(frame, offset)) return -1;
  return MBI2Uint(bytePointer(frame) + offset, frame->length - offset, value);
}

int extractUintvar(frame_t *frame, uint32_t *value) {
  const int used = peekUintvar(frame, 0, value);
  return used < 1 ? -1 : deleteBytes(frame, used);
}

int insertUintvar(frame_t **handle, int offset, uint32_t value) {
  uint8_t bytes[MBI_MAX_BYTES];
  return insertBytes(handle, offset, bytes, Uint2MBI(value, bytes));
}

int appendUintvar(frame_t **handle, uint32_t value) {
  uint8_t bytes[MBI_MAX_BYTES];
  return putnLastBytes(handle, bytes, Uint2MBI(value, bytes));
}

int decodeNetInt(const frame_t *frame, int offset, int width, uint64_t *value) {
  uint8_t bytes[8];
  if (width < 1 || width > 8 || peeknBytes(frame, offset, bytes, width) < width) return -1;
  uint64_t built = 0;
  for (int i = 0; i < width; ++i) built = built << 8 | bytes[i];
  if (value) *value = built;
  return width;
}

int encodeInt(frame_t **handle, uint64_t value, int width) {
  if (width < 1 || width > 8) return -1;
  uint8_t bytes[8];
  for (int i = 0; i < width; ++i) bytes[i] = static_cast<uint8_t>(value >> (8 * (width - 1 - i)));
  return putnLastBytes(handle, bytes, width);
}

int binToBase64(const frame_t *from, frame_t **to) {
  return append_coded(from, to, (int64_t{frameLength(from)} + 2) / 3 * 4,
                      [](const uint8_t *in, int n, uint8_t *out) {
                        return bin_to_base64(in, n, reinterpret_cast<char *>(out));
                      });
}

int base64ToBin(const frame_t *from, frame_t **to) {
  return append_coded(
      from, to, (int64_t{frameLength(from)} + 3) / 4 * 3,
      [](const uint8_t *in, int n, uint8_t *out) { return base64_to_bin(as_text(in), n, out); });
}

int frame_bin_to_ascii(const frame_t *from, frame_t **to) {
  return append_coded(from, to, int64_t{frameLength(from)} * 2,
                      [](const uint8_t *in, int n, uint8_t *out) {
                        return bin_to_ascii(in, n, reinterpret_cast<char *>(out), nullptr);
                      });
}

int frame_ascii_to_bin(const frame_t *from, frame_t **to) {
  return append_coded(from, to, int64_t{frameLength(from)} / 2 + 1,
                      [](const uint8_t *in, int n, uint8_t *out) {
                        return ascii_to_bin(as_text(in), n, out, nullptr);
                      });
}

int GetFirstByte(frame_t *frame, uint8_t *out) {
  return readByte(frame, out);
}

int GetnFirstBytes(frame_t *frame, void *out, int n) {
  return readnBytes(frame, out, n);
}

int GetLastByte(frame_t *frame, uint8_t *out) {
  return GetnLastBytes(frame, out, 1);
}

int GetnLastBytes(frame_t *frame, void *out, int n) {
  if (!frame || n < 0) return -1;
  if (n > frame->length) return too_short;
  getnLastBytes(frame, out, n);
  return 0;
}

int GetUintvar(frame_t *frame, uint32_t *value) {
  if (!frame) return -1;
  uint32_t built = 0;
  const int used = peekUintvar(frame, 0, &built);
  // MBI2Uint does not tell a number whose last byte is missing from a whole one.
  const bool cut = used < 1 || (used < MBI_MAX_BYTES && peekByte(frame, used - 1) >= 0x80);
  if (cut) return too_short;
  if (value) *value = built;
  deleteBytes(frame, used);
  return 0;
}

int StripBlanks(frame_t *frame) {
  if (!frame) return -1;
  const char *content = as_text(bytePointer(frame));
  if (!content) return 0;
  const char *first = skipOver(content, frame->length, " \t\n\v\f\r", 6);
  return deleteBytes(frame, static_cast<int>(first - content));
}
