// Editing a frame's bytes. See framext.h.
#include "adif/framext.h"

#include <algorithm>
#include <cstring>

#include "adif/kalloc.h"

namespace {

constexpr int head_step = 127;

/// The bytes of [offset, offset + n) that are content; -1 for a null frame or a bad offset.
int clip(const frame_t *frame, int offset, int n) {
  if (!frame || !adif::offset_fits(frame, offset)) return -1;
  return std::clamp(n, 0, frame->length - offset);
}

void move_bytes(uint8_t *to, const uint8_t *from, int n) {
  if (n > 0) std::memmove(to, from, static_cast<size_t>(n));
}

/// Takes a byte that is known to be there, or gives -1.
int take_byte(frame_t *frame, int offset) {
  const int byte = peekByte(frame, offset);
  if (byte >= 0) deleteMidBytes(frame, offset, 1);
  return byte;
}

}  // namespace

namespace adif {

uint8_t *open_gap(frame_t **handle, int offset, int n) {
  // Room at the head is made for insertions at the very front alone.
  if (offset == 0 && (!*handle || (*handle)->start < n)) {
    if (frameGrowHead(handle, n) < 0) return nullptr;
  }
  frame_t *frame = *handle;
  // The shorter part moves.
  if (frame->start >= n && offset <= frame->length / 2) {
    uint8_t *content = frame->data + frame->start;
    move_bytes(content - n, content, offset);
    frame->start -= n;
  } else {
    const int room = frameRemaining(frame);
    if (room < n && frameGrow(handle, n - room) < 0) return nullptr;
    uint8_t *at = frame->data + frame->start + offset;
    move_bytes(at + n, at, frame->length - offset);
  }
  frame->length += n;
  return frame->data + frame->start + offset;
}

}  // namespace adif

int putFirstByte(frame_t **handle, uint8_t byte) {
  if (!handle) return -1;
  // Many bytes at once, so that a run of single bytes costs one growth in 127.
  if ((!*handle || (*handle)->start == 0) && frameGrowHead(handle, head_step) < 0) return -1;
  return insertByte(handle, 0, byte);
}

int putnFirstBytes(frame_t **handle, const void *bytes, int n) {
  return insertBytes(handle, 0, bytes, n);
}

int appendnBytes(frame_t **handle, uint8_t byte, int n) {
  if (!handle) return -1;
  if (n < 1) return 0;
  if (putnLastBytes(handle, nullptr, n) < 0) return -1;
  frame_t *frame = *handle;
  std::memset(bytePointer(frame) + frame->length, byte, static_cast<size_t>(n));
  frame->length += n;
  return n;
}

int insertByte(frame_t **handle, int offset, uint8_t byte) {
  return insertBytes(handle, offset, &byte, 1);
}

int insertBytes(frame_t **handle, int offset, const void *bytes, int n) {
  if (!handle || !bytes || !adif::offset_fits(*handle, offset)) return -1;
  if (n < 1) return 0;
  // The bytes may be the frame's own, and growing would move them.
  const adif::detached_bytes source(*handle, bytes, n);
  if (source.failed()) return -1;
  uint8_t *gap = adif::open_gap(handle, offset, n);
  if (!gap) return -1;
  std::memcpy(gap, source.get(), static_cast<size_t>(n));
  return n;
}

int appendFrame(frame_t **handle, const frame_t *other) {
  return appendFrameBytes(handle, other, 0, frameLength(other));
}

int appendFrameBytes(frame_t **handle, const frame_t *other, int offset, int n) {
  if (!handle || !adif::offset_fits(other, offset)) return -1;
  const int count = std::min(n, frameLength(other) - offset);
  return count < 1 ? 0 : putnLastBytes(handle, bytePointer(other) + offset, count);
}

int combineFrame(frame_t **handle, frame_t **other) {
  if (!handle || !other || handle == other) return -1;
  if (!*other) return 0;
  // One frame under two names would be freed with its content taken over.
  if (*handle == *other) return -1;
  const int n = (*other)->length;
  if (!*handle) {
    *handle = *other;
    *other = nullptr;
    return n;
  }
  if (appendFrame(handle, *other) < 0) return -1;
  deleteFrame(other);
  return n;
}

