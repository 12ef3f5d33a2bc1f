// Red-black tree of the timers: nodes live in their owners' records, the tree only links them.
// Cormen, Leiserson, Rivest, Stein, "Introduction to Algorithms", chapter 13, with one black
// sentinel per tree: every leaf link points at it, the root's parent is NULL. No locks inside.
#pragma once

#include <cstdint>

inline constexpr uint8_t RAC_BLACK = 0;
inline constexpr uint8_t RAC_RED = 1;

struct rac_rbtree_node {
  uint32_t key;  ///< timers: expiry on the millisecond clock; 0 while in no tree
  rac_rbtree_node *left;
  rac_rbtree_node *right;
  rac_rbtree_node *parent;
  uint8_t color;
};

/// Links `node` as a red leaf below `root` (not empty); the order of the tree is the function's.
using rac_rbtree_insert_fn = void (*)(rac_rbtree_node *root, rac_rbtree_node *node,
                                      rac_rbtree_node *sentinel);

struct rac_rbtree {
  rac_rbtree_node *root;
  rac_rbtree_node *sentinel;
  rac_rbtree_insert_fn insert;
};

/// Makes an empty tree; the sentinel is the caller's and lives as long as the tree.
void rac_rbtree_init(rac_rbtree *tree, rac_rbtree_node *sentinel, rac_rbtree_insert_fn insert);

inline bool rac_rbtree_empty(const rac_rbtree *tree) {
  return tree->root == tree->sentinel;
}

/// Order of unsigned keys; equal keys go right.
void rac_rbtree_insert_value(rac_rbtree_node *root, rac_rbtree_node *node,
                             rac_rbtree_node *sentinel);
/// Order of keys on a wrapping clock, by signed difference, right while all lie within 2^31 of each
/// other. Equal keys go right: of equal timers the first added is the first met.
void rac_rbtree_insert_timer_value(rac_rbtree_node *root, rac_rbtree_node *node,
                                   rac_rbtree_node *sentinel);

/// Adds a node (key set by the caller) that is in no tree. O(log n).
void rac_rbtree_insert(rac_rbtree *tree, rac_rbtree_node *node);
/// Takes a node out; its links become NULL and its key 0. O(log n).
void rac_rbtree_delete(rac_rbtree *tree, rac_rbtree_node *node);
/// The leftmost node below `node`, which is not the sentinel.
rac_rbtree_node *rac_rbtree_min(rac_rbtree_node *node, const rac_rbtree_node *sentinel);

void rac_rbtree_left_rotate(rac_rbtree *tree, rac_rbtree_node *node);
void rac_rbtree_right_rotate(rac_rbtree *tree, rac_rbtree_node *node);

/// Walks the whole tree and checks colours, black heights, links and the order of a timer tree. The
/// number of nodes, or -1 if anything is wrong.
int rac_rbtree_check(const rac_rbtree *tree);
