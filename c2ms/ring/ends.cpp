// See ends.h.
#include "c2ms/ring/ends.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "c2ms/ring/pack.h"

namespace {

constexpr int32_t share = 64;  // of the cache, for each end

// Which place of the store is for this pack: 0 to 2 * end_packs - 1, or -1 when it is of no end.
int32_t place_of(const c2ms_cache *cache, int32_t index) REQUIRES(cache->lock) {
  const int32_t each = cache->end_packs;
  if (index < 0 || cache->use != c2ms::cache_use::play) return -1;
  if (index < each) return index;
  const int32_t from_end = cache->total_packs - 1 - index;
  return from_end >= 0 && from_end < each ? each + from_end : -1;
}

uint8_t *store_at(const c2ms_cache *cache, int32_t place) REQUIRES(cache->lock) {
  return cache->ends + static_cast<ptrdiff_t>(place) * cache->packsize;
}

// The store is made when the first pack of an end leaves the ring: a play from beginning to end of
// a short file never needs it. Its size is fixed then.
bool have_store(c2ms_cache *cache) REQUIRES(cache->lock) {
  if (cache->ends != nullptr) return true;
  if (cache->total_packs <= cache->packnum) return false;  // nothing ever leaves
  const int32_t each = std::clamp(cache->packnum / share, 1, c2ms::max_end_packs);
  const auto bytes = static_cast<size_t>(each) * 2 * static_cast<size_t>(cache->packsize.load());
  cache->ends = static_cast<uint8_t *>(std::malloc(bytes));
  if (cache->ends == nullptr) return false;
  cache->end_packs = each;
  std::fill(std::begin(cache->end_len), std::end(cache->end_len), 0);
  return true;
}

void keep(c2ms_cache *cache, c2ms_pack *pack) REQUIRES(cache->lock) {
  const adif::Guard lock(pack->lock);
  if (pack->state != pack_ready || pack->len < 1 || pack->len < pack->size) return;
  const bool of_an_end = pack->index < cache->packnum / share + 1 ||
                         pack->index >= cache->total_packs - cache->packnum / share - 1;
  if (!of_an_end || !have_store(cache)) return;
  const int32_t place = place_of(cache, pack->index);
  if (place < 0 || cache->end_len[place] > 0) return;
  std::memcpy(store_at(cache, place), pack->buf, static_cast<size_t>(pack->len));
  cache->end_len[place] = pack->len;
}

void put_in(c2ms_cache *cache, c2ms_pack *pack) REQUIRES(cache->lock) {
  if (cache->ends == nullptr) return;
  const adif::Guard lock(pack->lock);
  const int32_t place = place_of(cache, pack->index);
  if (place < 0 || cache->end_len[place] < 1) return;
  pack->len = pack->size = cache->end_len[place];
  std::memcpy(pack->buf, store_at(cache, place), static_cast<size_t>(pack->len));
  c2ms_pack_state_to(pack, pack_ready);
}

}  // namespace

void c2ms_cache_forget_ends(c2ms_cache *cache) {
  std::free(cache->ends);
  cache->ends = nullptr;
  cache->end_packs = 0;
}

void c2ms_cache_turn_over(c2ms_cache *cache, c2ms_pack *pack, int32_t index) {
  if (cache->use == c2ms::cache_use::play) keep(cache, pack);
  c2ms_pack_exit_download(pack, index);
  put_in(cache, pack);
}
