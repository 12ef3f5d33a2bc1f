// See judge.h.
#include "judge.h"

#include <algorithm>
#include <cstdio>

namespace sim {

namespace {

constexpr double free_repeats =
    512 * 1024;  // bytes: what was under way twice when the budget ended comes on top of it
constexpr double repeats = 0.03;  // of what was received
constexpr double starved_s = 0.1;

double exchange(const network &net) {
  double most = 0;
  for (const link_terms &one : net.links)
    most = std::max(most, one.round_trip + one.jitter + one.think);
  return most;
}

void blame(std::string &into, const char *what, double is, double most) {
  if (is <= most) return;
  char line[100];
  std::snprintf(line, sizeof line, " %s %.3f, at most %.3f;", what, is, most);
  into += line;
}

verdict run(const scenario &one, uint64_t seed, source of, bool verbose) {
  verdict v;
  v.got = play(one.net, one.terms, seed, verbose);
  if (one.terms.pace > 0) {
    v.best = fluid(one.net, one.terms, of);
  } else {
    v.best.seconds = ideal_seconds(one.net, one.terms, of);
  }
  const bool possible = one.terms.seek_each > 0 || v.best.seconds < one.terms.most_seconds / 2;
  blame(v.broken, "bytes missing",
        v.got.complete || !possible ? 0 : one.terms.client.film_bytes - v.got.read, 0);
  blame(v.broken, "bytes twice", v.got.twice, free_repeats + repeats * v.got.received);
  blame(v.broken, "seconds starved", v.got.starved, starved_s);
  return v;
}

}  // namespace

double seek_ms(const outcome &got, double part) {
  if (got.seeks.empty()) return 0;
  return 1e3 * got.seeks[static_cast<size_t>(part * static_cast<double>(got.seeks.size() - 1))];
}

verdict judge(const scenario &one, uint64_t seed, bool verbose) {
  verdict v = run(one, seed, source::connections, verbose);
  if (one.terms.seek_each > 0) return v;
  const double slack = exchange(one.net);
  if (one.terms.pace <= 0) {
    blame(v.behind, "seconds", v.got.seconds, 1.1 * v.best.seconds + 4 * slack);
    return v;
  }
  v.stalled = std::max(v.got.stalled - v.best.stalled, 0.0);
  blame(v.behind, "seconds stalled", v.got.stalled, v.best.stalled + slack);
  blame(v.behind, "start", v.got.start, 1.3 * v.best.start + 4 * slack);
  return v;
}

verdict judge_named(const scenario &one, uint64_t seed, bool verbose) {
  verdict v = run(one, seed, source::links, verbose);
  if (one.terms.pace <= 0) {
    blame(v.behind, "seconds", v.got.seconds, v.best.seconds / one.share);
  } else if (one.terms.seek_each > 0) {
    blame(v.behind, "median seek, ms", seek_ms(v.got, 0.5), one.median_ms);
    blame(v.behind, "seek of nine in ten, ms", seek_ms(v.got, 0.9), one.most_ms);
  } else {
    blame(v.behind, "seconds stalled", v.got.stalled, one.stalled);
  }
  return v;
}

std::string summary(const scenario &one, const verdict &v) {
  char line[400];
  int length = std::snprintf(line, sizeof line, "%-16s ", one.name.c_str());
  const auto rest = [&] { return sizeof line - static_cast<size_t>(length); };
  if (one.terms.pace <= 0) {
    length += std::snprintf(line + length, rest(), "%5.1f s, fluid %5.1f, share %.3f",
                            v.got.seconds, v.best.seconds, v.best.seconds / v.got.seconds);
  } else if (one.terms.seek_each > 0) {
    length += std::snprintf(line + length, rest(), "seeks %4.0f, %4.0f, %4.0f ms",
                            seek_ms(v.got, 0.5), seek_ms(v.got, 0.9), seek_ms(v.got, 1));
  } else {
    length +=
        std::snprintf(line + length, rest(),
                      "stalled %5.2f s, longest %5.2f, fluid %5.2f; start %5.2f, fluid %5.2f",
                      v.got.stalled, v.got.longest, v.best.stalled, v.got.start, v.best.start);
  }
  std::snprintf(line + length, rest(), "; twice %.1f %%, %d requests, %d connections",
                100 * v.got.twice / v.got.received, v.got.requests, v.got.connections);
  return line + (v.broken.empty() ? "" : "; BROKEN" + v.broken) +
         (v.behind.empty() ? "" : "; behind:" + v.behind);
}

}  // namespace sim
