// The timer tree against a model, the queue helpers, and the timers of a base that does not run.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

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
  int64_t drift;  ///< the clock's advance per step
};

class Tree : public testing::TestWithParam<TreeCase> {};

TEST_P(Tree, KeepsOrderAndInvariantsLikeAMultimap) {
  Random random;
  std::vector<rac_rbtree_node> nodes(200);
  std::vector<std::multimap<int64_t, rac_rbtree_node *>::iterator> place(nodes.size());
  std::multimap<int64_t, rac_rbtree_node *> model;  // equal keys in order of insertion
  std::vector<size_t> in, out;
  for (size_t i = 0; i < nodes.size(); ++i) out.push_back(i);
  rac_rbtree tree;
  rac_rbtree_node sentinel;
  rac_rbtree_init(&tree, &sentinel, GetParam().insert);

  int64_t now = GetParam().first_key;
  for (int step = 0; step < 100000; ++step, now += GetParam().drift) {
    // Waves of growth and decay, so that the tree is often empty and often full.
    const bool grow =
        in.empty() || (!out.empty() && random.below(100) < (step / 5000 % 2 ? 35 : 65));
    std::vector<size_t> &from = grow ? out : in;
    const auto pick = static_cast<size_t>(random.below(static_cast<int>(from.size())));
    const size_t i = from[pick];
    from[pick] = from.back();
    from.pop_back();
    rac_rbtree_node *node = &nodes[i];
    if (grow) {
      const int64_t key = now + random.below(200);  // many equal keys
      node->key = static_cast<uint32_t>(key);
      rac_rbtree_insert(&tree, node);
      place[i] = model.emplace(key, node);
      in.push_back(i);
    } else {
      rac_rbtree_delete(&tree, node);
      model.erase(place[i]);
      out.push_back(i);
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
        // With the clock's drift the keys wrap in the middle of the run.
        TreeCase{"timers", rac_rbtree_insert_timer_value, (int64_t{1} << 32) - 50000, 1},
        TreeCase{"unsigned", rac_rbtree_insert_value, (int64_t{1} << 31) - 50000, 1}),
    [](const auto &tree_case) { return tree_case.param.name; });

struct Entry {
  rac_queue link;  // first: the address is the entry's
  int key;
  int number;
};

TEST(Queue, SortIsStableAndMiddleIsTheUpperMedian) {
  std::mt19937 random(7);
  for (int n = 0; n < 40; ++n) {
    std::vector<Entry> entries(static_cast<size_t>(n));
    rac_queue queue;
    rac_queue_init(&queue);
    for (int i = 0; i < n; ++i) {
      entries[static_cast<size_t>(i)] = {{}, static_cast<int>(random() % 6), i};
      rac_queue_insert_after(queue.prev, &entries[static_cast<size_t>(i)].link);
    }
    const rac_queue *middle = rac_queue_middle(&queue);
    if (n == 0) {
      EXPECT_EQ(middle, &queue);
    } else {
      EXPECT_EQ(reinterpret_cast<const Entry *>(middle)->number, n / 2);
    }

    rac_queue_sort(&queue, [](const rac_queue *a, const rac_queue *b) {
      return reinterpret_cast<const Entry *>(a)->key - reinterpret_cast<const Entry *>(b)->key;
    });
    std::vector<Entry> expected = entries;
    std::stable_sort(expected.begin(), expected.end(),
                     [](const Entry &a, const Entry &b) { return a.key < b.key; });
    const rac_queue *at = queue.next;
    for (const Entry &entry : expected) {
      ASSERT_EQ(reinterpret_cast<const Entry *>(at)->number, entry.number);
      ASSERT_EQ(at->next->prev, at);
      at = at->next;
    }
    EXPECT_EQ(at, &queue);
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
  rac_event_add_timer(base, event, 5200);
  EXPECT_EQ(event->timer.key, key);
  rac_event_add_timer(base, event, 4850);
  EXPECT_EQ(event->timer.key, key);
  rac_event_add_timer(base, event, 5400);
  EXPECT_GE(event->timer.key - key, 300u);
  EXPECT_EQ(tree_size(), 1);
  rac_event_del_timer(base, event);
  rac_event_del_timer(base, event);  // not in the tree: only the mark is cleared
  EXPECT_EQ(tree_size(), 0);
  EXPECT_EQ(base->ntimers.load(), 0u);
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
