// See network.h.
#include "lab/network.h"

#include <algorithm>
#include <utility>

namespace lab {

namespace {

constexpr size_t ip_header = 20, ip_source = 12, ip_target = 16;

uint32_t address_at(const packet &bytes, size_t at) {
  return uint32_t{bytes[at]} << 24 | uint32_t{bytes[at + 1]} << 16 | uint32_t{bytes[at + 2]} << 8 |
         bytes[at + 3];
}

uint64_t &slot(std::vector<uint64_t> &samples, nanoseconds now) {
  const auto index = static_cast<size_t>(now / sample_period);
  if (samples.size() <= index) samples.resize(index + 1);
  return samples[index];
}

}  // namespace

bool is_ipv4(const packet &bytes) {
  return bytes.size() >= ip_header && bytes[0] >> 4 == 4;
}

network::network(const network_settings &settings) {
  for (const link_settings &each : settings.links) {
    const uint64_t seed = settings.seed * 1000 + 10 * routes_.size();
    routes_.push_back({link(each, seed), {}, {}, {}});
  }
  if (!settings.has_access) return;
  access_.emplace();
  access_->trace = settings.access_trace;
  access_->limit_bytes = settings.access_queue_bytes;
}

void network::count(route &r, bool to_client, const verdict &v, size_t size, nanoseconds now) {
  way_counts &counts = to_client ? r.record.down : r.record.up;
  switch (v.what) {
    case fate::delivered:
      ++counts.packets;
      counts.bytes += size;
      if (to_client) slot(r.record.sent, v.when) += size;
      break;
    case fate::queue_full:
      ++counts.queue_full;
      break;
    case fate::lost:
      ++counts.lost;
      break;
    case fate::outage:
      ++counts.outage;
      break;
  }
  if (!to_client) return;
  uint64_t &most = slot(r.record.queued, now);
  most = std::max<uint64_t>(most, r.path.queued_bytes(now));
}

void network::take(nanoseconds now, bool to_client, packet bytes) {
  if (!is_ipv4(bytes)) return;
  const uint32_t server = address_at(bytes, to_client ? ip_source : ip_target);
  const auto found = std::find_if(routes_.begin(), routes_.end(), [server](const route &each) {
    return each.path.address() == server;
  });
  if (found == routes_.end()) return;
  const verdict v = to_client ? found->path.down(now, bytes.size()) : found->path.up(now);
  count(*found, to_client, v, bytes.size(), now);
  if (v.what != fate::delivered) return;
  (to_client ? found->down : found->up).push_back({v.when, std::move(bytes)});
}

// What leads a queue may not be in order with what leads another: the earliest of all is next.
std::deque<network::moving> *network::first() {
  std::deque<moving> *best = nullptr;
  const auto consider = [&best](std::deque<moving> &queue) {
    if (queue.empty()) return;
    if (best == nullptr || queue.front().when < best->front().when) best = &queue;
  };
  for (route &r : routes_) {
    consider(r.down);
    consider(r.up);
  }
  consider(behind_access_);
  return best;
}

nanoseconds network::next() {
  const auto *const queue = first();
  return queue == nullptr ? never : queue->front().when;
}

bool network::leads_to_access(const std::deque<moving> *queue) const {
  return access_ && std::any_of(routes_.begin(), routes_.end(),
                                [queue](const route &each) { return queue == &each.down; });
}

std::optional<arrival> network::pop(nanoseconds now) {
  for (;;) {
    std::deque<moving> *const queue = first();
    if (queue == nullptr || queue->front().when > now) return {};
    moving m = std::move(queue->front());
    queue->pop_front();
    if (!leads_to_access(queue)) {
      const bool upward = std::any_of(routes_.begin(), routes_.end(),
                                      [queue](const route &each) { return queue == &each.up; });
      return arrival{m.when, !upward, std::move(m.bytes)};
    }
    const nanoseconds leaves = access_->pass(m.when, m.bytes.size());
    if (leaves < 0)
      ++access_full_;
    else
      behind_access_.push_back({leaves, std::move(m.bytes)});
  }
}

}  // namespace lab
