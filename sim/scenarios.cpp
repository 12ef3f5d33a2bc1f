// See scenarios.h.
#include "scenarios.h"

#include <algorithm>
#include <cmath>

namespace sim {

namespace {

constexpr double download_s = 40, play_s = 60;

link_terms walk(uint64_t seed) {
  std::mt19937_64 random(seed);
  std::uniform_real_distribution<> step(-1.5, 1.5);
  link_terms one = steady(6, 0.06);
  one.mbit.clear();
  double rate = 6, outage = 5 + std::uniform_real_distribution<>(0, 20)(random);
  for (double at = 0; at < 120; at += one.step) {
    rate = std::clamp(rate + step(random), 1.0, 12.0);
    if (at > outage + 2) outage += 20;
    one.mbit.push_back(at >= outage ? 0 : rate);
  }
  return one;
}

network with(network net, size_t link, change what) {
  net.links[link].changes.push_back(what);
  return net;
}

double bytes_per_second(const network &net) {
  double sum = 0;
  for (const link_terms &one : net.links) sum += one.mean_mbit();
  return (net.access_mbit > 0 ? std::min(sum, net.access_mbit) : sum) * 1e6 / 8;
}

scenario download(const char *name, const network &net, double share) {
  scenario one{name, net, {}};
  one.terms.client.film_bytes = bytes_per_second(net) * download_s;
  one.terms.most_seconds = download_s * 20;
  one.share = share;
  return one;
}

scenario playing(const char *name, const network &net, double part, double stalled = 0) {
  scenario one{name, net, {}};
  one.terms.pace = bytes_per_second(net) * part;
  one.terms.client.film_bytes = one.terms.pace * play_s;
  one.stalled = stalled;
  return one;
}

scenario seeking(const char *name, const network &net, double median_ms, double most_ms) {
  scenario one = playing(name, net, 0.6);
  one.terms.seek_each = 1;
  one.median_ms = median_ms;
  one.most_ms = most_ms;
  return one;
}

}  // namespace

std::vector<scenario> named_scenarios(int pack_bytes) {
  const network s1{{steady(8, .03), steady(8, .03), steady(8, .03), steady(8, .03)}};
  const network s2{{steady(4, .02), steady(8, .04), steady(12, .08), steady(16, .16)}};
  const network s3{
      {steady(4, .02, .01), steady(8, .04, .01), steady(12, .08, .01), steady(16, .16, .01)}};
  const network s4{{steady(10, .6), steady(10, .6), steady(10, .6), steady(10, .6)}};
  const network s5{{steady(20, .04), steady(20, .04), steady(20, .04), steady(20, .04)}, 20};
  const network s6{{steady(50, .01), steady(50, .01), steady(50, .01), steady(50, .01)}};
  const network s7{{walk(4), walk(5), walk(6), walk(7)}};
  const network quick{{steady(16, .03), steady(16, .03), steady(16, .03), steady(16, .03)}};
  const network p6{{steady(8, .03), steady(8, .03), steady(8, .03), steady(.2, .03)}};
  const double three_of_p6 = 24 / 24.2;
  const change dies{10, never, 0};
  std::vector<scenario> all{download("S1", s1, .95),
                            download("S2", s2, .87),
                            download("S3", s3, .37),
                            download("S4", s4, .5),
                            download("S5", s5, .96),
                            download("S6", s6, .93),
                            download("S7", s7, .90),
                            playing("P1", s2, .6),
                            playing("P2", s3, .6, never),
                            playing("P3", s7, .6, .5),
                            playing("P4", with(s1, 1, dies), .5),
                            playing("P4 at 16 Mbit/s", with(quick, 1, dies), .5),
                            playing("P5", with(s1, 1, {10, never, .01}), .5),
                            playing("P6 at 60 %", p6, .6 * three_of_p6),
                            playing("P6 at 85 %", p6, .85 * three_of_p6),
                            playing("P7 at 50 %", with(with(s1, 1, dies), 2, dies), .5, 2),
                            playing("P7 at 40 %", with(with(s1, 1, dies), 2, dies), .4),
                            seeking("K2", s2, 180, 230),
                            seeking("K4", s4, 1100, 1600)};
  for (scenario &one : all) one.terms.client.pack_bytes = pack_bytes;
  return all;
}

namespace {

class Dice {
 public:
  explicit Dice(uint64_t seed) : random_(seed) {}
  bool once_in(double n) { return between(0, n) < 1; }
  double between(double low, double high) {
    return std::uniform_real_distribution<>(low, high)(random_);
  }
  double log_between(double low, double high) {
    return std::exp(between(std::log(low), std::log(high)));
  }
  int whole(int low, int high) { return std::uniform_int_distribution<>(low, high)(random_); }

