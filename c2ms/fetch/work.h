// Gathers what the choice (fetch/choice.h) needs to know of a session: its connections as lanes,
// the idle packs ahead of its reader, the reader itself. Inside the strand.
#pragma once

#include <array>
#include <cstddef>

#include "c2ms/core/records.h"
#include "c2ms/fetch/choice.h"

namespace c2ms {

/// The media nodes of a session and what may be expected of them, in the same order.
struct session_lanes {
  std::array<c2ms_node *, snapshot_nodes> nodes{};
  std::array<lane, snapshot_nodes> lanes{};
  size_t count = 0;

  std::span<const lane> all() const { return {lanes.data(), count}; }
  size_t find(const c2ms_node *node) const;  // count when it is not there
};
session_lanes lanes_of(c2ms_sess *sess);

/// The idle packs ahead of a session's reader, with room for the view's stretches. More of them lie
/// farther ahead than anybody is asked for at once.
struct idle_packs {
  std::array<stretch, 32> stretches{};
  size_t count = 0;
  ring_view view;
};
/// Fills it in place, as the view points into it. False when no pack is idle.
bool fill_ring_view(c2ms_cache *cache, idle_packs *out);

/// The packs that a node should ask for now; count 0: none. Without a node: the first idle pack.
run choose_work(c2ms_sess *sess, c2ms_node *node);

/// The pace of a session's reader and what lies ahead of it.
reader_view reader_of(c2ms_cache *cache);

}  // namespace c2ms
