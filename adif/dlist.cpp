// The doubly linked list. See dlist.h.
#include "adif/dlist.h"

#include <utility>

#include "adif/kalloc.h"

namespace {

// Links a new node between two neighbours, either of which may be null.
lt_node *insert(lt_list *list, lt_node *prev, lt_node *next, void *p) {
  auto *const node = static_cast<lt_node *>(kalloc_dbg(sizeof(lt_node)));
  if (node == nullptr) return nullptr;
  *node = {prev, next, p};
  (prev != nullptr ? prev->next : list->first) = node;
  (next != nullptr ? next->prev : list->last) = node;
  ++list->num;
  return node;
}

void *remov(lt_list *list, lt_node *node) {
  if (list == nullptr || node == nullptr) return nullptr;
  (node->prev != nullptr ? node->prev->next : list->first) = node->next;
  (node->next != nullptr ? node->next->prev : list->last) = node->prev;
  --list->num;
  void *const p = node->element;
  kfree_dbg(node);
  return p;
}

// The node at a position, or null.
lt_node *find(const lt_list *list, int loc) {
  if (list == nullptr || loc < 0) return nullptr;
  lt_node *node = list->first;
  while (node != nullptr && loc-- > 0) node = node->next;
  return node;
}

lt_node *find_ptr(const lt_list *list, const void *p) {
  lt_node *node = lt_first(list);
  while (node != nullptr && node->element != p) node = node->next;
  return node;
}

sk_compare choose(const lt_list *list, const void *key, sk_compare compare) {
  if (list == nullptr || key == nullptr) return nullptr;
  return compare != nullptr ? compare : list->comp;
}

int inserted(const lt_list *list, const lt_node *node) {
  return node == nullptr ? 0 : list->num;
}

// Links copies of all elements of `other` between two neighbours: all of them or none.
int insert_copies(lt_list *list, lt_node *prev, lt_node *next, const lt_list *other) {
  if (list == nullptr || other == nullptr) return 0;
  lt_list *const copy = lt_dup(other);
  if (copy == nullptr) return 0;
  if (copy->num > 0) {
    copy->first->prev = prev;
    copy->last->next = next;
    (prev != nullptr ? prev->next : list->first) = copy->first;
    (next != nullptr ? next->prev : list->last) = copy->last;
    list->num += copy->num;
  }
  kfree_dbg(copy);
  return list->num;
}

// Moves the nodes of `other` in front of those of `list`.
void put_in_front(lt_list *list, lt_list *other) {
  if (other->num == 0) return;
  other->last->next = list->first;
  (list->first != nullptr ? list->first->prev : list->last) = other->last;
  list->first = other->first;
  list->num += other->num;
  other->num = 0;
  other->first = other->last = nullptr;
}

void swap_nodes(lt_list *list, lt_list *other) {
  std::swap(list->num, other->num);
  std::swap(list->first, other->first);
  std::swap(list->last, other->last);
}

// Appends all elements that match; false without memory.
bool append_matches(lt_list *found, const lt_list *list, const void *key, sk_compare compare) {
  for (const lt_node *node = list->first; node != nullptr; node = node->next) {
    if (compare(node->element, key) == 0 && lt_append(found, node->element) == 0) return false;
  }
  return true;
}

}  // namespace

lt_list *lt_new(sk_compare comp) {
  auto *const list = static_cast<lt_list *>(kzalloc_dbg(sizeof(lt_list)));
  if (list != nullptr) list->comp = comp;
  return list;
}

lt_list *lt_dup(const lt_list *list) {
  if (list == nullptr) return nullptr;
  lt_list *const copy = lt_new(list->comp);
  if (copy == nullptr) return nullptr;
  for (const lt_node *node = list->first; node != nullptr; node = node->next) {
    if (lt_append(copy, node->element) > 0) continue;
    lt_free(copy);
    return nullptr;
  }
  return copy;
}

void lt_empty(lt_list *list) {
  lt_delete_from_node(list, lt_first(list));
}

void lt_free(lt_list *list) {
  lt_empty(list);
  kfree_dbg(list);
}

void lt_free_all(lt_list *list, sk_free_fn free_fn) {
  for (const lt_node *node = lt_first(list); node != nullptr; node = node->next) {
    if (node->element == nullptr) continue;
    if (free_fn != nullptr) {
      free_fn(node->element);
    } else {
      kfree_dbg(node->element);
    }
  }
  lt_free(list);
}

int lt_prepend(lt_list *list, void *p) {
  return lt_insert_before(list, lt_first(list), p);
}

int lt_append(lt_list *list, void *p) {
  return lt_insert_after(list, lt_last(list), p);
}

int lt_insert(lt_list *list, void *p, int loc) {
  lt_node *const node = find(list, loc);
  return node != nullptr ? lt_insert_before(list, node, p) : lt_append(list, p);
}

int lt_insert_before(lt_list *list, lt_node *node, void *p) {
  if (list == nullptr) return 0;
  if (node == nullptr) return inserted(list, insert(list, nullptr, list->first, p));
  return inserted(list, insert(list, node->prev, node, p));
}

