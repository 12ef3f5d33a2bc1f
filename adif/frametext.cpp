// Texts in frames: C strings, formatted text, numbers. See frametext.h.
#include "adif/frametext.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "adif/framext.h"
#include "adif/kalloc.h"
#include "adif/strutil.h"

namespace {

/// The length of a text that a frame can hold, else -1.
int text_length(const char *text) {
  const size_t n = text ? std::strlen(text) : SIZE_MAX;
  return n <= INT32_MAX ? static_cast<int>(n) : -1;
}

/// printf's text on the heap, null for a format error or without memory.
adif::kptr<char> format_text(const char *format, va_list arguments) {
  if (!format) return nullptr;
  // The first pass measures, the second writes.
  va_list again;
  va_copy(again, arguments);
  const int n = std::vsnprintf(nullptr, 0, format, arguments);
  adif::kptr<char> text(n < 0 ? nullptr : static_cast<char *>(kalloc_dbg(int64_t{n} + 1)));
  if (text) std::vsnprintf(text.get(), static_cast<size_t>(n) + 1, format, again);
  va_end(again);
  return text;
}

}  // namespace

char *frameString(frame_t *frame) {
  uint8_t *content = bytePointer(frame);
  if (!content) return nullptr;
  // Every array has a byte for this behind its size.
  content[frame->length] = '\0';
  return reinterpret_cast<char *>(content);
}

int copyFrameToString(const frame_t *frame, char *out, int size) {
  return copyToString(frame, 0, frameLength(frame), out, size);
}

int copyToString(const frame_t *frame, int offset, int n, char *out, int size) {
  if (!out || size < 1) return -1;
  const int count = peeknBytes(frame, offset, out, std::min(n, size - 1));
  out[std::max(count, 0)] = '\0';
  return count;
}

int copyToFrame(frame_t **handle, const char *text) {
  const int n = text_length(text);
  if (!handle || n < 0) return -1;
  // Appended before the old content goes: the text may be a part of it.
  const int old = frameLength(*handle);
  if (appendString(handle, text) < 0) return -1;
  if (!*handle && !(*handle = createFrame(0))) return -1;
  deleteBytes(*handle, old);
  return n;
}

int appendString(frame_t **handle, const char *text) {
  const int n = text_length(text);
  return n < 0 ? -1 : putnLastBytes(handle, text, n);
}

int prependString(frame_t **handle, const char *text) {
  const int n = text_length(text);
  return n < 0 ? -1 : putnFirstBytes(handle, text, n);
}

int appendFormatString(frame_t **handle, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const adif::kptr<char> text = format_text(format, arguments);
  va_end(arguments);
  return appendString(handle, text.get());
}

int prependFormatString(frame_t **handle, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const adif::kptr<char> text = format_text(format, arguments);
  va_end(arguments);
  return prependString(handle, text.get());
}

int appendDecimal(frame_t **handle, int64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "%" PRId64, value);
  return appendString(handle, text);
}

int outString(const frame_t *frame, FILE *stream) {
  if (!stream) return -1;
  const auto n = static_cast<size_t>(frameLength(frame));
  if (n == 0) return 0;
  return std::fwrite(bytePointer(frame), 1, n, stream) == n ? static_cast<int>(n) : -1;
}

int64_t frameToLong(frame_t *frame) {
  const char *text = frameString(frame);
  return text ? std::strtoll(text, nullptr, 10) : 0;
}

int stripBlanks(frame_t *frame) {
  if (!frame) return -1;
  const char *content = reinterpret_cast<const char *>(bytePointer(frame));
  if (!content) return 0;
  frame->length = str_trim_tail(content, frame->length);
  const char *first = skipOver(content, frame->length, " \t\n\v\f\r", 6);
  deleteBytes(frame, static_cast<int>(first - content));
  return frame->length;
}
