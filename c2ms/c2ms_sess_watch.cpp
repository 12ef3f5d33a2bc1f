#include "c2ms/c2ms_sess_watch.h"

#include <algorithm>

#include "c2ms/c2ms_cache.h"
#include "c2ms/c2ms_node.h"
#include "c2ms/c2ms_pack.h"
#include "c2ms/c2ms_pump.h"
#include "c2ms/c2ms_sess_choice.h"
#include "c2ms/c2ms_sess_sched.h"
#include "c2ms/c2ms_time.h"
#include "c2ms/c2ms_unit.h"

namespace c2ms {

namespace {

constexpr int32_t most_watched = 32;      // packs ahead of the reader
constexpr double near_s = 2;              // a deadline that is nearer is watched
constexpr double twice_share = 0.02;      // of what has been received may be asked for a second time
constexpr double twice_least = 512 * 1024;
constexpr int64_t anew_pause_us = 1'000'000;
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
};

watched look(c2ms_cache *cache) {
  watched seen;
  const adif::Guard lock(cache->lock);
  seen.position = cache->read_pos;
  seen.pack_bytes = cache->packsize;
  seen.pace = cache->pace.rate();
  seen.lead = static_cast<double>(c2ms_cache_lead(cache));
  seen.waits = cache->need_index.load() >= 0;
  if (cache->packnum < 1) return seen;
  const int64_t range_end = int64_t{cache->first_index} + cache->packnum;
  const auto end = static_cast<int32_t>(std::min<int64_t>(range_end, cache->total_packs));
  const auto first = static_cast<int32_t>((seen.position + static_cast<uint64_t>(seen.lead)) /
                                          static_cast<uint64_t>(seen.pack_bytes));
  for (int32_t i = std::max(first, cache->first_index.load()); i < end && seen.count < seen.packs.size(); ++i) {
    auto *const pack = static_cast<c2ms_pack *>(sk_value(cache->packs, i % cache->packnum));
    const adif::Guard pack_lock(pack->lock);
    if (pack->index != i || (pack->state != pack_requested && pack->state != pack_receiving)) continue;
    seen.packs[seen.count++] = {i, pack->size, pack->len, pack->unit_count};
  }
  return seen;
}

// What a unit still has to receive before the end of pack `index`; negative when the pack is none of its run.
int64_t bytes_before_end(const c2ms_unit *unit, int32_t index) {
  if (index < unit->first_index || index >= unit->first_index + unit->run_packs) return -1;
  const int64_t end = int64_t{index + 1 - unit->first_index} * unit->pack_bytes - unit->skip;
  return std::min<int64_t>(end, unit->range_length) - unit->received;
}

// When a pack is expected, and from which server.
struct expectation {
  double seconds = 1e9;
  uint32_t server = 0;
};

expectation expect(const session_lanes &known, int32_t index) {
  expectation best;
  for (size_t i = 0; i < known.count; ++i) {
    const adif::Guard lock(known.nodes[i]->download_lock);
    double before = 0;
    for (const c2ms_unit *unit : {known.nodes[i]->download_unit, known.nodes[i]->next_unit}) {
      if (unit == nullptr) break;
      const int64_t bytes = bytes_before_end(unit, index);
      if (bytes >= 0) {
        const double arrives = arrives_in(known.all(), i, before + static_cast<double>(bytes));
        if (arrives < best.seconds) best = {arrives, known.lanes[i].server};
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

// True while what came twice is a small part of what was received. A reader that waits is helped always.
bool may_repeat(c2ms_sess *sess, const watched &seen) {
  if (seen.waits) return true;
  const adif::Guard lock(sess->speed_lock);
  const double all = static_cast<double>(sess->total_bytes.load());
  return static_cast<double>(sess->twice) < all * twice_share + twice_least;
}

void ask_helper(c2ms_sess *sess, c2ms_node *node, const late_pack &late) {
  c2ms_unit *const unit = c2ms_sess_unit_issue_again(sess, late.index);
  if (unit == nullptr) return;
  unit->meant_for = node->node_id;
  c2ms_sess_unit_put(sess, unit);
  if (node->state == C2MS_NODE_READY) {
    c2ms_node_download_start_dbg(node);
  } else if (has_room_ahead(node) && !ask_ahead(node)) {
    c2ms_node_retry(node);
  }
}

// Seconds until the reader needs a pack. Who takes what comes needs it when all before it could have come.
double needed_in(const watched &seen, const session_lanes &known, int32_t index) {
  const uint64_t begin = static_cast<uint64_t>(index) * static_cast<uint64_t>(seen.pack_bytes);
  double pace = seen.pace;
  for (const lane &one : known.all()) pace += seen.pace <= 0 && one.usable ? one.rate : 0;
  if (begin <= seen.position || pace <= 0) return 0;
  return static_cast<double>(begin - seen.position) / pace;
}

void help(c2ms_sess *sess, const watched &seen) {
  for (size_t i = 0; i < seen.count; ++i) {
    const late_pack &late = seen.packs[i];
    const session_lanes known = lanes_of(sess);
    const double needed = needed_in(seen, known, late.index);
    if (needed > near_s || !may_repeat(sess, seen)) return;
    if (late.units > 2) continue;
    const expectation expected = expect(known, late.index);
    const size_t who =
        choose_helper(known.all(), expected.server, late.size - late.len, expected.seconds, needed);
    if (who >= known.count) continue;
    ask_helper(sess, known.nodes[who], late);
  }
}

// A server that was asked ahead and does not answer, though the answer before has ended, has thrown the request away.
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
    if (now - node->anew_us < anew_pause_us) continue;
    if (is_unwanted(sess, node) && is_hopeless(known.all(), i)) connect_anew(node);
  }
}

bool is_near(const watched &seen) {
  if (seen.count == 0) return false;
  return seen.waits || (seen.pace > 0 && seen.lead < near_s * seen.pace);
}

}  // namespace

void watch_session(c2ms_sess *sess) {
  c2ms_cache *const cache = sess->cache.load();
  if (cache == nullptr || sess->life.load() != c2ms_life::live) return;
  const watched seen = look(cache);
  help(sess, seen);
  give_up_hopeless(sess);
  if (is_near(seen) || sess->ready_num < sess->active_num) start_watch(sess);
}

void start_watch(c2ms_sess *sess) {
  if (sess->watch_timer != nullptr || sess->cache.load() == nullptr || sess->active_num < 1) return;
  sess->watch_timer = StartTimer2(sess->probe, watch_period_ms, timer_sess_watch, sess->sess_id, c2ms_pump, sess->mgmt);
}

}  // namespace c2ms
