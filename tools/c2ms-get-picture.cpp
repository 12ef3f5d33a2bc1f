// Draws a play. Time goes to the right, the place in the media goes upwards. Each request is a box
// in the colour of its server: its width is the duration, its height the part that it brought.
// Bytes that came early are a pale box until the reader, a line, has passed them. Below is a lane
// for each connection.
#include "tools/c2ms-get-picture.h"

#include <algorithm>
#include <cinttypes>
#include <string>

#include "tools/c2ms-get-progress.h"
#include "tools/c2ms-get-trace.h"

namespace get {
namespace {

using Events = std::vector<c2ms_trace_event>;

constexpr double kWidth = 900, kLeft = 128, kRight = 84, kTop = 84, kHeight = 300, kLane = 26;
constexpr const char *kServer[] = {"#3b7dd8", "#e8963d", "#4aa36c", "#9a62c7",
                                   "#2ba3b0", "#d06f9a", "#8f7a4f", "#66768a"};
constexpr const char *kInk = "#1d2b3a", *kGrid = "#e1e5ea", *kStall = "#d6322f",
                     *kAhead = "#ffd58a", *kSeek = "#8e5bd0", *kVain = "#c3c9d1";

constexpr int64_t kSecond = 1'000'000, kSame = 10'000;
constexpr int64_t kNoticed = 40'000;  // a viewer does not notice a shorter wait
constexpr int64_t kLong = 250'000;    // a longer wait in one place is always a stall

/// Where the reader was at one moment.
struct Point {
  int64_t us;
  uint64_t pos;
  bool jump;  // a seek led here
};

/// A wait of the reader in one place.
struct Wait {
  int64_t begin, end;
  uint64_t pos;
  bool stall;
};

struct Picture {
  FILE *out;
  const Events &events;
  double size, end_us = 1000;
  std::vector<Lane> lanes{};
  std::vector<Wait> waits{};
  std::vector<Point> reader{};

