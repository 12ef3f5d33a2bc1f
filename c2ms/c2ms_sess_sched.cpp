#include "c2ms/c2ms_sess_sched.h"

#include <algorithm>
#include <array>

#include "c2ms/c2ms_node.h"
#include "c2ms/c2ms_node_obj.h"
#include "c2ms/c2ms_pack.h"
#include "c2ms/c2ms_sess.h"
#include "c2ms/c2ms_stats.h"
#include "c2ms/c2ms_strand.h"
#include "c2ms/c2ms_time.h"
#include "c2ms/c2ms_unit.h"

namespace {

using namespace c2ms;

void sort_nodes(c2ms_sess *sess) REQUIRES(sess->list_lock) {
  if (sk_num(sess->node_list) > 1) sk_sort_by(sess->node_list, c2ms_node_cmp_node_by_perf);
}

c2ms_unit *pop_unit(c2ms_sess *sess) {
  const adif::Guard lock(sess->unit_lock);
  auto *const unit = static_cast<c2ms_unit *>(sk_shift(sess->units));
  sess->unit_num = std::max(sk_num(sess->units), 0);
  return unit;
}

bool bind(const c2ms_range &want, c2ms_unit *unit, c2ms_pack *pack) {
  const adif::Guard lock(pack->lock);
  const bool in_flight = pack->state == pack_requested || pack->state == pack_receiving;
  if (pack->cache->generation != want.generation || pack->index != want.index) return false;
  if (want.redundant ? !in_flight : pack->state != pack_idle) return false;
  if (c2ms_pack_bind_unit(pack, unit) != 0) return false;
  if (pack->state == pack_idle) c2ms_pack_state_to(pack, pack_requested);
  return true;
}

// With other units still receiving, length and state are theirs.
void forget_progress(c2ms_unit *unit) {
  c2ms_pack *const pack = unit->pack.load();
  if (pack == nullptr) return;
  const adif::Guard lock(pack->lock);
  if (unit->pack.load() != pack || pack->state == pack_ready) return;
  const auto end = pack->units + pack->unit_count;
  const bool others = std::any_of(pack->units, end, [unit](const c2ms_unit *other) {
    return other != unit && other->state > UNIT_INIT;
  });
  if (others) return;
  c2ms_pack_state_to(pack, pack_requested);
  count_forgotten(unit->session, pack->len);
  pack->len = 0;
}

}  // namespace

int c2ms_sess_node_add(c2ms_sess *sess, c2ms_node *node) {
  if (sess == nullptr) return -1;
  if (node == nullptr) return -2;
  const adif::Guard lock(sess->list_lock);
  if (sk_sort_insert_by(sess->node_index, node, c2ms_node_cmp_node_by_iport) < 1) return -3;
  if ((node->type & node_serves_media) == 0 || sk_push(sess->node_list, node) > 0) return 0;
  sk_delete_ptr(sess->node_index, node);
  return -3;
}

int c2ms_sess_node_del(c2ms_sess *sess, c2ms_node *node) {
  if (sess == nullptr) return -1;
  if (node == nullptr) return -2;
  const adif::Guard lock(sess->list_lock);
  sk_delete_ptr(sess->node_index, node);
  sk_delete_ptr(sess->node_list, node);
  return 0;
}

c2ms_node *c2ms_sess_node_find(c2ms_sess *sess, uint32_t addr, uint32_t port) {
  if (sess == nullptr) return nullptr;
  const c2ms_iport_key key{addr, port};
  const adif::Guard lock(sess->list_lock);
  return static_cast<c2ms_node *>(sk_find_by(sess->node_index, &key, c2ms_node_cmp_iport));
}

int c2ms_sess_node_num(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  const adif::Guard lock(sess->list_lock);
  return sk_num(sess->node_list);
}

int c2ms_sess_node_readynum(c2ms_sess *sess) {
  return sess == nullptr ? -1 : sess->ready_num.load();
}

int c2ms_sess_node_sort(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  const adif::Guard lock(sess->list_lock);
  sort_nodes(sess);
  return 0;
}

int c2ms_sess_unit_issue(c2ms_sess *sess, const c2ms_range &want, c2ms_pack *pack) {
  if (sess == nullptr) return -1;
  if (pack == nullptr) return -2;
  c2ms_unit *const unit = c2ms_unit_fetch(sess);
  if (unit == nullptr) return -100;
  c2ms_unit_init_download(sess, unit, want.fid, want.index, want.offset, want.length, want.flag,
                          pack);
  unit->generation = want.generation;
  unit->redundant = want.redundant;
  if (!bind(want, unit, pack)) {
    unit->pack = nullptr;  // never bound: the pack is not to be told
    c2ms_unit_recycle(unit);
    return -200;
  }
  return c2ms_sess_unit_put(sess, unit);
}

int c2ms_sess_unit_put(c2ms_sess *sess, c2ms_unit *unit) {
  if (sess == nullptr) return -1;
  if (unit == nullptr) return -2;
  bool queued;
  {
    const adif::Guard lock(sess->unit_lock);
    queued = sk_sort_insert_by(sess->units, unit, c2ms_unit_cmp_unit_by_offset) > 0;
    sess->unit_num = std::max(sk_num(sess->units), 0);
  }
  if (!queued)
    c2ms_unit_recycle(unit);  // no memory: the pack is idle again and will be asked for later
  mark_dispatch_due(sess);
  return 0;
}

