// The ring of packs: what it holds after any seek, which packs keep their data, which idle one is
// next, how much is buffered.
#include <algorithm>
#include <iterator>
#include <set>

#include "c2ms/core/records.h"
#include "c2ms/fetch/queue.h"
#include "c2ms/fetch/seek.h"
#include "c2ms/fetch/unit.h"
#include "c2ms/ring/cache.h"
#include "c2ms/ring/pack.h"
#include "c2ms/ring/range.h"
#include "local.h"

namespace {

constexpr int32_t packsize = 16;

class Ring : public Local {
 protected:
  ~Ring() override { c2ms_cache_clean(cache); }
  c2ms_pack *slot(int32_t i) { return static_cast<c2ms_pack *>(sk_value(cache->packs, i)); }
  /// Its number.
  static int32_t make_ready(c2ms_pack *pack) {
    const adif::Guard lock(pack->lock);
    pack->size = pack->len = packsize;
    std::fill_n(pack->buf, packsize, static_cast<uint8_t>(pack->index));
    c2ms_pack_state_to(pack, pack_ready);
    return pack->index;
  }
  /// Pack `index` is in its slot, and its bytes are there or still to be asked for.
  bool holds(int32_t index, bool ready) {
    c2ms_pack *const pack = slot(index % cache->packnum);
    const adif::Guard lock(pack->lock);
    if (pack->index != index || (pack->state == pack_ready) != ready) return false;
    return !ready || std::count(pack->buf, pack->buf + packsize, uint8_t(index)) == packsize;
  }
  int32_t read_index() {
    const adif::Guard lock(cache->lock);
    return cache->read_index;
  }
  c2ms_cache *const cache = c2ms_cache_init(sess);
};

// What must hold of the range after any move, and of the packs that it had before.
TEST_F(Ring, FollowsEverySeekAndKeepsWhatItCan) {
  Random random;
  for (int round = 0; round < 60; ++round) {
    const int32_t packs = random.below(40) + 1, reserve = packs / 8;
    const auto size = static_cast<uint64_t>(random.below(packsize * 150) + 1);
    const auto total = static_cast<int32_t>((size + packsize - 1) / packsize);
    std::vector<uint8_t> buffer(static_cast<size_t>(packs * packsize));
    ASSERT_EQ(c2ms_cache_setbuf(cache, buffer.data(), packs * packsize, packsize), 0);
    ASSERT_EQ(c2ms_cache_setfile(cache, sess->fid, 0, size, 0), 0);
    std::set<int32_t> ready, kept;
    const auto is_end = [&](int32_t i) { return total > packs && (i == 0 || i == total - 1); };
    for (int step = 0; step < 300; ++step) {
      const int32_t old_first = cache->first_index;
      if (random.below(3) == 0) {
        const adif::Guard lock(cache->lock);
        const int jump = random.below(static_cast<int>(size) + 2);
        const bool far = random.below(2) == 0;
        c2ms_cache_seek_to(cache, far ? static_cast<uint64_t>(jump)
                                      : cache->read_pos + static_cast<uint64_t>(random.below(64)));
      } else if (c2ms_pack *const idle = c2ms_cache_get_idle_pack(cache)) {
        ready.insert(make_ready(idle));
      }
      const int32_t at = read_index(), first = cache->first_index, end = first + packs;
      SCOPED_TRACE(testing::Message() << "at " << at << " in " << first << " to " << end
                                      << ", before from " << old_first << ", of " << total);
      ASSERT_TRUE(first >= 0 && first <= std::max(total - packs, 0)) << "passes the file's end";
      ASSERT_TRUE(first <= at && at < std::max(end, total + 1)) << "the position is outside";
      ASSERT_TRUE(at - first <= reserve || first == std::max(total - packs, 0)) << "too far behind";
      ASSERT_TRUE(at < old_first || at >= old_first + packs ||
                  first <= std::max(old_first, at - reserve))
          << "less is kept behind than could be";
      const auto is_outside = [&](int32_t i) { return i < first || i >= end; };
      std::copy_if(ready.begin(), ready.end(), std::inserter(kept, kept.end()),
                   [&](int32_t i) { return is_outside(i) && is_end(i); });
      std::erase_if(ready, is_outside);
      for (const int32_t i : kept) {
        if (!is_outside(i)) ready.insert(i);  // the file's ends come back
      }
      const auto is_ready = [&](int32_t i) { return ready.contains(i); };
      int32_t idle = at;
      while (idle < std::min(end, total) && is_ready(idle)) ++idle;
      for (int32_t i = first; i < end; ++i) ASSERT_TRUE(holds(i, is_ready(i))) << i;
      c2ms_pack *const next = c2ms_cache_get_idle_pack(cache);
      ASSERT_EQ(next, idle < std::min(end, total) ? slot(idle % packs) : nullptr);
    }
  }
}

TEST_F(Ring, FilesOfMorePacksThanAreCounted) {
  std::vector<uint8_t> buffer(100'000);
  ASSERT_EQ(c2ms_cache_setbuf(cache, buffer.data(), 100'000, 0), 0);
  EXPECT_EQ(c2ms_cache_packnum(cache), 12);
  EXPECT_EQ(c2ms_cache_setfile(cache, sess->fid, 0, uint64_t{8192} * INT32_MAX, 0), 0);
  EXPECT_EQ(c2ms_cache_setfile(cache, sess->fid, 0, uint64_t{8192} * INT32_MAX + 1, 0), -202);
  EXPECT_EQ(c2ms_cache_setfile(cache, sess->fid, UINT64_MAX, 2, 0), -202);
}

TEST_F(Ring, BufferingRatio) {
  std::vector<uint8_t> buffer(16 * packsize);
  ASSERT_EQ(c2ms_cache_setbuf(cache, buffer.data(), 16 * packsize, packsize), 0);
  ASSERT_EQ(c2ms_cache_setfile(cache, sess->fid, 0, 100 * packsize, 0), 0);
  int32_t ratio = -1;
  const auto ratio_of = [&] {
    EXPECT_EQ(c2ms_cache_buffering_ratio(cache, &ratio), 0);
    return ratio;
  };
  EXPECT_EQ(ratio_of(), 100);
  c2ms_cache_buffering_size(cache, 1'000'000);  // capped at what lies ahead: 14 packs
  EXPECT_EQ(ratio_of(), 0);
  for (int32_t i = 0; i < 7; ++i) make_ready(slot(i));
  EXPECT_EQ(ratio_of(), 50);
  make_ready(slot(8));  // behind a gap: does not count
  EXPECT_EQ(ratio_of(), 50);
  {
    const adif::Guard lock(slot(7)->lock);
    slot(7)->len = packsize / 2;
    slot(7)->state = pack_receiving;
  }
  EXPECT_EQ(ratio_of(), 53);
  c2ms_cache_buffering_size(cache, 2 * packsize);
  EXPECT_EQ(ratio_of(), 100);
  c2ms_cache_clean(cache);  // a lead that is asked for without a ring holds for the next one
  c2ms_cache_buffering_size(cache, 4 * packsize);
  EXPECT_EQ(ratio_of(), 0);
  ASSERT_EQ(c2ms_cache_setbuf(cache, buffer.data(), 16 * packsize, packsize), 0);
  ASSERT_EQ(c2ms_cache_setfile(cache, sess->fid, 0, 100 * packsize, 0), 0);
  EXPECT_EQ(ratio_of(), 0);
  make_ready(slot(0));
  EXPECT_EQ(ratio_of(), 25);
}

// A unit may deliver only into the pack it was issued for, of the file it was issued for.
TEST_F(Ring, UnitsLoseWhatMovesOn) {
  std::vector<uint8_t> buffer(8 * packsize);
  ASSERT_EQ(c2ms_cache_setbuf(cache, buffer.data(), 8 * packsize, packsize), 0);
  sess->cache = cache;
  // As a node takes it: out of the queue.
  const auto take_one = [&] {
    c2ms_sess_unit_clear(sess);
    EXPECT_EQ(c2ms_cache_setfile(cache, sess->fid, 1000, 100 * packsize + 1, 3), 0);
    c2ms_unit *const unit = c2ms_sess_unit_get(sess);
    EXPECT_NE(unit, nullptr);
    return unit;
  };
  const auto units_of_first = [&] {
    const adif::Guard lock(slot(0)->lock);
    for (int32_t i = 0; i < slot(0)->unit_count; ++i) slot(0)->units[i]->state = UNIT_SENT;
    return slot(0)->unit_count;
  };
  c2ms_unit *unit = take_one();
  EXPECT_EQ(unit->range_offset, 1000u);
  EXPECT_EQ(unit->range_length, static_cast<uint32_t>(packsize));
  EXPECT_EQ(unit->range_flag, 3);
  EXPECT_EQ(c2ms_unit_verify(unit), 1);
  EXPECT_EQ(c2ms_cache_download_pack(cache, slot(0)), -100);  // it is issued once
  // A second unit for the same pack only while no first one waits unsent; five at most. It sends
  // the pack's own flag, which outlives what the pack held.
  EXPECT_EQ(c2ms_pack_redownload(slot(0)), 0);
  EXPECT_EQ(units_of_first(), 1);
  {
    const adif::Guard lock(slot(0)->lock);
    slot(0)->flag = 7;
  }
  c2ms_unit_recycle(unit);
  unit = take_one();
  EXPECT_EQ(unit->range_flag, 3);
  unit->state = UNIT_SENT;
  c2ms_sess_unit_clear(sess);
  EXPECT_EQ(c2ms_pack_redownload(slot(0)), 0);
  c2ms_unit *const second = c2ms_sess_unit_get(sess);
  EXPECT_EQ(second->range_offset, 1000u);
  EXPECT_EQ(second->range_flag, 7);
  c2ms_unit_recycle(second);
  for (int i = 0; i < 9; ++i) {
    c2ms_pack_redownload(slot(0));
    EXPECT_EQ(units_of_first(), std::min(i + 2, 5));
  }
  // A seek takes the pack away from all of them, another file too.
  EXPECT_EQ(c2ms_cache_seek(cache, 50 * packsize), 0);
  EXPECT_EQ(c2ms_unit_verify(unit), 0);
  c2ms_unit_recycle(unit);
  unit = take_one();
  EXPECT_EQ(c2ms_cache_setfile(cache, sess->fid, 0, 100 * packsize + 1, 0), 0);
  EXPECT_EQ(c2ms_unit_verify(unit), 0);
  c2ms_unit_recycle(unit);
  // The last unit that leaves a pack makes it idle again.
  unit = take_one();
  EXPECT_NE(c2ms_cache_get_idle_pack(cache), slot(0));
  c2ms_unit_recycle(unit);
  EXPECT_EQ(c2ms_cache_get_idle_pack(cache), slot(0));
  c2ms_sess_unit_clear(sess);
  sess->cache = nullptr;
}

}  // namespace
