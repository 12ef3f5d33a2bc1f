// See pack.h.
#include "c2ms/ring/pack.h"

#include <algorithm>

#include "adif/kalloc.h"
#include "c2ms/core/count.h"
#include "c2ms/core/pooled.h"
#include "c2ms/core/time.h"

namespace {

void reset(c2ms_pack *pack) REQUIRES(pack->lock) {
  pack->unit_count = 0;
  pack->index = -1;
  pack->state = pack_idle;
  pack->len = 0;
  pack->not_before_at_us = 0;
}

}  // namespace

int c2ms_pack_init(c2ms_pack *pack) {
  if (pack == nullptr) return -1;
  c2ms::construct_once(pack);
  const adif::Guard lock(pack->lock);
  reset(pack);
  pack->cache = nullptr;
  pack->flag = 0;
  pack->slot = -1;
  pack->buf = nullptr;
  pack->size = 0;
  return 0;
}

c2ms_pack *c2ms_pack_fetch(c2ms_cache *cache, int32_t slot, uint8_t *buf, int32_t size) {
  if (cache == nullptr) return nullptr;
  c2ms_pack *const pack = c2ms::fetch_record(cache->session->mgmt->pack_pool, c2ms_pack_init);
  if (pack == nullptr) return nullptr;
  // Under its lock: a unit that has just lost the record may still look at it.
  const adif::Guard lock(pack->lock);
  pack->cache = cache;
  pack->slot = slot;
  pack->buf = buf;
  pack->size = size;
  return pack;
}

int c2ms_pack_recycle(c2ms_mgmt *mgmt, c2ms_pack *pack) {
  if (pack == nullptr) return -1;
  return c2ms::return_record(mgmt == nullptr ? nullptr : mgmt->pack_pool, pack, c2ms_pack_free);
}

int c2ms_pack_free(c2ms_pack *pack) {
  if (pack == nullptr) return -1;
  pack->~c2ms_pack();
  kfree_dbg(pack);
  return 0;
}

bool c2ms_pack_is_paused(const c2ms_pack *pack) {
  const int64_t until = pack->not_before_at_us.load(std::memory_order_relaxed);
  return until != 0 && until > c2ms::now_us();
}

void c2ms_pack_state_to(c2ms_pack *pack, uint8_t state) {
  pack->state = state;
}

int c2ms_pack_bind_unit(c2ms_pack *pack, c2ms_unit *unit) {
  const auto end = pack->units + pack->unit_count;
  if (std::find(pack->units, end, unit) != end) return -100;
  if (pack->unit_count >= c2ms::max_units_per_pack) return -200;
  pack->units[pack->unit_count++] = unit;
  return 0;
}

int c2ms_pack_unbind_unit(c2ms_pack *pack, c2ms_unit *unit) {
  const auto end = pack->units + pack->unit_count;
  const auto found = std::find(pack->units, end, unit);
  if (found == end) return 0;
  std::copy(found + 1, end, found);
  --pack->unit_count;
  return 1;
}

void c2ms_pack_unbind_all(c2ms_pack *pack) {
  for (int32_t i = 0; i < pack->unit_count; ++i) {
    c2ms_pack *this_one = pack;  // a unit that fills another pack of its run goes on there
    pack->units[i]->pack.compare_exchange_strong(this_one, nullptr);
  }
  pack->unit_count = 0;
}

void c2ms_pack_exit_download(c2ms_pack *pack, int32_t index) {
  const adif::Guard lock(pack->lock);
  c2ms_pack_unbind_all(pack);
  if (pack->state != pack_ready) c2ms::count_forgotten(pack->cache->session, pack->len);
  reset(pack);
  pack->index = index;
}

uint8_t *c2ms_pack_buf(c2ms_pack *pack) {
  return pack == nullptr ? nullptr : pack->buf;
}

int32_t c2ms_pack_size(c2ms_pack *pack) {
  if (pack == nullptr) return 0;
  const adif::Guard lock(pack->lock);
  return pack->size;
}

int32_t c2ms_pack_len(c2ms_pack *pack) {
  if (pack == nullptr) return 0;
  const adif::Guard lock(pack->lock);
  return pack->len;
}