int c2ms_sess_unit_requeue(c2ms_sess *sess, c2ms_unit *unit) {
  if (sess == nullptr) return -1;
  if (unit == nullptr) return -2;
  unit->node = nullptr;
  unit->node_id = 0;
  if (c2ms_unit_verify(unit) == 0) return c2ms_unit_recycle(unit);
  c2ms_unit_restart(unit);
  forget_progress(unit);
  return c2ms_sess_unit_put(sess, unit);
}

c2ms_unit *c2ms_sess_unit_get(c2ms_sess *sess) {
  if (sess == nullptr) return nullptr;
  c2ms_cache *const cache = sess->cache.load();
  if (sess->unit_num == 0) c2ms_cache_download_one(cache);
  c2ms_unit *unit = pop_unit(sess);
  while (unit != nullptr && (unit->pack == nullptr || c2ms_unit_verify(unit) == 0)) {
    c2ms_unit_recycle(unit);
    unit = pop_unit(sess);
  }
  if (sess->unit_num == 0) c2ms_cache_download_all(cache);
  return unit;
}

int c2ms_sess_unit_clear(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  while (c2ms_unit *unit = pop_unit(sess)) c2ms_unit_recycle(unit);
  return 0;
}

void c2ms_sess_unit_purge(c2ms_sess *sess) {
  for (;;) {
    c2ms_unit *stale = nullptr;
    {
      const adif::Guard lock(sess->unit_lock);
      for (int i = 0; i < sk_num(sess->units) && stale == nullptr; ++i) {
        auto *const unit = static_cast<c2ms_unit *>(sk_value(sess->units, i));
        if (c2ms_unit_verify(unit) == 0)
          stale = static_cast<c2ms_unit *>(sk_delete(sess->units, i));
      }
      sess->unit_num = std::max(sk_num(sess->units), 0);
    }
    if (stale == nullptr) return;
    c2ms_unit_recycle(stale);
  }
}

int c2ms_sess_unit_num(c2ms_sess *sess) {
  return sess == nullptr ? 0 : sess->unit_num.load();
}

int c2ms_sess_dispatch_check(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  if (sess->unit_num.load() < 1) return -100;
  const int ready = sess->ready_num.load();
  return ready < 1 ? -200 : ready;
}

int c2ms_sess_dispatch(c2ms_sess *sess) {
  if (sess == nullptr) return 0;
  const StrandGuard strand(sess);
  if (sess->life.load() != c2ms_life::live) return 0;
  std::array<c2ms_node *, snapshot_nodes> ready;
  size_t count = 0;
  {
    const adif::Guard lock(sess->list_lock);
    sort_nodes(sess);
    for (int i = 0; i < sk_num(sess->node_list) && count < ready.size(); ++i) {
      auto *const node = static_cast<c2ms_node *>(sk_value(sess->node_list, i));
      if (node->state == C2MS_NODE_READY) ready[count++] = node;
    }
  }
  // Nobody recycles a node while we are in the strand, except a start that fails, and then its own.
  for (size_t i = 0; i < count; ++i) c2ms_node_download_start_dbg(ready[i]);
  return 0;
}

int c2ms_sess_recv_byte(c2ms_sess *sess, int64_t n) {
  if (sess == nullptr) return -1;
  sess->window_bytes += static_cast<uint64_t>(n);
  sess->total_bytes += static_cast<uint64_t>(n);
  return 0;
}

int c2ms_sess_recvspeed_count(c2ms_sess *sess) {
  if (sess == nullptr) return -1;
  if (sess->mgmt == nullptr) return -2;
  {
    const adif::Guard lock(sess->speed_lock);
    const int64_t now = now_us();
    const double elapsed_ms = static_cast<double>(now - sess->window_us) / 1000.0;
    const auto bytes = static_cast<double>(sess->window_bytes.exchange(0));
    sess->realtime_speed = elapsed_ms > 0 ? bytes / elapsed_ms : 0;
    sess->window_us = now;
  }
  c2ms_sess_start_speed_timer(sess);
  return 0;
}

double c2ms_sess_realtime_recvspeed(c2ms_sess *sess) {
  if (sess == nullptr) return 0;
  const adif::Guard lock(sess->speed_lock);
  return sess->realtime_speed;
}

double c2ms_sess_average_recvspeed(c2ms_sess *sess) {
  if (sess == nullptr) return -1.0;
  const uint64_t time_us = sess->recv_time;
  if (time_us == 0) return 0;
  return static_cast<double>(sess->total_bytes) / (static_cast<double>(time_us) / 1000.0);
}

int32_t c2ms_sess_fasttime(c2ms_sess *sess) {
  constexpr int32_t no_node = 1'000'000, unknown = 20'000'000;
  if (sess == nullptr) return no_node;
  const adif::Guard lock(sess->list_lock);
  const auto *const best = static_cast<const c2ms_node *>(sk_value(sess->node_list, 0));
  if (best == nullptr) return no_node;
  if (best->perf.TN < 1 || best->perf.AccTime < 1) return unknown;
  const int64_t average = best->perf.AccTime / best->perf.TN;
  return static_cast<int32_t>(std::clamp<int64_t>(average, min_rtt_us, INT32_MAX));
}
