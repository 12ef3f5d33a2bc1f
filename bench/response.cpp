// Measures how soon bytes come: after a seek, after the open, in single reads. Server on processor
// 0, client on 1.
#include <algorithm>
#include <cstdio>
#include <random>
#include <thread>

#include "bench/limit.h"
#include "bench/play.h"
#include "bench/sections.h"
#include "c2ms/core/records.h"
#include "c2ms/core/time.h"

namespace bench {

namespace {

constexpr int ring_bytes = 8 << 20;
constexpr int client_cpu = 1;

refserver::server_options with_delay(int delay_ms) {
  refserver::server_options options = plain_server();
  for (int node = 0; node < options.nodes; ++node) options.node.push_back({.delay_ms = delay_ms});
  options.entry.delay_ms = delay_ms;
  return options;
}

double percentile(std::vector<double> &values, double share) {
  if (values.empty()) return 0;
  const auto at = static_cast<size_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + static_cast<ptrdiff_t>(at), values.end());
  return values[at];
}

// Seconds of one exchange of a pack with its delay, on a connection that does nothing else.
double exchange_seconds(const served_file &file, int pack_bytes, int packs) {
  figures f = in_child(client_cpu, [&] {
    limit_options options{&file, 1, pack_bytes, ring_bytes, pack_bytes};
    options.packs = packs;
    return run_limit(options);
  });
  return f["seconds"] * pack_bytes / f["bytes"];
}

// Seconds until the first of the session's nodes is free.
double first_free(c2ms_sess *sess, double exchange) {
  std::vector<c2ms_node *> nodes;
  {
    const adif::Guard lock(sess->list_lock);
    for (int i = 0; i < sk_num(sess->node_list); ++i)
      nodes.push_back(static_cast<c2ms_node *>(sk_value(sess->node_list, i)));
  }
  double shortest = exchange;
  for (c2ms_node *node : nodes) {
    const adif::Guard lock(node->download_lock);
    if (node->download_unit == nullptr) return 0;
    const auto sent = double(c2ms::to_us(node->download_unit->sent_time)) / 1e6;
    const double left = sent + exchange - double(c2ms::now_us()) / 1e6;
    shortest = std::min(shortest, std::max(left, 0.0));
  }
  return shortest;
}

figures run_seeks(const served_file &file, int pack_bytes, int seeks, double exchange) {
  play p(file.url(), ring_bytes);
  p.cache(pack_bytes, 4);
  p.select_media();
  std::mt19937_64 random(1);
  const uint64_t packs = p.size() / static_cast<uint64_t>(pack_bytes) - 1;
  const double longest_pause = std::max(exchange, 0.002);
  std::vector<double> took, ideal;
  char byte;
  for (int i = 0; i < seeks; ++i) {
    const double share = static_cast<double>(random() % 1000) / 1000;
    std::this_thread::sleep_for(std::chrono::duration<double>(longest_pause * share));
    const uint64_t pos = random() % packs * static_cast<uint64_t>(pack_bytes);
    ideal.push_back(first_free(p.session(), exchange) + exchange);
    const auto start = steady::now();
    c2ms_sess_seek(p.session(), pos);
    if (c2ms_sess_read(p.session(), &byte, 1, 0) != 1) return {};
    took.push_back(seconds_since(start));
  }
  return {{"median", percentile(took, 0.5)},
          {"slow", percentile(took, 0.99)},
          {"ideal", percentile(ideal, 0.5)}};
}

figures run_reads(const served_file &file, int reads, bool flowing) {
  constexpr int pack_bytes = 8 << 10;
  play p(file.url(), ring_bytes);
  p.cache(pack_bytes, 4);
  p.select_media();
  const int filled = ring_bytes / pack_bytes * 3 / 4;
  std::vector<char> piece(pack_bytes);
  std::vector<double> took;
  took.reserve(static_cast<size_t>(reads));
  for (int i = 0; i < reads; ++i) {
    if (!flowing && i % filled == 0) {
      // The whole ring is filled before the timed reads begin.
      c2ms_sess_seek(p.session(), i % (2 * filled) == 0 ? 0 : p.size() / 2);
      c2ms_sess_buffering(p.session(), filled * pack_bytes);
      for (int32_t ratio = 0; ratio < 100;) {
        c2ms_sess_bufratio(p.session(), &ratio);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
    const auto start = steady::now();
    if (c2ms_sess_read(p.session(), piece.data(), pack_bytes, 0) != pack_bytes) return {};
    took.push_back(seconds_since(start));
  }
  const auto above = std::count_if(took.begin(), took.end(), [](double s) { return s > 0.005; });
  return {{"median", percentile(took, 0.5)},
          {"rare", percentile(took, 0.999)},
          {"longest", percentile(took, 1)},
          {"above", static_cast<double>(above)}};
}

}  // namespace

void bench_seek(const effort &e, results &out) {
  for (const int delay_ms : {0, 20}) {
    for (const int pack_bytes : {8 << 10, 64 << 10, 256 << 10, 1 << 20}) {
      if (e.skips(pack_bytes)) continue;
      const served_file file(0, 3'000'000'000, with_delay(delay_ms));
      const double exchange = exchange_seconds(file, pack_bytes, delay_ms == 0 ? 200 : 20);
      const int seeks = e.times(1000);
      figures f =
          in_child(client_cpu, [&] { return run_seeks(file, pack_bytes, seeks, exchange); });
      const double allowed = f["ideal"] + (pack_bytes < (1 << 20) ? 0.0005 : 0.001);
      char what[64];
      std::snprintf(what, sizeof what, "%d ms, %d KiB, ", delay_ms, pack_bytes >> 10);
      out.add({"seek", what + std::string("median"), "ms beside ideal + slack", f["median"] * 1e3,
               allowed * 1e3, false, 1});
      out.add({"seek", what + std::string("99 %"), "ms beside twice that", f["slow"] * 1e3,
               allowed * 2e3, false, 1});
    }
  }
}

void bench_open(const effort &e, results &out) {
  constexpr int delay_ms = 20, round_trips = 2;  // server list, description
  const served_file file(0, 1'000'000, with_delay(delay_ms));
  std::vector<figures> runs;
  for (int i = 0; i < e.runs; ++i) {
    runs.push_back(in_child(client_cpu, [&] {
      const play p(file.url(), ring_bytes);
      return figures{{"open", p.open_seconds()}};
    }));
  }
  out.add({"open", "20 ms, beside its round trips + 5", "ms", medians(runs)["open"] * 1e3,
           delay_ms * round_trips + 5, false, 1});
}

void bench_latency(const effort &e, results &out) {
  const served_file file(0, 3'000'000'000, with_delay(0));
  const int reads = e.times(100'000);
  for (const bool flowing : {false, true}) {
    figures f = in_child(client_cpu, [&] { return run_reads(file, reads, flowing); });
    char line[160];
    std::snprintf(line, sizeof line,
                  "%d reads of 8 KiB, %s: median %.2f us, 99.9 %% %.1f us, longest %.2f ms, %g "
                  "above 5 ms",
                  reads, flowing ? "flowing" : "buffered", f["median"] * 1e6, f["rare"] * 1e6,
                  f["longest"] * 1e3, f["above"]);
    out.note(line);
  }
}

}  // namespace bench
