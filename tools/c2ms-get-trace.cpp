// Collects the events that a session recorded and writes them as a trace.
#include "tools/c2ms-get-trace.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <memory>

#include "tools/c2ms-get-picture.h"

namespace get {
namespace {

constexpr int kRing = 1 << 16;       // events between two calls of collect()
constexpr size_t kMost = 4'000'000;  // events of one run that are kept
constexpr const char *kOutcome[] = {"filled its pack", "in vain", "given up"};
constexpr const char *kCause[] = {"no node", "late pack", "seek", "cancelled"};
constexpr const char *kState[] = {"gone",    "disconnected", "connecting", "connected",
                                  "listing", "describing",   "ready",      "downloading"};

using File = std::unique_ptr<FILE, int (*)(FILE *)>;

template <size_t size>
const char *named(const char *const (&names)[size], uint32_t index) {
  return index < size ? names[index] : "unknown";
}

void write_moment(FILE *out, const char *name) {
  std::fprintf(out, "\"name\": \"%s\", \"ph\": \"i\", \"s\": \"t\"", name);
}

void write_bytes(FILE *out, const c2ms_trace_event &event) {
  std::fprintf(out, ", \"args\": {\"pos\": %" PRIu64 ", \"bytes\": %" PRIu64 "}", event.pos,
               event.bytes);
}

// Writes the members of an event that depend on its kind: name, phase, arguments.
void write_kind(FILE *out, const c2ms_trace_event &event) {
  const auto complete = [&](const char *name) {
    std::fprintf(out, "\"name\": \"%s\", \"ph\": \"X\", \"dur\": %" PRId64, name,
                 event.duration_us);
  };
  switch (event.kind) {
    case C2MS_TRACE_REQUEST:
      complete(named(kOutcome, event.detail));
      break;
    case C2MS_TRACE_WAIT:
      complete((std::string("wait: ") + named(kCause, event.detail)).c_str());
      break;
    case C2MS_TRACE_SEEK:
      write_moment(out, "seek");
      break;
    case C2MS_TRACE_NODE:
      write_moment(out, named(kState, event.detail));
      break;
    default:
      std::fprintf(out,
                   "\"name\": \"place\", \"ph\": \"C\", \"args\": {\"position\": %" PRIu64
                   ", \"ring begin\": %" PRIu64 ", \"ring end\": %" PRIu64 "}",
                   event.pos, event.begin, event.begin + event.bytes);
      return;
  }
  write_bytes(out, event);
}

void write_json(FILE *out, const std::vector<c2ms_trace_event> &events) {
  std::fputs("{\"displayTimeUnit\": \"ms\", \"traceEvents\": [\n", out);
  std::fputs(
      "{\"name\": \"thread_name\", \"ph\": \"M\", \"pid\": 1, \"tid\": 0, "
      "\"args\": {\"name\": \"player\"}}",
      out);
  for (const Lane &lane : lanes_of(events)) {
    std::fprintf(out,
                 ",\n{\"name\": \"thread_name\", \"ph\": \"M\", \"pid\": 1, \"tid\": %" PRIu32
                 ", \"args\": {\"name\": \"%s\"}}",
                 lane.node, lane.name.c_str());
  }
  const auto begin = [out](const c2ms_trace_event &event, int64_t at_us) {
    std::fprintf(out, ",\n{\"pid\": 1, \"tid\": %" PRIu32 ", \"ts\": %" PRId64 ", ", event.node,
                 at_us);
  };
  for (const c2ms_trace_event &event : events) {
    begin(event, event.time_us);
    write_kind(out, event);
    std::fputc('}', out);
    if (!fills_pack(event)) continue;
    begin(event, end_of(event));
    write_moment(out, "pack");
    write_bytes(out, event);
    std::fputc('}', out);
  }
  std::fputs("\n]}\n", out);
}

template <class Write>
std::string write_file(const std::string &path, Write write) {
  if (path.empty()) return "";
  const File file(std::fopen(path.c_str(), "we"), std::fclose);
  if (!file) return "cannot write " + path;
  write(file.get());
  return std::fflush(file.get()) == 0 && std::ferror(file.get()) == 0 ? "" : "cannot write " + path;
}

}  // namespace

void Trace::begin(c2ms_sess *sess) {
  if (wanted()) c2ms_sess_trace(sess, kRing);
}

void Trace::collect(c2ms_sess *sess) {
  if (!wanted()) return;
  std::vector<c2ms_trace_event> some(1024);
  for (;;) {
    const int count =
        c2ms_sess_trace_read(sess, some.data(), static_cast<int>(some.size()), nullptr);
    for (int i = 0; i < count && events_.size() < kMost; ++i)
      events_.push_back(in_its_lane(some[static_cast<size_t>(i)]));
    if (count < static_cast<int>(some.size())) return;
  }
}

// A node sends its next request before the answer to the one before has ended. In its lane the
// later request is drawn from the end of the earlier one, so that they do not overlap.
c2ms_trace_event Trace::in_its_lane(c2ms_trace_event event) {
  if (event.kind != C2MS_TRACE_REQUEST) return event;
  int64_t &taken = lane_taken_us_[event.node];
  const int64_t end_us = end_of(event);
  event.time_us = std::min(std::max(event.time_us, taken), end_us);
  event.duration_us = end_us - event.time_us;
  taken = end_us;
  return event;
}

std::vector<Lane> lanes_of(const std::vector<c2ms_trace_event> &events) {
  std::vector<Lane> lanes;
  for (const c2ms_trace_event &event : events) {
    const bool known = std::any_of(lanes.begin(), lanes.end(),
                                   [&](const Lane &lane) { return lane.node == event.node; });
    if (event.node == 0 || known) continue;
    char address[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &event.address, address, sizeof address);
    lanes.push_back({event.node, std::string(address) + ":" + std::to_string(event.port)});
  }
  std::sort(lanes.begin(), lanes.end(),
            [](const Lane &a, const Lane &b) { return a.node < b.node; });
  return lanes;
}

std::string Trace::write(uint64_t media_size) const {
  const std::string problem = write_file(json_, [&](FILE *out) { write_json(out, events_); });
  if (!problem.empty()) return problem;
  return write_file(svg_, [&](FILE *out) { write_picture(out, events_, media_size); });
}

}  // namespace get
