// Middle element and stable sort of a linked queue. See rac_queue.h.
#include "eprobe/rac_queue.h"

rac_queue *rac_queue_middle(rac_queue *queue) {
  rac_queue *slow = queue->next;
  const rac_queue *last = queue->prev;
  if (slow == last) return slow;
  for (const rac_queue *fast = slow;;) {
    slow = slow->next;
    fast = fast->next;
    if (fast == last) return slow;
    fast = fast->next;
    if (fast == last) return slow;
  }
}

void rac_queue_sort(rac_queue *queue, int (*cmp)(const rac_queue *, const rac_queue *)) {
  if (rac_queue_empty(queue)) return;
  for (rac_queue *entry = queue->next->next; entry != queue;) {
    rac_queue *next = entry->next;
    rac_queue *position = entry->prev;
    rac_queue_remove(entry);
    // Not past equals: the sort is stable.
    while (position != queue && cmp(position, entry) > 0) position = position->prev;
    rac_queue_insert_after(position, entry);
    entry = next;
  }
}
