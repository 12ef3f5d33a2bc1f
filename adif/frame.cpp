// The frame's record, its growth, the writers at its tail and reception from a socket.
#include "adif/frame.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "adif/kalloc.h"

namespace {

constexpr int grow_step = 127;
constexpr int first_byte_head_room = 63;
constexpr int worthwhile_head_room = 127;  // less is not worth moving the content for
constexpr int receive_piece = 8192;
constexpr int receive_limit = 256 * 1024;

int create_into(frame_t **handle, int64_t size) {
  if (size > INT32_MAX) return -1;
  *handle = createFrame(static_cast<int>(size));
  return *handle ? 0 : -1;
}

}  // namespace

namespace adif {

// Bytes that lie in the frame itself would move or be freed while it grows: they are copied first.
detached_bytes::detached_bytes(const frame_t *frame, const void *bytes, int n)
    : bytes_(static_cast<const uint8_t *>(bytes)) {
  if (!frame || !frame->data || !bytes || n < 1) return;
  const auto from = reinterpret_cast<uintptr_t>(bytes);
  const auto array = reinterpret_cast<uintptr_t>(frame->data);
  const bool own = from <= array + static_cast<uintptr_t>(frame->size) &&
                   array < from + static_cast<uintptr_t>(n);
  if (!own) return;
  bytes_ = copy_ = static_cast<uint8_t *>(kalloc_dbg(n));
  failed_ = !copy_;
  if (copy_) std::memcpy(copy_, bytes, static_cast<size_t>(n));
}

detached_bytes::~detached_bytes() {
  kfree_dbg(copy_);
}

}  // namespace adif

frame_t *createFrame(int size) {
  auto *frame = static_cast<frame_t *>(kzalloc_dbg(sizeof(frame_t)));
  if (!frame) return nullptr;
  frame->size = std::max(size, 0);
  // One byte more than its size, for the zero that frameString puts behind the content.
  frame->data = static_cast<uint8_t *>(kzalloc_dbg(int64_t{frame->size} + 1));
  if (!frame->data) {
    kfree_dbg(frame);
    return nullptr;
  }
  return frame;
}

void deleteFrame(frame_t **handle) {
  if (!handle || !*handle) return;
  kfree_dbg((*handle)->data);
  kfree_dbg(*handle);
  *handle = nullptr;
}

int emptyFrame(frame_t *frame) {
  if (!frame) return -1;
  frame->prev = frame->next = nullptr;
  frame->start = frame->length = frame->tag = 0;
  return 0;
}

int frameLength(const frame_t *frame) {
  return frame ? frame->length : 0;
}

int frameSize(const frame_t *frame) {
  return frame ? frame->size : 0;
}

int frameRemaining(const frame_t *frame) {
  return frame ? frame->size - frame->start - frame->length : 0;
}

int frameSetLength(frame_t *frame, int n) {
  if (!frame) return 0;
  if (n < 0 || n > frame->size - frame->start) return -1;
  frame->length = n;
  return n;
}

uint8_t *bytePointer(const frame_t *frame) {
  return frame && frame->data ? frame->data + frame->start : nullptr;
}

int frameGrow(frame_t **handle, int n) {
  if (!handle) return -1;
  if (n < 1) return 0;
  if (!*handle) return create_into(handle, n);
  frame_t *frame = *handle;
  // A large unused head is as good as new memory: the content moves to the front instead.
  if (n < frame->start && frame->length < frame->start && frame->start > worthwhile_head_room) {
    uint8_t *content = frame->data + frame->start;
    std::memmove(content - n, content, static_cast<size_t>(frame->length));
    frame->start -= n;
    return 0;
  }
  const int64_t size = int64_t{frame->size} + n;
  if (size > INT32_MAX) return -1;
  auto *data = static_cast<uint8_t *>(krealloc_dbg(frame->data, size + 1));
  if (!data) return -1;
  frame->data = data;
  frame->size = static_cast<int>(size);
  return 0;
}

int frameGrowTo(frame_t **handle, int n) {
  if (!handle) return -1;
  if (!*handle) return create_into(handle, n);
  // A reclaimed head room would leave the capacity as it was, so it is not offered here.
  frame_t *frame = *handle;
  if (n <= frame->size) return 0;
  auto *data = static_cast<uint8_t *>(krealloc_dbg(frame->data, int64_t{n} + 1));
  if (!data) return -1;
  frame->data = data;
  frame->size = n;
  return 0;
}

int frameGrowHead(frame_t **handle, int n) {
  if (!handle) return -1;
  if (n < 1 || (*handle && (*handle)->start > n)) return 0;
  // The head room is at most n here, so this growth never reclaims it.
  if (frameGrow(handle, n) < 0) return -1;
  frame_t *frame = *handle;
  uint8_t *content = frame->data + frame->start;
  std::memmove(content + n, content, static_cast<size_t>(frame->length));
  frame->start += n;
  return 0;
}

int putLastByte(frame_t **handle, uint8_t byte) {
  if (!handle) return -1;
  if (!*handle) {
    if (create_into(handle, grow_step) < 0) return -1;
    // Who adds single bytes at the tail may soon add some at the head.
    (*handle)->start = first_byte_head_room;
  }
  if (frameRemaining(*handle) < 1 && frameGrow(handle, grow_step) < 0) return -1;
  frame_t *frame = *handle;
  frame->data[frame->start + frame->length++] = byte;
  return 1;
}

int putnLastBytes(frame_t **handle, const void *bytes, int n) {
  if (!handle) return -1;
  if (n < 1) return 0;
  // The usual case: room is there, nothing grows, the two may overlap.
  if (frame_t *const frame = *handle; frame && bytes && frameRemaining(frame) >= n) {
    std::memmove(frame->data + frame->start + frame->length, bytes, static_cast<size_t>(n));
    frame->length += n;
    return n;
  }
  const adif::detached_bytes source(*handle, bytes, n);
  if (source.failed()) return -1;
  if (!*handle && create_into(handle, int64_t{n} + grow_step) < 0) return -1;
  const int room = frameRemaining(*handle);
  if (room < n && frameGrow(handle, n - room) < 0) return -1;
  // No bytes given: only room was asked for.
  if (!source.get()) return 0;
  frame_t *frame = *handle;
  std::memcpy(frame->data + frame->start + frame->length, source.get(), static_cast<size_t>(n));
  frame->length += n;
  return n;
}

int setnBytes(frame_t *frame, int offset, const void *bytes, int n) {
  if (!bytes || n < 1 || offset < 0 || offset >= frameLength(frame)) return -1;
  const int count = std::min(n, frame->length - offset);
  std::memmove(bytePointer(frame) + offset, bytes, static_cast<size_t>(count));
  return count;
}

int frame_tcp_nb_receive(int fd, frame_t **handle, int *total_out) {
  return frame_tcp_nb_receive2(fd, handle, receive_limit, total_out);
}

int frame_tcp_nb_receive2(int fd, frame_t **handle, int max, int *total_out) {
  if (total_out) *total_out = 0;
  if (fd == -1 || !handle || max < 1) return -1;
  uint8_t piece[receive_piece];
  int total = 0;
  while (total < max) {
    const auto want = static_cast<size_t>(std::min(max - total, receive_piece));
    const ssize_t got = recv(fd, piece, want, MSG_DONTWAIT);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && errno == EAGAIN) break;
    // The end of the stream too; what came before is in the frame and counted.
    if (got <= 0) return -1;
    if (putnLastBytes(handle, piece, static_cast<int>(got)) < 0) return -1;
    total += static_cast<int>(got);
    if (total_out) *total_out = total;
  }
  return total;
}
