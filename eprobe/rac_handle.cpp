// Handles and the table of instances behind them. See rac_handle.h.
#include "eprobe/rac_handle.h"

namespace {

constexpr uint32_t SLOT_BITS = 10;
constexpr uint32_t TIMER_BIT = 1u << SLOT_BITS;
constexpr uint32_t CORE_SHIFT = SLOT_BITS + 1;
constexpr uint32_t CORE_BITS = sizeof(void *) > 4 ? 10 : 6;
constexpr uint32_t GENERATION_SHIFT = CORE_SHIFT + CORE_BITS;
static_assert(PROBE_MAX_CONNECTIONS <= 1u << SLOT_BITS);
static_assert(PROBE_MAX_TIMERS + PROBE_MAX_THREADS <= 1u << SLOT_BITS);
static_assert(PROBE_MAX_INSTANCES == 1u << CORE_BITS);
static_assert(RAC_GENERATION_LIMIT - 1 <= UINTPTR_MAX >> GENERATION_SHIFT);
static_assert(RAC_GENERATION_LIMIT <= 1u << 30, "rac_ident keeps two bits for the life");

std::atomic<rac_core *> cores[PROBE_MAX_INSTANCES];

uintptr_t pack(const rac_core *core, uint32_t slot, uint32_t generation) {
  return uintptr_t{generation} << GENERATION_SHIFT | core->number << CORE_SHIFT | slot;
}

/// The instance of a handle of the wanted kind, or NULL.
rac_core *core_of(uintptr_t handle, bool timer) {
  if (handle >> GENERATION_SHIFT >= RAC_GENERATION_LIMIT) return nullptr;  // none of ours
  if (((handle & TIMER_BIT) != 0) != timer) return nullptr;
  return cores[handle >> CORE_SHIFT & (PROBE_MAX_INSTANCES - 1)].load(std::memory_order_acquire);
}

uint32_t slot_of(uintptr_t handle) {
  return static_cast<uint32_t>(handle & (TIMER_BIT - 1));
}

uint32_t generation_in(uintptr_t handle) {
  return static_cast<uint32_t>(handle >> GENERATION_SHIFT);
}

}  // namespace

int rac_register_core(rac_core *core) {
  for (uint32_t number = 0; number < PROBE_MAX_INSTANCES; ++number) {
    rac_core *none = nullptr;
    core->number = number;
    // Released for core_of: a handle leads to a whole instance or to none.
    if (cores[number].compare_exchange_strong(none, core, std::memory_order_acq_rel)) return 0;
  }
  return -1;
}

void rac_unregister_core(const rac_core *core) {
  cores[core->number].store(nullptr, std::memory_order_release);
}

rac_connection *rac_handle_of(const rac_connection *c) {
  const uint32_t generation = rac_generation_of(c->ident.load(std::memory_order_relaxed));
  return reinterpret_cast<rac_connection *>(pack(c->core, c->slot, generation));
}

rac_timer *rac_handle_of(const rac_timer *t) {
  const uint32_t generation = t->generation.load(std::memory_order_relaxed);
  return reinterpret_cast<rac_timer *>(pack(t->core, t->slot, generation) | TIMER_BIT);
}

rac_found<rac_connection> rac_find(const rac_connection *handle) {
  const auto word = reinterpret_cast<uintptr_t>(handle);
  rac_core *core = core_of(word, false);
  if (core == nullptr || slot_of(word) >= core->connection_n) return {nullptr, 0};
  const rac_found<rac_connection> found{&core->connections[slot_of(word)], generation_in(word)};
  return rac_still(found) ? found : rac_found<rac_connection>{nullptr, 0};
}

rac_found<rac_timer> rac_find(const rac_timer *handle) {
  const auto word = reinterpret_cast<uintptr_t>(handle);
  rac_core *core = core_of(word, true);
  if (core == nullptr || slot_of(word) >= core->timer_n + core->nbases) return {nullptr, 0};
  rac_timer *t = &core->timers[slot_of(word)];
  const uint32_t generation = generation_in(word);
  // Released by release_locked. Asked again under the lock before anything is done.
  if (t->generation.load(std::memory_order_acquire) != generation) return {nullptr, 0};
  return {t, generation};
}

bool rac_still(const rac_found<rac_connection> &found) {
  const uint32_t ident = found->ident.load(std::memory_order_acquire);
  return rac_generation_of(ident) == found.generation && rac_life_of(ident) != RAC_FREE;
}

bool rac_mark_removing(rac_connection *c, uint32_t generation) {
  uint32_t live = rac_ident(generation, RAC_LIVE);
  // Of several removers one succeeds; rac_is_live sees it at once.
  return c->ident.compare_exchange_strong(live, rac_ident(generation, RAC_REMOVING),
                                          std::memory_order_acq_rel);
}
