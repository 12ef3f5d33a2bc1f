// The registries of sessions and nodes, through which an event finds its object by id: the door.
//
// What is found may be gone a moment later. An event looks its object up, enters the session's
// strand, and asks again (still_there, still_open) before it touches anything.
#pragma once

#include <cstdint>

struct c2ms_mgmt;
struct c2ms_node;
struct c2ms_sess;

/// By id: 1, 0, -1; -1 for a NULL first argument, -2 for a NULL second. A key is a pointer to a
/// uint32_t.
int c2ms_sess_cmp_sess(const void *a, const void *b);
int c2ms_sess_cmp_sessid(const void *sess, const void *key);

// Registries, ordered by id. Add: 0, -1, -2, -3 without memory. Get and delete: the object, or
// NULL. Any thread. Deletion compares id and pointer, so that an old handle never removes a
// record's new owner.
int c2ms_sess_add(c2ms_mgmt *mgmt, c2ms_sess *sess);
c2ms_sess *c2ms_sess_get(c2ms_mgmt *mgmt, uint32_t id);
c2ms_sess *c2ms_sess_del_by(c2ms_mgmt *mgmt, uint32_t id);
c2ms_sess *c2ms_sess_del(c2ms_mgmt *mgmt, c2ms_sess *sess);
int c2ms_node_add(c2ms_mgmt *mgmt, c2ms_node *node);
c2ms_node *c2ms_node_get(c2ms_mgmt *mgmt, uint32_t id);
c2ms_node *c2ms_node_del_by(c2ms_mgmt *mgmt, uint32_t id);
c2ms_node *c2ms_node_del(c2ms_mgmt *mgmt, c2ms_node *node);

/// The same comparisons for nodes.
int c2ms_node_cmp_nodeid(const void *node, const void *key);
int c2ms_node_cmp_node(const void *a, const void *b);

namespace c2ms {

/// What an event carries: addresses, and the ids under which they were registered.
struct node_ref {
  c2ms_node *node;
  uint32_t node_id;
  c2ms_sess *sess;
  uint32_t sess_id;
};

/// Looks a node up by its id; false when it is gone.
bool find_node(c2ms_mgmt *mgmt, uint32_t node_id, node_ref *out);

/// Inside the session's strand: true while session and node are still those that were looked up.
bool still_there(c2ms_mgmt *mgmt, const node_ref &ref);

/// The same for a session that was looked up by its id.
bool still_open(const c2ms_sess *sess, uint32_t sess_id);

}  // namespace c2ms
