// A queue of whole frames. See framebuf.h.
#include "adif/framebuf.h"

#include "adif/kalloc.h"

frame_buf *createFrameBuf() {
  return static_cast<frame_buf *>(kzalloc_dbg(sizeof(frame_buf)));
}

int appendToBuf(frame_buf *buf, frame_t **handle) {
  if (!buf) return 0;
  if (!handle || frameLength(*handle) < 1) return buf->count;
  // The queue owns it from here on.
  frame_t *frame = *handle;
  *handle = nullptr;
  if (buf->tail) {
    buf->tail->next = frame;
  } else {
    buf->head = frame;
  }
  frame->prev = buf->tail;
  // A chain of frames goes in as a whole.
  for (; frame; frame = frame->next) {
    if (frame->next) frame->next->prev = frame;
    buf->tail = frame;
    ++buf->count;
  }
  return buf->count;
}

frame_t *getFrameOutofBuf(frame_buf *buf) {
  if (!buf || !buf->head) return nullptr;
  frame_t *frame = buf->head;
  buf->head = frame->next;
  if (buf->head) {
    buf->head->prev = nullptr;
  } else {
    buf->tail = nullptr;
  }
  --buf->count;
  frame->next = nullptr;
  return frame;
}

int frameBufNum(const frame_buf *buf) {
  return buf ? buf->count : 0;
}

int emptyFrameBuf(frame_buf *buf) {
  if (!buf) return -1;
  while (frame_t *frame = getFrameOutofBuf(buf)) deleteFrame(&frame);
  return 0;
}

void destroyFrameBuf(frame_buf **buf) {
  if (!buf || !*buf) return;
  emptyFrameBuf(*buf);
  kfree_dbg(*buf);
  *buf = nullptr;
}
