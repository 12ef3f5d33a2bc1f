// The pointer stack: a growable array of element pointers that serves as stack, queue, indexed list
// and, with a comparison, as a sorted set with binary search. The library keeps its sessions,
// nodes, units, packs and servers in such stacks.
//
// A stack never owns its elements (sk_pop_free and sk_pop_kfree excepted) and has no lock: the
// record that owns it protects it. No call blocks. A null stack, a null key and an index outside 0
// ... num-1 are misses, answered as each call says.
//
// Two conventions of comparison, different by design:
//
// clang-format off
//   who takes the function                 what it is called with             null means
//   sk_new, sk_set_cmp_func, sk_sort_by    two pointers to slots, as by       no order
//                                          qsort(3)
//   every other call                       the element and the key            `comp`, called with
//                                          themselves                         element and key
// clang-format on
//
// Both give a negative number, 0 or a positive one: the first orders before, matches, orders after.
#pragma once

#include <cstdint>

using sk_compare = int (*)(const void *, const void *);
using sk_free_fn = int (*)(void *element);

struct pointer_stack {
  int32_t num;        ///< elements in use
  void **data;        ///< slots 0 ... num-1 are in use; never null in a stack of sk_new()
  int32_t sorted;     ///< 1: in the order of `comp`
  int32_t num_alloc;  ///< slots; always above num after an insertion
  sk_compare comp;    ///< array order; may be null
};

/// An empty stack of 4 slots; freed with one of the three calls below. Null when memory has run
/// out.
[[nodiscard]] pointer_stack *sk_new(sk_compare comp);
/// A shallow copy: same elements, slots, comparison and sorted mark. Null for null or without
/// memory.
[[nodiscard]] pointer_stack *sk_dup(const pointer_stack *sk);
/// Frees the stack, not the elements; null is ignored.
void sk_free(pointer_stack *sk);
/// Calls `free_fn` on each element that is not null, in index order, then sk_free().
void sk_pop_free(pointer_stack *sk, sk_free_fn free_fn);
/// kfree_dbg() on each element that is not null, then sk_free().
void sk_pop_kfree(pointer_stack *sk);
/// Empties the stack; the slots stay, `sorted` too.
void sk_zero(pointer_stack *sk);

/// The number of elements; -1 for null.
int sk_num(const pointer_stack *sk);
/// Element `i`, or null.
void *sk_value(const pointer_stack *sk, int i);
/// Element `i` as an integer, or 0.
intptr_t sk_get(const pointer_stack *sk, int i);
/// Stores `p` in slot `i`, which must be in use, and returns it; else null. Does not clear
/// `sorted`: the caller keeps the order.
void *sk_set(pointer_stack *sk, int i, void *p);
/// Replaces `comp` (a change clears `sorted`) and returns the one before.
sk_compare sk_set_cmp_func(pointer_stack *sk, sk_compare comp);

/// Inserts `p` before element `loc`; any other `loc`, also a negative one, appends. The new number
/// of elements, at least 1; 0 for null or when the array can't grow (the stack is then unchanged).
int sk_insert(pointer_stack *sk, void *p, int loc);
int sk_push(pointer_stack *sk, void *p);     ///< sk_insert at the end
int sk_unshift(pointer_stack *sk, void *p);  ///< sk_insert at the front
/// Appends `n` null elements. The new number; 0 for `n` below 1, null, overflow or lack of memory.
/// A stack that has to grow gets four times the slots that it needs with 4 to spare. Kept for
/// compatibility: it costs memory only.
int sk_enlarge(pointer_stack *sk, int n);

/// Each removes one element and returns it, or null; the order of the others stays.
void *sk_delete(pointer_stack *sk, int loc);
void *sk_pop(pointer_stack *sk);                        ///< the last
void *sk_shift(pointer_stack *sk);                      ///< the first
void *sk_delete_ptr(pointer_stack *sk, const void *p);  ///< the first slot that holds `p`; linear
/// One element that matches, found as sk_find_by() does.
void *sk_delete_by(pointer_stack *sk, const void *key, sk_compare compare);

/// qsort(3) by `comp`, unless `sorted` already or there is no `comp`.
void sk_sort(pointer_stack *sk);
/// qsort(3) by `cmp` (array order); `sorted` is not touched.
void sk_sort_by(pointer_stack *sk, sk_compare cmp);
/// The index of the first element equal to `p` (sorts first), or -1. Without `comp`: of `p` itself,
/// searched in a line.
int sk_find(pointer_stack *sk, const void *p);

/// Binary searches: the stack must be in ascending order of `compare`, which nobody checks.
/// Which of several matches sk_find_by() gives is open.
void *sk_find_by(pointer_stack *sk, const void *key, sk_compare compare);
/// Every match, in index order, in a new stack without `comp` (sk_free() it); null without a match.
[[nodiscard]] pointer_stack *sk_find_all_by(pointer_stack *sk, const void *key, sk_compare compare);
/// Inserts `p` behind all elements that match it, so that equals keep their order of arrival. The
/// new number of elements; -1 when the stack or `p` is null, 0 when the array can't grow.
int sk_sort_insert_by(pointer_stack *sk, void *p, sk_compare compare);

/// Linear searches, in any order: the first match, or null.
void *sk_search(const pointer_stack *sk, const void *key, sk_compare compare);
/// Every match, in index order, in a new stack with the same `comp`; null without a match.
[[nodiscard]] pointer_stack *sk_search_all(const pointer_stack *sk, const void *key,
                                           sk_compare compare);
