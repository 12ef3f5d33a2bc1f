// Timers of the probe's face.
#include "adif/check.h"
#include "eprobe/probe.h"
#include "eprobe/probe_event.h"
#include "eprobe/rac_handle.h"
#include "eprobe/rac_timer.h"

namespace {

/// Reads a field of the use that the handle means, under the lock that guards it.
template <typename Value>
Value read_field(const rac_timer *handle, Value rac_timer_words::*field) {
  const rac_found<rac_timer> found = rac_find(handle);
  if (!found) return 0;
  // Released by rac_dispatch_timer.
  rac_base *base = found->base.load(std::memory_order_acquire);
  if (base == nullptr) return 0;
  rac_guard guard(base->timer_lock);
  if (found->generation.load(std::memory_order_relaxed) != found.generation) return 0;
  return found->words.*field;
}

}  // namespace

rac_timer *StartTimer2(rac_core *core, uint32_t msec, uint32_t cmd, uintptr_t para,
                       probe_handler handler, void *arg) {
  if (core == nullptr) return nullptr;
  const rac_timer_words words{cmd, para, handler, arg};
  rac_timer *t = rac_get_timer(core);
  if (t == nullptr) t = rac_get_spare_timer(core, words);
  if (t == nullptr) return nullptr;
  t->words = words;
  t->handler_arg2 = arg;
  t->event->handler = process_timer_event;
  rac_timer *handle = rac_handle_of(t);  // before the start: the timer may be over after it
  rac_dispatch_timer(core, t, msec);
  return handle;
}

int StopTimer(rac_timer *timer) {
  const rac_found<rac_timer> found = rac_find(timer);
  if (!found) return 0;
  adif::check(found->base.load(std::memory_order_acquire) != nullptr, "base != ((void *)0)",
              "eprobe/probe");
  adif::check(found->core != nullptr, "pcore != ((void *)0)", "eprobe/probe");
  rac_stop_timer(found.record, found.generation);
  return 0;
}

uint32_t GetTimeoutCmd(rac_timer *timer) {
  return read_field(timer, &rac_timer_words::cmd);
}

uintptr_t GetTimeoutPara(rac_timer *timer) {
  return read_field(timer, &rac_timer_words::para);
}
