#include "judge.h"

#include <algorithm>
#include <cstdio>

namespace sim {

double exchange(const network &net) {
  double most = 0;
  for (const link_spec &one : net.links) most = std::max(most, one.round_trip + one.jitter + one.think);
  return most;
}

verdict judge(const scenario &one, uint64_t seed, bool verbose) {
  verdict all;
  all.got = play(one.net, one.spec, seed, verbose);
  const outcome &got = all.got;
  const network net = reachable(one.net);
  auto blame = [&](const char *what, double is, double most) {
    if (is <= most) return;
    char line[100];
    std::snprintf(line, sizeof line, " %s %.3f > %.3f;", what, is, most);
    all.faults += line;
  };
  blame("unfinished", got.complete ? 0 : 1, 0);
  if (!got.seeks.empty()) {
    all.seek = got.seeks[got.seeks.size() * 9 / 10] / exchange(one.net);
  } else if (one.spec.pace > 0) {
    const outcome best = fluid(net, one.spec);
    all.stalled = got.stalled - best.stalled;
    blame("stalled", got.stalled, best.stalled + exchange(one.net));
    blame("start", got.start, 1.3 * best.start + 4 * exchange(one.net));
  } else {
    const double best = ideal_seconds(net, one.spec);
    all.slower = got.seconds / best;
    blame("seconds", got.seconds, best * 1.1 + 4 * exchange(one.net));
  }
  blame("twice", got.twice, 512 * 1024 + 0.03 * got.received);
  blame("starved", got.starved, 0.1);
  return all;
}

}  // namespace sim
