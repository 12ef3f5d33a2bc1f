// sim: the named networks.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "scenarios.h"

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

int main(int argc, char **argv) {
  const char *name = argc > 1 ? argv[1] : "";
  const char *packs = std::getenv("PK");
  for (const int kib : {packs ? std::atoi(packs) : 16}) {
    for (const scenario &one : named_scenarios(kib * 1024)) {
      if (one.name.rfind(name, 0) == 0) row(one, argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 1, argc > 3);
    }
  }
}
