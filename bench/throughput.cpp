// Full speed. "split": server on processor 0, client on 1; "one": both on 0.
#include <cstdio>

#include "bench/limit.h"
#include "bench/play.h"
#include "bench/sections.h"

namespace bench {

namespace {

constexpr int ring_bytes = 8 << 20, read_bytes = 256 << 10;

void compare(const effort &e, int cpu, int nodes, int pack_bytes, results &out) {
  refserver::server_options options;
  options.nodes = nodes;
  options.keep_log = false;
  options.check_auth = false;
  const double full = pack_bytes < (64 << 10) ? 300e6 : 1.5e9;
  const served_file file(0, static_cast<uint64_t>(full * e.scale) + 12345, options);
  std::vector<figures> bare, through;
  for (int i = 0; i < e.runs; ++i) {
    bare.push_back(in_child(cpu, [&] {
      return run_limit({&file, nodes, pack_bytes, ring_bytes, read_bytes});
    }));
    through.push_back(in_child(cpu, [&] {
      return run_play({&file, nodes, pack_bytes, ring_bytes, read_bytes});
    }));
  }
  figures limit = medians(bare), play = medians(through);
  const double gib = play["bytes"] / (1 << 30);
  char what[64];
  std::snprintf(what, sizeof what, "%d node%s, %d KiB, %s", nodes, nodes == 1 ? "" : "s",
                pack_bytes >> 10, cpu == 0 ? "one" : "split");
  const bool small = pack_bytes < (64 << 10);
  const double per_unit = small ? pack_bytes : 1e6;
  out.add({"throughput", what, small ? "units/s" : "MB/s",
           play["bytes"] / per_unit / play["seconds"], limit["bytes"] / per_unit / limit["seconds"],
           true, small ? 0.8 : 0.9});
  out.add(
      {"throughput", what, "processor s/GiB", play["cpu"] / gib, limit["cpu"] / gib, false, 1.2});
}

}  // namespace

void bench_throughput(const effort &e, results &out) {
  for (const int cpu : {1, 0}) {
    for (const int nodes : {1, 4}) {
      for (const int pack_bytes : {8 << 10, 64 << 10, 256 << 10, 1 << 20})
        compare(e, cpu, nodes, pack_bytes, out);
    }
  }
}

void bench_trace(const effort &e, results &out) {
  refserver::server_options options;
  options.keep_log = false;
  options.check_auth = false;
  for (const int pack_bytes : {8 << 10, 64 << 10, 256 << 10}) {
    if (e.skips(pack_bytes)) continue;
    const double full = pack_bytes < (64 << 10) ? 600e6 : 3e9;
    const served_file file(0, static_cast<uint64_t>(full * e.scale) + 12345, options);
    std::vector<figures> off, on;
    for (int i = 0; i < 3 * e.runs; ++i) {
      for (const int events : {0, 1 << 12}) {
        play_options play{&file, options.nodes, pack_bytes, ring_bytes, read_bytes};
        play.trace_events = events;
        (events == 0 ? off : on).push_back(in_child(1, [&] { return run_play(play); }));
      }
    }
    char what[64];
    std::snprintf(what, sizeof what, "on beside off, %d KiB", pack_bytes >> 10);
    out.add(
        {"recorder", what, "processor s", medians(on)["cpu"], medians(off)["cpu"], false, 1.01});
  }
}

}  // namespace bench
