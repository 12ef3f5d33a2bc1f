// Frames: a growable byte buffer with head room. The engine's users collect what a connection
// receives in one and parse messages out of it; outgoing messages are built in one.
//
//   data           start                    start+length          size
//    |  head room   |  content (length)      |  tail room          | +1 byte for a NUL
//
// Common to every operation of the family (frame.h, framext.h, frametext.h, framesearch.h,
// framecodec.h, frameio.h):
// - An operation that may create or reallocate takes a frame handle (the address of the caller's
//   pointer). A handle that holds null is a valid empty frame; the first write creates it.
// - Offsets count from the first content byte. Lengths never exceed INT32_MAX.
// - Bytes given to an operation are copied, and may be the frame's own.
// - A growth that fails (no memory, or beyond INT32_MAX) leaves the frame as it was; the operation
//   then returns -1.
// - A pointer into the content lasts until the next operation that may move it.
// - No locks: a frame belongs to one connection or one message at a time. Only the operations on
//   descriptors and files can block, as each says.
#pragma once

#include <cstdint>

struct frame_t {
  frame_t *prev;  // links of a chain, null for a free-standing frame
  frame_t *next;
  uint8_t *data;   // size + 1 bytes from kalloc_dbg
  int32_t start;   // offset of the first content byte in data
  int32_t length;  // content bytes; start + length <= size
  int32_t size;    // usable capacity
  int32_t tag;     // the owner's
};

/// A zeroed frame with room for `size` bytes (0 or less: none yet). Null without memory.
frame_t *createFrame(int size);

/// Frees the frame and sets the caller's pointer to null. A null handle or frame is ignored.
void deleteFrame(frame_t **handle);

/// Drops the content, the links and the tag; the array stays. 0, or -1 for null. Not for a frame
/// that is queued or chained: its links would be lost.
int emptyFrame(frame_t *frame);

/// Content bytes, capacity, and free tail room. 0 for null.
int frameLength(const frame_t *frame);
int frameSize(const frame_t *frame);
int frameRemaining(const frame_t *frame);

/// Makes `n` the content's length, keeping its start; bytes that become content by this are
/// whatever the array holds there. Returns `n`; 0 for null; -1, changing nothing, for `n` below 0
/// or beyond the capacity.
int frameSetLength(frame_t *frame, int n);

/// The first content byte, or null without a frame or an array.
uint8_t *bytePointer(const frame_t *frame);

/// Adds `n` bytes to the tail room. When the head room exceeds `n`, the content and 127, the
/// content moves towards the front instead, and nothing is allocated. Creates an absent frame
/// with a capacity of `n`. 0 (also for `n` < 1, which does nothing), -1 for a null handle or a
/// failed growth.
int frameGrow(frame_t **handle, int n);

/// Makes the capacity at least `n`; creates an absent frame. Results as frameGrow.
int frameGrowTo(frame_t **handle, int n);

/// Makes the head room at least `n`: with `n` or less there now, adds `n` to it. Creates an absent
/// frame. Results as frameGrow.
int frameGrowHead(frame_t **handle, int n);

/// Appends one byte. A frame begun by this has a capacity of 127 and 63 bytes of head room; a full
/// one grows by 127. Returns 1, or -1 for a null handle or a failed growth.
int putLastByte(frame_t **handle, uint8_t byte);

/// Appends `n` bytes; null `bytes` only reserves the room. An absent frame is created with a
/// capacity of `n` + 127; otherwise growth is by exactly the shortfall. Returns the bytes appended
/// (0 for `n` < 1 or null `bytes`), or -1 for a null handle or a failed growth.
int putnLastBytes(frame_t **handle, const void *bytes, int n);

/// Overwrites content in place from `offset`, never growing. Returns min(n, length - offset), the
/// bytes copied, or -1 for an empty frame, null `bytes`, `n` < 1 or an offset outside the content.
int setnBytes(frame_t *frame, int offset, const void *bytes, int n);

/// Appends what a stream socket has ready, in pieces of up to 8192 bytes and at most 256 KiB a
/// call; a level-triggered wait brings the rest. Never blocks, even on a blocking socket.
/// `*total_out` (may be null) receives the bytes appended, whatever the result.
/// Returns those bytes (0: nothing is ready), or -1 when the peer has closed, also after bytes
/// that this call appended and that stay in the frame; for a socket error; for `fd` -1 or a null
/// handle; and for a failed growth, when the last piece is lost.
int frame_tcp_nb_receive(int fd, frame_t **handle, int *total_out);

/// The same with at most `max` bytes; it stops, without looking for an end, when it has them.
/// -1 also for `max` < 1.
int frame_tcp_nb_receive2(int fd, frame_t **handle, int max, int *total_out);

namespace adif {

/// Bytes about to be written to a frame, copied aside first if they lie in that frame's own array,
/// which the write may move. For the frame family's own use.
class detached_bytes {
 public:
  detached_bytes(const frame_t *frame, const void *bytes, int n);
  ~detached_bytes();
  detached_bytes(const detached_bytes &) = delete;
  detached_bytes &operator=(const detached_bytes &) = delete;

  /// Null if the bytes were null, or if there was no memory for the copy (then failed() holds).
  const uint8_t *get() const { return bytes_; }
  bool failed() const { return failed_; }

 private:
  const uint8_t *bytes_;
  uint8_t *copy_ = nullptr;
  bool failed_ = false;
};

}  // namespace adif