  double x(int64_t us) const {
    return kLeft + static_cast<double>(us) / end_us * (kWidth - kLeft - kRight);
  }
  double y(uint64_t pos) const {
    return kTop + kHeight - std::min(static_cast<double>(pos) / size, 1.0) * kHeight;
  }
  const char *colour_of(uint32_t node) const {
    for (size_t i = 0; i < lanes.size(); ++i)
      if (lanes[i].node == node) return kServer[i % std::size(kServer)];
    return kInk;
  }
};

std::string format(const char *form, double value) {
  char text[48];
  std::snprintf(text, sizeof text, form, value);
  return text;
}

std::string text_of_seconds(double us) {
  return format(us < 9'950'000 ? "%.1f s" : "%.0f s", us / kSecond);
}

void box(FILE *out, double x, double y, double width, double height, const char *fill,
         double opacity = 1) {
  std::fprintf(out, "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"%s\"", x, y,
               std::max(width, 0.0), std::max(height, 0.0), fill);
  if (opacity < 1) std::fprintf(out, " fill-opacity=\"%.2g\"", opacity);
  std::fputs("/>\n", out);
}

void text(FILE *out, double x, double y, const char *anchor, const std::string &words,
          const char *more = "") {
  std::fprintf(out, "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"%s\" %s>%s</text>\n", x, y, anchor,
               more, words.c_str());
}

// Waits in order of time. Waits in the same place that follow each other count as one.
std::vector<Wait> waits_of(const Events &events) {
  std::vector<Wait> waits;
  for (const c2ms_trace_event &event : events) {
    if (event.kind != C2MS_TRACE_WAIT) continue;
    Wait *const last = waits.empty() ? nullptr : &waits.back();
    if (last != nullptr && last->pos == event.pos && event.time_us - last->end < kSame) {
      last->end = end_of(event);
    } else {
      waits.push_back({event.time_us, end_of(event), event.pos, false});
    }
  }
  return waits;
}

// A reader that takes whatever arrives waits again and again while its place moves on, because the
// servers set the pace. A stall is a wait without a move, or a wait of a reader that had not been
// waiting.
void find_stalls(std::vector<Wait> *waits) {
  size_t first = 0;
  int64_t waited = 0;  // within the second before
  for (size_t i = 0; i < waits->size(); ++i) {
    Wait &wait = (*waits)[i];
    for (; (*waits)[first].end < wait.begin - kSecond; ++first)
      waited -= (*waits)[first].end - (*waits)[first].begin;
    const int64_t length = wait.end - wait.begin;
    const int64_t before = std::min(kSecond, wait.begin - waits->front().begin);
    wait.stall = length >= kLong || (length >= kNoticed && waited < before / 2);
    waited += length;
  }
}

// The places where the reader was, from recorded places and waits.
std::vector<Point> reader_of(const Events &events, const std::vector<Wait> &waits) {
  std::vector<Point> points;
  for (const c2ms_trace_event &event : events) {
    if (event.kind == C2MS_TRACE_PLACE || event.kind == C2MS_TRACE_SEEK)
      points.push_back({event.time_us, event.pos, event.kind == C2MS_TRACE_SEEK});
  }
  for (const Wait &wait : waits) {
    points.push_back({wait.begin, wait.pos, false});
    points.push_back({wait.end, wait.pos, false});
  }
  std::stable_sort(points.begin(), points.end(),
                   [](const Point &a, const Point &b) { return a.us < b.us; });
  return points;
}

/// The moment, `from_us` or later, at which the reader has passed the bytes before `pos`.
int64_t passed_at(const Picture &p, uint64_t pos, int64_t from_us) {
  const auto later = std::lower_bound(p.reader.begin(), p.reader.end(), from_us,
                                      [](const Point &a, int64_t us) { return a.us < us; });
  const auto there =
      std::find_if(later, p.reader.end(), [pos](const Point &a) { return a.pos >= pos; });
  return there == p.reader.end() ? static_cast<int64_t>(p.end_us) : there->us;
}

void draw_axes(const Picture &p, double bottom) {
  double step = 0.1;  // then 0.2, 0.5, 1, 2, 5, ...
  for (int i = 0; p.end_us / kSecond / step > 10; ++i) step *= i % 3 == 1 ? 2.5 : 2;
  for (double second = 0; second * kSecond <= p.end_us; second += step) {
    const double x = p.x(static_cast<int64_t>(second * kSecond));
    box(p.out, x - 0.5, kTop, 1, bottom - kTop, kGrid);
    text(p.out, x, bottom + 18, "middle", format("%.4g s", second));
  }
  for (int quarter = 0; quarter <= 4; ++quarter) {
    const double pos = p.size * quarter / 4, y = p.y(static_cast<uint64_t>(pos));
    box(p.out, kLeft, y - 0.5, kWidth - kLeft - kRight, 1, kGrid);
    text(p.out, kLeft - 10, y + 5, "end", text_of_bytes(pos));
  }
}

void draw_parts(const Picture &p) {
  for (const c2ms_trace_event &event : p.events) {
    if (!fills_pack(event)) continue;
    const double top = p.y(event.pos + event.bytes), x = p.x(end_of(event));
    const double height = std::max(p.y(event.pos) - top - 0.6, 0.8);
    const char *const colour = p.colour_of(event.node);
    const double begin = p.x(event.time_us);
    box(p.out, begin, top, std::max(x - begin, 1.5), height, colour, 0.85);
    box(p.out, x, top, p.x(passed_at(p, event.pos + event.bytes, end_of(event))) - x, height,
        colour, 0.22);
  }
}

void line(const Picture &p, const Wait &wait, const char *colour, double width) {
  std::fprintf(p.out,
               "<path d=\"M%.1f %.1fH%.1f\" stroke=\"%s\" stroke-width=\"%.1f\" "
               "stroke-linecap=\"round\"/>\n",
               p.x(wait.begin), p.y(wait.pos), p.x(wait.end), colour, width);
}

void draw_reader(const Picture &p) {
  for (const Wait &wait : p.waits)
    if (!wait.stall) line(p, wait, kAhead, 8);
  const char *form = "<path fill=\"none\" stroke=\"%s\" stroke-width=\"2.2\" d=\"";
  std::fprintf(p.out, form, kInk);
  char step = 'M';
  for (const Point &point : p.reader) {
    std::fprintf(p.out, "%c%.1f %.1f", point.jump ? 'M' : step, p.x(point.us), p.y(point.pos));
    step = 'L';
  }
  std::fputs("\"/>\n", p.out);
  for (const Point &point : p.reader)
    if (point.jump) box(p.out, p.x(point.us) - 0.8, kTop, 1.6, kHeight, kSeek, 0.8);
  for (const Wait &wait : p.waits)
    if (wait.stall) line(p, wait, kStall, 5);
}

void draw_lane(const Picture &p, const Lane &lane, double y) {
  box(p.out, kLeft, y, kWidth - kLeft - kRight, kLane - 6, "#f3f5f8");
  text(p.out, kLeft - 10, y + 15, "end", lane.name, "font-size=\"13\"");
  uint64_t bytes = 0;
  for (const c2ms_trace_event &event : p.events) {
    if (event.node != lane.node) continue;
    const double x = p.x(event.time_us), width = std::max(p.x(end_of(event)) - x - 0.6, 0.8);
    if (event.kind == C2MS_TRACE_REQUEST) {
      const bool given_up = event.detail > 1;
      box(p.out, x, y + 2, width, kLane - 10,
          fills_pack(event) ? p.colour_of(lane.node)
          : given_up        ? kStall
                            : kVain);
      bytes += event.bytes;
    }
    if (event.kind == C2MS_TRACE_NODE && event.detail <= 1)
      box(p.out, x - 1, y - 1, 2, kLane - 4, kStall);
  }
  text(p.out, kWidth - kRight + 8, y + 15, "start", text_of_bytes(static_cast<double>(bytes)));
}

// The legend explains only what the picture shows.
void draw_legend(const Picture &p) {
  const auto any = [&p](auto test) { return std::any_of(p.events.begin(), p.events.end(), test); };
  const auto waits = [&p](bool stall) {
    return std::any_of(p.waits.begin(), p.waits.end(),
                       [stall](const Wait &wait) { return wait.stall == stall; });
  };
  const auto ended = [](uint32_t from, uint32_t to) {
    return [from, to](const c2ms_trace_event &event) {
      return event.kind == C2MS_TRACE_REQUEST && event.detail >= from && event.detail <= to;
    };
  };
  const struct {
    bool seen;
    const char *colour;
    double opacity;
    const char *words;
  } entries[] = {
      {true, kInk, 1, "the reader"},
      {waits(false), kAhead, 1, "keeps up with the servers"},
      {waits(true), kStall, 1, "stalls"},
      {true, kServer[0], 0.85, "a part on its way"},
      {true, kServer[0], 0.22, "in the cache"},
      {any([](const auto &event) { return event.kind == C2MS_TRACE_SEEK; }), kSeek, 1, "seek"},
      {any(ended(1, 1)), kVain, 1, "in vain"},
      {any(ended(2, 9)), kStall, 1, "given up"},
  };
  double x = kLeft;
  for (const auto &entry : entries) {
    if (!entry.seen) continue;
    box(p.out, x, 56, 13, 13, entry.colour, entry.opacity);
    text(p.out, x + 18, 67, "start", entry.words);
    x += 36 + 7.4 * static_cast<double>(std::string(entry.words).size());
  }
}

void draw_title(const Picture &p) {
  uint64_t bytes = 0;
  for (const c2ms_trace_event &event : p.events)
    if (fills_pack(event)) bytes += event.bytes;
  int stalls = 0;
  int64_t stalled_us = 0;
  for (const Wait &wait : p.waits) {
    stalls += wait.stall;
    stalled_us += wait.stall ? wait.end - wait.begin : 0;
  }
  std::string words = text_of_bytes(static_cast<double>(bytes)) + " over " +
                      std::to_string(p.lanes.size()) + " connections in " +
                      text_of_seconds(p.end_us) + "; ";
  words += stalls == 0 ? "the reader never stalled"
                       : "the reader stalled " + std::to_string(stalls) +
                             (stalls == 1 ? " time, " : " times, ") +
                             text_of_seconds(static_cast<double>(stalled_us)) + " in all";
  text(p.out, 12, 28, "start", words, "font-size=\"18\" font-weight=\"bold\"");
}

}  // namespace

void write_picture(FILE *out, const Events &events, uint64_t media_size) {
  Picture p{out, events, static_cast<double>(std::max<uint64_t>(media_size, 1))};
  for (const c2ms_trace_event &event : events)
    p.end_us = std::max(p.end_us, static_cast<double>(end_of(event)));
  p.lanes = lanes_of(events);
  p.waits = waits_of(events);
  find_stalls(&p.waits);
  p.reader = reader_of(events, p.waits);
  const double lanes_top = kTop + kHeight + 20;
  const double bottom = lanes_top + kLane * static_cast<double>(p.lanes.size());
  std::fprintf(out,
               "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %.0f %.0f\" "
               "font-family=\"sans-serif\" font-size=\"14\" fill=\"%s\">\n",
               kWidth, bottom + 30, kInk);
  std::fputs("<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n", out);
  draw_title(p);
  draw_legend(p);
  draw_axes(p, bottom);
  draw_parts(p);
  draw_reader(p);
  for (size_t i = 0; i < p.lanes.size(); ++i)
    draw_lane(p, p.lanes[i], lanes_top + kLane * static_cast<double>(i));
  std::fputs("</svg>\n", out);
}

}  // namespace get
