// See watch.h.
#include "c2ms/fetch/watch.h"

#include <algorithm>

#include "c2ms/core/strand_hold.h"
#include "c2ms/core/time.h"
#include "c2ms/core/timer.h"
#include "c2ms/fetch/choice.h"
#include "c2ms/fetch/node.h"
#include "c2ms/fetch/queue.h"
#include "c2ms/fetch/work.h"
#include "c2ms/ring/bind.h"
#include "c2ms/ring/range.h"

namespace c2ms {

namespace {

constexpr int32_t most_watched = 32;  // packs ahead of the reader
constexpr double near_s = 2;          // a deadline that is nearer is watched
constexpr int64_t anew_pause_us = 1'000'000;
constexpr int64_t unused_us =
    30'000'000;  // a connection beside its server's first with nothing to do is closed
// A server that was asked ahead has had enough time to answer.
constexpr double unanswered_round_trips = 3, unanswered_least = 0.3;

struct late_pack {
  int32_t index = -1;
  int32_t size = 0, len = 0, units = 0;
};

// The packs near the reader that are under way.
struct watched {
  std::array<late_pack, most_watched> packs{};
  size_t count = 0;
  uint64_t position = 0;
  int32_t pack_bytes = 0;
  double pace = 0, lead = 0;
  bool waits = false;
  int32_t need_last = 0;  // of a reader that waits
};

watched look(c2ms_cache *cache) {
  watched seen;
  const adif::Guard lock(cache->lock);
  seen.position = cache->read_pos;
  seen.pack_bytes = cache->packsize;
  seen.pace = cache->pace.rate();
  seen.lead = static_cast<double>(c2ms_cache_lead(cache));
  seen.waits = cache->need_index.load() >= 0;
  seen.need_last = cache->need_last;
  if (cache->packnum < 1) return seen;
  const int64_t range_end = int64_t{cache->first_index} + cache->packnum;
  const auto end = static_cast<int32_t>(std::min<int64_t>(range_end, cache->total_packs));
  const auto first = static_cast<int32_t>((seen.position + static_cast<uint64_t>(seen.lead)) /
                                          static_cast<uint64_t>(seen.pack_bytes));
  for (int32_t i = std::max(first, cache->first_index.load());
       i < end && seen.count < seen.packs.size(); ++i) {
    auto *const pack = static_cast<c2ms_pack *>(sk_value(cache->packs, i % cache->packnum));
    const adif::Guard pack_lock(pack->lock);
    if (pack->index != i || (pack->state != pack_requested && pack->state != pack_receiving))
      continue;
    seen.packs[seen.count++] = {i, pack->size, pack->len, pack->unit_count};
  }
  return seen;
}

// What a unit still has to receive before the end of pack `index`; negative when the pack is none
// of its run.
int64_t bytes_before_end(const c2ms_unit *unit, int32_t index) {
  if (index < unit->first_index || index >= unit->first_index + unit->run_packs) return -1;
  const int64_t end = int64_t{index + 1 - unit->first_index} * unit->pack_bytes - unit->skip;
  return std::min<int64_t>(end, unit->range_length) - unit->received;
}

// When a pack is expected, and which lane brings it.
struct expectation {
  double seconds = 1e9;
  size_t who = 0;
};

// The lanes that bear the pack are taken out of `helpers`.
expectation expect(const session_lanes &known, int32_t index, session_lanes *helpers) {
  expectation best;
  for (size_t i = 0; i < known.count; ++i) {
    const adif::Guard lock(known.nodes[i]->download_lock);
    double before = 0;
    for (const c2ms_unit *unit : {known.nodes[i]->download_unit, known.nodes[i]->next_unit}) {
      if (unit == nullptr) break;
      const int64_t bytes = bytes_before_end(unit, index);
      if (bytes >= 0) {
        helpers->lanes[i].usable = false;
        const double arrives = arrives_in(known.all(), i, before + static_cast<double>(bytes));
        if (arrives < best.seconds) best = {arrives, i};
      }
      before += static_cast<double>(unit->range_length) - unit->received;
    }
  }
  return best;
}

bool has_room_ahead(c2ms_node *node) {
  const adif::Guard lock(node->download_lock);
  if (node->download_unit == nullptr) return true;
  return node->takes_ahead && node->next_unit == nullptr;
}

bool in_budget(c2ms_sess *sess, bool waits) {
  const adif::Guard lock(sess->speed_lock);
  return may_repeat(static_cast<double>(sess->twice), static_cast<double>(sess->total_bytes.load()),
                    waits);
}

void ask_helper(c2ms_sess *sess, c2ms_node *node, int32_t first, int32_t count) {
  c2ms_unit *const unit = c2ms_sess_unit_issue_again(sess, first, count);
  if (unit == nullptr) return;
  unit->meant_for = node->node_id;
  c2ms_sess_unit_put(sess, unit);
  if (node->state == C2MS_NODE_READY) {
    c2ms_node_download_start_dbg(node);
  } else if (has_room_ahead(node) && !ask_ahead(node)) {
    c2ms_node_retry(node);
  }
}

// Neighbouring packs from the i-th watched one on that nobody has been asked for help with.
int32_t late_alike(const watched &seen, size_t i) {
  int32_t count = 1;
  for (size_t k = i + 1; k < seen.count; ++k, ++count) {
    if (seen.packs[k].index != seen.packs[k - 1].index + 1 || seen.packs[k].units > 1) break;
  }
  return count;
}

void help(c2ms_sess *sess, const watched &seen) {
  idle_packs idle;
  fill_ring_view(&sess->cache_record, &idle);
  reader_view reader;
  reader.pace = seen.pace;
  for (size_t i = 0; i < seen.count; ++i) {
    const late_pack &late = seen.packs[i];
    const session_lanes known = lanes_of(sess);
    const double ahead =
        static_cast<double>(late.index) * seen.pack_bytes - static_cast<double>(seen.position);
    const bool blocks = seen.waits && late.index <= seen.need_last;
    const double needed = blocks ? 0 : needed_in(known.all(), idle.view, reader, ahead);
    if (needed > near_s || !in_budget(sess, needed <= 0)) return;
    if (late.units > 2) continue;
    session_lanes helpers = known;
    const expectation expected = expect(known, late.index, &helpers);
    const uint32_t holder = known.lanes[expected.who].server;
    const size_t who =
        choose_helper(helpers.all(), holder, late.size - late.len, expected.seconds, needed);
    if (who >= known.count) continue;
    const int32_t count = choose_help(known.all(), who, late_alike(seen, i), seen.pack_bytes);
    ask_helper(sess, known.nodes[who], late.index, count);
  }
}

// A server that was asked ahead and does not answer, though the answer before has ended, has thrown
// the request away.
bool lost_ahead(c2ms_node *node, const lane &seen) {
  const adif::Guard lock(node->download_lock);
  const c2ms_unit *const unit = node->download_unit;
  if (unit == nullptr || !unit->ahead || unit->state != UNIT_SENT) return false;
  return seen.silence > std::max(unanswered_least, unanswered_round_trips * seen.round_trip);
}

// Nothing of what a node receives is wanted any more.
bool is_unwanted(c2ms_sess *sess, c2ms_node *node) {
  const adif::Guard lock(node->download_lock);
  if (node->download_unit == nullptr) return false;
  for (const c2ms_unit *unit : {node->download_unit, node->next_unit}) {
    if (unit != nullptr && c2ms_cache_wanted(&sess->cache_record, unit) > 0) return false;
  }
  return true;
}

void give_up_hopeless(c2ms_sess *sess) {
  const session_lanes known = lanes_of(sess);
  const int64_t now = now_us();
  for (size_t i = 0; i < known.count; ++i) {
    c2ms_node *const node = known.nodes[i];
    if (node->state != C2MS_NODE_WAITING_GETMEDIA_RESP) continue;
    if (lost_ahead(node, known.lanes[i])) {
      c2ms_node_retry(node);
      continue;
    }
    if (now - node->anew_at_us < anew_pause_us) continue;
    if (is_unwanted(sess, node) && is_hopeless(known.all(), i)) connect_anew(node);
  }
}

// One more connection where that adds, one fewer where it has had nothing to do for long.
void fit_connections(c2ms_sess *sess) {
  const session_lanes known = lanes_of(sess);
  idle_packs idle;
  if (fill_ring_view(&sess->cache_record, &idle)) {
    const size_t like = wants_connection(known.all());
    if (like >= known.count) return;
    const c2ms_node *const node = known.nodes[like];
    c2ms_node_open(sess, node->host, node->ip, node->port, node_serves_media, 0, node->level);
    return;
  }
  if (known.count <= wanted_media_nodes) return;
  const int64_t now = now_us();
  for (size_t i = 1; i < known.count; ++i) {
    c2ms_node *const node = known.nodes[i];
    if (node->state != C2MS_NODE_READY ||
        now - std::max(node->probed_at_us, node->opened_at_us) < unused_us)
      continue;
    const auto before = known.lanes.begin() + static_cast<ptrdiff_t>(i);
    const bool beside = std::any_of(known.lanes.begin(), before, [&](const lane &other) {
      return other.server == known.lanes[i].server;
    });
    if (beside) {
      c2ms_node_close(node);
      return;
    }
  }
}

bool is_near(const watched &seen) {
  if (seen.count == 0) return false;
  return seen.waits || (seen.pace > 0 && seen.lead < near_s * seen.pace);
}

void arm(c2ms_sess *sess, uint32_t period_ms) {
  if (sess->cache.load() == nullptr || sess->usable_num < 1) return;
  sess->watch_timer = start_timer(sess->mgmt, period_ms, timer_sess_watch, sess->sess_id);
  sess->watches_soon = period_ms == watch_near_ms;
}

}  // namespace

void watch_session(c2ms_sess *sess) {
  check_inside(sess);
  c2ms_cache *const cache = sess->cache.load();
  if (cache == nullptr || sess->life.load() != c2ms_life::live) return;
  const watched seen = look(cache);
  help(sess, seen);
  give_up_hopeless(sess);
  if (sess->yields) {
    mark_dispatch_due(sess);  // does the other session still need the line?
  } else {
    fit_connections(sess);
  }
  if (is_near(seen) && !sess->yields) {
    watch_soon(sess);
  } else if (sess->ready_num < sess->usable_num || sess->yields) {
    start_watch(sess);
  }
}

void start_watch(c2ms_sess *sess) {
  check_inside(sess);
  if (sess->watch_timer == nullptr) arm(sess, watch_far_ms);
}

void watch_soon(c2ms_sess *sess) {
  check_inside(sess);
  if (sess->watch_timer != nullptr && sess->watches_soon) return;
  stop_timer(&sess->watch_timer);
  arm(sess, watch_near_ms);
}

}  // namespace c2ms
