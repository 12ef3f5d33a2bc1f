// Measures what a demuxer gains from the index: examples/streams.c (with libavformat) on a film of
// two hours with its `moov` box at the end, made by ffmpeg once.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "bench/sections.h"

namespace bench {

namespace {

bool exists(const std::string &path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0;
}

// The total seconds that the program prints; 0 when it failed.
double total_seconds(const std::string &program, const char *options, int pack_bytes,
                     const std::string &url) {
  const std::string command =
      "'" + program + "' " + options + " --pack " + std::to_string(pack_bytes) + " '" + url + "'";
  const std::unique_ptr<std::FILE, int (*)(std::FILE *)> from(popen(command.c_str(), "r"), &pclose);
  char line[256] = "";
  if (from == nullptr || std::fgets(line, sizeof line, from.get()) == nullptr) return 0;
  const char *const total = std::strstr(line, "total ");
  return total == nullptr ? 0 : std::atof(total + 6);
}

double median_seconds(const effort &e, const std::string &program, const char *options,
                      int pack_bytes, const std::string &url) {
  std::vector<figures> runs;
  for (int i = 0; i < e.runs; ++i)
    runs.push_back({{"total", total_seconds(program, options, pack_bytes, url)}});
  return medians(runs)["total"];
}

}  // namespace

void bench_index(const effort &e, results &out) {
  const std::string program = e.build + "/bin/streams";
  const std::string film = e.build + (e.quick() ? "/bench-short.mp4" : "/bench-film.mp4");
  if (!exists(program)) return out.note("libavformat is not there: nothing about the index");
  if (!exists(film)) {
    const std::string command =
        "ffmpeg -v error -y -f lavfi -i testsrc=size=64x48:rate=25 -f lavfi -i "
        "sine=frequency=300:sample_rate=22050 -c:v libx264 -preset ultrafast -g 50 -c:a aac -b:a "
        "16k -t " +
        std::to_string(e.times(7200)) + " '" + film + "'";
    if (std::system(command.c_str()) != 0) return out.note("no ffmpeg: nothing about the index");
  }
  refserver::server_options options = plain_server();
  for (int node = 0; node < options.nodes; ++node)
    options.node.push_back({.rate_bytes_per_s = 1e6, .delay_ms = 40});
  options.entry.delay_ms = 40;
  const served_file file(any_cpu, film, options);
  for (const int pack_bytes : {8 << 10, 16 << 10, 64 << 10, 256 << 10}) {
    if (e.skips(pack_bytes)) continue;
    const double with = median_seconds(e, program, "--index", pack_bytes, file.url());
    const double without = median_seconds(e, program, "", pack_bytes, file.url());
    char what[64];
    std::snprintf(what, sizeof what, "40 ms, 1 MB/s a node, %d KiB", pack_bytes >> 10);
    out.add(
        {"all streams found, with the index beside without", what, "s", with, without, false, 0.5});
  }
}

}  // namespace bench
