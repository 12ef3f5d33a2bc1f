// See link.h.
#include "link.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>

namespace sim {

namespace {
constexpr double least_queue_bytes = 65536;
constexpr double queue_seconds = 0.06;
constexpr double slice = 0.05;      // of time in which a rate is taken as constant
constexpr double longest_wait = 5;  // in a queue that does not move; then the packet counts as lost
}  // namespace

link_terms steady(double mbit, double round_trip, double loss) {
  link_terms one;
  one.mbit = {mbit};
  one.round_trip = round_trip;
  one.loss = loss;
  return one;
}

double link_terms::mbit_at(double now) const {
  double rate = mbit.size() == 1 ? mbit[0] : mbit[static_cast<size_t>(now / step) % mbit.size()];
  for (const change &one : changes) {
    if (now >= one.from && now < one.to) rate *= one.part;
  }
  return rate;
}

double link_terms::mean_mbit() const {
  return std::accumulate(mbit.begin(), mbit.end(), 0.0) / static_cast<double>(mbit.size());
}

std::string link_terms::text() const {
  char line[256];
  const auto [low, high] = std::minmax_element(mbit.begin(), mbit.end());
  std::snprintf(line, sizeof line,
                "%.2f (%.2f to %.2f) Mbit/s, %.0f + %.0f ms, loss %.2f %%, think %.0f ms%s",
                mean_mbit(), *low, *high, round_trip * 1e3, jitter * 1e3, loss * 100, think * 1e3,
                one_at_a_time ? ", one request at a time" : "");
  std::string all = line;
  if (cap_mbit > 0) all += ", " + std::to_string(cap_mbit) + " Mbit/s a connection";
  for (const change &one : changes) {
    std::snprintf(line, sizeof line, ", x%.2f from %.1f to %.1f s", one.part, one.from, one.to);
    all += line;
  }
  return all;
}

Link::Link(link_terms terms, uint64_t seed, Link *shared)
    : terms_(std::move(terms)), random_(seed), shared_(shared) {}

double Link::leaves_at(double from, double bits) const {
  const bool constant = terms_.changes.empty() && terms_.mbit.size() == 1;
  if (constant) return from + bits / (terms_.mbit[0] * 1e6);
  for (double at = from; at < from + longest_wait;) {
    const double rate = terms_.mbit_at(at) * 1e6;
    const double end = (std::floor(at / slice + 1e-6) + 1) * slice;
    if (rate > 0 && bits <= rate * (end - at)) return at + bits / rate;
    bits -= rate * (end - at);
    at = end;
  }
  return never;
}

double Link::send(double now, int bytes) {
  if (shared_ != nullptr) now = shared_->send(now, bytes);
  if (now >= never) return never;
  const double rate = terms_.mbit_at(now) * 1e6 / 8;
  if (rate <= 0) return never;
  const double room =
      std::max({rate * queue_seconds, rate * terms_.round_trip / 2, least_queue_bytes});
  const double starts = std::max(busy_until_, now);
  if ((starts - now) * rate + bytes > room) return never;
  const double left = leaves_at(starts, bytes * 8 * 1500.0 / packet_bytes);
  if (left >= never) return never;
  busy_until_ = left;
  if (terms_.loss > 0 && uniform() < terms_.loss) return never;
  const double late = terms_.jitter > 0 ? terms_.jitter * uniform() : 0;
  last_arrival_ = std::max(last_arrival_, left + terms_.round_trip / 2 + late);
  return last_arrival_;
}

bool Link::loses_request(double now) {
  return terms_.mbit_at(now) <= 0 || (terms_.loss > 0 && uniform() < terms_.loss);
}

}  // namespace sim
