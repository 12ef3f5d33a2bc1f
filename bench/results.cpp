// Prints, writes and reads what the end-to-end benches found.
#include "bench/results.h"

#include <cstdio>
#include <cstring>
#include <memory>

namespace bench {

namespace {

using file = std::unique_ptr<std::FILE, int (*)(std::FILE *)>;

file open_file(const std::string &path) {
  return {std::fopen(path.c_str(), "w"), &std::fclose};
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

// Reads the output of write_json: one finding per line.
bool results::read_json(const std::string &path) {
  const file in(std::fopen(path.c_str(), "r"), &std::fclose);
  char line[512], section[128], what[128], unit[64], more[8];
  while (in != nullptr && std::fgets(line, sizeof line, in.get()) != nullptr) {
    finding f;
    const int fields =
        std::sscanf(line,
                    " {\"section\": \"%127[^\"]\", \"what\": \"%127[^\"]\", \"unit\": "
                    "\"%63[^\"]\", \"measured\": %lf, "
                    "\"beside\": %lf, \"ratio\": %*f, \"goal\": %lf, \"more_is_better\": %7[a-z]",
                    section, what, unit, &f.value, &f.beside, &f.goal, more);
    if (fields != 7) continue;
    f.section = section;
    f.what = what;
    f.unit = unit;
    f.more_is_better = std::strcmp(more, "true") == 0;
    all_.push_back(f);
  }
  return !all_.empty();
}

}  // namespace bench
