// Allocation seam, memory unit and block pool.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "../support.h"
#include "adif/bmempool.h"
#include "adif/kalloc.h"
#include "adif/memunit.h"

namespace {

constexpr int kSteps = 100000;

TEST(Kalloc, Reallocation) {
  auto *p = static_cast<char *>(kzalloc_dbg(4));
  EXPECT_EQ(krealloc_dbg(p, 0), nullptr) << "and the block is kept";
  p = static_cast<char *>(krealloc_dbg(p, 4096));
  EXPECT_EQ(std::memcmp(p, "\0\0\0\0", 4), 0);
  kfree_dbg(p);
}

// Blocks in use by address, each filled with a byte of its own, over a region with guard bytes.
class MemUnitModel : public testing::Test {
 protected:
  void give_region(int skip, int size) {
    blocks_.clear();
    memory_.assign(static_cast<size_t>(skip + size), 0xA5);
    memory_.shrink_to_fit();  // the sanitizer watches its end
    begin_ = memory_.data() + skip;
    unit_ = mem_unit_init(begin_, size);
  }

  void take(int size) {
    const int64_t avail = mem_unit_availsize(unit_);
    auto *const p = static_cast<uint8_t *>(mem_unit_alloc(unit_, size));
    ASSERT_EQ(p != nullptr, size >= 1 && size <= avail) << size << " of " << avail;
    if (p == nullptr) return;
    ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
    ASSERT_GE(p, begin_);
    ASSERT_LE(p + size, static_cast<uint8_t *>(mem_unit_endp(unit_)));
    std::memset(p, ++fill_, static_cast<size_t>(size));
    ASSERT_TRUE(blocks_.emplace(p, block{size, fill_}).second);
  }

  void give_back(uint8_t *p) {
    verify(p);
    ASSERT_EQ(mem_unit_free(unit_, p), 0);
    ASSERT_EQ(mem_unit_free(unit_, p), -3) << "freed already";
    blocks_.erase(p);
  }

  // A block's bytes are nobody else's; also what makes overlapping blocks seen.
  void verify(const uint8_t *p) {
    const block b = blocks_.at(const_cast<uint8_t *>(p));
    for (int i = 0; i < b.size; ++i) ASSERT_EQ(p[i], b.fill) << i;
  }

  void step() {
    auto at = blocks_.begin();
    if (!blocks_.empty()) std::advance(at, random_.below(static_cast<int>(blocks_.size())));
    switch (blocks_.empty() ? 0 : random_.below(5)) {
      case 0:
      case 1:
        take(random_.below(8) == 0 ? random_.below(17000) : random_.below(600));
        break;
      case 2:
        ASSERT_EQ(mem_unit_free(unit_, at->first + 1 + random_.below(at->second.size)), -3);
        break;
      case 3: {
        const int size = random_.below(at->second.size + 60);
        const int result = mem_unit_shrinkto(unit_, at->first, size);
        ASSERT_TRUE(size > at->second.size || result == (size < 1 ? -4 : 0));
        if (result == 0) at->second.size = std::min(size, at->second.size);
        break;
      }
      default:
        give_back(at->first);
        break;
    }
    ASSERT_TRUE(adif::mem_unit_invariant(unit_));
  }

  struct block {
    int size;
    uint8_t fill;
  };

