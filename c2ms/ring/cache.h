// The pack cache: a ring of packs over one buffer that follows the read position (drawn in
// core/records.h). The session's data calls (player/gate.h) come here under the read gate; units
// fill packs under the packs' own locks; anybody may move the range.
//
// A file's bytes are numbered in packs of packsize bytes from its base offset; every pack number
// fits an int32, sizes and positions are 64-bit and never become a size_t.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

/// The part of the selected file that an index in memory holds, in positions of reads. While the
/// position lies in it the range is placed for `target` instead: behind the window, or at the
/// beginning when the window is the file's end. Packs that lie wholly in it are not prefetched;
/// readers copy them from the index.
struct c2ms_window {
  uint64_t begin, end;  // equal: none
  uint64_t in_index;    // where in the index the window's first byte lies
  uint64_t target;
  bool moves_range;

  bool has(uint64_t pos) const { return pos >= begin && pos < end; }
  bool holds(uint64_t from, uint64_t to) const { return begin < end && from >= begin && to <= end; }
};

/// The pack in whose slot pack number `index` belongs, whatever it holds now; NULL without a ring.
inline c2ms_pack *c2ms_cache_slot(const c2ms_cache *cache, int32_t index) {
  const int32_t packnum = cache->packnum.load();
  return packnum < 1 ? nullptr : static_cast<c2ms_pack *>(sk_value(cache->packs, index % packnum));
}

/// Readies a session's cache record: no buffer, no file. The record; NULL for NULL.
c2ms_cache *c2ms_cache_init(c2ms_sess *session);

/// Gives back every pack; later units find no place. The event stays with the record. 0, -1 for
/// NULL.
int c2ms_cache_clean(c2ms_cache *cache);

/// Cuts `buffer` (not owned) into packs; drops what was there. Needs the read gate. 0; -1, -2
/// missing cache or buffer; -3 size below 1; -4 size below packsize (0 or less means 8192); -5 no
/// memory for packs.
int c2ms_cache_setbuf(c2ms_cache *cache, uint8_t *buffer, int32_t size, int32_t packsize);

/// Selects a file; drops what was there, position 0. Of box headers nothing is prefetched: only
/// what a reader waits for is asked for. Needs the read gate. 0; -1; -201 the cache has no pack;
/// -202 more packs than an int32 counts.
int c2ms_cache_setfile(c2ms_cache *cache, const uint8_t *fid, uint64_t base_offset,
                       uint64_t media_size, uint8_t flag,
                       c2ms::cache_use use = c2ms::cache_use::play);

/// The window of the index in memory; an empty one when the cache serves another file than the
/// media.
c2ms_window c2ms_cache_window(c2ms_cache *cache) REQUIRES(cache->lock);
/// The window has changed: places the range for the read position again.
void c2ms_cache_window_changed(c2ms_cache *cache) REQUIRES(cache->lock);

/// Binds a unit to neighbouring idle packs, as many of `count` from `first` on as are still idle,
/// and tells it what to ask for. Bytes that the first one holds are not asked for again. The number
/// of packs, 0 when the first is not idle any more.
int32_t c2ms_cache_bind(c2ms_cache *cache, c2ms_unit *unit, int32_t first, int32_t count);
/// Binds a unit to neighbouring packs that others are fetching, for what they lack: as many of
/// `count` as are still under way, have room for it and no unit that has not been sent. The number
/// of packs.
int32_t c2ms_cache_bind_again(c2ms_cache *cache, c2ms_unit *unit, int32_t first, int32_t count);
/// The unit's answer goes on in pack `pack_index` of its run: finds out whether the pack wants it.
void c2ms_cache_go_on(c2ms_cache *cache, c2ms_unit *unit);
/// Takes a unit away from a pack; true when that is idle now.
bool c2ms_cache_unbind(c2ms_cache *cache, c2ms_unit *unit, int32_t index);
/// Bytes of what a unit still has to receive that some pack wants.
int64_t c2ms_cache_wanted(c2ms_cache *cache, const c2ms_unit *unit);

/// The packs from which a session asks ahead: from the reader's position (the range's first pack
/// while the range is placed elsewhere) to the end of range or file.
struct ahead_packs {
  int32_t first, end;
};
ahead_packs c2ms_cache_ahead(c2ms_cache *cache) REQUIRES(cache->lock);
/// True when a pack is idle and may be asked for now.
bool c2ms_cache_may_ask(c2ms_cache *cache, int32_t index) REQUIRES(cache->lock);
/// Bytes ahead of the reader without a hole.
int64_t c2ms_cache_lead(c2ms_cache *cache) REQUIRES(cache->lock);

