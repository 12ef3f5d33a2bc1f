// Which parts of the pooled records nobody may touch between their return and their next use; the
// pools' test modes watch them (adif/bmempool.h). Left out: fields that a late event reads to learn
// that the record is no longer its own, and what a second close reads.
#pragma once

#include <cstddef>

#include "c2ms/core/records.h"

namespace c2ms {

constexpr pool_span span_between(size_t from, size_t to) {
  return {static_cast<uint32_t>(from), static_cast<uint32_t>(to - from)};
}

inline constexpr pool_span unit_watched[] = {span_between(0, sizeof(c2ms_unit))};
inline constexpr pool_span node_watched[] = {span_between(0, sizeof(c2ms_node))};
inline constexpr pool_span pack_watched[] = {
    span_between(offsetof(c2ms_pack, slot), offsetof(c2ms_pack, unit_count)),
    span_between(offsetof(c2ms_pack, flag), sizeof(c2ms_pack)),
};

inline constexpr pool_span sess_watched[] = {
    span_between(offsetof(c2ms_sess, open_pending), offsetof(c2ms_sess, status)),
    span_between(offsetof(c2ms_sess, media_name), offsetof(c2ms_sess, desc_count)),
    span_between(offsetof(c2ms_sess, speed_lock), offsetof(c2ms_sess, cache_record)),
    span_between(offsetof(c2ms_sess, cache_block), offsetof(c2ms_sess, read_gate)),
    span_between(offsetof(c2ms_sess, idx_zbuf), offsetof(c2ms_sess, mgmt)),
    span_between(offsetof(c2ms_sess, perf_state), offsetof(c2ms_sess, strand)),
};

}  // namespace c2ms
