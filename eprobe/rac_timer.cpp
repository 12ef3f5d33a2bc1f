// Pool, start and end of timers. See rac_timer.h.
#include "eprobe/rac_timer.h"

#include <new>
#include <utility>

#include "adif/check.h"
#include "eprobe/rac_event.h"
#include "eprobe/rac_handle.h"
#include "eprobe/rac_wake.h"

namespace {

constexpr const char *SOURCE = "eprobe/rac_timer";

bool is_set(const rac_timer *t) {
  rac_base *base = t->base.load(std::memory_order_acquire);
  if (base == nullptr) return false;
  rac_guard guard(base->timer_lock);
  return t->event->timer_set;
}

rac_timer *make_fresh(rac_timer *t) {
  t->data = nullptr;
  t->state = 0;
  rac_event_reset(t->event, t, false);
  return t;
}

/// The generation advances under the lock, so that every later look at the old handle finds
/// nothing.
void release_locked(rac_base *base, rac_timer *t) REQUIRES(base->timer_lock) {
  rac_event_del_timer_locked(base, t->event);
  t->event->closed = true;
  t->state = RAC_TIMER_RELEASED;
  t->words = {};
  t->handler_arg2 = nullptr;
  const uint32_t generation = t->generation.load(std::memory_order_relaxed);
  // For the look without lock in rac_find.
  t->generation.store(rac_next_generation(generation), std::memory_order_release);
}

}  // namespace

int rac_timer_init(rac_core *core) {
  const uint32_t n = core->timer_n + core->nbases;
  core->timer_mutex = rac_mutex_init();
  core->timers.reset(new (std::nothrow) rac_timer[n]());
  core->timer_events.reset(new (std::nothrow) rac_event[n]());
  if (core->timer_mutex == nullptr || core->timers == nullptr || core->timer_events == nullptr)
    return -1;
  rac_guard guard(core->timer_mutex);
  core->free_timers = nullptr;
  for (uint32_t slot = n; slot-- > 0;) {
    rac_timer &t = core->timers[slot];
    t.event = &core->timer_events[slot];
    t.event->closed = t.event->instance = t.event->of_timer = true;
    t.slot = slot;
    t.core = core;
    t.state = RAC_TIMER_RELEASED;
    t.generation.store(1, std::memory_order_relaxed);
    // The last slots are in no list: they are the spare ones of the bases.
    if (slot >= core->timer_n) {
      core->bases[slot - core->timer_n].spare_timer = &t;
      continue;
    }
    t.data = core->free_timers;
    core->free_timers = &t;
  }
  core->free_timer_n.store(core->timer_n, std::memory_order_relaxed);
  return 0;
}

void rac_timer_destroy(rac_core *core) {
  core->timers.reset();
  core->timer_events.reset();
  rac_mutex_destroy(core->timer_mutex);
  core->timer_mutex = nullptr;
}

rac_timer *rac_get_timer(rac_core *core) {
  rac_timer *t = nullptr;
  {
    rac_guard guard(core->timer_mutex);
    t = core->free_timers;
    if (t == nullptr) return nullptr;
    core->free_timers = t->data;
    core->free_timer_n.fetch_sub(1, std::memory_order_relaxed);
  }
  return make_fresh(t);
}

rac_timer *rac_get_spare_timer(rac_core *core, const rac_timer_words &words) {
  rac_base *base = rac_this_base;
  if (base == nullptr || base->core != core || base->expiring == nullptr) return nullptr;
  if (base->spare_timer == nullptr || !(base->expiring->words == words)) return nullptr;
  return make_fresh(std::exchange(base->spare_timer, nullptr));
}

void rac_free_timer(rac_core *core, rac_timer *t) {
  rac_guard guard(core->timer_mutex);
  t->data = core->free_timers;
  core->free_timers = t;
  core->free_timer_n.fetch_add(1, std::memory_order_relaxed);
}

void rac_close_timer(rac_core *core, rac_timer *t) {
  rac_base *base = t->base.load(std::memory_order_acquire);
  rac_unpost_event(t->event);
  {
    rac_guard guard(base->timer_lock);
    release_locked(base, t);
  }
  // A handler that restarted its timer in the spare slot leaves its own as the next spare one.
  if (base == rac_this_base && base->spare_timer == nullptr)
    base->spare_timer = t;
  else
    rac_free_timer(core, t);
}

int rac_dispatch_timer(rac_core *core, rac_timer *t, uint32_t msec) {
  adif::check(core != nullptr, "core != ((void *)0)", SOURCE);
  adif::check(t != nullptr, "t != ((void *)0)", SOURCE);
  rac_base *base = rac_next_base(core, &core->timer_rr);
  if (is_set(t))
    base = t->base.load(std::memory_order_relaxed);
  else
    // Acquired by rac_stop_timer and read_field, which take that base's lock.
    t->base.store(base, std::memory_order_release);
  // Only a timer that is due before all others shortens the wait under way.
  if (rac_event_add_timer(base, t->event, msec)) rac_base_notify(base);
  return 0;
}

bool rac_stop_timer(rac_timer *t, uint32_t generation) {
  rac_base *base = t->base.load(std::memory_order_acquire);
  if (base == nullptr) return false;
  {
    rac_guard guard(base->timer_lock);
    if (t->generation.load(std::memory_order_relaxed) != generation) return false;
    // Its worker gives the slot back when the handler returns.
    if ((t->state & RAC_TIMER_RUNNING) != 0) return false;
    release_locked(base, t);
  }
  rac_free_timer(t->core, t);
  return true;
}
