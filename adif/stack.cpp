// The pointer stack. See stack.h.
#include "adif/stack.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "adif/kalloc.h"

namespace {

constexpr int32_t kFirstSlots = 4;

int64_t bytes_of(int64_t slots) {
  return slots * static_cast<int64_t>(sizeof(void *));
}

pointer_stack *new_stack(sk_compare comp, int32_t slots) {
  auto *const sk = static_cast<pointer_stack *>(kzalloc_dbg(sizeof(pointer_stack)));
  if (sk == nullptr) return nullptr;
  sk->data = static_cast<void **>(kzalloc_dbg(bytes_of(slots)));
  if (sk->data == nullptr) {
    kfree_dbg(sk);
    return nullptr;
  }
  sk->num_alloc = slots;
  sk->comp = comp;
  return sk;
}

bool resize(pointer_stack *sk, int64_t slots) {
  if (slots > INT32_MAX) return false;
  auto *const data = static_cast<void **>(krealloc_dbg(sk->data, bytes_of(slots)));
  if (data == nullptr) return false;
  sk->data = data;
  sk->num_alloc = static_cast<int32_t>(slots);
  return true;
}

bool in_use(const pointer_stack *sk, int i) {
  return sk != nullptr && i >= 0 && i < sk->num;
}

// Where a binary search ended: at a match, or at `lo`, the first element that orders after the key.
struct search_end {
  bool found;
  int mid;
  int lo;
  int hi;
};

search_end search(const pointer_stack *sk, const void *key, sk_compare compare) {
  int lo = 0;
  int hi = sk->num - 1;
  while (lo <= hi) {
    // Not (lo + hi) / 2, which overflows.
    const int mid = lo + (hi - lo) / 2;
    const int r = compare(sk->data[mid], key);
    if (r == 0) return {true, mid, lo, hi};
    if (r > 0) {
      hi = mid - 1;
    } else {
      lo = mid + 1;
    }
  }
  return {false, -1, lo, hi};
}

// The last index up to `hi` of the run of matches that `mid` lies in.
int run_end(const pointer_stack *sk, const void *key, sk_compare compare, int mid, int hi) {
  while (mid < hi && compare(sk->data[mid + 1], key) == 0) ++mid;
  return mid;
}

// Chooses the comparison of a search by key; null when there is nothing to search or to search by.
sk_compare choose(const pointer_stack *sk, const void *key, sk_compare compare) {
  if (sk == nullptr || key == nullptr) return nullptr;
  return compare != nullptr ? compare : sk->comp;
}

}  // namespace

pointer_stack *sk_new(sk_compare comp) {
  return new_stack(comp, kFirstSlots);
}

pointer_stack *sk_dup(const pointer_stack *sk) {
  if (sk == nullptr) return nullptr;
  pointer_stack *const copy = new_stack(sk->comp, sk->num_alloc);
  if (copy == nullptr) return nullptr;
  std::copy_n(sk->data, sk->num, copy->data);
  copy->num = sk->num;
  copy->sorted = sk->sorted;
  return copy;
}

void sk_free(pointer_stack *sk) {
  if (sk == nullptr) return;
  kfree_dbg(sk->data);
  kfree_dbg(sk);
}

void sk_pop_free(pointer_stack *sk, sk_free_fn free_fn) {
  for (int i = 0; i < sk_num(sk); ++i) {
    if (sk->data[i] != nullptr && free_fn != nullptr) free_fn(sk->data[i]);
  }
  sk_free(sk);
}

void sk_pop_kfree(pointer_stack *sk) {
  sk_pop_free(sk, [](void *element) {
    kfree_dbg(element);
    return 0;
  });
}

void sk_zero(pointer_stack *sk) {
  if (sk == nullptr) return;
  std::fill_n(sk->data, sk->num, nullptr);
  sk->num = 0;
}

int sk_num(const pointer_stack *sk) {
  return sk == nullptr ? -1 : sk->num;
}

void *sk_value(const pointer_stack *sk, int i) {
  return in_use(sk, i) ? sk->data[i] : nullptr;
}

intptr_t sk_get(const pointer_stack *sk, int i) {
  return reinterpret_cast<intptr_t>(sk_value(sk, i));
}

void *sk_set(pointer_stack *sk, int i, void *p) {
  if (!in_use(sk, i)) return nullptr;
  return sk->data[i] = p;
}

sk_compare sk_set_cmp_func(pointer_stack *sk, sk_compare comp) {
  if (sk == nullptr) return nullptr;
  if (sk->comp != comp) sk->sorted = 0;
  return std::exchange(sk->comp, comp);
}

int sk_insert(pointer_stack *sk, void *p, int loc) {
  if (sk == nullptr) return 0;
  // One insertion before it would have to (meant): a slot is always free.
  if (sk->num_alloc - 1 <= sk->num && !resize(sk, int64_t{sk->num_alloc} * 2)) return 0;
  if (loc < 0 || loc > sk->num) loc = sk->num;
  std::copy_backward(sk->data + loc, sk->data + sk->num, sk->data + sk->num + 1);
  sk->data[loc] = p;
  // Also for an element that was put in its place: only sk_sort vouches for the order.
  sk->sorted = 0;
  return ++sk->num;
}

