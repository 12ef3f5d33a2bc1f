// Handles of devices and timers: what the engine's users hold instead of addresses.
//
// A handle packs, from the top: the generation of the slot's use (never 0), the instance, whether
// it is a timer, the slot.
//
// clang-format off
//   word      generation   instance   timer   slot
//   64 bits      30 bits    10 bits       1     10
//   32 bits      15 bits     6 bits       1     10
// clang-format on
//
// The generation changes with every use of a slot, so an old handle finds nothing (until the slot
// has been used 32767 times more, on a 32-bit machine). A look-up takes no lock, and what it finds
// may end at any moment: whoever acts on a record checks the generation again where it cannot
// change, or changes `ident` itself.
#pragma once

#include <cstdint>

#include "eprobe/rac_core.h"

/// Where a connection's slot stands in its life.
enum rac_life : uint32_t { RAC_FREE = 0, RAC_LIVE = 1, RAC_REMOVING = 2 };

inline constexpr uint32_t RAC_GENERATION_LIMIT = sizeof(void *) > 4 ? 1u << 30 : 1u << 15;

inline uint32_t rac_next_generation(uint32_t generation) {
  return generation + 1 < RAC_GENERATION_LIMIT ? generation + 1 : 1;
}

inline uint32_t rac_ident(uint32_t generation, rac_life life) {
  return generation << 2 | life;
}
inline uint32_t rac_generation_of(uint32_t ident) {
  return ident >> 2;
}
inline rac_life rac_life_of(uint32_t ident) {
  return static_cast<rac_life>(ident & 3);
}

inline bool rac_is_live(const rac_connection *c) {
  return rac_life_of(c->ident.load(std::memory_order_acquire)) == RAC_LIVE;
}

/// Gives the instance its number, so that handles find it; -1 when all numbers are taken.
int rac_register_core(rac_core *core);
/// From here on the instance's handles find nothing.
void rac_unregister_core(const rac_core *core);

/// The handle of a record in its present use.
rac_connection *rac_handle_of(const rac_connection *c);
rac_timer *rac_handle_of(const rac_timer *t);

/// What a handle names: the record and the use of it that is meant; a NULL record when that is
/// over.
template <typename Record>
struct rac_found {
  Record *record;
  uint32_t generation;
  explicit operator bool() const { return record != nullptr; }
  Record *operator->() const { return record; }
};
rac_found<rac_connection> rac_find(const rac_connection *handle);
rac_found<rac_timer> rac_find(const rac_timer *handle);

/// Whether the use of the record that was found goes on.
bool rac_still(const rac_found<rac_connection> &found);

/// Marks the connection as being removed; true for the one caller that did it.
bool rac_mark_removing(rac_connection *c, uint32_t generation);