 private:
  std::mt19937_64 random_;
};

void wander(link_terms &one, Dice &dice) {
  const double middle = one.mbit[0];
  double rate = middle;
  one.mbit.clear();
  for (int i = 0; i < 300; ++i) {
    rate = std::clamp(rate * dice.log_between(0.8, 1.25), middle / 4, middle * 2);
    one.mbit.push_back(rate);
  }
}

// Outages, a death, a fall to a hundredth; the last two for good or for some time.
void break_down(link_terms &one, Dice &dice, double seconds) {
  if (dice.once_in(4)) {
    for (int i = dice.whole(1, 3); i > 0; --i) {
      const double from = dice.between(3, seconds);
      one.changes.push_back({from, from + dice.between(0.5, 3), 0});
    }
  }
  if (!dice.once_in(6)) return;
  const double from = dice.between(3, seconds);
  const double to = dice.once_in(2) ? never : from + dice.between(10, 40);
  one.changes.push_back({from, to, dice.once_in(2) ? 0 : 0.01});
}

link_terms random_link(Dice &dice, bool lossy, double seconds) {
  link_terms one = steady(dice.log_between(0.2, 50), dice.log_between(0.005, 0.6));
  if (lossy) one.loss = dice.log_between(0.0005, 0.02);
  if (dice.once_in(3)) one.jitter = dice.between(0, one.round_trip / 4);
  if (dice.once_in(2)) one.think = dice.between(0.005, 0.05);
  if (dice.once_in(6)) one.cap_mbit = std::max(one.mbit[0] * dice.between(0.2, 0.8), 0.2);
  one.one_at_a_time = dice.once_in(6);
  if (dice.once_in(3)) wander(one, dice);
  break_down(one, dice, seconds);
  return one;
}

}  // namespace

scenario random_scenario(uint64_t seed) {
  constexpr double most_mbit = 60;  // of all links: more only takes longer to compute
  Dice dice(seed * 7919 + 1);
  const double seconds = dice.between(20, 50);
  const bool lossy = dice.once_in(3);
  network net;
  for (int i = dice.whole(2, 6); i > 0; --i) net.links.push_back(random_link(dice, lossy, seconds));
  double sum = 0;
  for (const link_terms &one : net.links) sum += one.mean_mbit();
  for (link_terms &one : net.links) {
    for (double &rate : one.mbit) rate *= std::min(most_mbit / sum, 1.0);
    one.cap_mbit *= std::min(most_mbit / sum, 1.0);
  }
  if (dice.once_in(10)) net.access_mbit = std::min(sum, most_mbit) * dice.between(0.3, 0.9);
  scenario one{"random " + std::to_string(seed), net, {}};
  const int kind = dice.whole(0, 9);
  const double part = dice.between(0.3, 0.85);
  one.terms.pace = kind < 2 ? 0 : bytes_per_second(net) * part;
  one.terms.client.film_bytes = bytes_per_second(net) * (kind < 2 ? 0.7 : part) * seconds;
  one.terms.client.pack_bytes = dice.once_in(4) ? 64 * 1024 : (dice.once_in(2) ? 16 : 32) * 1024;
  one.terms.client.ring_bytes = std::max<double>(8 << 20, 32.0 * one.terms.client.pack_bytes);
  one.terms.most_seconds = seconds * 10;
  if (kind >= 2 && kind < 4) {
    one.terms.seek_each = dice.between(0.5, 3);
    one.terms.seeks = static_cast<int>(seconds / one.terms.seek_each / 2);
  }
  return one;
}

}  // namespace sim
