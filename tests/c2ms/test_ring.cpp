// The ring of packs against a plain model: which media packs it holds after any seek, which keep
// their data, which idle pack is next, how much is buffered.

#include <algorithm>
#include <random>

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

// What a slot holds: a media pack number, and whether its bytes are there.
struct held {
  int32_t index = -1;
  bool ready = false;
};

class Model {
 public:
  Model(int32_t packs, uint64_t size)
      : packnum(packs),
        total(static_cast<int32_t>((size + packsize - 1) / packsize)),
        media_size(size),
        slots(static_cast<size_t>(packs)) {
    for (int32_t i = 0; i < packs; ++i) slots[static_cast<size_t>(i)].index = i;
  }

  void seek(uint64_t pos) {
    pos = std::min(pos, media_size);
    read_index = static_cast<int32_t>(pos / packsize);
    const int32_t max_first = std::max(total - packnum, 0);
    if (first < read_index && first == max_first) return;
    const int32_t back = std::max(read_index - packnum / 8, 0);
    const bool inside = read_index >= first && read_index < first + packnum;
    if (inside && read_index - first <= packnum / 8) return;
    int32_t next = back;
    if (!inside && !(read_index >= first + packnum && back < first + packnum)) next = read_index;
    next = std::min(next, max_first);
    for (int32_t j = next; j < next + packnum; ++j) {
      if (j >= first && j < first + packnum) continue;
      slots[static_cast<size_t>(j % packnum)] = {j, false};
    }
    first = next;
  }

  held &at(int32_t index) { return slots[static_cast<size_t>(index % packnum)]; }

  int32_t next_idle() {
    for (int32_t i = read_index; i < first + packnum && i < total; ++i) {
      if (!at(i).ready) return i;
    }
    return -1;
  }

  const int32_t packnum, total;
  const uint64_t media_size;
  int32_t first = 0, read_index = 0;
  std::vector<held> slots;
};

class Ring : public Local {
 protected:
  ~Ring() override { c2ms_cache_clean(cache); }
  c2ms_pack *slot(int32_t i) { return static_cast<c2ms_pack *>(sk_value(cache->packs, i)); }
  void make_ready(int32_t index) {
    c2ms_pack *const pack = slot(index % cache->packnum);
    const adif::Guard lock(pack->lock);
    pack->size = pack->len = packsize;
    c2ms_pack_state_to(pack, pack_ready);
  }
  c2ms_cache *const cache = c2ms_cache_init(sess);
};

TEST_F(Ring, FollowsEverySeekLikeThePlainModel) {
  const unsigned seed = 20'111'011;
  std::mt19937 random(seed);
  for (int round = 0; round < 60; ++round) {
    const auto packs = static_cast<int32_t>(random() % 40 + 1);
    const uint64_t size = random() % (packsize * 150) + 1;
    std::vector<uint8_t> buffer(static_cast<size_t>(packs * packsize));
    ASSERT_EQ(c2ms_cache_setbuf(cache, buffer.data(), packs * packsize, packsize), 0);
    ASSERT_EQ(c2ms_cache_setfile(cache, sess->fid, 0, size, 0), 0);
    Model model(packs, size);
    for (int step = 0; step < 300; ++step) {
      SCOPED_TRACE("seed " + std::to_string(seed) + " round " + std::to_string(round) + " step " +
                   std::to_string(step));
      if (random() % 3 == 0) {
        const uint64_t pos =
            random() % 2 == 0 ? random() % (size + 2) : model.read_index * packsize + random() % 64;
        const adif::Guard lock(cache->lock);
        c2ms_cache_seek_to(cache, pos);
        model.seek(pos);
      } else if (const int32_t idle = model.next_idle(); idle >= 0) {
        make_ready(idle);
        model.at(idle).ready = true;
      }
      ASSERT_EQ(cache->first_index, model.first);
      for (int32_t i = 0; i < packs; ++i) {
        const adif::Guard lock(slot(i)->lock);
        ASSERT_EQ(slot(i)->index, model.slots[static_cast<size_t>(i)].index) << "slot " << i;
        ASSERT_EQ(slot(i)->state == pack_ready, model.slots[static_cast<size_t>(i)].ready)
            << "slot " << i;
      }
      c2ms_pack *const next = c2ms_cache_get_idle_pack(cache);
      const int32_t want = model.next_idle();
      ASSERT_EQ(next == nullptr, want < 0);
      if (next == nullptr) continue;
      const adif::Guard lock(next->lock);
      ASSERT_EQ(next->index, want);
    }
  }
}

TEST_F(Ring, SizesAndLimits) {
  std::vector<uint8_t> buffer(100'000);
  EXPECT_EQ(c2ms_cache_setbuf(nullptr, buffer.data(), 1, 1), -1);
  EXPECT_EQ(c2ms_cache_setbuf(cache, nullptr, 1, 1), -2);
  EXPECT_EQ(c2ms_cache_setbuf(cache, buffer.data(), 0, 1), -3);
  EXPECT_EQ(c2ms_cache_setbuf(cache, buffer.data(), 100, 101), -4);
  EXPECT_EQ(c2ms_cache_setfile(cache, sess->fid, 0, 1, 0), -201);
  ASSERT_EQ(c2ms_cache_setbuf(cache, buffer.data(), 100'000, 0), 0);
  EXPECT_EQ(c2ms_cache_packnum(cache), 12);
  EXPECT_EQ(c2ms_cache_packsize(cache), 8192);
  ASSERT_EQ(c2ms_cache_setfile(cache, sess->fid, 0, 2 * 8192, 0), 0);
  EXPECT_EQ(cache->total_packs, 2);
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
  for (int32_t i = 0; i < 7; ++i) make_ready(i);
  EXPECT_EQ(ratio_of(), 50);
  make_ready(8);  // behind a gap: does not count
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
  make_ready(0);
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
