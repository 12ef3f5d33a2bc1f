// A frame's content as text. The conventions of adif/frame.h hold. Appending and prepending calls
// return the characters added, or -1 for a null handle, a null text or a failed growth; the NUL
// that ends a text never becomes content.
#pragma once

#include <cstdint>
#include <cstdio>

#include "adif/frame.h"

/// Puts a NUL behind the content, in room that every frame has, and returns the content. The NUL
/// lasts until the next write to the frame. Null without a frame or an array.
char *frameString(frame_t *frame);

/// Copy the content (copyFrameToString), or up to `n` bytes of it from `offset` (copyToString), and
/// a NUL to `out` of `size` bytes, cut to fit. The characters before the NUL; -1 for a null frame
/// or `out`, `size` < 1 or an offset below 0 or beyond the end.
int copyFrameToString(const frame_t *frame, char *out, int size);
int copyToString(const frame_t *frame, int offset, int n, char *out, int size);

/// Replaces the content with a NUL-terminated text. The new length, or -1 with the content kept.
int copyToFrame(frame_t **handle, const char *text);

int appendString(frame_t **handle, const char *text);
int prependString(frame_t **handle, const char *text);

/// The same with the text that printf would write. -1 also for a format error.
[[gnu::format(printf, 2, 3)]] int appendFormatString(frame_t **handle, const char *format, ...);
[[gnu::format(printf, 2, 3)]] int prependFormatString(frame_t **handle, const char *format, ...);

/// Appends a number in decimal.
int appendDecimal(frame_t **handle, int64_t value);

/// Writes the content to a stream as it is. The bytes written, 0 for an empty frame; -1 for a null
/// stream or a failed write.
int outString(const frame_t *frame, FILE *stream);

/// The number that the content begins with, as strtoll reads it in base 10: 0 without one, held at
/// the type's bounds beyond them.
int64_t frameToLong(frame_t *frame);

/// Removes white space from both ends. The new length, -1 for null.
int stripBlanks(frame_t *frame);
