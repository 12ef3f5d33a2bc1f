// See registry.h.
#include "c2ms/core/registry.h"

#include "c2ms/core/records.h"

namespace {

// Removes the object of this id, and only if it is `only` (when given).
template <class Record>
Record *remove(pointer_stack *stack, uint32_t id, const Record *only, sk_compare compare) {
  void *const found = sk_find_by(stack, &id, compare);
  if (found == nullptr || (only != nullptr && found != only)) return nullptr;
  return static_cast<Record *>(sk_delete_ptr(stack, found));
}

}  // namespace

int c2ms_sess_cmp_sessid(const void *sess, const void *key) {
  if (sess == nullptr) return -1;
  if (key == nullptr) return -2;
  const uint32_t id = static_cast<const c2ms_sess *>(sess)->sess_id;
  const uint32_t want = *static_cast<const uint32_t *>(key);
  return id < want ? -1 : (id > want ? 1 : 0);
}

int c2ms_sess_cmp_sess(const void *a, const void *b) {
  if (a == nullptr) return -1;
  if (b == nullptr) return -2;
  const uint32_t key = static_cast<const c2ms_sess *>(b)->sess_id;
  return c2ms_sess_cmp_sessid(a, &key);
}

int c2ms_node_cmp_nodeid(const void *node, const void *key) {
  if (node == nullptr) return -1;
  if (key == nullptr) return -2;
  const uint32_t id = static_cast<const c2ms_node *>(node)->node_id;
  const uint32_t want = *static_cast<const uint32_t *>(key);
  return id < want ? -1 : (id > want ? 1 : 0);
}

int c2ms_node_cmp_node(const void *a, const void *b) {
  if (b == nullptr) return a == nullptr ? -1 : -2;
  return c2ms_node_cmp_nodeid(a, &static_cast<const c2ms_node *>(b)->node_id);
}

int c2ms_sess_add(c2ms_mgmt *mgmt, c2ms_sess *sess) {
  if (mgmt == nullptr) return -1;
  if (sess == nullptr) return -2;
  const adif::Guard lock(mgmt->sess_lock);
  return sk_sort_insert_by(mgmt->sessions, sess, c2ms_sess_cmp_sess) > 0 ? 0 : -3;
}

c2ms_sess *c2ms_sess_get(c2ms_mgmt *mgmt, uint32_t id) {
  if (mgmt == nullptr) return nullptr;
  const adif::Guard lock(mgmt->sess_lock);
  return static_cast<c2ms_sess *>(sk_find_by(mgmt->sessions, &id, c2ms_sess_cmp_sessid));
}

c2ms_sess *c2ms_sess_del_by(c2ms_mgmt *mgmt, uint32_t id) {
  if (mgmt == nullptr) return nullptr;
  const adif::Guard lock(mgmt->sess_lock);
  return remove<c2ms_sess>(mgmt->sessions, id, nullptr, c2ms_sess_cmp_sessid);
}

c2ms_sess *c2ms_sess_del(c2ms_mgmt *mgmt, c2ms_sess *sess) {
  if (mgmt == nullptr || sess == nullptr) return nullptr;
  const adif::Guard lock(mgmt->sess_lock);
  return remove<c2ms_sess>(mgmt->sessions, sess->sess_id, sess, c2ms_sess_cmp_sessid);
}

int c2ms_node_add(c2ms_mgmt *mgmt, c2ms_node *node) {
  if (mgmt == nullptr) return -1;
  if (node == nullptr) return -2;
  const adif::Guard lock(mgmt->node_lock);
  return sk_sort_insert_by(mgmt->nodes, node, c2ms_node_cmp_node) > 0 ? 0 : -3;
}

c2ms_node *c2ms_node_get(c2ms_mgmt *mgmt, uint32_t id) {
  if (mgmt == nullptr) return nullptr;
  const adif::Guard lock(mgmt->node_lock);
  return static_cast<c2ms_node *>(sk_find_by(mgmt->nodes, &id, c2ms_node_cmp_nodeid));
}

c2ms_node *c2ms_node_del_by(c2ms_mgmt *mgmt, uint32_t id) {
  if (mgmt == nullptr) return nullptr;
  const adif::Guard lock(mgmt->node_lock);
  return remove<c2ms_node>(mgmt->nodes, id, nullptr, c2ms_node_cmp_nodeid);
}

c2ms_node *c2ms_node_del(c2ms_mgmt *mgmt, c2ms_node *node) {
  if (mgmt == nullptr || node == nullptr) return nullptr;
  const adif::Guard lock(mgmt->node_lock);
  return remove<c2ms_node>(mgmt->nodes, node->node_id, node, c2ms_node_cmp_nodeid);
}

bool c2ms::find_node(c2ms_mgmt *mgmt, uint32_t id, node_ref *out) {
  const adif::Guard lock(mgmt->node_lock);
  auto *const node = static_cast<c2ms_node *>(sk_find_by(mgmt->nodes, &id, c2ms_node_cmp_nodeid));
  if (node == nullptr) return false;
  // What a registered node belongs to does not change while the registry is locked.
  *out = {node, id, node->session, node->session_id};
  return true;
}

bool c2ms::still_open(const c2ms_sess *sess, uint32_t sess_id) {
  return sess->sess_id.load() == sess_id && sess->life.load() == c2ms_life::live;
}

bool c2ms::still_there(c2ms_mgmt *mgmt, const node_ref &ref) {
  return still_open(ref.sess, ref.sess_id) && c2ms_node_get(mgmt, ref.node_id) == ref.node;
}
