// Red-black tree with a shared sentinel; used by the timers of each base. See rac_rbtree.h.
#include "eprobe/rac_rbtree.h"

namespace {

using node = rac_rbtree_node;

bool red(const node *n) {
  return n->color == RAC_RED;
}

/// Puts `to` in the place of `from` below from's parent. The sentinel's parent is set as well: the
/// repair after a deletion starts there.
void replace(rac_rbtree *tree, node *from, node *to) {
  if (from->parent == nullptr)
    tree->root = to;
  else if (from == from->parent->left)
    from->parent->left = to;
  else
    from->parent->right = to;
  to->parent = from->parent;
}

/// Rotates `n` down to the left or to the right.
void rotate(rac_rbtree *tree, node *n, bool left) {
  if (left)
    rac_rbtree_left_rotate(tree, n);
  else
    rac_rbtree_right_rotate(tree, n);
}

void link_leaf(node **place, node *parent, node *leaf, node *sentinel) {
  *place = leaf;
  leaf->parent = parent;
  leaf->left = sentinel;
  leaf->right = sentinel;
  leaf->color = RAC_RED;
}

template <typename Less>
void descend(node *root, node *leaf, node *sentinel, Less less) {
  node *parent = root;
  for (;;) {
    // Equal keys go right: of equal timers the first added is the first met.
    node **place = less(leaf->key, parent->key) ? &parent->left : &parent->right;
    if (*place == sentinel) return link_leaf(place, parent, leaf, sentinel);
    parent = *place;
  }
}

void repair_after_insert(rac_rbtree *tree, node *n) {
  while (n != tree->root && red(n->parent)) {
    node *parent = n->parent;
    node *grandparent = parent->parent;  // there: a red node is never the root
    const bool left = parent == grandparent->left;
    node *uncle = left ? grandparent->right : grandparent->left;
    // The red pair moves two levels up and is looked at again there.
    if (red(uncle)) {
      parent->color = RAC_BLACK;
      uncle->color = RAC_BLACK;
      grandparent->color = RAC_RED;
      n = grandparent;
      continue;
    }
    // Bent: rotated straight, so that one rotation more ends it.
    if (n == (left ? parent->right : parent->left)) {
      n = parent;
      rotate(tree, n, left);
      parent = n->parent;
    }
    parent->color = RAC_BLACK;
    grandparent->color = RAC_RED;
    rotate(tree, grandparent, !left);
  }
  tree->root->color = RAC_BLACK;
}

/// `n` stands where a black node was taken away: it carries one black too many until this is done.
void repair_after_delete(rac_rbtree *tree, node *n) {
  while (n != tree->root && !red(n)) {
    node *parent = n->parent;
    const bool left = n == parent->left;
    node *sibling = left ? parent->right : parent->left;
    // Turned so that the sibling is black, which the cases below want.
    if (red(sibling)) {
      sibling->color = RAC_BLACK;
      parent->color = RAC_RED;
      rotate(tree, parent, left);
      sibling = left ? parent->right : parent->left;
    }
    node *near = left ? sibling->left : sibling->right;
    node *far = left ? sibling->right : sibling->left;
    // Nothing to borrow: the missing black moves one level up.
    if (!red(near) && !red(far)) {
      sibling->color = RAC_RED;
      n = parent;
      continue;
    }
    if (!red(far)) {
      near->color = RAC_BLACK;
      sibling->color = RAC_RED;
      rotate(tree, sibling, !left);
      far = sibling;
      sibling = near;
    }
    sibling->color = parent->color;
    parent->color = RAC_BLACK;
    far->color = RAC_BLACK;
    rotate(tree, parent, left);
    n = tree->root;
  }
  n->color = RAC_BLACK;
}

/// What a walk of a subtree found; black_height is -1 when an invariant is broken.
struct walk_result {
  int nodes;
  int black_height;
};

walk_result walk(const rac_rbtree *tree, const node *n, const node *parent, const node **previous) {
  constexpr walk_result BROKEN{0, -1};
  if (n == tree->sentinel) return {0, 0};
  if (n == nullptr || n->parent != parent) return BROKEN;
  if (red(n) && (parent == nullptr || red(parent))) return BROKEN;
  const walk_result left = walk(tree, n->left, n, previous);
  if (left.black_height < 0) return BROKEN;
  if (*previous != nullptr && static_cast<int32_t>(n->key - (*previous)->key) < 0) return BROKEN;
  *previous = n;
  const walk_result right = walk(tree, n->right, n, previous);
  if (right.black_height != left.black_height) return BROKEN;
  return {left.nodes + right.nodes + 1, left.black_height + (red(n) ? 0 : 1)};
}

}  // namespace

void rac_rbtree_init(rac_rbtree *tree, node *sentinel, rac_rbtree_insert_fn insert) {
  *sentinel = {};
  sentinel->color = RAC_BLACK;
  *tree = {sentinel, sentinel, insert};
}

void rac_rbtree_insert_value(node *root, node *leaf, node *sentinel) {
  descend(root, leaf, sentinel, [](uint32_t a, uint32_t b) { return a < b; });
}

void rac_rbtree_insert_timer_value(node *root, node *leaf, node *sentinel) {
  descend(root, leaf, sentinel,
          [](uint32_t a, uint32_t b) { return static_cast<int32_t>(a - b) < 0; });
}

void rac_rbtree_insert(rac_rbtree *tree, node *n) {
  if (rac_rbtree_empty(tree)) {
    link_leaf(&tree->root, nullptr, n, tree->sentinel);
    n->color = RAC_BLACK;
    return;
  }
  tree->insert(tree->root, n, tree->sentinel);
  repair_after_insert(tree, n);
}

void rac_rbtree_delete(rac_rbtree *tree, node *n) {
  node *sentinel = tree->sentinel;
  node *heir;  // what comes to stand where a node was taken out of its place
  uint8_t taken_color = n->color;
  if (n->left == sentinel || n->right == sentinel) {
    heir = n->left == sentinel ? n->right : n->left;
    replace(tree, n, heir);
  } else {
    // Two children: its successor takes its place and its colour.
    node *next = rac_rbtree_min(n->right, sentinel);
    taken_color = next->color;
    heir = next->right;
    if (next->parent == n) {
      // Also for the sentinel: the repair starts from its parent.
      heir->parent = next;
    } else {
      replace(tree, next, heir);
      next->right = n->right;
      next->right->parent = next;
    }
    replace(tree, n, next);
    next->left = n->left;
    next->left->parent = next;
    next->color = n->color;
  }
  if (taken_color == RAC_BLACK) repair_after_delete(tree, heir);
  sentinel->parent = nullptr;
  n->left = n->right = n->parent = nullptr;
  n->key = 0;
}

node *rac_rbtree_min(node *n, const node *sentinel) {
  while (n->left != sentinel) n = n->left;
  return n;
}

void rac_rbtree_left_rotate(rac_rbtree *tree, node *n) {
  node *up = n->right;
  n->right = up->left;
  if (up->left != tree->sentinel) up->left->parent = n;
  replace(tree, n, up);
  up->left = n;
  n->parent = up;
}

void rac_rbtree_right_rotate(rac_rbtree *tree, node *n) {
  node *up = n->left;
  n->left = up->right;
  if (up->right != tree->sentinel) up->right->parent = n;
  replace(tree, n, up);
  up->right = n;
  n->parent = up;
}

int rac_rbtree_check(const rac_rbtree *tree) {
  if (red(tree->sentinel)) return -1;
  const node *previous = nullptr;
  const walk_result result = walk(tree, tree->root, nullptr, &previous);
  return result.black_height < 0 ? -1 : result.nodes;
}
