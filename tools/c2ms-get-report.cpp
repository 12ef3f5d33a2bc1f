// Writes the outcome of one run of c2ms-get.
#include "tools/c2ms-get-report.h"

#include <c2ms.h>

#include <cinttypes>
#include <cmath>

#include "tools/c2ms-get-progress.h"
#include "tools/c2ms-get-stats.h"

namespace get {
namespace {

/// Length of the UTF-8 sequence at `at` (RFC 3629), 0 when there is none.
size_t utf8_length(const std::string &text, size_t at) {
  const auto byte = [&](size_t i) {
    return at + i < text.size() ? static_cast<uint8_t>(text[at + i]) : uint8_t{0};
  };
  const uint8_t lead = byte(0);
  const size_t length = lead < 0x80   ? 1
                        : lead < 0xC2 ? 0
                        : lead < 0xE0 ? 2
                        : lead < 0xF0 ? 3
                        : lead < 0xF5 ? 4
                                      : 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  const bool too_long = (lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xF0 && byte(1) < 0x90);
  const bool no_character = (lead == 0xED && byte(1) >= 0xA0) || (lead == 0xF4 && byte(1) >= 0x90);
  return too_long || no_character ? 0 : length;
}

std::string json_text(const std::string &text) {
  std::string out = "\"";
  for (size_t at = 0; at < text.size();) {
    const auto byte = static_cast<uint8_t>(text[at]);
    const size_t length = utf8_length(text, at);
    if (length == 0 || byte < 0x20 || byte == 0x7F) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
      out += escaped;
      ++at;
      continue;
    }
    if (byte == '"' || byte == '\\') out += '\\';
    out.append(text, at, length);
    at += length;
  }
  return out + '"';
}

double speed(const Report &report) {
  return report.fetch_s > 0 ? static_cast<double>(report.received) / report.fetch_s : 0;
}

}  // namespace

void fail(Report *report, const std::string &error) {
  if (!report->error.empty() || error.empty()) return;
  report->error = error;
}

void fail(Report *report, int32_t code) {
  if (!report->error.empty()) return;
  const char *const text = c2ms_sess_error(code);
  report->code = code;
  report->error = text && *text ? text : "the library failed";
}

int exit_status(const Report &report) {
  if (report.signal != 0) return 128 + report.signal;
  return report.error.empty() && report.received == report.length ? 0 : 1;
}

void print_error(const Report &report) {
  if (report.signal != 0) {
    std::fputs("c2ms-get: interrupted\n", stderr);
  } else if (report.code != 0) {
    std::fprintf(stderr, "c2ms-get: %s (%" PRId32 ")\n", report.error.c_str(), report.code);
  } else if (!report.error.empty()) {
    std::fprintf(stderr, "c2ms-get: %s\n", report.error.c_str());
  }
  if (report.received < report.length && report.received > 0) {
    std::fprintf(stderr, "c2ms-get: %" PRIu64 " of %" PRIu64 " bytes arrived and are kept\n",
                 report.received, report.length);
  }
}

void print_summary(const Report &report) {
  std::fprintf(stderr, "c2ms-get: %" PRIu64 " bytes in %.2f s (and %.2f s to open), %s/s\n",
               report.received, report.fetch_s, report.open_s,
               text_of_bytes(speed(report)).c_str());
  if (report.stats.struct_size != 0) print_stats(report.stats);
  if (!report.indexed) return;
  if (report.index_code < 0) {
    std::fprintf(stderr, "c2ms-get: the index failed (%" PRId32 ")\n", report.index_code);
    return;
  }
  std::fprintf(stderr,
               "c2ms-get: index of %" PRIu32 " bytes in %.2f s from %" PRIu32 " bytes, %" PRIu64
               " bytes of the media saved\n",
               report.index_size, report.index_s, report.index_fetched, report.index_saved);
}

void print_json(const Report &report, FILE *out) {
  const auto text = [out](const char *key, const std::string &value) {
    std::fprintf(out, "\"%s\": %s, ", key, value.empty() ? "null" : json_text(value).c_str());
  };
  const auto number = [out](const char *key, uint64_t value) {
    std::fprintf(out, "\"%s\": %" PRIu64 ", ", key, value);
  };
  std::fputc('{', out);
  text("url", report.url);
  text("output", report.output);
  text("fid", report.fid);
  text("name", report.name);
  number("type", report.type);
  number("media_size", report.media_size);
  number("offset", report.offset);
  number("length", report.length);
  number("received", report.received);
  std::fprintf(out, "\"open_s\": %.3f, \"fetch_s\": %.3f, \"bytes_per_s\": %.0f, ", report.open_s,
               report.fetch_s, std::floor(speed(report)));
  if (report.indexed) {
    std::fprintf(out, "\"index_code\": %" PRId32 ", \"index_s\": %.3f, ", report.index_code,
                 report.index_s);
    number("index_fetched", report.index_fetched);
    number("index_size", report.index_size);
    number("index_saved", report.index_saved);
  }
  text("sha256", report.sha256);
  std::fprintf(out, "\"verified\": %s, ", report.verified ? "true" : "false");
  if (report.stats.struct_size != 0) {
    std::fputs("\"stats\": ", out);
    print_stats_json(report.stats, out);
    std::fputs(", ", out);
  }
  std::fprintf(out, "\"signal\": %d, \"code\": %" PRId32 ", ", report.signal, report.code);
  text("error", report.error);
  std::fprintf(out, "\"status\": %d}\n", exit_status(report));
  std::fflush(out);
}

}  // namespace get
