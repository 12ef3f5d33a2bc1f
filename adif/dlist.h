// A doubly linked list of element pointers, with the conventions of the pointer stack
// (adif/stack.h): elements are the caller's, comparisons are called with (element, key), a null one
// means the list's own; nulls and positions outside are misses; no lock inside. Positions are
// walked from the front.
#pragma once

#include <cstdint>

#include "adif/stack.h"

struct lt_node {
  lt_node *prev;
  lt_node *next;
  void *element;
};

struct lt_list {
  int32_t num;
  sk_compare comp;
  lt_node *first;
  lt_node *last;
};

/// An empty list; null when memory has run out. `comp` may be null.
[[nodiscard]] lt_list *lt_new(sk_compare comp);
/// A shallow copy; null for null or without memory.
[[nodiscard]] lt_list *lt_dup(const lt_list *list);
void lt_empty(lt_list *list);  ///< removes all nodes, keeps the elements
void lt_free(lt_list *list);   ///< the list and its nodes, not the elements
/// `free_fn` (null: kfree_dbg) on each element that is not null, in order, then lt_free().
void lt_free_all(lt_list *list, sk_free_fn free_fn);

/// Insertions return the new number of elements; 0 for null or without memory, nothing changed.
int lt_prepend(lt_list *list, void *p);
int lt_append(lt_list *list, void *p);
int lt_insert(lt_list *list, void *p, int loc);  ///< before `loc`; outside the list: at the end
int lt_insert_before(lt_list *list, lt_node *node, void *p);  ///< null node: at the front
int lt_insert_after(lt_list *list, lt_node *node, void *p);   ///< null node: at the end
/// Behind all elements that match `p`, in a list that is in ascending order. -1 for null arguments.
int lt_sort_insert_by(lt_list *list, void *p, sk_compare compare);
/// Insert all elements of `other`, in their order; `other` stays as it is and may be the list
/// itself. The new number of elements; 0 for null or without memory, nothing changed.
int lt_insert_list(lt_list *list, const lt_list *other, int loc);
int lt_insert_list_before(lt_list *list, lt_node *node, const lt_list *other);
int lt_insert_list_after(lt_list *list, lt_node *node, const lt_list *other);

/// Moves all nodes of `other` to the front or end of `list`, without allocation, and frees `other`
/// (lt_tail_combine_nodel leaves it, empty). The new number of elements; 0 for null or for a list
/// with itself, nothing changed.
int lt_head_combine(lt_list *list, lt_list *other);
int lt_tail_combine(lt_list *list, lt_list *other);
int lt_tail_combine_nodel(lt_list *list, lt_list *other);

/// Removals return the element, or null.
void *lt_rm_head(lt_list *list);
void *lt_rm_tail(lt_list *list);
void *lt_delete(lt_list *list, int loc);
void *lt_delete_ptr(lt_list *list, const void *p);  ///< the first that is `p`
/// Remove everything from a position or node to the end; how many that were.
int lt_delete_from_loc(lt_list *list, int loc);
int lt_delete_from_node(lt_list *list, lt_node *node);

int lt_num(const lt_list *list);  ///< -1 for null
void *lt_get(const lt_list *list, int loc);
void *lt_value(const lt_list *list, int loc);  ///< the same as lt_get()
/// Nodes stay valid until their element is removed; null at either end and for null.
lt_node *lt_first(const lt_list *list);
lt_node *lt_last(const lt_list *list);
lt_node *lt_get_next(const lt_node *node);
lt_node *lt_get_prev(const lt_node *node);
int lt_index(const lt_list *list, const void *p);  ///< position of the first that is `p`, or -1

/// A new stack or list of the same elements and comparison; null for null or without memory.
[[nodiscard]] pointer_stack *lt_convert_to_linear(const lt_list *list);
[[nodiscard]] lt_list *lt_new_from_linear(const pointer_stack *sk);

/// The first match, or null.
void *lt_search(const lt_list *list, const void *key, sk_compare compare);
/// A new list of every match, in order; null without a match.
[[nodiscard]] lt_list *lt_search_all(const lt_list *list, const void *key, sk_compare compare);
