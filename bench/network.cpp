// Measures slow nodes: how much of the sum of their rates arrives, and what their delay costs.
#include <algorithm>
#include <cstdio>
#include <numeric>

#include "bench/limit.h"
#include "bench/play.h"
#include "bench/sections.h"

namespace bench {

namespace {

constexpr int ring_bytes = 8 << 20, read_bytes = 256 << 10, client_cpu = 1;

refserver::server_options slow_nodes(const std::vector<double> &rates_mb, int delay_ms) {
  refserver::server_options options = plain_server(static_cast<int>(rates_mb.size()));
  for (const double rate : rates_mb) {
    options.node.push_back({.rate_bytes_per_s = rate * 1e6, .delay_ms = delay_ms});
  }
  return options;
}

// Mean share of `possible_mb` over files of several sizes, because the end of each file differs.
double mean_rate(const effort &e, const std::vector<double> &rates_mb, int pack_bytes, int ring,
                 int usable) {
  double sum = 0;
  const std::vector<double> sizes =
      e.quick() ? std::vector<double>{10} : std::vector<double>{55, 57.5, 60, 62.5, 65};
  for (const double mb : sizes) {
    const served_file file(0, static_cast<uint64_t>(mb * 1e6), slow_nodes(rates_mb, 0));
    figures f = in_child(any_cpu, [&] {
      return run_play({&file, usable, pack_bytes, ring, read_bytes});
    });
    sum += f["bytes"] / 1e6 / f["seconds"];
  }
  return sum / static_cast<double>(sizes.size());
}

void aggregate(const effort &e, const std::vector<double> &rates_mb, double possible_mb,
               int pack_bytes, int ring, double goal, results &out) {
  char what[96];
  int used = 0;
  for (const double rate : rates_mb)
    used += std::snprintf(what + used, sizeof what - static_cast<size_t>(used), "%s%g",
                          used == 0 ? "" : "+", rate);
  std::snprintf(what + used, sizeof what - static_cast<size_t>(used), " MB/s, %d KiB, ring %d",
                pack_bytes >> 10, ring / pack_bytes);
  const int usable = static_cast<int>(rates_mb.size());
  out.add({"aggregation", what, "MB/s", mean_rate(e, rates_mb, pack_bytes, ring, usable),
           possible_mb, true, goal});
}

}  // namespace

void bench_aggregation(const effort &e, results &out) {
  aggregate(e, {2, 4, 6, 8}, 20, 64 << 10, ring_bytes, 0.97, out);
  aggregate(e, {2, 4, 6, 8}, 20, 256 << 10, ring_bytes, 0.95, out);
  if (e.quick()) return;
  aggregate(e, {1, 2, 4, 8}, 14, 64 << 10, ring_bytes, 0.97, out);
  aggregate(e, {1, 2, 4, 8}, 14, 256 << 10, ring_bytes, 0.97, out);
  for (const int ring : {8 << 20, 10 << 20, 16 << 20})
    aggregate(e, {2, 4, 6, 8}, 20, 1 << 20, ring, 0, out);
  // One node that is almost stuck: how long is the longest stall of the reader?
  const served_file file(0, 30'000'000, slow_nodes({0.05, 4, 4, 4}, 0));
  figures f = in_child(any_cpu, [&] {
    play p(file.url(), ring_bytes);
    p.cache(64 << 10, 4);
    p.select_media();
    std::vector<char> piece(64 << 10);
    double longest = 0;
    for (uint64_t done = 0; done < p.size();) {
      const auto start = steady::now();
      const int n = c2ms_sess_read(p.session(), piece.data(), static_cast<int>(piece.size()), 0);
      if (n <= 0) break;
      longest = std::max(longest, seconds_since(start));
      done += static_cast<uint64_t>(n);
    }
    return figures{{"longest", longest}};
  });
  out.add(
      {"aggregation", "longest pause, 0.05+4+4+4 MB/s, 64 KiB", "s", f["longest"], 0, false, 0});
}

void bench_delay(const effort &e, results &out) {
  const std::vector<double> unlimited(4, 0);
  for (const int delay_ms : {20, 50}) {
    for (const int pack_bytes : {8 << 10, 64 << 10, 256 << 10, 1 << 20}) {
      if (e.skips(pack_bytes)) continue;
      const double cap = 4 * pack_bytes / 1e6 / (delay_ms / 1e3);
      const double bytes = std::max(cap * 1e6 * (e.quick() ? 0.3 : 3), 8.0 * pack_bytes);
      // (A size that the pack size does not divide: see c2ms_sess_pack_size.)
      const served_file file(0, static_cast<uint64_t>(bytes) | 1, slow_nodes(unlimited, delay_ms));
      constexpr int ring = 32 << 20;
      figures bare = in_child(client_cpu, [&] {
        return run_limit({&file, 4, pack_bytes, ring, read_bytes});
      });
      figures f = in_child(client_cpu, [&] {
        return run_play({&file, 4, pack_bytes, ring, read_bytes});
      });
      char what[64];
      std::snprintf(what, sizeof what, "4 nodes, %d ms, %d KiB", delay_ms, pack_bytes >> 10);
      out.add({"delay", what, "MB/s", f["bytes"] / 1e6 / f["seconds"],
               bare["bytes"] / 1e6 / bare["seconds"], true, 0.95});
    }
  }
}

}  // namespace bench
