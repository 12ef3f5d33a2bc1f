#include "c2ms/fetch/queue.h"

#include <algorithm>
#include <array>

#include "c2ms/fetch/node.h"
#include "c2ms/fetch/node_record.h"
#include "c2ms/ring/pack.h"
#include "c2ms/session/session.h"
#include "c2ms/fetch/work.h"
#include "c2ms/session/object.h"
#include "c2ms/fetch/watch.h"
#include "c2ms/player/stats.h"
#include "c2ms/core/strand.h"
#include "c2ms/core/time.h"
#include "c2ms/fetch/unit.h"

namespace {

using namespace c2ms;

void sort_nodes(c2ms_sess *sess) REQUIRES(sess->list_lock) {
  if (sk_num(sess->node_list) > 1) sk_sort_by(sess->node_list, c2ms_node_cmp_node_by_perf);
}

// Help is meant for the node that brings it soonest, as long as that can.
bool may_take(const c2ms_sess *sess, const c2ms_node *node, const c2ms_unit *unit) {
  if (node == nullptr || unit->meant_for == 0 || unit->meant_for == node->node_id) return true;
  const c2ms_node *const helper = c2ms_node_get(sess->mgmt, unit->meant_for);
  return helper == nullptr || helper->state < C2MS_NODE_READY;
}

// The first unit of the queue that a node may take; without a node the first.
c2ms_unit *pop_unit(c2ms_sess *sess, const c2ms_node *node = nullptr) {
  const adif::Guard lock(sess->unit_lock);
  c2ms_unit *unit = nullptr;
  for (int i = 0; i < sk_num(sess->units) && unit == nullptr; ++i) {
    if (may_take(sess, node, static_cast<c2ms_unit *>(sk_value(sess->units, i))))
      unit = static_cast<c2ms_unit *>(sk_delete(sess->units, i));
  }
  sess->unit_num = std::max(sk_num(sess->units), 0);
  return unit;
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

c2ms_unit *c2ms_sess_unit_issue(c2ms_sess *sess, int32_t first, int32_t count) {
  c2ms_unit *const unit = c2ms_unit_fetch(sess);
  if (unit == nullptr) return nullptr;
  if (c2ms_cache_bind(&sess->cache_record, unit, first, count) < 1) {
    c2ms_unit_recycle(unit);
    return nullptr;
  }
  c2ms_unit_init_download(sess, unit);
  return unit;
}

c2ms_unit *c2ms_sess_unit_issue_again(c2ms_sess *sess, int32_t first, int32_t count) {
  c2ms_unit *const unit = c2ms_unit_fetch(sess);
  if (unit == nullptr) return nullptr;
  if (c2ms_cache_bind_again(&sess->cache_record, unit, first, count) < 1) {
    c2ms_unit_recycle(unit);
    return nullptr;
  }
  c2ms_unit_init_download(sess, unit);
  return unit;
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
  // What its packs lack is chosen anew: it may go to several nodes now.
  const int result = c2ms_unit_recycle(unit);
  mark_dispatch_due(sess);
  return result;
}

c2ms_unit *c2ms_sess_unit_get(c2ms_sess *sess, c2ms_node *node) {
  if (sess == nullptr) return nullptr;
  c2ms_unit *unit = pop_unit(sess, node);
  while (unit != nullptr && c2ms_unit_verify(unit) == 0) {
    c2ms_unit_recycle(unit);
    unit = pop_unit(sess, node);
  }
  if (unit != nullptr) return unit;
  const run want = choose_work(sess, node);
  return want.count < 1 ? nullptr : c2ms_sess_unit_issue(sess, want.first, want.count);
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
  c2ms_cache *const cache = sess->cache.load();
  if (sess->unit_num.load() < 1 && c2ms_cache_get_idle_pack(cache) == nullptr) return -100;
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
  start_watch(sess);
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
