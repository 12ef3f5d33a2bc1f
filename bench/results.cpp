#include "bench/results.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

namespace bench {

namespace {

using file = std::unique_ptr<std::FILE, int (*)(std::FILE *)>;

file open_file(const std::string &path) {
  return {std::fopen(path.c_str(), "w"), &std::fclose};
}

constexpr int row_px = 18, label_px = 330, bar_px = 320, top_px = 40;
constexpr double longest_ratio = 2.0;

double bar(double ratio) {
  return std::clamp(ratio / longest_ratio, 0.0, 1.0) * bar_px;
}

}  // namespace

void results::add(const finding &f) {
  if (all_.empty() || all_.back().section != f.section) {
    std::printf("\n%-46s %12s %12s %7s %7s\n", f.section.c_str(), "measured", "beside", "ratio",
                "goal");
  }
  const std::string what = f.what + ", " + f.unit;
  std::printf("  %-44s %12.5g", what.c_str(), f.value);
  if (f.beside > 0) std::printf(" %12.5g %7.2f", f.beside, f.ratio());
  if (f.goal > 0) {
    std::printf(" %s%.2f%s", f.more_is_better ? ">=" : "<=", f.goal, f.reached() ? "" : "  missed");
  }
  std::printf("\n");
  std::fflush(stdout);
  all_.push_back(f);
}

void results::note(const std::string &text) {
  std::printf("  %s\n", text.c_str());
  std::fflush(stdout);
  notes_.push_back(text);
}

void results::fail(const std::string &text) {
  failed_ = true;
  note("WRONG: " + text);
}

bool results::write_json(const std::string &path) const {
  const file out = open_file(path);
  if (out == nullptr) return false;
  std::fprintf(out.get(), "{\"findings\": [");
  for (size_t i = 0; i < all_.size(); ++i) {
    const finding &f = all_[i];
    std::fprintf(
        out.get(),
        "%s\n  {\"section\": \"%s\", \"what\": \"%s\", \"unit\": \"%s\", \"measured\": %.6g, "
        "\"beside\": %.6g, \"ratio\": %.4g, \"goal\": %.4g, \"more_is_better\": %s}",
        i == 0 ? "" : ",", f.section.c_str(), f.what.c_str(), f.unit.c_str(), f.value, f.beside,
        f.ratio(), f.goal, f.more_is_better ? "true" : "false");
  }
  std::fprintf(out.get(), "\n], \"notes\": [");
  for (size_t i = 0; i < notes_.size(); ++i)
    std::fprintf(out.get(), "%s\n  \"%s\"", i == 0 ? "" : ",", notes_[i].c_str());
  std::fprintf(out.get(), "\n]}\n");
  return true;
}

// One bar for each ratio: how long it is says how the library compares, a line where the goal lies.
bool results::write_svg(const std::string &path) const {
  const file out = open_file(path);
  if (out == nullptr) return false;
  std::FILE *const to = out.get();
  std::vector<const finding *> shown;
  for (const finding &f : all_) {
    if (f.beside > 0) shown.push_back(&f);
  }
  const int width = label_px + bar_px + 120;
  const int height = top_px + static_cast<int>(shown.size() + 8) * row_px * 5 / 4 + 20;
  std::fprintf(
      to,
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" "
      "font-family=\"sans-serif\" font-size=\"12\">\n"
      "<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n"
      "<text x=\"10\" y=\"22\" font-size=\"15\">c2ms beside its limits (ratio; the mark is "
      "the goal)</text>\n",
      width, height);
  int y = top_px;
  const std::string *section = nullptr;
  for (const finding *f : shown) {
    if (section == nullptr || *section != f->section) {
      y += row_px / 2;
      std::fprintf(to, "<text x=\"10\" y=\"%d\" font-weight=\"bold\">%s</text>\n", y + 13,
                   f->section.c_str());
      y += row_px;
      section = &f->section;
    }
    std::fprintf(to, "<text x=\"24\" y=\"%d\">%s, %s</text>\n", y + 13, f->what.c_str(),
                 f->unit.c_str());
    std::fprintf(to, "<rect x=\"%d\" y=\"%d\" width=\"%.1f\" height=\"%d\" fill=\"%s\"/>\n",
                 label_px, y + 2, bar(f->ratio()), row_px - 5,
                 f->reached() ? "#4c9f70" : "#d08c3c");
    if (f->goal > 0) {
      const double x = label_px + bar(f->goal);
      std::fprintf(to, "<path d=\"M%.1f %dV%d\" stroke=\"black\"/>\n", x, y, y + row_px - 1);
    }
    std::fprintf(to, "<text x=\"%.1f\" y=\"%d\">%.2f</text>\n", label_px + bar(f->ratio()) + 6,
                 y + 13, f->ratio());
    y += row_px;
  }
  std::fprintf(to, "</svg>\n");
  return true;
}

}  // namespace bench
