// Searching, comparing and replacing in frames. See framesearch.h.
#include "adif/framesearch.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "adif/framext.h"
#include "adif/kmp.h"

namespace {

using find_fn = const uint8_t *(*)(const void *text, int len, const void *pattern, int n);

int find_from(find_fn find, const frame_t *frame, int offset, const void *pattern, int n) {
  if (!frame || !adif::offset_fits(frame, offset)) return -1;
  const uint8_t *content = bytePointer(frame);
  const uint8_t *found = find(content + offset, frame->length - offset, pattern, n);
  return found ? static_cast<int>(found - content) : -1;
}

int find_before(find_fn find, const frame_t *frame, int offset, const void *pattern, int n) {
  if (!frame || offset < 0 || n < 1) return -1;
  // The match may begin at the offset and therefore ends up to n bytes behind it.
  const int64_t end = std::min<int64_t>(int64_t{offset} + n, frame->length);
  const uint8_t *content = bytePointer(frame);
  const uint8_t *found = find(content, static_cast<int>(end), pattern, n);
  return found ? static_cast<int>(found - content) : -1;
}

std::string_view view(const frame_t *frame) {
  return {reinterpret_cast<const char *>(bytePointer(frame)),
          static_cast<size_t>(frameLength(frame))};
}

std::string_view view(const char *text) {
  return text ? text : std::string_view();
}

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool same_letter(char a, char b) {
  return lower(a) == lower(b);
}

int text_length(const char *text) {
  return static_cast<int>(std::min<size_t>(view(text).size(), INT32_MAX));
}

}  // namespace

int searchBytes(const frame_t *frame, int offset, const void *pattern, int n) {
  return find_from(str_find_bytes, frame, offset, pattern, n);
}

int reverseSearchBytes(const frame_t *frame, int offset, const void *pattern, int n) {
  return find_before(str_rfind_bytes, frame, offset, pattern, n);
}

int kmpSearchBytes(const frame_t *frame, int offset, const void *pattern, int n) {
  return find_from(kmp_find_bytes, frame, offset, pattern, n);
}

int kmpReverseSearchBytes(const frame_t *frame, int offset, const void *pattern, int n) {
  return find_before(kmp_rfind_bytes, frame, offset, pattern, n);
}

int searchChar(const frame_t *frame, int offset, uint8_t byte) {
  return searchBytes(frame, offset, &byte, 1);
}

int reverseSearchChar(const frame_t *frame, int offset, uint8_t byte) {
  return reverseSearchBytes(frame, offset, &byte, 1);
}

int searchString(const frame_t *frame, int offset, const char *text) {
  return searchBytes(frame, offset, text, text_length(text));
}

int searchCaseString(const frame_t *frame, int offset, const char *text) {
  const std::string_view wanted = view(text);
  if (wanted.empty() || !frame || !adif::offset_fits(frame, offset)) return -1;
  const std::string_view content = view(frame);
  const auto *found = std::search(content.begin() + offset, content.end(), wanted.begin(),
                                  wanted.end(), same_letter);
  return found == content.end() ? -1 : static_cast<int>(found - content.begin());
}

int containString(const frame_t *frame, const char *text) {
  return searchString(frame, 0, text) >= 0 ? 1 : 0;
}

int compareString(const frame_t *frame, const char *text) {
  return view(frame).compare(view(text));
}

int compareCaseString(const frame_t *frame, const char *text) {
  const std::string_view a = view(frame);
  const std::string_view b = view(text);
  const auto [at, bt] = std::mismatch(a.begin(), a.end(), b.begin(), b.end(), same_letter);
  // A text comes after its own beginning.
  if (at == a.end() || bt == b.end()) return (at != a.end()) - (bt != b.end());
  return static_cast<uint8_t>(lower(*at)) - static_cast<uint8_t>(lower(*bt));
}

int replacePattern(frame_t **handle, const void *pattern, int n, const void *with, int with_n) {
  if (!handle || !pattern || n < 1 || with_n < 0) return -1;
  if (!with) with_n = 0;
  // Built aside, so that the pattern and the replacement may be the frame's own bytes and a failure
  // costs nothing.
  frame_t *result = nullptr;
  int count = 0;
  int from = 0;
  int step = 0;
  for (int at; step >= 0 && (at = kmpSearchBytes(*handle, from, pattern, n)) >= 0; from = at + n) {
    step = appendFrameBytes(&result, *handle, from, at - from);
    if (step >= 0) step = putnLastBytes(&result, with, with_n);
    ++count;
  }
  if (count == 0) return 0;
  if (step >= 0) step = appendFrameBytes(&result, *handle, from, frameLength(*handle) - from);
  if (step >= 0 && !result && !(result = createFrame(0))) step = -1;
  if (step < 0) {
    deleteFrame(&result);
    return -1;
  }
  // The record stays: others may point at it, and it is linked in its queue.
  std::swap((*handle)->data, result->data);
  (*handle)->start = result->start;
  (*handle)->length = result->length;
  (*handle)->size = result->size;
  deleteFrame(&result);
  return count;
}

int replaceBytes(frame_t **handle, int offset, int n, const void *with, int with_n) {
  if (!handle || n < 0 || with_n < 0 || !adif::offset_fits(*handle, offset)) return -1;
  if (with_n > 0) {
    // Inserted first: a failure leaves the content whole.
    if (insertBytes(handle, offset, with, with_n) < 0) return -1;
    offset += with_n;
  }
  if (*handle) deleteMidBytes(*handle, offset, n);
  return with_n;
}
