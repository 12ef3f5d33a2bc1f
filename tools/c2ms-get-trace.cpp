// A run as trace and picture. Times in the picture are seconds, places bytes of the media.
#include "tools/c2ms-get-trace.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <memory>

#include "tools/c2ms-get-progress.h"

namespace get {
namespace {

constexpr int kRing = 1 << 16;       // events between two looks
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

/// A connection has a lane of its own.
struct Lane {
  uint32_t node;
  std::string name;
};

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

int64_t end_of(const c2ms_trace_event &event) {
  return event.time_us + event.duration_us;
}

// The end of such a request is the moment at which its pack is complete.
bool fills_pack(const c2ms_trace_event &event) {
  return event.kind == C2MS_TRACE_REQUEST && event.detail == 0;
}

void write_moment(FILE *out, const char *name) {
  std::fprintf(out, "\"name\": \"%s\", \"ph\": \"i\", \"s\": \"t\"", name);
}

void write_bytes(FILE *out, const c2ms_trace_event &event) {
  std::fprintf(out, ", \"args\": {\"pos\": %" PRIu64 ", \"bytes\": %" PRIu64 "}", event.pos,
               event.bytes);
}

// The members of an event that depend on its kind: name, phase, arguments.
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

constexpr double kLeft = 150, kWidth = 1000, kTop = 60, kHeight = 260, kLane = 26;
constexpr const char *kColour[] = {"#3b7dd8", "#e8a33d", "#d64545"};

// The picture's two scales.
struct Scale {
  double end_us, size;
  double x(int64_t us) const { return kLeft + static_cast<double>(us) / end_us * kWidth; }
  double y(uint64_t pos) const {
    return kTop + kHeight - std::min(static_cast<double>(pos) / size, 1.0) * kHeight;
  }
};

void rectangle(FILE *out, double x, double y, double width, double height, const char *style) {
  std::fprintf(out, "<rect x=\"%.2f\" y=\"%.2f\" width=\"%.2f\" height=\"%.2f\" %s/>\n", x, y,
               std::max(width, 0.0), std::max(height, 0.0), style);
}

void text(FILE *out, double x, double y, const char *anchor, const std::string &words) {
  std::fprintf(out, "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"%s\">%s</text>\n", x, y, anchor,
               words.c_str());
}

void draw_axes(FILE *out, const Scale &scale, double bottom) {
  double step = 0.1;  // then 0.2, 0.5, 1, 2, 5, ...
  for (int i = 0; scale.end_us / 1e6 / step > 10; ++i) step *= i % 3 == 1 ? 2.5 : 2;
  for (double second = 0; second * 1e6 <= scale.end_us; second += step) {
    const double x = scale.x(static_cast<int64_t>(second * 1e6));
    rectangle(out, x, kTop, 0.5, bottom - kTop, "fill=\"#d9dee5\"");
    char label[32];
    std::snprintf(label, sizeof label, "%.4g s", second);
    text(out, x, bottom + 16, "middle", label);
  }
  for (int quarter = 0; quarter <= 4; ++quarter) {
    const double pos = scale.size * quarter / 4;
    const double y = scale.y(static_cast<uint64_t>(pos));
    rectangle(out, kLeft, y, kWidth, 0.5, "fill=\"#d9dee5\"");
    text(out, kLeft - 8, y + 4, "end", text_of_bytes(pos));
  }
}

// The ring's range as a band from each place to the next, packs as they come, the position over
// all.
void draw_play(FILE *out, const Scale &scale, const std::vector<c2ms_trace_event> &events) {
  const c2ms_trace_event *last = nullptr;
  const auto band = [&](int64_t until) {
    if (last == nullptr) return;
    const double top = scale.y(last->begin + last->bytes);
    rectangle(out, scale.x(last->time_us), top, scale.x(until) - scale.x(last->time_us) + 0.3,
              scale.y(last->begin) - top, "fill=\"#dcebfb\"");
  };
  for (const c2ms_trace_event &event : events) {
    if (event.kind != C2MS_TRACE_PLACE) continue;
    band(event.time_us);
    last = &event;
  }
  band(static_cast<int64_t>(scale.end_us));
  for (const c2ms_trace_event &event : events) {
    const double x = scale.x(event.time_us);
    if (fills_pack(event))
      rectangle(out, scale.x(end_of(event)) - 1, scale.y(event.pos + event.bytes), 2,
                std::max(scale.y(event.pos) - scale.y(event.pos + event.bytes), 1.0),
                "fill=\"#57a773\"");
    if (event.kind == C2MS_TRACE_SEEK) rectangle(out, x, kTop, 1, kHeight, "fill=\"#8e5bd0\"");
    if (event.kind == C2MS_TRACE_WAIT)
      rectangle(out, x, kTop + kHeight - 5, std::max(scale.x(end_of(event)) - x, 0.5), 5,
                "fill=\"#d64545\" fill-opacity=\"0.7\"");
  }
  std::fputs("<polyline fill=\"none\" stroke=\"#1d2b3a\" stroke-width=\"1.6\" points=\"", out);
  last = nullptr;
  for (const c2ms_trace_event &event : events) {
    if (event.kind != C2MS_TRACE_PLACE) continue;
    if (last != nullptr)
      std::fprintf(out, "%.2f,%.2f ", scale.x(event.time_us), scale.y(last->pos));
    std::fprintf(out, "%.2f,%.2f ", scale.x(event.time_us), scale.y(event.pos));
    last = &event;
  }
  std::fputs("\"/>\n", out);
}

void draw_lane(FILE *out, const Scale &scale, const std::vector<c2ms_trace_event> &events,
               const Lane &lane, double y) {
  rectangle(out, kLeft, y, kWidth, kLane - 6, "fill=\"#f3f5f8\" rx=\"3\"");
  text(out, kLeft - 8, y + 14, "end", lane.name);
  for (const c2ms_trace_event &event : events) {
    if (event.node != lane.node) continue;
    const double x = scale.x(event.time_us);
    if (event.kind == C2MS_TRACE_REQUEST) {
      char style[64];
      std::snprintf(style, sizeof style, "fill=\"%s\" rx=\"1.5\"",
                    event.detail < std::size(kColour) ? kColour[event.detail] : "#999999");
      rectangle(out, x, y + 2, std::max(scale.x(end_of(event)) - x - 0.4, 0.6), kLane - 10, style);
    }
    if (event.kind == C2MS_TRACE_NODE && event.detail <= 1)
      rectangle(out, x - 1, y - 1, 2, kLane - 4, "fill=\"#d64545\"");
  }
}

void draw_legend(FILE *out) {
  constexpr struct {
    const char *colour, *words;
  } entries[] = {{"#1d2b3a", "position"},       {"#dcebfb", "what the cache is placed for"},
                 {"#57a773", "pack complete"},  {"#8e5bd0", "seek"},
                 {"#d64545", "wait, given up"}, {"#3b7dd8", "request filled its pack"},
                 {"#e8a33d", "request in vain"}};
  double x = kLeft;
  for (const auto &entry : entries) {
    const std::string style = std::string("fill=\"") + entry.colour + "\" rx=\"2\"";
    rectangle(out, x, 32, 12, 12, style.c_str());
    text(out, x + 17, 42, "start", entry.words);
    x += 38 + 6.2 * static_cast<double>(std::string(entry.words).size());
  }
}

void write_svg(FILE *out, const std::vector<c2ms_trace_event> &events, uint64_t media_size) {
  Scale scale{1000, static_cast<double>(std::max<uint64_t>(media_size, 1))};
  for (const c2ms_trace_event &event : events)
    scale.end_us = std::max(scale.end_us, static_cast<double>(end_of(event)));
  const std::vector<Lane> lanes = lanes_of(events);
  const double lanes_top = kTop + kHeight + 18;
  const double bottom = lanes_top + kLane * static_cast<double>(lanes.size());
  std::fprintf(out,
               "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
               "font-family=\"sans-serif\" font-size=\"11\" fill=\"#1d2b3a\">\n",
               kLeft + kWidth + 40, bottom + 34);
  std::fputs("<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n", out);
  text(out, kLeft, 20, "start", "The play over time, and what each connection did for it");
  draw_legend(out);
  draw_axes(out, scale, bottom);
  draw_play(out, scale, events);
  for (size_t i = 0; i < lanes.size(); ++i)
    draw_lane(out, scale, events, lanes[i], lanes_top + kLane * static_cast<double>(i));
  std::fputs("</svg>\n", out);
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

// A node is asked anew while the answer before is copied: in its lane that request begins where the
// former one ends.
c2ms_trace_event Trace::in_its_lane(c2ms_trace_event event) {
  if (event.kind != C2MS_TRACE_REQUEST) return event;
  int64_t &taken = lane_taken_us_[event.node];
  const int64_t end_us = end_of(event);
  event.time_us = std::min(std::max(event.time_us, taken), end_us);
  event.duration_us = end_us - event.time_us;
  taken = end_us;
  return event;
}

std::string Trace::write(uint64_t media_size) const {
  const std::string problem = write_file(json_, [&](FILE *out) { write_json(out, events_); });
  if (!problem.empty()) return problem;
  return write_file(svg_, [&](FILE *out) { write_svg(out, events_, media_size); });
}

}  // namespace get
