// The timer tree against a model, the queue helpers, and the timers of a base that does not run.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "engine.h"
#include "eprobe/rac_event.h"
#include "eprobe/rac_queue.h"
#include "eprobe/rac_rbtree.h"
#include "eprobe/rac_thread.h"
#include "eprobe/rac_timer.h"

namespace {

struct TreeCase {
  const char *name;
  rac_rbtree_insert_fn insert;
  int64_t first_key;
};

class Tree : public testing::TestWithParam<TreeCase> {};

TEST_P(Tree, KeepsOrderAndInvariantsLikeAMultimap) {
  Random random;
  std::vector<rac_rbtree_node> nodes(200);
  std::multimap<int64_t, rac_rbtree_node *> model;  // equal keys in order of insertion
  std::vector place(nodes.size(), model.end());
  rac_rbtree tree;
  rac_rbtree_node sentinel;
  rac_rbtree_init(&tree, &sentinel, GetParam().insert);

  int64_t now = GetParam().first_key;
  for (int step = 0; step < 100000; ++step, ++now) {
    const auto i = static_cast<size_t>(random.below(static_cast<int>(nodes.size())));
    rac_rbtree_node *node = &nodes[i];
    // How many of a hundred are to be in: the tree is often full and often empty.
    constexpr int waves[] = {90, 50, 1, 50};
    const bool in = random.below(100) < waves[step / 2500 % 4];
    if (in && place[i] == model.end()) {
      const int64_t key = now + random.below(200);  // many equal keys
      node->key = static_cast<uint32_t>(key);
      rac_rbtree_insert(&tree, node);
      place[i] = model.emplace(key, node);
    } else if (!in && place[i] != model.end()) {
      rac_rbtree_delete(&tree, node);
      model.erase(std::exchange(place[i], model.end()));
      ASSERT_TRUE(node->left == nullptr && node->right == nullptr && node->parent == nullptr);
      ASSERT_EQ(node->key, 0u);
    }
    ASSERT_EQ(rac_rbtree_empty(&tree), model.empty());
    if (!model.empty()) {
      ASSERT_EQ(rac_rbtree_min(tree.root, &sentinel), model.begin()->second) << "step " << step;
    }
    ASSERT_EQ(rac_rbtree_check(&tree), static_cast<int>(model.size())) << "step " << step;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Orders, Tree,
    testing::Values(
        // The clock goes on at each step: the keys wrap in the middle of the run.
        TreeCase{"timers", rac_rbtree_insert_timer_value, (int64_t{1} << 32) - 50000},
        TreeCase{"unsigned", rac_rbtree_insert_value, (int64_t{1} << 31) - 50000}),
    [](const auto &tree_case) { return tree_case.param.name; });

struct Entry {
  rac_queue link;  // first: the address is the entry's
  int key;
};

TEST(Queue, SortIsStableAndMiddleIsTheUpperMedian) {
  Random random;
  const auto by_key = [](const rac_queue *a, const rac_queue *b) {
    return reinterpret_cast<const Entry *>(a)->key - reinterpret_cast<const Entry *>(b)->key;
  };
  for (size_t n = 0; n < 40; ++n) {
    std::vector<Entry> entries(n);
    std::vector<rac_queue *> expected;
    rac_queue queue;
    rac_queue_init(&queue);
    for (Entry &entry : entries) {
      entry.key = random.below(6);
      rac_queue_insert_after(queue.prev, &entry.link);
      expected.push_back(&entry.link);
    }
    EXPECT_EQ(rac_queue_middle(&queue), n == 0 ? &queue : expected[n / 2]);

    rac_queue_sort(&queue, by_key);
    std::stable_sort(expected.begin(), expected.end(),
                     [&](auto *a, auto *b) { return by_key(a, b) < 0; });
    expected.push_back(&queue);
    const rac_queue *at = &queue;
    for (const rac_queue *next : expected) {
      ASSERT_EQ(at->next, next);
      ASSERT_EQ(next->prev, at);
      at = next;
    }
  }
}

/// A base whose thread does not run: its tree is ours.
class IdleBase : public testing::Test {
 protected:
  rac_core *core = probe_create(1);
  rac_base *base = &core->bases[0];
  void TearDown() override { probe_cleanup(core); }

  rac_event *timer() {
    rac_timer *t = rac_get_timer(core);
    t->base = base;
    return t->event;
  }
  int tree_size() {
    rac_guard guard(base->timer_lock);
    return rac_rbtree_check(&base->timer_tree);
  }
};

TEST_F(IdleBase, SmallMovesOfATimerKeepItWhereItIs) {
  rac_event *event = timer();
  rac_event_add_timer(base, event, 5000);
  const uint32_t key = event->timer.key;
  for (const uint32_t near : {5200, 4850}) {
    rac_event_add_timer(base, event, near);
    EXPECT_EQ(event->timer.key, key);
  }
  rac_event_add_timer(base, event, 5400);
  EXPECT_GE(event->timer.key - key, 300u);
  EXPECT_EQ(tree_size(), 1);
  rac_event_del_timer(base, event);
  rac_event_del_timer(base, event);  // not in the tree: only the mark is cleared
  EXPECT_TRUE(tree_size() == 0 && base->ntimers.load() == 0);
  EXPECT_EQ(rac_event_find_timer(base), -1);
}

TEST_F(IdleBase, TheLongestPeriodDoesNotOvertakeATimerThatIsOverdue) {
  rac_event *overdue = timer();
  EXPECT_TRUE(rac_event_add_timer(base, overdue, 0));
  pause_ms(5);
  rac_event *longest = timer();
  EXPECT_FALSE(rac_event_add_timer(base, longest, 0xffffffff));
  EXPECT_EQ(tree_size(), 2);
  EXPECT_EQ(rac_event_find_timer(base), 0);
  rac_event_del_timer(base, overdue);
  EXPECT_GT(rac_event_find_timer(base), 0x7ffff000);
}

}  // namespace