  Random random_;
  std::vector<uint8_t> memory_;
  uint8_t *begin_ = nullptr;
  mem_unit *unit_ = nullptr;
  std::map<uint8_t *, block> blocks_;
  uint8_t fill_ = 0;
};

TEST_F(MemUnitModel, BlocksNeverOverlapAndMergeAgain) {
  int made = 0;
  for (int round = 0; round < 1000 && !HasFatalFailure(); ++round) {
    const int skip = random_.below(16);
    give_region(skip, random_.below(round % 4 == 0 ? 300 : 16384));
    if (unit_ == nullptr) continue;
    ++made;
    const int64_t whole = mem_unit_availsize(unit_);
    EXPECT_EQ(whole, mem_unit_totalsize(unit_));
    for (int i = 0; i < kSteps / 1000 && !HasFatalFailure(); ++i) step();
    // The largest block that the unit promises can be had.
    if (mem_unit_availsize(unit_) > 0) take(static_cast<int>(mem_unit_availsize(unit_)));
    while (!blocks_.empty() && !HasFatalFailure()) give_back(blocks_.begin()->first);
    EXPECT_EQ(mem_unit_availsize(unit_), whole);
    EXPECT_EQ(mem_unit_usedsize(unit_), 0);
    EXPECT_EQ(mem_unit_free(unit_, &made), -3);
    EXPECT_EQ(std::count(memory_.data(), begin_, 0xA5), skip);
  }
  EXPECT_GT(made, 800) << "only the smallest are refused";
}

TEST(MemUnit, NullsAndSmallestLengths) {
  alignas(16) uint8_t memory[1024];
  mem_unit *const unit = mem_unit_init(memory, sizeof memory), *const none = nullptr;
  void *const p = mem_unit_alloc(unit, 1);
  EXPECT_EQ(mem_unit_free(none, p) + mem_unit_shrinkto(none, p, 1), -2);
  EXPECT_EQ(mem_unit_free(unit, nullptr) + mem_unit_shrinkto(unit, nullptr, 1), -4);
  for (int size : {-1, 0}) EXPECT_EQ(mem_unit_alloc(unit, size), nullptr);
  for (int size : {-1, 0}) EXPECT_EQ(mem_unit_shrinkto(unit, p, size), -4);
  EXPECT_TRUE(mem_unit_init(nullptr, 4096) == nullptr && mem_unit_alloc(none, 1) == nullptr);
}

int units_freed = 0;
int unit_size_told = 0;

class Pool : public testing::Test {
 protected:
  // With a limit, if `maximum` isn't 0.
  static block_pool *make_pool(int maximum) {
    block_pool *const pool = BPoolInit(nullptr);
    setAutoAlloc(pool, 1);
    setUnitSize(pool, sizeof(int));
    setLimit(pool, maximum > 0);
    setMaximum(pool, maximum);
    return pool;
  }
  void TearDown() override {
    if (pool_ != nullptr) BPoolCleanup(pool_);
  }

  void limit(int maximum) {
    setLimit(pool_, 1);
    setMaximum(pool_, maximum);
  }

  // "allocated free in_use"
  std::string profile() {
    int allocated = 0, free = 0, in_use = 0;
    getProfile(pool_, &allocated, &free, &in_use);
    return std::to_string(allocated) + " " + std::to_string(free) + " " + std::to_string(in_use);
  }

  static void wait_for_waiters(block_pool *pool, int n) {
    for (int waiting = 0; waiting < n; std::this_thread::yield()) {
      const adif::section_guard guard(&pool->lock);
      waiting = pool->waiters;
    }
  }

  void end() { BPoolCleanup(std::exchange(pool_, nullptr)); }

