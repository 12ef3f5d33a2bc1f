// Measures full speed. "split": server on processor 0, client on 1; "one": both on 0.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/limit.h"
#include "bench/play.h"
#include "bench/sections.h"
#include "c2ms/core/recorder.h"

namespace bench {

namespace {

constexpr int ring_bytes = 8 << 20, read_bytes = 256 << 10;

void compare(const effort &e, int cpu, int nodes, int pack_bytes, results &out) {
  const double full = pack_bytes < (64 << 10) ? 300e6 : 1.5e9;
  const served_file file(0, static_cast<uint64_t>(full * e.scale) + 12345, plain_server(nodes));
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

namespace {

// Reads pieces until `bytes` more have arrived. Returns processor seconds.
double read_bytes_for(const play &p, std::vector<char> &piece, uint64_t bytes) {
  const double before = cpu_seconds();
  for (uint64_t done = 0; done < bytes;) {
    const int n = c2ms_sess_read(p.session(), piece.data(), static_cast<int>(piece.size()), 0);
    if (n <= 0) return 0;
    done += static_cast<uint64_t>(n);
  }
  return cpu_seconds() - before;
}

// One play, in which the recorder is off, on, on and off in turn: the ratio for every four slices.
// (Two plays differ by more than the recorder costs.)
figures run_with_recorder(const served_file &file, int pack_bytes, uint64_t slice_bytes,
                          int fours) {
  play p(file.url(), ring_bytes);
  std::vector<char> piece(read_bytes);
  p.cache(pack_bytes, 4);
  p.select_media();
  c2ms_sess_trace(p.session(), 1 << 12);
  read_bytes_for(p, piece, uint64_t{1 << 12} * static_cast<uint64_t>(pack_bytes));
  figures found;
  for (int four = 0; four < fours; ++four) {
    double cpu[2] = {};
    for (const int on : {0, 1, 1, 0}) {
      p.session()->tracing = on != 0;
      cpu[on] += read_bytes_for(p, piece, slice_bytes);
    }
    if (cpu[0] <= 0) return {};
    found[std::to_string(four)] = cpu[1] / cpu[0];
  }
  return found;
}

}  // namespace

void bench_trace(const effort &e, results &out) {
  for (const int pack_bytes : {8 << 10, 64 << 10, 256 << 10}) {
    if (e.skips(pack_bytes)) continue;
    const uint64_t slice_bytes = pack_bytes < (64 << 10) ? 16 << 20 : 64 << 20;
    const int fours = e.times(100);
    const uint64_t size = (4 * static_cast<uint64_t>(fours) + 1) * slice_bytes + (1 << 30);
    const served_file file(0, size, plain_server());
    std::vector<double> ratios;
    const figures found =
        in_child(1, [&] { return run_with_recorder(file, pack_bytes, slice_bytes, fours); });
    for (const auto &[name, ratio] : found) ratios.push_back(ratio);
    if (ratios.empty()) continue;
    std::sort(ratios.begin(), ratios.end());
    // Bounds of the median with a confidence of 95 %.
    const auto n = static_cast<double>(ratios.size());
    const auto at = [&](double place) {
      return ratios[static_cast<size_t>(std::clamp(place, 0.0, n - 1))];
    };
    const double spread = 0.98 * std::sqrt(n);
    char what[96];
    std::snprintf(what, sizeof what, "on beside off, %d KiB (%.3f to %.3f)", pack_bytes >> 10,
                  at((n - spread) / 2), at((n + spread) / 2));
    out.add({"recorder", what, "processor s", at(n / 2), 1, false, 1.01});
  }
}

}  // namespace bench
