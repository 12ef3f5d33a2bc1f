// sim: the named networks.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "judge.h"

using namespace sim;

static void row(const scenario &one, uint64_t seed, bool verbose) {
  const outcome got = play(one.net, one.spec, seed, verbose);
  std::printf("%-16s", one.name.c_str());
  if (one.spec.pace <= 0) {
    const double share = ideal_seconds(one.net, one.spec) / got.seconds;
    std::printf(" share %.3f (%.2f)%s", share, one.share, share < one.share ? " <--" : "");
  } else if (!got.seeks.empty()) {
    auto part = [&](double p) { return 1e3 * got.seeks[static_cast<size_t>(static_cast<double>(got.seeks.size()-1) * p)]; };
    std::printf(" seeks %4.0f (%.0f) %4.0f (%.0f) worst %4.0f%s", part(.5), one.median_ms, part(.9), one.most_ms, part(1),
                part(.5) > one.median_ms || part(.9) > one.most_ms ? " <--" : "");
  } else {
    std::printf(" stalled %5.2f (%.2f) longest %5.2f fluid %.2f start %4.2f (%.2f)%s", got.stalled, one.stalled >= never ? 99 : one.stalled, got.longest,
                fluid(one.net, one.spec).stalled, got.start, one.start, got.stalled > one.stalled || got.start > one.start ? " <--" : "");
  }
  std::printf("  twice %.1f %%, %d requests, %d connections\n", 100 * got.twice / got.received, got.requests, got.connections);
}

static void random_ones(uint64_t first, uint64_t count) {
  std::vector<double> stalled, slower, seek, twice;
  uint64_t faulty = 0;
  for (uint64_t seed = first; seed < first + count; ++seed) {
    const scenario one = random_scenario(seed);
    const verdict v = judge(one, seed);
    if (one.spec.seek_each > 0) seek.push_back(v.seek);
    else if (one.spec.pace > 0) stalled.push_back(v.stalled);
    else slower.push_back(v.slower);
    twice.push_back(100 * v.got.twice / v.got.received);
    if (v.faults.empty()) continue;
    ++faulty;
    std::printf("%lu:%s\n", seed, v.faults.c_str());
  }
  auto parts = [](const char *name, std::vector<double> all) {
    std::sort(all.begin(), all.end());
    if (all.empty()) return;
    double sum = 0;
    for (double d : all) sum += std::max(d, 0.0);
    auto at = [&](double p) { return all[static_cast<size_t>(p * static_cast<double>(all.size() - 1))]; };
    std::printf("%-8s %4zu  mean %6.3f median %6.2f 90 %% %6.2f 98 %% %6.2f most %6.2f\n", name, all.size(), sum / double(all.size()), at(.5), at(.9), at(.98), at(1));
  };
  parts("stalled", stalled);
  parts("slower", slower);
  parts("seek", seek);
  parts("twice %", twice);
  std::printf("faulty %lu of %lu\n", faulty, count);
}

int main(int argc, char **argv) {
  if (argc > 2 && !strcmp(argv[1], "show")) {
    const scenario one = random_scenario(strtoul(argv[2], nullptr, 10));
    for (const link_spec &link : one.net.links) std::printf("# %s\n", link.text().c_str());
    std::printf("# pace %.0f KB/s film %.0f KB pack %d access %.1f seek %.1f\n", one.spec.pace / 1e3, one.spec.client.film_bytes / 1e3, one.spec.client.pack_bytes, one.net.access_mbit, one.spec.seek_each);
    const verdict v = judge(one, strtoul(argv[2], nullptr, 10), argc > 3);
    std::printf("# stalled %.2f longest %.2f (%.2f) start %.2f (%.2f) seconds %.1f (%.1f) twice %.1f starved %.2f\n#%s\n", v.got.stalled, v.got.longest, fluid(reachable(one.net), one.spec).stalled, v.got.start, fluid(reachable(one.net), one.spec).start, v.got.seconds, ideal_seconds(reachable(one.net), one.spec), 100 * v.got.twice / v.got.received, v.got.starved, v.faults.c_str());
    return 0;
  }
  if (argc > 1 && std::atoi(argv[1]) > 0) {
    random_ones(argc > 2 ? strtoul(argv[2], nullptr, 10) : 1, strtoul(argv[1], nullptr, 10));
    return 0;
  }
  const char *name = argc > 1 ? argv[1] : "";
  const char *packs = std::getenv("PK");
  for (const int kib : {packs ? std::atoi(packs) : 16}) {
    for (const scenario &one : named_scenarios(kib * 1024)) {
      if (one.name.rfind(name, 0) == 0) row(one, argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 1, argc > 3);
    }
  }
}