  block_pool *pool_ = make_pool(0);
};

TEST_F(Pool, FollowsAQueue) {
  Random random;
  constexpr int kMaximum = 50;
  std::deque<void *> free;
  std::vector<void *> used;
  std::set<void *> known;
  for (int i = 0; i < kSteps; ++i) {
    SCOPED_TRACE(i);
    if (i % 1000 == 0) {  // its free list grows while it is young
      for (void *unit : used) recycleUnit(pool_, unit);
      end();
      pool_ = make_pool(kMaximum);
      free.clear(), used.clear(), known.clear();
    }
    // Mostly up, then mostly down, so that both ends are reached.
    if (random.below(3) < (i / 250 % 2 == 0 ? 2 : 1)) {
      setEscalate(pool_, random.below(9) - 1);
      const size_t made =
          !free.empty() ? 0
                        : std::min<size_t>(std::max(pool_->escalate, 1), kMaximum - known.size());
      auto *const unit = static_cast<int *>(fetchUnit(pool_));
      ASSERT_EQ(unit == nullptr, free.empty() && made == 0);
      if (unit == nullptr) continue;
      ASSERT_EQ(known.insert(unit).second, made > 0);
      ASSERT_EQ(*unit, made > 0 ? 0 : *unit) << "new units are zeroed";
      // The rest of the batch waits in the pool in an order of its own.
      const auto &list = pool_->free_list;
      for (size_t j = 1; j < made; ++j)
        free.push_back(list.slots[(static_cast<size_t>(list.first) + j - 1) % list.capacity].unit);
      if (made > 0) {
        for (void *rest : free) ASSERT_TRUE(known.insert(rest).second);
      } else {
        ASSERT_EQ(unit, free.front()) << "first in, first out";
        free.pop_front();
      }
      used.push_back(unit);
    } else if (!used.empty()) {
      const auto at = used.begin() + random.below(static_cast<int>(used.size()));
      ASSERT_EQ(recycleUnit(pool_, *at), 0);
      free.push_back(*at);
      used.erase(at);
    }
    ASSERT_TRUE(adif::pool_invariant(pool_));
    ASSERT_EQ(profile(), std::to_string(known.size()) + " " + std::to_string(free.size()) + " " +
                             std::to_string(used.size()));
  }
  for (void *unit : used) recycleUnit(pool_, unit);
}

TEST_F(Pool, AlertsAtTheHighMarkAndRecoversAtTheLowOne) {
  const struct {
    const char *what;
    int maximum, high, low;  // maximum 0: no limit
    std::string calls;       // after each of ten fetches and ten returns: A alert, R recovery
  } rows[] = {
      {"percent of a limit", 10, 80, 50, ".......A......R....."},
      {"units without one", 0, 3, 2, "..A..............R.."},
      {"recovery before any alert", 10, 100, 90, ".........AR........."},
      {"no marks", 10, 0, 0, "...................."},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.what);
    block_pool *const pool = make_pool(row.maximum);
    setThreshold(pool, row.high, row.low);
    std::string calls;
    setAlert(
        pool, [](void *to) { return static_cast<std::string *>(to)->append("A"), 0; },
        [](void *to) { return static_cast<std::string *>(to)->append("R"), 0; }, &calls);
    std::vector<void *> units;
    std::string seen;
    const auto note = [&] { seen += std::exchange(calls, "").append(".").substr(0, 1); };
    for (int i = 0; i < 10; ++i) units.push_back(fetchUnit(pool)), note();
    for (void *unit : units) recycleUnit(pool, unit), note();
    EXPECT_EQ(seen, row.calls);
    BPoolCleanup(pool);
  }
}

TEST_F(Pool, FreesWhatGrewTooLargeAndKeepsItCounted) {
  units_freed = 0;
  setFreeFunc(pool_, [](void *unit) { return kfree_dbg(unit), ++units_freed; });
  setGetSizeFunc(pool_, [](void *) { return unit_size_told; });
  setUnitReuseThreshold(pool_, 100);
  void *const one = fetchUnit(pool_);
  void *const two = fetchUnit(pool_);
  unit_size_told = 100;
  EXPECT_EQ(recycleUnit(pool_, one), 0);
  EXPECT_EQ(profile(), "2 0 2");
  unit_size_told = 99;
  EXPECT_EQ(recycleUnit(pool_, two), 0);
  EXPECT_EQ(profile(), "2 1 1");
  EXPECT_EQ(units_freed, 1);
  end();
  EXPECT_EQ(units_freed, 2);
}

TEST_F(Pool, BadArgumentsAndExhaustionMiss) {
  block_pool *const none = nullptr;
  for (int result : {recycleUnit(none, none), recycleUnit(pool_, none), setUnitSize(none, 1),
                     setMaximum(none, 1), setAlert(none, nullptr, nullptr, none),
                     getProfile(none, nullptr, nullptr, nullptr), BPoolCleanup(none)})
    EXPECT_EQ(result, -1);
  EXPECT_EQ(fetchUnit(none), nullptr);
  EXPECT_EQ(blockFetchUnit(none, nullptr), nullptr);
  EXPECT_EQ(getProfile(pool_, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(setMaximum(pool_, 2), 0);
  EXPECT_EQ(setMaximum(pool_, 3), 2) << "the one before";
  setUnitSize(pool_, 0);
  EXPECT_EQ(fetchUnit(pool_), nullptr);
  setUnitSize(pool_, 8);
  adif::fail_allocations(1, adif::kFailForGood);
  EXPECT_EQ(fetchUnit(pool_), nullptr);
  adif::fail_allocations(1, 5);
  void *const unit = fetchUnit(pool_);
  adif::fail_allocations(0);
  EXPECT_NE(unit, nullptr) << "the pool repeats a failed allocation";
  adif::fail_allocations(1);
  EXPECT_EQ(recycleUnit(pool_, unit), 0) << "needs no memory";
  EXPECT_EQ(adif::failed_allocations(), 0);
  adif::fail_allocations(0);
  EXPECT_EQ(profile(), "1 1 0");
}

// 8 threads share 3 units: none is handed out twice, and nobody sleeps while one is free.
TEST_F(Pool, WaitingFetchesAllGetTheirTurn) {
  limit(3);
  setUnitSize(pool_, sizeof(std::atomic<int>));
  std::atomic<int> shared{0}, served{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 5000; ++i) {
        auto *const unit = static_cast<std::atomic<int> *>(blockFetchUnit(pool_, nullptr));
        if (unit->fetch_add(1) != 0) ++shared;
        if (i % 8 == 0) std::this_thread::yield();
        unit->fetch_sub(1);
        recycleUnit(pool_, unit);
        ++served;
      }
    });
  }
  for (std::thread &t : threads) t.join();
  EXPECT_EQ(shared, 0);
  EXPECT_EQ(served, 8 * 5000);
  EXPECT_EQ(profile(), "3 3 0");
}

