// Draws the results of a run: six panels with a row for every setting and a dot in it for every
// size of packs. The line at 1 and the better side of it should catch the eye first.
#include <algorithm>
#include <cstdio>
#include <memory>

#include "bench/results.h"

namespace bench {

namespace {

using file = std::unique_ptr<std::FILE, int (*)(std::FILE *)>;

struct panel {
  const char *title;
  const char *note;
  double most;  // end of its axis
  bool more_is_better;
  bool (*shows)(const finding &);
};

bool has(const std::string &text, const char *words) {
  return text.find(words) != std::string::npos;
}

constexpr panel panels[] = {
    {"Speed", "a bare client is 1; split: a processor each, one: one for all", 1.5, true,
     [](const finding &f) { return f.section == "throughput" && f.more_is_better; }},
    {"Processor time", "for the same bytes; a bare client is 1", 1.5, false,
     [](const finding &f) { return f.section == "throughput" && !f.more_is_better; }},
    {"Processor time beside other programs", "for the same bytes; the other one is 1", 1.5, false,
     [](const finding &f) {
       return f.section == "beside others" && !f.more_is_better && !has(f.what, "the limit");
     }},
    {"Uneven and distant servers", "all that their rates and delays allow is 1", 1.5, true,
     [](const finding &f) { return f.section == "aggregation" || f.section == "delay"; }},
    {"First byte after a seek", "the bound for this delay is 1", 1.5, false,
     [](const finding &f) { return f.section == "seek"; }},
    {"What else is bounded", "open: round trips + 5 ms; others: without it is 1", 1.5, false,
     [](const finding &f) {
       return f.section == "open" || f.section == "recorder" || has(f.section, "with the index") ||
              has(f.what, "read_at");
     }},
};

constexpr double width = 900, column = width / 2, label = 150, strip = 200;
constexpr double row_height = 23, panel_height = 176, top = 74;

struct pack_colour {
  const char *words, *colour;
};
constexpr pack_colour colours[] = {{"8 KiB", "#8fc1ee"},
                                   {"16 KiB", "#6ba6e0"},
                                   {"64 KiB", "#3f86d0"},
                                   {"256 KiB", "#1f5aa6"},
                                   {"1024 KiB", "#0c2f63"}};
constexpr const char *no_pack = "#57606a", *missed = "#d6322f";

// A row stands for a setting without its pack size.
struct row {
  std::string name;
  std::vector<const finding *> findings{};
};

void cut(std::string *text, const std::string &words) {
  const size_t at = text->find(words);
  if (at != std::string::npos) text->erase(at, words.size());
}

const pack_colour *pack_of(const finding &f) {
  for (const pack_colour &c : colours) {
    const size_t at = f.what.find(c.words);
    if (at != std::string::npos && (at == 0 || f.what[at - 1] == ' ')) return &c;
  }
  return nullptr;
}

std::string name_of(const finding &f) {
  if (f.section == "open") return "open, 20 ms";
  if (f.section == "recorder") return "recorder on / off";
  if (f.section == "two places") return "two places / one";
  if (has(f.section, "with the index")) return "start with an index";
  std::string name = f.what;
  if (const pack_colour *const pack = pack_of(f)) {
    for (const char *before : {", ours at ", ", ", " "})
      cut(&name, before + std::string(pack->words));
  }
  name = name.substr(0, name.find(", ring"));
  cut(&name, " ranges");
  cut(&name, " -x4 -s4 -k1M");
  return name;
}

std::vector<row> rows_of(const panel &p, const std::vector<finding> &all) {
  std::vector<row> rows;
  for (const finding &f : all) {
    if (f.beside <= 0 || !p.shows(f)) continue;
    const std::string name = name_of(f);
    const auto same = [&name](const row &r) { return r.name == name; };
    auto at = std::find_if(rows.begin(), rows.end(), same);
    if (at == rows.end()) at = rows.insert(at, row{name});
    at->findings.push_back(&f);
  }
  return rows;
}

void text(std::FILE *to, double x, double y, const char *more, const std::string &words) {
  std::fprintf(to, "<text x=\"%.1f\" y=\"%.1f\" %s>%s</text>\n", x, y, more, words.c_str());
}

void draw_row(std::FILE *to, const panel &p, const row &r, double left, double y) {
  const auto x = [&](double ratio) {
    return left + label + std::clamp(ratio / p.most, 0.0, 1.0) * strip;
  };
  text(to, left + label - 10, y + 5, "text-anchor=\"end\"", r.name);
  std::fprintf(to, "<path d=\"M%.1f %.1fh%.1f\" stroke=\"#d0d6dd\"/>\n", x(0), y, strip);
  double low = 1e9, high = 0;
  for (const finding *f : r.findings) {
    low = std::min(low, f->ratio());
    high = std::max(high, f->ratio());
    const pack_colour *const pack = pack_of(*f);
    std::fprintf(to, "<circle cx=\"%.1f\" cy=\"%.1f\" r=\"5.5\" fill=\"%s\" stroke=\"%s\"%s/>\n",
                 x(f->ratio()), y, pack != nullptr ? pack->colour : no_pack,
                 f->reached() ? "white" : missed, f->reached() ? "" : " stroke-width=\"2.5\"");
  }
  char range[48];
  std::snprintf(range, sizeof range, high - low < 0.01 ? "%.2f" : "%.2f to %.2f", low, high);
  text(to, left + label + strip + 10, y + 5, "fill=\"#57606a\"", range);
}

void draw_panel(std::FILE *to, const panel &p, const std::vector<row> &rows, double left,
                double y) {
  text(to, left + 12, y + 18, "font-size=\"16\" font-weight=\"bold\"", p.title);
  text(to, left + 12, y + 36, "fill=\"#57606a\"", p.note);
  const double one = left + label + strip / p.most, begin = left + label;
  const double from = y + 44, height = row_height * static_cast<double>(rows.size()) + 6;
  std::fprintf(to,
               "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"#e8f4ea\"/>\n",
               p.more_is_better ? one : begin, from,
               p.more_is_better ? begin + strip - one : one - begin, height);
  std::fprintf(to, "<path d=\"M%.1f %.1fv%.1f\" stroke=\"#1d2b3a\" stroke-width=\"1.5\"/>\n", one,
               from, height);
  for (size_t i = 0; i < rows.size(); ++i)
    draw_row(to, p, rows[i], left, from + 14.5 + row_height * static_cast<double>(i));
  for (const double mark : {0.0, 0.5, 1.0, 1.5}) {
    char number[16];
    std::snprintf(number, sizeof number, mark < p.most ? "%g" : "%g+", mark);
    text(to, begin + mark / p.most * strip, from + height + 15,
         "text-anchor=\"middle\" font-size=\"12\" fill=\"#57606a\"", number);
  }
}

void draw_legend(std::FILE *to) {
  double x = 12;
  const auto entry = [&](const char *colour, const char *ring, const std::string &words) {
    std::fprintf(to,
                 "<circle cx=\"%.1f\" cy=\"50\" r=\"5.5\" fill=\"%s\" stroke=\"%s\" "
                 "stroke-width=\"2.5\"/>\n",
                 x + 6, colour, ring);
    text(to, x + 17, 55, "", words);
    x += 32 + 8 * static_cast<double>(words.size());
  };
  for (const pack_colour &c : colours) entry(c.colour, "white", c.words);
  entry(no_pack, "white", "no packs");
  entry("white", missed, "missed its goal");
  std::fprintf(to, "<rect x=\"%.1f\" y=\"43\" width=\"22\" height=\"14\" fill=\"#e8f4ea\"/>\n", x);
  text(to, x + 28, 55, "", "the better side");
}

}  // namespace

bool results::write_svg(const std::string &path) const {
  const file out(std::fopen(path.c_str(), "w"), &std::fclose);
  if (out == nullptr) return false;
  std::vector<std::pair<const panel *, std::vector<row>>> shown;
  for (const panel &p : panels) {
    auto rows = rows_of(p, all_);
    if (!rows.empty()) shown.emplace_back(&p, std::move(rows));
  }
  const auto lines = static_cast<double>((shown.size() + 1) / 2);
  std::fprintf(out.get(),
               "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %.0f %.0f\" "
               "font-family=\"sans-serif\" font-size=\"13\" fill=\"#1d2b3a\">\n"
               "<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n",
               width, top + lines * panel_height);
  text(out.get(), 12, 28, "font-size=\"19\" font-weight=\"bold\"",
       "The library, measured beside its limits");
  draw_legend(out.get());
  for (size_t i = 0; i < shown.size(); ++i)
    draw_panel(out.get(), *shown[i].first, shown[i].second, i % 2 == 0 ? 0 : column,
               top + panel_height * static_cast<double>(i / 2));
  std::fprintf(out.get(), "</svg>\n");
  return std::fflush(out.get()) == 0 && std::ferror(out.get()) == 0;
}

}  // namespace bench
