// Editing a frame's bytes: adding, taking out, reading in place, removing, and whole frames. The
// conventions of adif/frame.h hold. Common results, unless a call says otherwise:
//
// clang-format off
//   call                      result                    count below 1   -1 for
//   adding                    the bytes added           0               a null handle, null bytes, a
//                                                                       bad offset, a failed growth
//   taking, reading and       the bytes passed: fewer   0               a null frame, a bad offset
//   removing runs             than asked at the end
//   single bytes              0 ... 255                                 no byte there
// clang-format on
//
// A null `out` drops the bytes. A bad offset is one below 0 or beyond the content's end.
#pragma once

#include "adif/frame.h"

/// Adding at the head; head room grows as needed, by 127 at a time for single bytes.
int putFirstByte(frame_t **handle, uint8_t byte);
int putnFirstBytes(frame_t **handle, const void *bytes, int n);

/// Appends `n` times the same byte.
int appendnBytes(frame_t **handle, uint8_t byte, int n);

/// Insert in front of the byte at `offset`; the content's length as the offset appends.
int insertByte(frame_t **handle, int offset, uint8_t byte);
int insertBytes(frame_t **handle, int offset, const void *bytes, int n);

/// Append another frame's content, or up to `n` bytes of it from `offset`. Null counts as empty.
int appendFrame(frame_t **handle, const frame_t *other);
int appendFrameBytes(frame_t **handle, const frame_t *other, int offset, int n);

/// Appends `*other`'s content, then deletes that frame and sets the pointer to null. An absent
/// frame takes over the other as it is. -1, with both as they were, for a frame given twice too.
int combineFrame(frame_t **handle, frame_t **other);

/// Replaces the array with the caller's, of `n` + 1 bytes from kalloc_dbg, which the frame now owns
/// and whose first `n` bytes become the content. Creates an absent frame. Returns `n`; -1, and the
/// array stays the caller's, for a null handle or array, `n` below 0 or no memory.
int attachBuffer(frame_t **handle, void *array, int n);

/// Taking out at the head, at the tail (in content order) and at an offset.
int getFirstByte(frame_t *frame);
int getnFirstBytes(frame_t *frame, void *out, int n);
int getLastByte(frame_t *frame);
int getnLastBytes(frame_t *frame, void *out, int n);
int getByte(frame_t *frame, int offset);
int getnBytes(frame_t *frame, int offset, void *out, int n);

/// Take from the head all that is asked or nothing. 0; -1 for null or a count below 0; -100 when
/// the content is too short.
int readByte(frame_t *frame, uint8_t *out);
int readnBytes(frame_t *frame, void *out, int n);

/// Reading without taking: one byte, a run, and the content's beginning into an array of `size`.
int peekByte(const frame_t *frame, int offset);
int peeknBytes(const frame_t *frame, int offset, void *out, int n);
int copyBytesToArray(const frame_t *frame, void *array, int size);

/// Overwrites the byte at `offset`. 1, or -1 when there is none.
int setByte(frame_t *frame, int offset, uint8_t byte);

/// As setByte, and appends at the content's end.
int writeByte(frame_t **handle, int offset, uint8_t byte);

/// Keeps the first `n` bytes (below 0 counts as 0). Returns the new length; -1 for null.
int truncateFrame(frame_t *frame, int n);

/// Remove the first `n` bytes, the last `n`, and up to `n` from `offset`.
int deleteBytes(frame_t *frame, int n);
int deleteRearBytes(frame_t *frame, int n);
int deleteMidBytes(frame_t *frame, int offset, int n);

/// A new frame with the same content and tag, free-standing and the caller's. Null for null or
/// without memory.
frame_t *copyFrame(const frame_t *frame);

/// Moves the content from `offset` on into a new frame, the caller's. Null, with nothing changed,
/// for null, a bad offset or without memory.
frame_t *splitFrame(frame_t *frame, int offset);

/// Compares contents byte by byte as memcmp, a prefix before what it begins: below, equal to or
/// above 0. Null counts as empty.
int frameCompare(const frame_t *a, const frame_t *b);

namespace adif {

/// Makes room for `n` >= 1 bytes in front of `offset` (0..length), as part of the content, and
/// returns where they go. Null, with the frame as it was, for a failed growth.
uint8_t *open_gap(frame_t **handle, int offset, int n);

/// True for 0 <= offset <= length.
inline bool offset_fits(const frame_t *frame, int offset) {
  return offset >= 0 && offset <= frameLength(frame);
}

}  // namespace adif