// In the test modes a unit that is touched after its return is found out, and is not handed out
// again soon; in the mode of players it may be touched and is the next one.
TEST_F(Pool, TestModesWatchUnitsAtRest) {
  using adif::pool_mode;
  static constexpr pool_span some[] = {{8, 16}}, all[] = {{0, 32}};
  const struct {
    pool_mode mode;
    const pool_span *spans;
    int touched;  // byte of the unit at rest, -1: none
    bool found_out;
    int rests;  // fetches until the unit comes again; 1000: never
  } rows[] = {
      {pool_mode::recycle, all, 0, false, 1},       {pool_mode::quarantine, some, -1, false, 129},
      {pool_mode::quarantine, some, 7, false, 129}, {pool_mode::quarantine, some, 8, true, 0},
      {pool_mode::quarantine, some, 23, true, 0},   {pool_mode::quarantine, some, 24, false, 129},
      {pool_mode::bypass, some, 25, false, 1000},   {pool_mode::bypass, some, 9, true, 0},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << static_cast<int>(row.mode) << " byte " << row.touched);
    const int outcome = in_child([&] {
      adif::pool_test_mode(row.mode);
      block_pool *const pool = make_pool(0);
      setUnitSize(pool, 32);
      setRestSpans(pool, row.spans, 1);
      auto *const unit = static_cast<volatile uint8_t *>(fetchUnit(pool));
      recycleUnit(pool, const_cast<uint8_t *>(unit));
      if (row.touched >= 0) unit[row.touched] = unit[row.touched] + 1;
      int rested = 1;
      for (; rested < 1000; ++rested) {
        void *const next = fetchUnit(pool);
        recycleUnit(pool, next);
        if (next == unit) break;
      }
      if (!adif::pool_invariant(pool)) return 3;
      BPoolCleanup(pool);
      return rested == row.rests ? 0 : 2;
    });
    EXPECT_EQ(outcome != 0, row.found_out) << outcome;
    EXPECT_TRUE(outcome != 2 && outcome != 3) << outcome;
  }
}

TEST_F(Pool, CleaningUpEndsEveryWait) {
  for (int round = 0; round < 200; ++round) {
    block_pool *const pool = make_pool(1);
    void *const unit = fetchUnit(pool);
    std::atomic<int> ended{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&] {
        int status = 0;
        if (blockFetchUnit(pool, &status) == nullptr && status == -10) ++ended;
      });
    }
    wait_for_waiters(pool, 4);
    EXPECT_EQ(BPoolCleanup(pool), 0);
    for (std::thread &t : threads) t.join();
    ASSERT_EQ(ended, 4);
    kfree_dbg(unit);
  }
}

TEST_F(Pool, ARaisedLimitEndsAWait) {
  limit(1);
  void *const one = fetchUnit(pool_);
  void *two = nullptr;
  std::thread waiter([&] { two = blockFetchUnit(pool_, nullptr); });
  wait_for_waiters(pool_, 1);
  EXPECT_EQ(setMaximum(pool_, 2), 1);
  waiter.join();
  EXPECT_TRUE(two != nullptr && two != one);
  recycleUnit(pool_, one);
  recycleUnit(pool_, two);
}

}  // namespace
