#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include "client.h"

using namespace sim;

link_spec walk(uint64_t seed) {
  std::mt19937_64 r(seed);
  link_spec s;
  s.trace.clear();
  s.round_trip = 0.06;
  double m = 6;
  double outage = 5 + r() % 20;
  for (double t = 0; t < 60; t += 0.2) {
    m = std::clamp(m + std::uniform_real_distribution<>(-1.5, 1.5)(r), 1.0, 12.0);
    const bool out = t >= outage && t < outage + 2;
    if (t > outage + 2) outage += 20;
    s.trace.push_back({0.2, out ? 0 : m});
  }
  return s;
}

std::vector<link_spec> net(const char *n, uint64_t seed) {
  if (!strcmp(n, "S1")) return {steady(8, .03), steady(8, .03), steady(8, .03), steady(8, .03)};
  if (!strcmp(n, "S2")) return {steady(4, .02), steady(8, .04), steady(12, .08), steady(16, .16)};
  if (!strcmp(n, "S3")) return {steady(4, .02, .01), steady(8, .04, .01), steady(12, .08, .01), steady(16, .16, .01)};
  if (!strcmp(n, "S4")) return {steady(10, .6), steady(10, .6), steady(10, .6), steady(10, .6)};
  if (!strcmp(n, "S6")) return {steady(50, .01), steady(50, .01), steady(50, .01), steady(50, .01)};
  if (!strcmp(n, "S7")) return {walk(seed * 4), walk(seed * 4 + 1), walk(seed * 4 + 2), walk(seed * 4 + 3)};
  if (!strcmp(n, "P6")) return {steady(8, .03), steady(8, .03), steady(8, .03), steady(.2, .03)};
  abort();
}

void row(const char *name, std::vector<link_spec> links, play_spec spec, double part, uint64_t seed) {
  double sum = 0;
  for (auto &l : links) for (auto &t : l.trace) sum += t.mbit / double(l.trace.size());
  sum *= 1e6 / 8;
  spec.film_bytes = sum * (part > 0 ? part * 60 : 40);
  spec.pace = sum * part;
  auto o = play(links, spec, seed, getenv("V"));
  if (part > 0 && spec.seek_each == 0) {
    auto f = fluid(links, spec);
    printf("%-8s pack %3d  stalled %6.2f (longest %5.2f, fluid %5.2f) start %5.2f (fluid %5.2f) twice %4.1f%% req %d\n", name, spec.pack_bytes / 1024, o.stalled, o.longest, f.stalled, o.start, f.start, 100 * o.twice / spec.film_bytes, o.requests);
  } else if (spec.seek_each > 0) {
    std::sort(o.seeks.begin(), o.seeks.end());
    printf("%-8s pack %3d  seeks %zu median %.0f 90%% %.0f worst %.0f ms twice %.1f\n", name, spec.pack_bytes / 1024, o.seeks.size(), o.seeks[o.seeks.size() / 2] * 1e3, o.seeks[o.seeks.size() * 9 / 10] * 1e3, o.seeks.back() * 1e3, 100 * o.twice / o.delivered);
  } else {
    printf("%-8s pack %3d  share %.3f  twice %.1f%% req %d\n", name, spec.pack_bytes / 1024, ideal_seconds(links, spec) / o.seconds, 100 * o.twice / spec.film_bytes, o.requests);
  }
}

int main(int argc, char **argv) {
  int each = argc > 1 ? atoi(argv[1]) : 1;
  for (int pack : {16, 64}) {
    play_spec s;
    s.pack_bytes = pack * 1024;
    s.connections_each = each;
    for (auto n : {"S1", "S2", "S3", "S4", "S6", "S7"}) row(n, net(n, 1), s, 0, 1);
    row("P1", net("S2", 1), s, .6, 1);
    row("P2", net("S3", 1), s, .6, 1);
    row("P3", net("S7", 1), s, .6, 1);
    auto p4 = net("S1", 1);
    p4[1].dies_at = 10;
    row("P4", p4, s, .5, 1);
    auto p7 = p4;
    p7[2].dies_at = 10;
    row("P7", p7, s, .5, 1);
    row("P7@40", p7, s, .4, 1);
    auto p5 = net("S1", 1);
    p5[1].cut_at = 10;
    p5[1].cut_to = .01;
    row("P5", p5, s, .5, 1);
    row("P6@60", net("P6", 1), s, .6, 1);
    row("P6@85", net("P6", 1), s, .835, 1);
    play_spec k = s;
    k.seek_each = 1;
    row("K2", net("S2", 1), k, .6, 1);
    row("K4", net("S4", 1), k, .6, 1);
  }
}
