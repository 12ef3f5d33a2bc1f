// The hook that workers run on each turn and DrivePump runs on call.
#include "eprobe/probe.h"
#include "eprobe/probe_event.h"
#include "eprobe/rac_core.h"

namespace {

void set_hook(rac_core *core, const rac_hook &hook) REQUIRES(core->hook_lock) {
  core->hook = hook;
  // Only a hint that there is something to read under the lock.
  core->hook_set.store(hook.check != nullptr && hook.pump != nullptr, std::memory_order_relaxed);
}

}  // namespace

int RegisterHook(rac_core *core, probe_hook check, void *check_arg, probe_hook pump,
                 void *pump_arg) {
  if (core == nullptr) return -1;
  rac_guard guard(core->hook_lock);
  set_hook(core, {check, check_arg, pump, pump_arg});
  return 0;
}

int RemoveHook(rac_core *core) {
  if (core == nullptr) return -1;
  rac_guard guard(core->hook_lock);
  set_hook(core, {});
  return 0;
}

int RemoveHookOf(rac_core *core, const void *check_arg) {
  if (core == nullptr) return -1;
  rac_guard guard(core->hook_lock);
  if (core->hook.check == nullptr || core->hook.check_arg != check_arg) return 1;
  set_hook(core, {});
  return 0;
}

int DrivePump(rac_core *core) {
  return core == nullptr ? -1 : probe_run_hook(core);
}

int probe_run_hook(rac_core *core) {
  if (!core->hook_set.load(std::memory_order_relaxed)) return -1;
  rac_hook hook{};
  {
    rac_guard guard(core->hook_lock);
    hook = core->hook;
  }
  if (hook.check == nullptr || hook.pump == nullptr) return -1;
  if (hook.check(hook.check_arg, 0) >= 1) hook.pump(hook.pump_arg, 0);
  return 0;
}
