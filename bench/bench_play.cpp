// The end-to-end benches: the library over the reference server, with a limit beside each figure.
//
//   bench_play [--once] [--congestion NAME] [--json FILE] [--svg FILE] [SECTION ...]
//   bench_play --from FILE --svg FILE      draws the results of an earlier run, measures nothing
//
// Without sections all are run, in about ten minutes. --once runs each for a second or two, to see
// that all of them work; its figures mean nothing. --congestion names the congestion control of the
// servers' connections: "" is the system's, the default is one that does not pace.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench/sections.h"

namespace {

struct section {
  const char *name;
  void (*run)(const bench::effort &, bench::results &);
};

constexpr section sections[] = {
    {"throughput", bench::bench_throughput},
    {"others", bench::bench_others},
    {"aggregation", bench::bench_aggregation},
    {"delay", bench::bench_delay},
    {"seek", bench::bench_seek},
    {"open", bench::bench_open},
    {"latency", bench::bench_latency},
    {"trace", bench::bench_trace},
    {"rest", bench::bench_rest},
    {"memory", bench::bench_memory},
    {"index", bench::bench_index},
    {"places", bench::bench_places},
    {"share", bench::bench_share},
};

int usage() {
  std::fprintf(
      stderr,
      "usage: bench_play [--once] [--congestion NAME] [--json FILE] [--svg FILE] [SECTION ...]\n"
      "       bench_play --from FILE --svg FILE\n");
  for (const section &s : sections) std::fprintf(stderr, "  %s\n", s.name);
  return 2;
}

bool wanted(const std::vector<std::string> &names, const char *name) {
  if (names.empty()) return true;
  for (const std::string &n : names) {
    if (n == name) return true;
  }
  return false;
}

}  // namespace

int main(int argc, char **argv) {
  bench::effort e;
  const std::string self = argv[0];
  const size_t slash = self.rfind('/');
  e.build = (slash == std::string::npos ? "." : self.substr(0, slash)) + "/..";
  std::string json, svg, from;
  std::vector<std::string> names;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--once") {
      e.runs = 1;
      e.scale = 0.02;
    } else if (word == "--congestion" && i + 1 < argc) {
      bench::set_congestion(argv[++i]);
    } else if (word == "--json" && i + 1 < argc) {
      json = argv[++i];
    } else if (word == "--from" && i + 1 < argc) {
      from = argv[++i];
    } else if (word == "--svg" && i + 1 < argc) {
      svg = argv[++i];
    } else if (word[0] == '-') {
      return usage();
    } else {
      names.push_back(word);
    }
  }
  bench::results found;
  if (!from.empty() && !found.read_json(from)) return usage();
  for (const section &s : sections) {
    if (from.empty() && wanted(names, s.name)) s.run(e, found);
  }
  if (!json.empty() && !found.write_json(json)) return 1;
  if (!svg.empty() && !found.write_svg(svg)) return 1;
  return found.failed() ? 1 : 0;
}
