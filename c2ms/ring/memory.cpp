// See memory.h.
#include "c2ms/ring/memory.h"

#include <algorithm>

#include "c2ms/core/context.h"

namespace c2ms {

namespace {

int32_t whole_packs(int64_t bytes, int32_t pack_size) {
  return static_cast<int32_t>(std::min<int64_t>(bytes, INT32_MAX) / pack_size * pack_size);
}

bool add_block(c2ms_sess *sess, int32_t bytes) {
  if (bytes < 1 || sess->cache_blocks == max_cache_blocks) return false;
  uint8_t *const block = static_cast<uint8_t *>(c2ms_mem_alloc(sess->mgmt, bytes));
  if (block == nullptr) return false;
  sess->cache_block[sess->cache_blocks++] = {block, bytes};
  return true;
}

}  // namespace

void take_all_memory(c2ms_sess *sess, int32_t pack_size) {
  const adif::Guard lock(sess->mgmt->cut_lock);
  add_block(sess, whole_packs(c2ms_mem_avail(sess->mgmt), pack_size));
}

bool take_memory(c2ms_sess *sess, int64_t bytes, int32_t pack_size) {
  const int64_t before = memory_of(sess);
  const adif::Guard lock(sess->mgmt->cut_lock);
  for (int64_t left = bytes; left > 0; left = before + bytes - memory_of(sess)) {
    const int64_t block = std::min<int64_t>(left, c2ms_mem_avail(sess->mgmt));
    if (add_block(sess, whole_packs(block, pack_size))) continue;
    keep_memory(sess, before);
    return false;
  }
  return true;
}

void keep_memory(c2ms_sess *sess, int64_t bytes) {
  int64_t surplus = memory_of(sess) - bytes;
  while (surplus > 0 && sess->cache_blocks > 0) {
    cache_block &last = sess->cache_block[sess->cache_blocks - 1];
    if (last.bytes > surplus) {
      last.bytes -= static_cast<int32_t>(surplus);
      c2ms_mem_shrink(sess->mgmt, last.at, last.bytes);
      return;
    }
    surplus -= last.bytes;
    c2ms_mem_free(sess->mgmt, last.at);
    --sess->cache_blocks;
  }
}

int64_t memory_of(const c2ms_sess *sess) {
  int64_t sum = 0;
  for (int32_t i = 0; i < sess->cache_blocks; ++i) sum += sess->cache_block[i].bytes;
  return sum;
}

}  // namespace c2ms
