// Events, ready queues and the timers of a base. See rac_event.h.
#include "eprobe/rac_event.h"

#include <cstddef>
#include <type_traits>

#include "eprobe/rac_time.h"

namespace {

constexpr int32_t KEEP_WITHIN_MS = 300;
constexpr uint32_t LONGEST_MS = 0x7fffffff;

rac_event *event_of(rac_rbtree_node *node) {
  static_assert(std::is_standard_layout_v<rac_event>);
  return reinterpret_cast<rac_event *>(reinterpret_cast<char *>(node) - offsetof(rac_event, timer));
}

int32_t difference(uint32_t later, uint32_t earlier) {
  return static_cast<int32_t>(later - earlier);
}

/// A key `msec` from now: never 0, which marks a node outside the tree, and within 2^31 of a first
/// timer that is overdue, or the order by signed difference would turn over.
uint32_t key_for(const rac_base *base, uint32_t msec) REQUIRES(base->timer_lock) {
  const uint32_t now = rac_clock_msec();
  uint32_t key = now + (msec < LONGEST_MS ? msec : LONGEST_MS);
  if (!rac_rbtree_empty(&base->timer_tree)) {
    const uint32_t first = rac_rbtree_min(base->timer_tree.root, &base->timer_sentinel)->key;
    if (difference(first, now) < 0 && key - first > LONGEST_MS) key = first + LONGEST_MS;
  }
  return key != 0 ? key : 1;
}

/// Takes the first timer out if it is due; a timer's owner is marked as running in the same moment,
/// so that a stop from another thread either came before or does nothing.
rac_event *take_due(rac_base *base, uint32_t now) {
  rac_guard guard(base->timer_lock);
  if (rac_rbtree_empty(&base->timer_tree)) return nullptr;
  rac_rbtree_node *first = rac_rbtree_min(base->timer_tree.root, &base->timer_sentinel);
  if (difference(first->key, now) > 0) return nullptr;
  rac_event *event = event_of(first);
  rac_event_del_timer_locked(base, event);
  event->timedout = true;
  if (event->of_timer) static_cast<rac_timer *>(event->data)->state |= RAC_TIMER_RUNNING;
  return event;
}

}  // namespace

void rac_event_reset(rac_event *event, void *owner, bool write) {
  event->data = owner;
  event->write = write;
  event->accept = false;
  event->instance = !event->instance;
  event->active.store(false, std::memory_order_relaxed);
  event->ready = false;
  event->timedout = false;
  event->timer_set = false;
  event->closed = false;
  event->handler = nullptr;
  event->index = RAC_UNREGISTERED;
  event->timer = {};
  event->next = nullptr;
  event->prev = nullptr;
}

void rac_post_event(rac_event *event, rac_event **queue) {
  rac_unpost_event(event);
  event->next = *queue;
  event->prev = queue;
  if (event->next != nullptr) event->next->prev = &event->next;
  *queue = event;
}

void rac_unpost_event(rac_event *event) {
  if (event->prev == nullptr) return;
  *event->prev = event->next;
  if (event->next != nullptr) event->next->prev = event->prev;
  event->prev = nullptr;
}

void rac_event_process_posted(rac_base *, rac_event **queue) {
  while (*queue != nullptr) {
    rac_event *event = *queue;
    rac_unpost_event(event);
    // A handler before it in this queue may have unregistered it.
    if (event->active.load(std::memory_order_relaxed) && event->handler != nullptr)
      event->handler(event);
  }
}

int rac_event_timer_init(rac_base *base) {
  if (base->timer_lock == nullptr) base->timer_lock = rac_mutex_init();
  if (base->timer_lock == nullptr) return -1;
  rac_guard guard(base->timer_lock);
  rac_rbtree_init(&base->timer_tree, &base->timer_sentinel, rac_rbtree_insert_timer_value);
  return 0;
}

void rac_event_timer_done(rac_base *base) {
  rac_mutex_destroy(base->timer_lock);
  base->timer_lock = nullptr;
}

int32_t rac_event_find_timer(rac_base *base) {
  rac_guard guard(base->timer_lock);
  if (rac_rbtree_empty(&base->timer_tree)) return -1;
  const uint32_t first = rac_rbtree_min(base->timer_tree.root, &base->timer_sentinel)->key;
  const int32_t wait = difference(first, rac_clock_msec());
  return wait > 0 ? wait : 0;
}

void rac_event_expire_timers(rac_base *base) {
  // Released by rac_event_add_timer. A timer that this look misses is due in a later turn.
  uint32_t present = base->ntimers.load(std::memory_order_acquire);
  if (present == 0) return;
  const uint32_t now = rac_clock_msec();
  for (; present > 0; --present) {
    rac_event *event = take_due(base, now);
    if (event == nullptr) return;
    event->handler(event);
  }
}

bool rac_event_add_timer(rac_base *base, rac_event *event, uint32_t msec) {
  rac_guard guard(base->timer_lock);
  const uint32_t key = key_for(base, msec);
  if (event->timer_set) {
    const int32_t moved = difference(key, event->timer.key);
    // A small change is not worth the way through the tree.
    if (moved > -KEEP_WITHIN_MS && moved < KEEP_WITHIN_MS) return false;
    rac_event_del_timer_locked(base, event);
  }
  event->timer.key = key;
  rac_rbtree_insert(&base->timer_tree, &event->timer);
  base->ntimers.fetch_add(1, std::memory_order_release);
  event->timer_set = true;
  return rac_rbtree_min(base->timer_tree.root, &base->timer_sentinel) == &event->timer;
}

void rac_event_del_timer(rac_base *base, rac_event *event) {
  rac_guard guard(base->timer_lock);
  rac_event_del_timer_locked(base, event);
}

void rac_event_del_timer_locked(rac_base *base, rac_event *event) {
  if (event->timer.key != 0 && event->timer.left != nullptr) {
    rac_rbtree_delete(&base->timer_tree, &event->timer);
    base->ntimers.fetch_sub(1, std::memory_order_relaxed);
  }
  // Whether it was in the tree or not (meant).
  event->timer_set = false;
}

int rac_event_process_init(rac_base *base) {
  if (rac_event_timer_init(base) != 0) return -1;
  return rac_event_actions.init(base);
}

void rac_event_process_done(rac_base *base) {
  rac_event_actions.done(base);
  rac_event_timer_done(base);
}
