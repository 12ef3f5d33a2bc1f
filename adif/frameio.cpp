// Frames to and from files, sockets and dumps. See frameio.h.
#include "adif/frameio.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "adif/fileutil.h"
#include "adif/framext.h"
#include "adif/kalloc.h"
#include "adif/trace.h"
#include "adif/tsock.h"

namespace {

/// Reserves `n` bytes of tail room and returns where they begin, null if they cannot be had.
uint8_t *tail_room(frame_t **handle, int n) {
  if (!handle || n < 1 || putnLastBytes(handle, nullptr, n) < 0) return nullptr;
  return bytePointer(*handle) + (*handle)->length;
}

}  // namespace

int appendFromFile(frame_t **handle, FILE *stream, int n) {
  if (!handle || !stream) return -1;
  uint8_t piece[4096];
  int total = 0;
  while (total < n) {
    const auto want = std::min(static_cast<size_t>(n - total), sizeof piece);
    const int got = static_cast<int>(std::fread(piece, 1, want, stream));
    if (got > 0 && putnLastBytes(handle, piece, got) < 0) return -1;
    total += got;
    if (static_cast<size_t>(got) < want) break;
  }
  // What was read before an error is there and counts.
  return total == 0 && n > 0 && std::ferror(stream) ? -1 : total;
}

int appendFile(frame_t **handle, const char *path) {
  int64_t size = 0;
  const adif::kptr<uint8_t> bytes(file_read(path, &size));
  if (!handle || !bytes || size > INT32_MAX) return -1;
  return putnLastBytes(handle, bytes.get(), static_cast<int>(size));
}

int writeToFile(const frame_t *frame, const char *path) {
  const int n = frameLength(frame);
  return frame && file_write(path, bytePointer(frame), n) == n ? n : -1;
}

int appendFromSocket(frame_t **handle, int fd, int n) {
  if (fd < 0) return -1;
  uint8_t *room = tail_room(handle, n);
  if (!room) return -1;
  ssize_t got;
  do {
    // Ready and empty can follow each other (a datagram with a wrong sum): waited for again.
    if (!sock_read_ready(fd, 0)) return -1;
    got = recv(fd, room, static_cast<size_t>(n), MSG_DONTWAIT);
  } while (got < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK));
  if (got < 0) return -1;
  (*handle)->length += static_cast<int>(got);
  return static_cast<int>(got);
}

int writeToSocket(const frame_t *frame, int fd) {
  if (!frame) return -1;
  return frame->length < 1 ? 0 : frame_tcp_send(fd, frame, 0, nullptr);
}

int frameRecv(frame_t **handle, int fd, int n) {
  return frame_tcp_nb_receive2(fd, handle, n, nullptr);
}

int frameSend(frame_t *frame, int fd) {
  if (!frame) return -1;
  if (frame->length < 1) return 0;
  const int sent = tcp_nb_send(fd, bytePointer(frame), frame->length);
  return sent < 1 ? sent : deleteBytes(frame, sent);
}

int frame_tcp_receive(int fd, frame_t **handle, int n, int timeout_ms, int *total_out) {
  if (total_out) *total_out = 0;
  if (fd == -1) return -1;
  uint8_t *room = tail_room(handle, n);
  if (!room) return -1;
  int total = 0;
  const int result = tcp_receive(fd, room, n, timeout_ms, &total);
  // Also after a failure: the caller may want what came.
  (*handle)->length += total;
  if (total_out) *total_out = total;
  return result;
}

int frame_tcp_send(int fd, const frame_t *frame, int timeout_ms, int *total_out) {
  if (total_out) *total_out = 0;
  return tcp_send(fd, bytePointer(frame), frameLength(frame), timeout_ms, total_out);
}

int printBytes(const frame_t *frame, int offset, int n) {
  return printToFile(frame, offset, n, stdout);
}

int printToFile(const frame_t *frame, int offset, int n, FILE *stream) {
  if (!frame || !adif::offset_fits(frame, offset)) return -1;
  const int count = std::min(n, frame->length - offset);
  return count < 1 ? 0 : printOctetToFile(stream, bytePointer(frame) + offset, count);
}

int outputFrame(const frame_t *frame, FILE *stream) {
  if (!frame || !stream) return -1;
  std::fprintf(stream, "frame: start %d length %d size %d tag %d\n", frame->start, frame->length,
               frame->size, frame->tag);
  const int lines = printToFile(frame, 0, frame->length, stream);
  return lines < 0 ? -1 : lines + 1;
}

int traverseCheck(const frame_t *frame) {
  int count = 0;
  for (; frame; frame = frame->next, ++count) {
    const bool ranges = frame->start >= 0 && frame->length >= 0 && frame->size >= 0 &&
                        int64_t{frame->start} + frame->length <= frame->size;
    if (!ranges || !frame->data || (frame->next && frame->next->prev != frame)) return -1;
  }
  return count;
}
