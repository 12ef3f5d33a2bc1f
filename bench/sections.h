// The sections of the end-to-end benches; bench_play.cpp runs them.
#pragma once

#include "bench/harness.h"
#include "bench/results.h"

namespace bench {

/// The amount of measuring.
struct effort {
  int runs = 5;       ///< runs for each figure; their median counts
  double scale = 1;   ///< of file sizes and repetitions
  std::string build;  ///< folder of the programs and libraries to measure
  bool quick() const { return scale < 1; }
  bool skips(int pack_bytes) const { return quick() && pack_bytes != (64 << 10); }
  int times(int full) const { return std::max(static_cast<int>(full * scale), 1); }
};

/// Full speed on 1 and 4 nodes beside a bare client, on one processor and on two.
void bench_throughput(const effort &e, results &out);
/// curl, aria2c and libcurl on a static HTTP server, beside the library's processor time.
void bench_others(const effort &e, results &out);
/// Nodes of different speeds: how much of their sum arrives.
void bench_aggregation(const effort &e, results &out);
/// Nodes with a delay.
void bench_delay(const effort &e, results &out);
/// From a seek to its first byte; from the open to the session; single reads.
void bench_seek(const effort &e, results &out);
void bench_open(const effort &e, results &out);
void bench_latency(const effort &e, results &out);
/// The recorder: processor time with it, compared to without.
void bench_trace(const effort &e, results &out);
/// A paused session; memory and size.
void bench_rest(const effort &e, results &out);
void bench_memory(const effort &e, results &out);
/// Until libavformat has found all streams, with and without the index.
void bench_index(const effort &e, results &out);
/// A film whose streams come in long blocks, read at two places in turn.
void bench_places(const effort &e, results &out);
/// The next film beside the one that plays.
void bench_share(const effort &e, results &out);

}  // namespace bench
