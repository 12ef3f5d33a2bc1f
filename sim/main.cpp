// sim: the named networks; sim N [SEED]: N random ones from SEED on; sim one SEED, sim one NAME:
// that one with a trace.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "judge.h"

namespace {

using namespace sim;

constexpr size_t worst_shown = 20;

void describe(const scenario &one) {
  for (const link_terms &link : one.net.links) std::printf("  %s\n", link.text().c_str());
  std::printf(
      "  pace %.0f KB/s, film %.1f MB, packs of %d KiB, access %.1f Mbit/s (0: none), seeks each "
      "%.1f s\n",
      one.terms.pace / 1e3, one.terms.client.film_bytes / 1e6, one.terms.client.pack_bytes / 1024,
      one.net.access_mbit, one.terms.seek_each);
}

int show_named() {
  bool fine = true;
  for (const int kib : {16, 32}) {
    std::printf("packs of %d KiB\n", kib);
    for (const scenario &one : named_scenarios(kib * 1024)) {
      const verdict v = judge_named(one, 1);
      std::puts(summary(one, v).c_str());
      fine = fine && v.broken.empty() && v.behind.empty();
    }
  }
  return fine ? 0 : 1;
}

int show_one(const char *which) {
  const uint64_t seed = std::strtoull(which, nullptr, 10);
  if (seed > 0) {
    const scenario one = random_scenario(seed);
    describe(one);
    std::puts(summary(one, judge(one, seed, true)).c_str());
    return 0;
  }
  for (const scenario &one : named_scenarios(32 * 1024)) {
    if (one.name == which) std::puts(summary(one, judge_named(one, 1, true)).c_str());
  }
  return 0;
}

void row(const char *what, std::vector<double> all) {
  if (all.empty()) return;
  std::sort(all.begin(), all.end());
  std::printf("%-30s %5zu", what, all.size());
  for (const double part : {0.5, 0.9, 0.98, 1.0}) {
    std::printf(" %8.2f", all[static_cast<size_t>(part * static_cast<double>(all.size() - 1))]);
  }
  std::printf("\n");
}

int show_random(uint64_t count, uint64_t first) {
  std::vector<double> stalled, start, share, seeks, twice;
  std::vector<std::pair<double, uint64_t>> worst;
  size_t broken = 0, behind = 0;
  for (uint64_t seed = first; seed < first + count; ++seed) {
    const scenario one = random_scenario(seed);
    const verdict v = judge(one, seed);
    twice.push_back(100 * v.got.twice / v.got.received);
    if (one.terms.seek_each > 0) {
      seeks.push_back(seek_ms(v.got, 0.5));
    } else if (one.terms.pace > 0) {
      stalled.push_back(v.stalled);
      start.push_back(v.got.start / v.best.start);
    } else {
      share.push_back(v.best.seconds / v.got.seconds);
    }
    broken += !v.broken.empty();
    behind += !v.behind.empty();
    if (!v.broken.empty()) worst.emplace_back(1e6, seed);
    if (v.broken.empty() && !v.behind.empty()) worst.emplace_back(v.stalled, seed);
  }
  std::printf("%-30s %5s %8s %8s %8s %8s\n", "", "", "median", "90 %", "98 %", "most");
  row("seconds stalled beyond fluid", stalled);
  row("start by the fluid's", start);
  row("download, share of the fluid", share);
  row("median seek, ms", seeks);
  row("downloaded twice, %", twice);
  std::printf("%zu of %zu broken, %zu behind\n", broken, static_cast<size_t>(count), behind);
  std::sort(worst.rbegin(), worst.rend());
  worst.resize(std::min(worst.size(), worst_shown));
  for (const auto &[much, seed] : worst) {
    const scenario one = random_scenario(seed);
    std::puts(summary(one, judge(one, seed)).c_str());
    describe(one);
  }
  return broken == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) return show_named();
  if (argc == 3 && std::strcmp(argv[1], "one") == 0) return show_one(argv[2]);
  const uint64_t count = std::strtoull(argv[1], nullptr, 10);
  if (count == 0) {
    std::puts("usage: sim [N [SEED] | one SEED | one NAME]");
    return 2;
  }
  return show_random(count, argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1);
}
