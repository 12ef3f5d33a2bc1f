// Frame buffer: a queue of whole frames, linked through `next` and `prev`. It owns the frames in
// it. No locks: one owner at a time.
#pragma once

#include "adif/frame.h"

struct frame_buf {
  int32_t count;
  frame_t *head;
  frame_t *tail;
};

/// An empty buffer, to be released with destroyFrameBuf. Null without memory.
frame_buf *createFrameBuf();

/// Moves the frame, or the chain of frames, at `*handle` to the tail, sets `*handle` to null and
/// returns the new count. A chain counts each of its frames. A null handle, or a null or empty
/// first frame, changes nothing (the caller keeps it): the count as it is. 0 for a null buffer.
int appendToBuf(frame_buf *buf, frame_t **handle);

/// Takes the head frame out, free-standing and the caller's to delete. Null when there is none.
frame_t *getFrameOutofBuf(frame_buf *buf);

/// The number of frames, 0 for null.
int frameBufNum(const frame_buf *buf);

/// Deletes the queued frames and keeps the buffer. 0, or -1 for null.
int emptyFrameBuf(frame_buf *buf);

/// Deletes the queued frames and the buffer, and sets the caller's pointer to null. Null ignored.
void destroyFrameBuf(frame_buf **buf);
