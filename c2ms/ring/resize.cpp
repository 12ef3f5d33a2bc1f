// See resize.h.
#include "c2ms/ring/resize.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "c2ms/ring/cache.h"
#include "c2ms/ring/ends.h"
#include "c2ms/ring/pack.h"

namespace {

using pack_list = std::unique_ptr<c2ms_pack *[]>;

pack_list new_list(int32_t packs) {
  return pack_list(new (std::nothrow) c2ms_pack *[static_cast<size_t>(packs)]());
}

c2ms_pack *pack_in(const c2ms_cache *cache, int32_t slot) {
  return static_cast<c2ms_pack *>(sk_value(cache->packs, slot));
}

int32_t index_of(c2ms_pack *pack) {
  const adif::Guard lock(pack->lock);
  return pack->index;
}

// Where a ring of `packs` begins so that it holds what is read next, and behind it what it can.
int32_t first_for(const c2ms_cache *cache, int32_t packs) REQUIRES(cache->lock) {
  const int32_t back = std::max(cache->wanted_from - packs / 8, cache->first_index.load());
  return std::clamp(back, 0, std::max(cache->total_packs - packs, 0));
}

// True for memory that lies in the first `packs` packs of the session's blocks.
bool is_kept(const c2ms_cache *cache, const uint8_t *buf, int32_t packs) {
  const c2ms_sess *const sess = cache->session;
  int64_t left = int64_t{packs} * cache->packsize;
  for (int32_t i = 0; i < sess->cache_blocks && left > 0; ++i) {
    const c2ms::cache_block &block = sess->cache_block[i];
    const int64_t bytes = std::min<int64_t>(left, block.bytes);
    if (buf >= block.at && buf < block.at + bytes) return true;
    left -= bytes;
  }
  return false;
}

// Gives each pack of `ring` its slot and each that holds none of the range its number.
void lay(c2ms_cache *cache, const pack_list &ring, int32_t packs, int32_t first)
    REQUIRES(cache->lock) {
  const bool has_file = cache->total_packs > 0;
  for (int32_t i = first; i < first + packs; ++i) {
    c2ms_pack *const pack = ring[i % packs];
    if (has_file && index_of(pack) != i) c2ms_cache_turn_over(cache, pack, i);
    const adif::Guard lock(pack->lock);
    pack->slot = i % packs;
  }
  for (int32_t slot = 0; slot < packs; ++slot) sk_set(cache->packs, slot, ring[slot]);
  cache->packnum = packs;
  cache->reserve = packs / 8;
  cache->buffer_size = cache->used_size = packs * cache->packsize;
  cache->first_index = first;
  cache->max_first = std::max(cache->total_packs - packs, 0);
  cache->wanted_from = std::max(cache->wanted_from, first);
  cache->idle_from = cache->wanted_from;
}

// Takes the packs that the new ring holds to their slots, the others to the free ones.
void arrange(c2ms_cache *cache, c2ms_pack **all, int32_t count, const pack_list &ring,
             int32_t packs, int32_t first) REQUIRES(cache->lock) {
  const auto stays = [&](c2ms_pack *pack) {
    const int32_t index = index_of(pack);
    return cache->total_packs > 0 && index >= first && index < first + packs;
  };
  const auto spares = std::stable_partition(all, all + count, stays);
  for (auto at = all; at != spares; ++at) ring[index_of(*at) % packs] = *at;
  auto spare = spares;
  for (int32_t slot = 0; slot < packs; ++slot) {
    if (ring[slot] == nullptr) ring[slot] = *spare++;
  }
}

void swap_memory(c2ms_pack *stays, c2ms_pack *goes, int32_t bytes) {
  uint8_t *to;
  {
    const adif::Guard lock(goes->lock);
    to = goes->buf;
  }
  uint8_t *from;
  {
    const adif::Guard lock(stays->lock);
    from = stays->buf;
    std::memcpy(to, from, static_cast<size_t>(bytes));
    stays->buf = to;
  }
  const adif::Guard lock(goes->lock);
  goes->buf = from;
}

// Packs that stay give up memory that goes for memory that stays. (Nobody fills the others any
// more.)
void move_out(c2ms_cache *cache, c2ms_pack **all, int32_t count, const pack_list &ring,
              int32_t packs) {
  const auto in_ring = [&](const c2ms_pack *pack) {
    return std::find(ring.get(), ring.get() + packs, pack) != ring.get() + packs;
  };
  const auto giver = std::stable_partition(all, all + count, in_ring);
  auto next = giver;
  for (int32_t slot = 0; slot < packs; ++slot) {
    if (is_kept(cache, ring[slot]->buf, packs)) continue;
    while (!is_kept(cache, (*next)->buf, packs)) ++next;
    swap_memory(ring[slot], *next++, cache->packsize);
  }
}

}  // namespace

int c2ms_cache_extend(c2ms_cache *cache, uint8_t *buffer, int32_t size) {
  const adif::Guard lock(cache->lock);
  const int32_t old = cache->packnum, added = size / cache->packsize, packs = old + added;
  const pack_list all = new_list(packs), ring = new_list(packs);
  if (all == nullptr || ring == nullptr) return -5;
  for (int32_t i = 0; i < packs; ++i) {
    uint8_t *const at = buffer + static_cast<ptrdiff_t>(i - old) * cache->packsize;
    all[i] = i < old ? pack_in(cache, i) : c2ms_pack_fetch(cache, i, at, cache->packsize);
    if (all[i] != nullptr && (i < old || sk_push(cache->packs, all[i]) > 0)) continue;
    if (all[i] != nullptr) c2ms_pack_recycle(cache->session->mgmt, all[i]);
    while (sk_num(cache->packs) > old) {
      c2ms_pack_recycle(cache->session->mgmt, static_cast<c2ms_pack *>(sk_pop(cache->packs)));
    }
    return -5;
  }
  const int32_t first =
      std::clamp(cache->first_index.load(), 0, std::max(cache->total_packs - packs, 0));
  arrange(cache, all.get(), packs, ring, packs, first);
  lay(cache, ring, packs, first);
  return 0;
}

int c2ms_cache_reduce(c2ms_cache *cache, int32_t packs) {
  const adif::Guard lock(cache->lock);
  const int32_t old = cache->packnum;
  if (packs < 1 || packs >= old) return 0;
  const pack_list all = new_list(old), ring = new_list(packs);
  if (all == nullptr || ring == nullptr) return -5;
  for (int32_t i = 0; i < old; ++i) all[i] = pack_in(cache, i);
  const int32_t first = first_for(cache, packs);
  arrange(cache, all.get(), old, ring, packs, first);
  const auto leaves = [&](c2ms_pack *pack) {
    return std::find(ring.get(), ring.get() + packs, pack) == ring.get() + packs;
  };
  for (int32_t i = 0; i < old; ++i) {
    if (leaves(all[i])) c2ms_cache_turn_over(cache, all[i], -1);
  }
  move_out(cache, all.get(), old, ring, packs);
  lay(cache, ring, packs, first);
  while (sk_num(cache->packs) > packs) sk_pop(cache->packs);
  for (int32_t i = 0; i < old; ++i) {
    if (leaves(all[i])) c2ms_pack_recycle(cache->session->mgmt, all[i]);
  }
  return 0;
}