/// The first idle pack at or above the read position (above the range's first pack while the range
/// is placed elsewhere) that may be asked for now, or NULL.
c2ms_pack *c2ms_cache_get_idle_pack(c2ms_cache *cache);
/// Has idle packs asked for as soon as a node can take them: 1 when there are some, else 0. What
/// asks is the dispatch (fetch/queue.h).
int c2ms_cache_download_all(c2ms_cache *cache);
/// Queues a unit for one idle pack. 0; -1, -2 missing cache or pack; or the result.
int c2ms_cache_download_pack(c2ms_cache *cache, c2ms_pack *pack);

/// Moves the read position and asks for what is missing; nothing when the cache serves another use.
/// 0; -1.
int c2ms_cache_seek(c2ms_cache *cache, uint64_t pos, c2ms::cache_use use = c2ms::cache_use::play);
/// Moves position and range. Packs that stay inside keep their data. True when there are new packs
/// to ask for.
bool c2ms_cache_seek_to(c2ms_cache *cache, uint64_t pos) REQUIRES(cache->lock);
/// The same with the range placed for the position itself, wherever the window lies: for a reader
/// who needs bytes of the media there.
bool c2ms_cache_seek_exactly(c2ms_cache *cache, uint64_t pos) REQUIRES(cache->lock);
/// Where a call reads: the position, and the count of seeks when it was taken, both under one hold
/// of the cache's lock. A seek afterwards makes the count differ, and the call ends.
struct c2ms_place {
  uint64_t pos;
  uint32_t seek_count;
};
/// The read position.
c2ms_place c2ms_cache_here(c2ms_cache *cache);
/// Moves the read position for a reader that names each position, who may read at two places in
/// turn: while they are at most half a ring apart the range follows the lower one, so that neither
/// loses what the other will need. Needs the read gate. 0, and the place in `*out`; -200 at or past
/// the end.
int c2ms_cache_place(c2ms_cache *cache, uint64_t pos, c2ms_place *out);
/// Moves a reader's position on, unless somebody has moved it since `seek_count` was taken (then
/// false), and gives nodes that have run out of work new packs. Needs the read gate.
bool c2ms_cache_advance(c2ms_cache *cache, uint64_t pos, uint32_t seek_count);

/// Copy bytes from the read position, or from the place that the caller has taken (c2ms.h gives the
/// player's view). Need the read gate.
int c2ms_cache_read(c2ms_cache *cache, void *buf, int32_t len, int32_t nonblock);
int c2ms_cache_recv(c2ms_cache *cache, void *buf, int32_t len, int32_t timeout_ms);
int c2ms_cache_recv_at(c2ms_cache *cache, const c2ms_place &from, void *buf, int32_t len,
                       int32_t timeout_ms);

int c2ms_cache_buffering_size(c2ms_cache *cache, int32_t bytes);
int c2ms_cache_buffering_ratio(c2ms_cache *cache, int32_t *ratio);

uint64_t c2ms_cache_readpos(c2ms_cache *cache);
uint64_t c2ms_cache_offset(c2ms_cache *cache);
int32_t c2ms_cache_packsize(c2ms_cache *cache);
int32_t c2ms_cache_packnum(c2ms_cache *cache);

/// Wakes the waiting reader, if any.
void c2ms_cache_wake(c2ms_cache *cache);
/// Makes way for a reader whose urgent need this thread has met; hold no lock. A worker that always
/// finds more to receive would keep the reader from their processor for a turn of the scheduler: of
/// the seeks one in a hundred took 1.7 ms, with this 0.3. For every wake-up it costs throughput.
void c2ms_cache_yield_to_reader();
/// The reader needs the packs `first` to `last`, `len` bytes of the last one. True when it need not
/// sleep: all is there, or one of them waits for the reader (idle, or no longer in the range). An
/// urgent need has the thread that meets it make way (c2ms_cache_yield_to_reader).
bool c2ms_cache_need(c2ms_cache *cache, int32_t first, int32_t last, int32_t len,
                     bool urgent = false);
/// It needs nothing any more.
void c2ms_cache_need_nothing(c2ms_cache *cache);
/// Tells that pack `index` has got bytes or changed its state: wakes the reader when that was the
/// last thing that it lacked. Hold neither the cache's lock nor a pack's. `complete`: its node will
/// ask for another pack at once; inside a ReaderLast the reader is woken after that.
void c2ms_cache_tell_reader(c2ms_cache *cache, int32_t index, bool complete = false);
/// While it lives, a reader that this thread would wake for a complete pack waits for its end, when
/// no lock may be held: a woken reader that takes the receiver's processor would copy before the
/// node's next request is out. An urgent need is met at once.
class ReaderLast {
 public:
  ReaderLast();
  ~ReaderLast();
  ReaderLast(const ReaderLast &) = delete;
  ReaderLast &operator=(const ReaderLast &) = delete;
};
/// Tells that a pack has become idle outside a move of the range. Hold no pack's lock.
void c2ms_cache_note_idle(c2ms_cache *cache, int32_t index);