int lt_insert_after(lt_list *list, lt_node *node, void *p) {
  if (list == nullptr) return 0;
  if (node == nullptr) return inserted(list, insert(list, list->last, nullptr, p));
  return inserted(list, insert(list, node, node->next, p));
}

int lt_sort_insert_by(lt_list *list, void *p, sk_compare compare) {
  if (list == nullptr || p == nullptr) return -1;
  compare = choose(list, p, compare);
  lt_node *node = list->last;
  while (compare != nullptr && node != nullptr && compare(node->element, p) > 0) node = node->prev;
  return node != nullptr ? lt_insert_after(list, node, p) : lt_prepend(list, p);
}

int lt_insert_list(lt_list *list, const lt_list *other, int loc) {
  lt_node *const node = find(list, loc);
  return node != nullptr ? lt_insert_list_before(list, node, other)
                         : lt_insert_list_after(list, lt_last(list), other);
}

int lt_insert_list_before(lt_list *list, lt_node *node, const lt_list *other) {
  if (node == nullptr) node = lt_first(list);
  return insert_copies(list, lt_get_prev(node), node, other);
}

int lt_insert_list_after(lt_list *list, lt_node *node, const lt_list *other) {
  if (node == nullptr) node = lt_last(list);
  return insert_copies(list, node, lt_get_next(node), other);
}

int lt_head_combine(lt_list *list, lt_list *other) {
  if (list == nullptr || other == nullptr || list == other) return 0;
  put_in_front(list, other);
  lt_free(other);
  return list->num;
}

int lt_tail_combine(lt_list *list, lt_list *other) {
  const int num = lt_tail_combine_nodel(list, other);
  if (list != other && list != nullptr) lt_free(other);
  return num;
}

int lt_tail_combine_nodel(lt_list *list, lt_list *other) {
  if (list == nullptr || other == nullptr || list == other) return 0;
  swap_nodes(list, other);
  put_in_front(list, other);
  return list->num;
}

void *lt_rm_head(lt_list *list) {
  return remov(list, lt_first(list));
}

void *lt_rm_tail(lt_list *list) {
  return remov(list, lt_last(list));
}

void *lt_delete(lt_list *list, int loc) {
  return remov(list, find(list, loc));
}

void *lt_delete_ptr(lt_list *list, const void *p) {
  return remov(list, find_ptr(list, p));
}

int lt_delete_from_loc(lt_list *list, int loc) {
  return lt_delete_from_node(list, find(list, loc));
}

int lt_delete_from_node(lt_list *list, lt_node *node) {
  int removed = 0;
  for (; list != nullptr && node != nullptr; ++removed) {
    lt_node *const next = node->next;
    remov(list, node);
    node = next;
  }
  return removed;
}

int lt_num(const lt_list *list) {
  return list == nullptr ? -1 : list->num;
}

void *lt_get(const lt_list *list, int loc) {
  const lt_node *const node = find(list, loc);
  return node == nullptr ? nullptr : node->element;
}

void *lt_value(const lt_list *list, int loc) {
  return lt_get(list, loc);
}

lt_node *lt_first(const lt_list *list) {
  return list == nullptr ? nullptr : list->first;
}

lt_node *lt_last(const lt_list *list) {
  return list == nullptr ? nullptr : list->last;
}

lt_node *lt_get_next(const lt_node *node) {
  return node == nullptr ? nullptr : node->next;
}

lt_node *lt_get_prev(const lt_node *node) {
  return node == nullptr ? nullptr : node->prev;
}

int lt_index(const lt_list *list, const void *p) {
  int at = 0;
  for (const lt_node *node = lt_first(list); node != nullptr; node = node->next, ++at) {
    if (node->element == p) return at;
  }
  return -1;
}

pointer_stack *lt_convert_to_linear(const lt_list *list) {
  if (list == nullptr) return nullptr;
  pointer_stack *const sk = sk_new(list->comp);
  for (const lt_node *node = list->first; node != nullptr; node = node->next) {
    if (sk_push(sk, node->element) > 0) continue;
    sk_free(sk);
    return nullptr;
  }
  return sk;
}

lt_list *lt_new_from_linear(const pointer_stack *sk) {
  if (sk == nullptr) return nullptr;
  lt_list *const list = lt_new(sk->comp);
  for (int i = 0; i < sk->num; ++i) {
    if (lt_append(list, sk->data[i]) > 0) continue;
    lt_free(list);
    return nullptr;
  }
  return list;
}

void *lt_search(const lt_list *list, const void *key, sk_compare compare) {
  compare = choose(list, key, compare);
  if (compare == nullptr) return nullptr;
  for (const lt_node *node = list->first; node != nullptr; node = node->next) {
    if (compare(node->element, key) == 0) return node->element;
  }
  return nullptr;
}

lt_list *lt_search_all(const lt_list *list, const void *key, sk_compare compare) {
  compare = choose(list, key, compare);
  if (compare == nullptr) return nullptr;
  lt_list *const found = lt_new(list->comp);
  if (append_matches(found, list, key, compare) && lt_num(found) > 0) return found;
  lt_free(found);
  return nullptr;
}
