// See queue.h.
#include "c2ms/fetch/queue.h"

#include <algorithm>
#include <array>

#include "c2ms/core/registry.h"
#include "c2ms/core/strand_hold.h"
#include "c2ms/fetch/unit.h"
#include "c2ms/fetch/work.h"
#include "c2ms/ring/bind.h"

namespace {

using namespace c2ms;

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

// A unit for the packs that `bind` gives it.
c2ms_unit *issue(c2ms_sess *sess,
                 int32_t (*bind)(c2ms_cache *cache, c2ms_unit *unit, int32_t first, int32_t count),
                 int32_t first, int32_t count) {
  c2ms_unit *const unit = c2ms_unit_fetch(sess);
  if (unit == nullptr) return nullptr;
  if (bind(&sess->cache_record, unit, first, count) < 1) {
    c2ms_unit_recycle(unit);
    return nullptr;
  }
  c2ms_unit_init_download(sess, unit);
  return unit;
}

}  // namespace

c2ms_unit *c2ms_sess_unit_issue(c2ms_sess *sess, int32_t first, int32_t count) {
  return issue(sess, c2ms_cache_bind, first, count);
}

c2ms_unit *c2ms_sess_unit_issue_again(c2ms_sess *sess, int32_t first, int32_t count) {
  return issue(sess, c2ms_cache_bind_again, first, count);
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
  if (node != nullptr) check_inside(sess);
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
