// Allocation seam, memory unit and block pool.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <set>

#include "adif/bmempool.h"
#include "adif/kalloc.h"
#include "adif/memunit.h"
#include "support/support.h"

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
    const std::string content(static_cast<size_t>(size), static_cast<char>(++fill_));
    std::memcpy(p, content.data(), content.size());
    ASSERT_TRUE(blocks_.emplace(p, content).second);
  }

  // A block's bytes are nobody else's; also what makes overlapping blocks seen.
  void give_back(uint8_t *p) {
    ASSERT_EQ(std::memcmp(p, blocks_.at(p).data(), blocks_.at(p).size()), 0);
    ASSERT_EQ(mem_unit_free(unit_, p), 0);
    ASSERT_EQ(mem_unit_free(unit_, p), -3) << "freed already";
    blocks_.erase(p);
  }

  void step() {
    const int kind = blocks_.empty() ? 0 : random_.below(5);
    if (kind < 2) return take(random_.below(random_.below(8) == 0 ? 17000 : 600));
    auto at = blocks_.begin();
    std::advance(at, random_.below(static_cast<int>(blocks_.size())));
    const int had = static_cast<int>(at->second.size());
    if (kind == 2) {
      ASSERT_EQ(mem_unit_free(unit_, at->first + 1 + random_.below(had)), -3);
    } else if (kind == 3) {
      const int size = random_.below(had + 60);
      const int result = mem_unit_shrinkto(unit_, at->first, size);
      ASSERT_TRUE(size > had || result == (size < 1 ? -4 : 0));
      if (result == 0 && size < had) at->second.resize(static_cast<size_t>(size));
    } else {
      give_back(at->first);
    }
  }

  Random random_;
  std::vector<uint8_t> memory_;
  uint8_t *begin_ = nullptr;
  mem_unit *unit_ = nullptr;
  std::map<uint8_t *, std::string> blocks_;
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
    for (int i = 0; i < kSteps / 1000 && !HasFatalFailure(); ++i) {
      step();
      ASSERT_TRUE(adif::mem_unit_invariant(unit_));
    }
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

// A pool of int, with a limit if `maximum` isn't 0.
struct TestPool {
  block_pool *pool = BPoolInit(nullptr);

  explicit TestPool(int maximum = 0, int size = sizeof(int)) {
    setAutoAlloc(pool, 1);
    setUnitSize(pool, size);
    setLimit(pool, maximum > 0);
    setMaximum(pool, maximum);
  }
  ~TestPool() { BPoolCleanup(pool); }
  TestPool(const TestPool &) = delete;
  TestPool &operator=(const TestPool &) = delete;
  operator block_pool *() const { return pool; }

  // "allocated free in_use"
  std::string profile() const {
    int allocated = 0, free = 0, in_use = 0;
    getProfile(pool, &allocated, &free, &in_use);
    return std::to_string(allocated) + " " + std::to_string(free) + " " + std::to_string(in_use);
  }
};

void wait_for_waiters(block_pool *pool, int n) {
  for (int waiting = 0; waiting < n; std::this_thread::yield()) {
    const adif::section_guard guard(&pool->lock);
    waiting = pool->waiters;
  }
}

TEST(Pool, FollowsAQueue) {
  Random random;
  constexpr int kMaximum = 50;
  for (int step = 0; step < kSteps;) {
    const TestPool pool(kMaximum);  // its free list grows while it is young
    std::deque<void *> free;
    std::vector<void *> used;
    std::set<void *> known;
    do {
      SCOPED_TRACE(step);
      // Mostly up, then mostly down, so that both ends are reached.
      if (random.below(3) < (step / 250 % 2 == 0 ? 2 : 1)) {
        setEscalate(pool, random.below(9) - 1);
        const size_t batch = std::max(pool.pool->escalate, 1), room = kMaximum - known.size();
        const size_t made = free.empty() ? std::min(batch, room) : 0;
        auto *const unit = static_cast<int *>(fetchUnit(pool));
        ASSERT_EQ(unit == nullptr, free.empty() && made == 0);
        if (unit == nullptr) continue;
        ASSERT_EQ(known.insert(unit).second, made > 0);
        ASSERT_EQ(*unit, made > 0 ? 0 : *unit) << "new units are zeroed";
        ASSERT_TRUE(made > 0 || unit == free.front()) << "first in, first out";
        if (made == 0) free.pop_front();
        // The rest of the batch waits in the pool in an order of its own.
        const auto &list = pool.pool->free_list;
        for (size_t j = 1; j < made; ++j) {
          free.push_back(
              list.slots[(static_cast<size_t>(list.first) + j - 1) % list.capacity].unit);
          ASSERT_TRUE(known.insert(free.back()).second);
        }
        used.push_back(unit);
      } else if (!used.empty()) {
        const auto at = used.begin() + random.below(static_cast<int>(used.size()));
        ASSERT_EQ(recycleUnit(pool, *at), 0);
        free.push_back(*at);
        used.erase(at);
      }
      ASSERT_TRUE(adif::pool_invariant(pool));
      ASSERT_EQ(pool.profile(), std::to_string(known.size()) + " " + std::to_string(free.size()) +
                                    " " + std::to_string(used.size()));
    } while (++step % 1000 != 0);
    for (void *unit : used) recycleUnit(pool, unit);
  }
}

