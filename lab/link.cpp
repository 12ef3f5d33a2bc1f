// See link.h.
#include "lab/link.h"

#include <algorithm>
#include <cmath>

namespace lab {

namespace {

constexpr double bits_per_byte = 8;

bool chance(std::mt19937_64 &random, double share) {
  return share > 0 && std::uniform_real_distribution<double>(0, 1)(random) < share;
}

}  // namespace

void rate_trace::add_step(nanoseconds duration, double bits_per_s) {
  const double rate = bits_per_s / 1e9;
  ends_.push_back((ends_.empty() ? 0 : ends_.back()) + duration);
  bits_per_ns_.push_back(rate);
  bits_per_turn_ += rate * static_cast<double>(duration);
}

nanoseconds rate_trace::finish(nanoseconds start, double bits) const {
  if (ends_.empty()) return start;
  if (bits_per_turn_ <= 0) return never;
  const nanoseconds period = ends_.back();
  nanoseconds turn = start / period * period;
  auto at = static_cast<size_t>(std::upper_bound(ends_.begin(), ends_.end(), start - turn) -
                                ends_.begin());
  for (nanoseconds now = start;;) {
    const double room = bits_per_ns_[at] * static_cast<double>(turn + ends_[at] - now);
    if (bits <= room) return now + static_cast<nanoseconds>(std::ceil(bits / bits_per_ns_[at]));
    bits -= room;
    now = turn + ends_[at];
    if (++at < ends_.size()) continue;
    at = 0;
    turn += period;
  }
}

packet_loss::packet_loss(const loss_settings &settings, uint64_t seed)
    : single_(settings.single),
      begins_(settings.burst_share / (settings.burst_length * (1 - settings.burst_share))),
      ends_(1 / settings.burst_length),
      random_(seed) {}

bool packet_loss::next() {
  bad_ = bad_ ? !chance(random_, ends_) : chance(random_, begins_);
  return chance(random_, single_) || bad_;
}

size_t bottleneck::queued_bytes(nanoseconds now) {
  while (!queue_.empty() && queue_.front().when <= now) {
    queued_ -= queue_.front().size;
    queue_.pop_front();
  }
  return queued_;
}

nanoseconds bottleneck::pass(nanoseconds now, size_t size) {
  if (queued_bytes(now) + size > limit_bytes) return -1;
  free_ = trace.finish(std::max(now, free_), static_cast<double>(size) * bits_per_byte);
  queue_.push_back({free_, size});
  queued_ += size;
  return free_;
}

link::link(const link_settings &settings, uint64_t seed)
    : settings_(settings),
      random_(seed),
      down_{packet_loss(settings.down, seed + 1)},
      up_{packet_loss(settings.up, seed + 2)} {
  queue_.trace = settings.trace;
  queue_.limit_bytes = settings.queue_bytes;
}

bool link::in_outage(nanoseconds when) const {
  return std::any_of(
      settings_.outages.begin(), settings_.outages.end(),
      [when](const auto &outage) { return when >= outage.first && when < outage.second; });
}

verdict link::travel(way &direction, nanoseconds leaves) {
  if (in_outage(leaves)) return {fate::outage};
  if (direction.loss.next()) return {fate::lost};
  const nanoseconds jitter = settings_.jitter > 0 ? std::uniform_int_distribution<nanoseconds>(
                                                        0, settings_.jitter)(random_)
                                                  : 0;
  direction.last = std::max(direction.last, leaves + settings_.delay + jitter);
  return {fate::delivered, direction.last};
}

verdict link::down(nanoseconds now, size_t size) {
  const nanoseconds leaves = queue_.pass(now, size);
  return leaves < 0 ? verdict{fate::queue_full} : travel(down_, leaves);
}

verdict link::up(nanoseconds now) {
  return travel(up_, now);
}

}  // namespace lab
