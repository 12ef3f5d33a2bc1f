// The nodes of a session: every node by address, media nodes by speed.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "c2ms/core/records.h"

/// Enters a node into the session's index and, when it is a media node, into the node list. 0, -1,
/// -2.
int c2ms_sess_node_add(c2ms_sess *sess, c2ms_node *node);
/// Removes it by pointer. 0, -1, -2.
int c2ms_sess_node_del(c2ms_sess *sess, c2ms_node *node);
/// A node of this address (network order) and port, or NULL.
c2ms_node *c2ms_sess_node_find(c2ms_sess *sess, uint32_t addr, uint32_t port);
/// Media nodes of the session; those that could take a unit now. -1 for NULL.
int c2ms_sess_node_num(c2ms_sess *sess);
int c2ms_sess_node_readynum(c2ms_sess *sess);
/// Sorts the node list, fastest first. 0, -1 for NULL.
int c2ms_sess_node_sort(c2ms_sess *sess);

/// Two numbers by which a node is searched in a session's index.
struct c2ms_iport_key {
  uint32_t ip;
  uint32_t port;
};

// Comparisons: -1, 0, 1; -1 for a null first argument, -2 for a null second. By address: ip
// unsigned, then port signed. By performance: pointers to node pointers, higher average speed
// first, NaN counts as 0.
int c2ms_node_cmp_iport(const void *node, const void *key);
int c2ms_node_cmp_node_by_iport(const void *a, const void *b);
int c2ms_node_cmp_node_by_perf(const void *a, const void *b);

namespace c2ms {

inline bool is_media(const c2ms_node *node) {
  return (node->type & node_serves_media) != 0;
}

/// The media nodes that `wanted` chooses, for a walk that starts or ends nodes.
struct chosen_nodes {
  std::array<c2ms_node *, snapshot_nodes> nodes{};
  size_t count = 0;
};

template <class Wanted>
chosen_nodes choose_nodes(c2ms_sess *sess, Wanted wanted) {
  chosen_nodes chosen;
  const adif::Guard lock(sess->list_lock);
  for (int i = 0; i < sk_num(sess->node_list) && chosen.count < chosen.nodes.size(); ++i) {
    auto *const node = static_cast<c2ms_node *>(sk_value(sess->node_list, i));
    if (wanted(node)) chosen.nodes[chosen.count++] = node;
  }
  return chosen;
}

/// The fastest usable node (ready or downloading), or NULL, and the number of usable nodes.
struct usable_nodes {
  c2ms_node *best;
  int count;
};
usable_nodes find_usable(c2ms_sess *sess);

/// True when the session may have one more node: lists of lists must not take the connections of
/// other sessions.
bool has_room(c2ms_sess *sess, bool media);

/// True when no media node is connected, and each has tried.
bool all_failed(c2ms_sess *sess);

}  // namespace c2ms