TEST(Pool, AlertsAtTheHighMarkAndRecoversAtTheLowOne) {
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
    const TestPool pool(row.maximum);
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
  }
}

TEST(Pool, FreesWhatGrewTooLargeAndKeepsItCounted) {
  static int units_freed, unit_size_told;
  units_freed = 0;
  auto pool = std::make_unique<TestPool>();
  setFreeFunc(*pool, [](void *unit) { return kfree_dbg(unit), ++units_freed; });
  setGetSizeFunc(*pool, [](void *) { return unit_size_told; });
  setUnitReuseThreshold(*pool, 100);
  void *const one = fetchUnit(*pool);
  void *const two = fetchUnit(*pool);
  unit_size_told = 100;
  EXPECT_EQ(recycleUnit(*pool, one), 0);
  EXPECT_EQ(pool->profile(), "2 0 2");
  unit_size_told = 99;
  EXPECT_EQ(recycleUnit(*pool, two), 0);
  EXPECT_EQ(pool->profile(), "2 1 1");
  EXPECT_EQ(units_freed, 1);
  pool.reset();
  EXPECT_EQ(units_freed, 2);
}

TEST(Pool, ExhaustionMisses) {
  const TestPool pool;
  EXPECT_EQ(setMaximum(pool, 2), 0);
  EXPECT_EQ(setMaximum(pool, 3), 2) << "the one before";
  setUnitSize(pool, 0);
  EXPECT_EQ(fetchUnit(pool), nullptr);
  setUnitSize(pool, 8);
  adif::fail_allocations(1, adif::kFailForGood);
  EXPECT_EQ(fetchUnit(pool), nullptr);
  adif::fail_allocations(1, 5);
  void *const unit = fetchUnit(pool);
  adif::fail_allocations(0);
  EXPECT_NE(unit, nullptr) << "the pool repeats a failed allocation";
  adif::fail_allocations(1);
  EXPECT_EQ(recycleUnit(pool, unit), 0) << "needs no memory";
  EXPECT_EQ(adif::failed_allocations(), 0);
  adif::fail_allocations(0);
  EXPECT_EQ(pool.profile(), "1 1 0");
}

// 8 threads share 3 units: none is handed out twice, and nobody sleeps while one is free.
TEST(Pool, WaitingFetchesAllGetTheirTurn) {
  const TestPool pool(3, sizeof(std::atomic<int>));
  void *const all[] = {fetchUnit(pool), fetchUnit(pool), fetchUnit(pool)};  // however they meet
  for (void *unit : all) recycleUnit(pool, unit);
  std::atomic<int> shared{0}, served{0};
  Threads(8, [&](int) {
    for (int i = 0; i < 5000; ++i, ++served) {
      auto *const unit = static_cast<std::atomic<int> *>(blockFetchUnit(pool, nullptr));
      if (unit->fetch_add(1) != 0) ++shared;
      if (i % 8 == 0) std::this_thread::yield();
      unit->fetch_sub(1);
      recycleUnit(pool, unit);
    }
  }).join();
  EXPECT_EQ(shared, 0);
  EXPECT_EQ(served, 8 * 5000);
  EXPECT_EQ(pool.profile(), "3 3 0");
}

// In the test modes a unit that is touched after its return is found out, and is not handed out
// again soon; in the mode of players it may be touched and is the next one.
TEST(Pool, TestModesWatchUnitsAtRest) {
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
      const TestPool pool(0, 32);
      setWatchedSpans(pool, row.spans, 1);
      auto *const unit = static_cast<volatile uint8_t *>(fetchUnit(pool));
      recycleUnit(pool, const_cast<uint8_t *>(unit));
      if (row.touched >= 0) unit[row.touched] = unit[row.touched] + 1;
      int rested = 1;
      for (; rested < 1000; ++rested) {
        void *const next = fetchUnit(pool);
        recycleUnit(pool, next);
        if (next == unit) break;
      }
      return !adif::pool_invariant(pool) ? 3 : rested == row.rests ? 0 : 2;
    });
    EXPECT_TRUE(row.found_out ? outcome == -1 || outcome == 1 : outcome == 0) << outcome;
  }
}

TEST(Pool, CleaningUpEndsEveryWait) {
  for (int round = 0; round < 200; ++round) {
    TestPool pool(1);
    block_pool *const p = pool;
    void *const unit = fetchUnit(p);
    std::atomic<int> ended{0};
    Threads waiting(4, [&](int) {
      int status = 0;
      if (blockFetchUnit(p, &status) == nullptr && status == -10) ++ended;
    });
    wait_for_waiters(p, 4);
    EXPECT_EQ(BPoolCleanup(std::exchange(pool.pool, nullptr)), 0);
    waiting.join();
    ASSERT_EQ(ended, 4);
    kfree_dbg(unit);
  }
}

TEST(Pool, ARaisedLimitEndsAWait) {
  const TestPool pool(1);
  void *const one = fetchUnit(pool);
  void *two = nullptr;
  std::thread waiter([&] { two = blockFetchUnit(pool, nullptr); });
  wait_for_waiters(pool, 1);
  EXPECT_EQ(setMaximum(pool, 2), 1);
  waiter.join();
  EXPECT_TRUE(two != nullptr && two != one);
  recycleUnit(pool, one);
  recycleUnit(pool, two);
}

}  // namespace