int attachBuffer(frame_t **handle, void *array, int n) {
  if (!handle || !array || n < 0) return -1;
  if (!*handle && !(*handle = createFrame(0))) return -1;
  frame_t *frame = *handle;
  // Attached twice, it is not freed under its owner.
  if (frame->data != array) kfree_dbg(frame->data);
  frame->data = static_cast<uint8_t *>(array);
  frame->start = 0;
  frame->length = frame->size = n;
  return n;
}

int getFirstByte(frame_t *frame) {
  return take_byte(frame, 0);
}

int getnFirstBytes(frame_t *frame, void *out, int n) {
  return getnBytes(frame, 0, out, n);
}

int getLastByte(frame_t *frame) {
  return take_byte(frame, frameLength(frame) - 1);
}

int getnLastBytes(frame_t *frame, void *out, int n) {
  const int count = clip(frame, 0, n);
  return count < 1 ? count : getnBytes(frame, frame->length - count, out, count);
}

int getByte(frame_t *frame, int offset) {
  return take_byte(frame, offset);
}

int getnBytes(frame_t *frame, int offset, void *out, int n) {
  const int count = peeknBytes(frame, offset, out, n);
  return count < 1 ? count : deleteMidBytes(frame, offset, count);
}

int readByte(frame_t *frame, uint8_t *out) {
  return readnBytes(frame, out, 1);
}

int readnBytes(frame_t *frame, void *out, int n) {
  if (!frame || n < 0) return -1;
  if (n > frame->length) return -100;
  getnFirstBytes(frame, out, n);
  return 0;
}

int peekByte(const frame_t *frame, int offset) {
  return clip(frame, offset, 1) == 1 ? bytePointer(frame)[offset] : -1;
}

int peeknBytes(const frame_t *frame, int offset, void *out, int n) {
  const int count = clip(frame, offset, n);
  if (out && count > 0) std::memmove(out, bytePointer(frame) + offset, static_cast<size_t>(count));
  return count;
}

int copyBytesToArray(const frame_t *frame, void *array, int size) {
  return peeknBytes(frame, 0, array, size);
}

int setByte(frame_t *frame, int offset, uint8_t byte) {
  return setnBytes(frame, offset, &byte, 1);
}

int writeByte(frame_t **handle, int offset, uint8_t byte) {
  if (!handle || offset < 0) return -1;
  return offset == frameLength(*handle) ? putLastByte(handle, byte)
                                        : setByte(*handle, offset, byte);
}

int truncateFrame(frame_t *frame, int n) {
  if (!frame) return -1;
  frame->length = std::clamp(n, 0, frame->length);
  return frame->length;
}

int deleteBytes(frame_t *frame, int n) {
  return deleteMidBytes(frame, 0, n);
}

int deleteRearBytes(frame_t *frame, int n) {
  const int count = clip(frame, 0, n);
  if (count > 0) frame->length -= count;
  return count;
}

int deleteMidBytes(frame_t *frame, int offset, int n) {
  const int count = clip(frame, offset, n);
  if (count < 1) return count;
  uint8_t *content = bytePointer(frame);
  const int rear = frame->length - offset - count;
  // The shorter part moves: taking from the head costs no copy.
  if (offset < rear) {
    move_bytes(content + count, content, offset);
    frame->start += count;
  } else {
    move_bytes(content + offset, content + offset + count, rear);
  }
  frame->length -= count;
  return count;
}

frame_t *copyFrame(const frame_t *frame) {
  if (!frame) return nullptr;
  frame_t *copy = createFrame(frame->length);
  if (!copy) return nullptr;
  putnLastBytes(&copy, bytePointer(frame), frame->length);
  copy->tag = frame->tag;
  return copy;
}

frame_t *splitFrame(frame_t *frame, int offset) {
  if (!frame || !adif::offset_fits(frame, offset)) return nullptr;
  const int n = frame->length - offset;
  frame_t *rear = createFrame(n);
  if (!rear) return nullptr;
  putnLastBytes(&rear, bytePointer(frame) + offset, n);
  frame->length = offset;
  return rear;
}

int frameCompare(const frame_t *a, const frame_t *b) {
  const int common = std::min(frameLength(a), frameLength(b));
  const int order =
      common > 0 ? std::memcmp(bytePointer(a), bytePointer(b), static_cast<size_t>(common)) : 0;
  if (order != 0) return order;
  return frameLength(a) - frameLength(b);
}
