// See node_list.h.
#include "c2ms/fetch/node_list.h"

#include <algorithm>
#include <cmath>

#include "c2ms.h"

using namespace c2ms;

namespace {

template <class T>
int three_way(T a, T b) {
  return a < b ? -1 : (a > b ? 1 : 0);
}

int compare_address(const c2ms_node *node, uint32_t ip, uint32_t port) {
  if (node->ip != ip) return node->ip < ip ? -1 : 1;
  return three_way(static_cast<int32_t>(node->port), static_cast<int32_t>(port));
}

double comparable(double speed) {
  return std::isnan(speed) ? 0.0 : speed;
}

void sort_nodes(c2ms_sess *sess) REQUIRES(sess->list_lock) {
  if (sk_num(sess->node_list) > 1) sk_sort_by(sess->node_list, c2ms_node_cmp_node_by_perf);
}

}  // namespace

int c2ms_node_cmp_iport(const void *node, const void *key) {
  if (node == nullptr) return -1;
  if (key == nullptr) return -2;
  const auto *const want = static_cast<const c2ms_iport_key *>(key);
  return compare_address(static_cast<const c2ms_node *>(node), want->ip, want->port);
}

int c2ms_node_cmp_node_by_iport(const void *a, const void *b) {
  if (a == nullptr) return -1;
  if (b == nullptr) return -2;
  const auto *const other = static_cast<const c2ms_node *>(b);
  return compare_address(static_cast<const c2ms_node *>(a), other->ip, other->port);
}

int c2ms_node_cmp_node_by_perf(const void *a, const void *b) {
  if (a == nullptr) return -1;
  if (b == nullptr) return -2;
  const auto *const first = *static_cast<const c2ms_node *const *>(a);
  const auto *const second = *static_cast<const c2ms_node *const *>(b);
  if (first == nullptr) return -1;
  if (second == nullptr) return -2;
  return three_way(comparable(second->perf.AvgSpeed), comparable(first->perf.AvgSpeed));
}

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

usable_nodes c2ms::find_usable(c2ms_sess *sess) {
  usable_nodes found{nullptr, 0};
  const adif::Guard lock(sess->list_lock);
  sort_nodes(sess);
  for (int i = 0; i < sk_num(sess->node_list); ++i) {
    auto *const node = static_cast<c2ms_node *>(sk_value(sess->node_list, i));
    if (node->state < C2MS_NODE_READY) continue;
    ++found.count;
    if (found.best == nullptr) found.best = node;
  }
  return found;
}

bool c2ms::has_room(c2ms_sess *sess, bool media) {
  const adif::Guard lock(sess->list_lock);
  const int media_nodes = sk_num(sess->node_list);
  if (media) return media_nodes < max_media_nodes;
  return sk_num(sess->node_index) - media_nodes < max_other_nodes;
}

bool c2ms::all_failed(c2ms_sess *sess) {
  const adif::Guard lock(sess->list_lock);
  for (int i = 0; i < sk_num(sess->node_list); ++i) {
    const auto *const node = static_cast<const c2ms_node *>(sk_value(sess->node_list, i));
    if (node->state >= C2MS_NODE_CONNECTED || node->failures < 1) return false;
  }
  return true;
}