int sk_push(pointer_stack *sk, void *p) {
  return sk_insert(sk, p, -1);
}

int sk_unshift(pointer_stack *sk, void *p) {
  return sk_insert(sk, p, 0);
}

int sk_enlarge(pointer_stack *sk, int n) {
  if (sk == nullptr || n < 1) return 0;
  const int64_t needed = int64_t{sk->num} + n;
  // Four times as much as is needed (meant, see the header).
  if (sk->num_alloc <= needed && !resize(sk, (needed + 4) * 4)) return 0;
  std::fill_n(sk->data + sk->num, n, nullptr);
  sk->sorted = 0;
  return sk->num += n;
}

void *sk_delete(pointer_stack *sk, int loc) {
  if (!in_use(sk, loc)) return nullptr;
  void *const removed = sk->data[loc];
  std::copy(sk->data + loc + 1, sk->data + sk->num, sk->data + loc);
  --sk->num;
  return removed;
}

void *sk_pop(pointer_stack *sk) {
  return sk_delete(sk, sk_num(sk) - 1);
}

void *sk_shift(pointer_stack *sk) {
  return sk_delete(sk, 0);
}

void *sk_delete_ptr(pointer_stack *sk, const void *p) {
  for (int i = 0; i < sk_num(sk); ++i) {
    if (sk->data[i] == p) return sk_delete(sk, i);
  }
  return nullptr;
}

void *sk_delete_by(pointer_stack *sk, const void *key, sk_compare compare) {
  compare = choose(sk, key, compare);
  if (compare == nullptr) return nullptr;
  return sk_delete(sk, search(sk, key, compare).mid);
}

void sk_sort(pointer_stack *sk) {
  if (sk == nullptr || sk->sorted != 0 || sk->comp == nullptr) return;
  sk_sort_by(sk, sk->comp);
  sk->sorted = 1;
}

void sk_sort_by(pointer_stack *sk, sk_compare cmp) {
  if (sk == nullptr || cmp == nullptr) return;
  std::qsort(sk->data, static_cast<size_t>(sk->num), sizeof(void *), cmp);
}

int sk_find(pointer_stack *sk, const void *p) {
  if (sk == nullptr) return -1;
  // Without an order there is nothing to search by but the pointer itself.
  if (sk->comp == nullptr) {
    void **const end = sk->data + sk->num;
    void **const at = std::find(sk->data, end, p);
    return at == end ? -1 : static_cast<int>(at - sk->data);
  }
  if (p == nullptr) return -1;
  sk_sort(sk);
  const auto *at = static_cast<void **>(
      std::bsearch(&p, sk->data, static_cast<size_t>(sk->num), sizeof(void *), sk->comp));
  if (at == nullptr) return -1;
  // bsearch gives any of several equals; the first is wanted.
  while (at > sk->data && sk->comp(at - 1, &p) >= 0) --at;
  return static_cast<int>(at - sk->data);
}

void *sk_find_by(pointer_stack *sk, const void *key, sk_compare compare) {
  compare = choose(sk, key, compare);
  return compare == nullptr ? nullptr : sk_value(sk, search(sk, key, compare).mid);
}

pointer_stack *sk_find_all_by(pointer_stack *sk, const void *key, sk_compare compare) {
  compare = choose(sk, key, compare);
  if (compare == nullptr) return nullptr;
  const search_end end = search(sk, key, compare);
  if (!end.found) return nullptr;
  const int last = run_end(sk, key, compare, end.mid, end.hi);
  // The search has shown that no match lies outside lo ... hi.
  int first = end.mid;
  while (first > end.lo && compare(sk->data[first - 1], key) == 0) --first;

  pointer_stack *const run = sk_new(nullptr);
  for (int i = first; i <= last; ++i) {
    if (sk_push(run, sk->data[i]) > 0) continue;
    sk_free(run);
    return nullptr;
  }
  return run;
}

int sk_sort_insert_by(pointer_stack *sk, void *p, sk_compare compare) {
  if (sk == nullptr || p == nullptr) return -1;
  compare = choose(sk, p, compare);
  if (compare == nullptr || sk->num == 0) return sk_push(sk, p);
  const search_end end = search(sk, p, compare);
  if (!end.found) return sk_insert(sk, p, end.lo);
  // Behind its equals, so that they keep their order of arrival.
  return sk_insert(sk, p, run_end(sk, p, compare, end.mid, end.hi) + 1);
}

void *sk_search(const pointer_stack *sk, const void *key, sk_compare compare) {
  compare = choose(sk, key, compare);
  for (int i = 0; compare != nullptr && i < sk->num; ++i) {
    if (compare(sk->data[i], key) == 0) return sk->data[i];
  }
  return nullptr;
}

pointer_stack *sk_search_all(const pointer_stack *sk, const void *key, sk_compare compare) {
  compare = choose(sk, key, compare);
  if (compare == nullptr) return nullptr;
  pointer_stack *const found = sk_new(sk->comp);
  bool complete = found != nullptr;
  for (int i = 0; complete && i < sk->num; ++i) {
    if (compare(sk->data[i], key) == 0) complete = sk_push(found, sk->data[i]) > 0;
  }
  // A part of the matches would be worse than none.
  if (complete && sk_num(found) > 0) return found;
  sk_free(found);
  return nullptr;
}
