// Circular doubly linked queue with a sentinel head; entries live in their owners' records. Offered
// to the engine's users beside its own lists. No locks inside.
#pragma once

struct rac_queue {
  rac_queue *prev;
  rac_queue *next;
};

inline void rac_queue_init(rac_queue *queue) {
  queue->prev = queue->next = queue;
}

inline bool rac_queue_empty(const rac_queue *queue) {
  return queue->next == queue;
}

/// Links `entry` behind `position` (the sentinel: at the front).
inline void rac_queue_insert_after(rac_queue *position, rac_queue *entry) {
  entry->prev = position;
  entry->next = position->next;
  entry->next->prev = entry;
  position->next = entry;
}

inline void rac_queue_remove(rac_queue *entry) {
  entry->prev->next = entry->next;
  entry->next->prev = entry->prev;
  entry->prev = entry->next = nullptr;
}

/// The element at 0-based position n / 2 of n elements; the sentinel of an empty queue. O(n).
rac_queue *rac_queue_middle(rac_queue *queue);

/// Sorts by `cmp` (above 0: the first belongs behind the second). Stable insertion sort, O(n^2).
void rac_queue_sort(rac_queue *queue, int (*cmp)(const rac_queue *, const rac_queue *));
