// Searching and replacing in a frame's content. The conventions of adif/frame.h hold.
//
// Searches give the content offset where a match begins, or -1: also for a null frame or pattern,
// an empty pattern, and an offset below 0. A forward search finds the first match that begins at
// `offset` or after it, a reverse search the last one that begins at `offset` or before it (an
// offset beyond the end means the whole content). Letter case is that of ASCII.
#pragma once

#include <cstdint>

#include "adif/frame.h"

/// By direct comparison.
int searchBytes(const frame_t *frame, int offset, const void *pattern, int n);
int reverseSearchBytes(const frame_t *frame, int offset, const void *pattern, int n);

/// The same results in linear time whatever the pattern (adif/kmp.h).
int kmpSearchBytes(const frame_t *frame, int offset, const void *pattern, int n);
int kmpReverseSearchBytes(const frame_t *frame, int offset, const void *pattern, int n);

int searchChar(const frame_t *frame, int offset, uint8_t byte);
int reverseSearchChar(const frame_t *frame, int offset, uint8_t byte);

/// For a NUL-terminated text, with case and without.
int searchString(const frame_t *frame, int offset, const char *text);
int searchCaseString(const frame_t *frame, int offset, const char *text);

/// 1 if the text is somewhere in the content, else 0.
int containString(const frame_t *frame, const char *text);

/// Compare the whole content with a text: below, equal to or above 0 as strcmp and strcasecmp. Null
/// counts as empty on either side.
int compareString(const frame_t *frame, const char *text);
int compareCaseString(const frame_t *frame, const char *text);

/// Replaces every occurrence, found from the front and not overlapping; a null or empty replacement
/// removes it. The number replaced; -1 for a null handle, a null or empty pattern or a negative
/// length; -1 for a failed growth, with the frame as it was.
int replacePattern(frame_t **handle, const void *pattern, int n, const void *with, int with_n);

/// Replaces up to `n` bytes from `offset` by other bytes. The length of those; -1 for a null
/// handle, a bad offset, a negative length, null bytes with a length, or a failed growth.
int replaceBytes(frame_t **handle, int offset, int n, const void *with, int with_n);
