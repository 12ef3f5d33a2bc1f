// The reader's side of the cache: copying out of the ring, waiting for what is missing.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"
#include "c2ms/core/time.h"
#include "c2ms/ring/range.h"

/// Moves a reader's position on, unless somebody has moved it since `seek_count` was taken (then
/// false), and gives nodes that have run out of work new packs. Needs the read gate.
bool c2ms_cache_advance(c2ms_cache *cache, uint64_t pos, uint32_t seek_count);

/// Copy bytes from the read position, or from the place that the caller has taken (c2ms.h gives the
/// player's view). Need the read gate.
int c2ms_cache_read(c2ms_cache *cache, void *buf, int32_t len, int32_t nonblock);
int c2ms_cache_recv(c2ms_cache *cache, void *buf, int32_t len, int32_t timeout_ms);
int c2ms_cache_recv_at(c2ms_cache *cache, const c2ms_place &from, void *buf, int32_t len,
                       int32_t timeout_ms);
/// Waits for `least` bytes and copies up to `len`; C2MS_TIMED_OUT, and nothing, when they are not
/// there in time. min() never waits, max() has no limit.
int c2ms_cache_read_some(c2ms_cache *cache, const c2ms_place &from, void *buf, int32_t least,
                         int32_t len, c2ms::steady::time_point deadline);

/// True when a read of one byte at the position would return at once. Otherwise the byte is asked
/// for, and its arrival wakes the cache.
bool c2ms_cache_poll(c2ms_cache *cache);
