// The trace file and the dumps. See trace.h.
#include "adif/trace.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>

namespace {

constexpr const char *trace_name = "log.txt";
constexpr int bytes_per_line = 16;

std::mutex opening;  // only for opening and closing; writers rely on stdio's own lock
std::atomic<FILE *> trace_file{nullptr};
bool begun = false;  // under `opening`: the file has been emptied once

bool print_line(FILE *stream, const uint8_t *bytes, int offset, int count) {
  char hex[3 * bytes_per_line + 1] = "";
  char shown[bytes_per_line + 1] = "";
  for (int i = 0; i < count; ++i) {
    std::snprintf(hex + 3 * i, 4, "%02X ", bytes[offset + i]);
    shown[i] = tran_c2c(bytes[offset + i]);
  }
  return std::fprintf(stream, "0x%04x  %-*s %s\n", static_cast<unsigned>(offset),
                      3 * bytes_per_line, hex, shown) > 0;
}

}  // namespace

void initTrace() {
  const std::lock_guard<std::mutex> hold(opening);
  if (trace_file) return;
  // Only the first opening empties the file: what was traced before a destroyTrace stays.
  trace_file = std::fopen(trace_name, begun ? "ae" : "we");
  begun = begun || trace_file;
}

int tolog(const char *format, ...) {
  if (!format) return -1;
  if (!trace_file) initTrace();
  FILE *stream = trace_file;
  if (!stream) return -1;
  va_list arguments;
  va_start(arguments, format);
  const int written = std::vfprintf(stream, format, arguments);
  va_end(arguments);
  return written;
}

void destroyTrace() {
  const std::lock_guard<std::mutex> hold(opening);
  if (FILE *stream = trace_file.exchange(nullptr)) std::fclose(stream);
}

char tran_c2c(int byte) {
  return byte >= ' ' && byte <= '~' ? static_cast<char>(byte) : '.';
}

const char *get_name(const char *path) {
  if (!path) return nullptr;
  const char *slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

int printOctet(const void *bytes, int n) {
  return printOctetToFile(stdout, bytes, n);
}

int printOctetToFile(FILE *stream, const void *bytes, int n) {
  if (!stream || !bytes) return -1;
  int lines = 0;
  for (int offset = 0; offset < n; offset += bytes_per_line, ++lines) {
    const int count = std::min(n - offset, bytes_per_line);
    if (!print_line(stream, static_cast<const uint8_t *>(bytes), offset, count)) return -1;
    if (offset > n - bytes_per_line) return lines + 1;  // the next offset could overflow
  }
  return lines;
}
