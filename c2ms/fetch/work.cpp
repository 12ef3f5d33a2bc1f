// See work.h.
#include "c2ms/fetch/work.h"

#include <algorithm>

#include "c2ms/core/strand_hold.h"
#include "c2ms/core/time.h"
#include "c2ms/fetch/choice.h"
#include "c2ms/fetch/share.h"
#include "c2ms/ring/range.h"

namespace c2ms {

namespace {

constexpr double brief_s = 0.25;
constexpr int64_t probe_us = 3'000'000;  // a node that gets nothing is tried again that often

lane lane_of(const c2ms_node *node, int64_t now) {
  const Estimate &estimate = node->estimate;
  lane one;
  one.rate = estimate.rate();
  one.round_trip = estimate.round_trip();
  one.owed = static_cast<double>(estimate.owed());
  one.silence = estimate.silence(now);
  one.brought = static_cast<double>(estimate.brought());
  one.growing = estimate.growing(now);
  one.server = node->ip ^ (node->port << 16);
  one.usable = node->state >= C2MS_NODE_READY;
  // One that is being opened: for how long.
  if (!one.usable) one.silence = static_cast<double>(now - node->opened_at_us) * 1e-6;
  return one;
}

// Adds the idle packs from `first` to `end`, as many stretches as there is room for.
void add_idle(c2ms_cache *cache, int32_t first, int32_t end, idle_packs *found)
    REQUIRES(cache->lock) {
  for (int32_t i = first; i < end; ++i) {
    if (!c2ms_cache_may_ask(cache, i)) continue;
    stretch &last = found->stretches[found->count == 0 ? 0 : found->count - 1];
    if (found->count > 0 && last.first + last.count == i) {
      ++last.count;
    } else if (found->count < found->stretches.size()) {
      found->stretches[found->count++] = {i, 1};
    } else {
      return;
    }
  }
}

// With two reading places the range follows the lower one. Who reads at the upper one comes first
// all the same, with a quarter of the ring: it may have jumped there for good.
idle_packs idle_of(c2ms_cache *cache) {
  idle_packs found;
  const adif::Guard lock(cache->lock);
  const ahead_packs ahead = c2ms_cache_ahead(cache);
  if (cache->read_index > cache->wanted_from) {
    const int32_t from = std::max(cache->read_index, cache->first_index.load());
    const int32_t quarter = std::max(cache->packnum / 4, 1);
    add_idle(cache, from, std::min(ahead.end, from + quarter), &found);
  }
  if (found.count == 0) add_idle(cache, ahead.first, ahead.end, &found);
  found.view.pack_bytes = cache->packsize;
  found.view.packs = cache->packnum - cache->reserve;
  found.view.urgent_end = cache->urgent_end;
  return found;
}

// As many packs as a connection brings before somebody else may need the line.
int32_t brief(const lane &one, int32_t pack_bytes) {
  return std::max(static_cast<int32_t>(one.rate * brief_s / pack_bytes), 1);
}

}  // namespace

size_t session_lanes::find(const c2ms_node *node) const {
  const auto end = nodes.begin() + static_cast<ptrdiff_t>(count);
  return static_cast<size_t>(std::find(nodes.begin(), end, node) - nodes.begin());
}

session_lanes lanes_of(c2ms_sess *sess) {
  session_lanes found;
  const int64_t now = now_us();
  const adif::Guard list(sess->list_lock);
  const adif::Guard lock(sess->speed_lock);
  for (int i = 0; i < sk_num(sess->node_list) && found.count < found.nodes.size(); ++i) {
    auto *const node = static_cast<c2ms_node *>(sk_value(sess->node_list, i));
    found.nodes[found.count] = node;
    found.lanes[found.count++] = lane_of(node, now);
  }
  return found;
}

reader_view reader_of(c2ms_cache *cache) {
  reader_view reader;
  const int64_t now = now_us();
  const adif::Guard lock(cache->lock);
  reader.pace = cache->pace.rate();
  reader.lead = static_cast<double>(c2ms_cache_lead(cache));
  if (cache->sought_at_us != 0)
    reader.since_seek = static_cast<double>(now - cache->sought_at_us) * 1e-6;
  return reader;
}

bool fill_ring_view(c2ms_cache *cache, idle_packs *out) {
  *out = idle_of(cache);
  out->view.idle = {out->stretches.data(), out->count};
  return out->count > 0;
}

run choose_work(c2ms_sess *sess, c2ms_node *node) {
  if (node != nullptr) check_inside(sess);
  c2ms_cache *const cache = sess->cache.load();
  if (cache == nullptr || cache->packnum < 1) return {};
  idle_packs idle;
  if (!fill_ring_view(cache, &idle)) return {};
  if (node == nullptr) return {idle.stretches[0].first, 1};
  const standing among = standing_of(sess);
  sess->yields = among.yields;
  if (among.yields) return {};
  const session_lanes known = lanes_of(sess);
  const size_t who = known.find(node);
  if (who == known.count) return {};
  const int64_t now = now_us();
  const bool probe = node->asked_at_us == 0 && now - node->probed_at_us > probe_us;
  run chosen = choose_run(known.all(), who, idle.view, reader_of(cache), probe);
  if (among.shares) chosen.count = std::min(chosen.count, brief(known.lanes[who], cache->packsize));
  if (chosen.count > 0) node->probed_at_us = now;
  return chosen;
}

}  // namespace c2ms
