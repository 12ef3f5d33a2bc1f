// Pointer stack, list and hash table against the standard containers, step by step.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>

#include "adif/dlist.h"
#include "adif/hashtab.h"
#include "adif/kalloc.h"
#include "adif/stack.h"
#include "support/support.h"

namespace {

constexpr int kSteps = 100000;

// 64 elements of 16 keys, so that equal ones are common.
struct Element {
  int key;
};

std::array<Element, 64> make_elements() {
  std::array<Element, 64> elements{};
  for (size_t i = 0; i < elements.size(); ++i) elements[i].key = static_cast<int>(i % 16);
  return elements;
}

int by_key(const void *a, const void *b) {
  return static_cast<const Element *>(a)->key - static_cast<const Element *>(b)->key;
}

int by_key_in_slots(const void *a, const void *b) {
  return by_key(*static_cast<const void *const *>(a), *static_cast<const void *const *>(b));
}

using Elements = std::vector<void *>;
using StackPtr = std::unique_ptr<pointer_stack, decltype([](pointer_stack *sk) { sk_free(sk); })>;
using ListPtr = std::unique_ptr<lt_list, decltype([](lt_list *list) { lt_free(list); })>;
using TablePtr = std::unique_ptr<hash_table, decltype([](hash_table *table) { ht_free(table); })>;

Elements content(const pointer_stack *sk) {
  return Elements(sk->data, sk->data + sk->num);
}

// Forwards, after a check of the backward links.
Elements content(const lt_list *list) {
  Elements forward, backward;
  for (lt_node *n = lt_first(list); n != nullptr; n = lt_get_next(n)) forward.push_back(n->element);
  for (lt_node *n = lt_last(list); n != nullptr; n = lt_get_prev(n)) backward.push_back(n->element);
  std::reverse(backward.begin(), backward.end());
  EXPECT_EQ(forward, backward);
  EXPECT_EQ(lt_num(list), static_cast<int>(forward.size()));
  return forward;
}

bool less(const void *a, const void *b) {
  return by_key(a, b) < 0;
}

Elements matches(const Elements &model, const void *key) {
  Elements found;
  std::copy_if(model.begin(), model.end(), std::back_inserter(found),
               [key](const void *p) { return by_key(p, key) == 0; });
  return found;
}

template <class Removed>
void *erase_at(Elements *model, Removed at) {
  if (at < 0 || at >= static_cast<Removed>(model->size())) return nullptr;
  void *const p = (*model)[static_cast<size_t>(at)];
  model->erase(model->begin() + at);
  return p;
}

int insert_at(Elements *model, void *p, int at) {
  const int size = static_cast<int>(model->size());
  model->insert(at < 0 || at > size ? model->end() : model->begin() + at, p);
  return size + 1;
}

// Runs the operation of that number.
template <class... Operation>
void run_one(int which, Operation... operations) {
  int at = 0;
  ((at++ == which ? operations() : void()), ...);
}

// A stack and a list that follow the same vector.
class Model : public testing::Test {
 protected:
  template <class T>
  static void same(T expected, T by_stack, T by_list) {
    ASSERT_EQ(by_stack, expected);
    ASSERT_EQ(by_list, expected);
  }

  void step() {
    pointer_stack *const sk = sk_.get();
    lt_list *const list = list_.get();
    void *const p = &elements_[static_cast<size_t>(random_.below(64))];
    const int size = static_cast<int>(model_.size()), loc = random_.below(size + 4) - 2;
    void *const at_loc = loc >= 0 && loc < size ? model_[static_cast<size_t>(loc)] : nullptr;
    run_one(
        random_.below(size > 40 ? 16 : 13),
        [&] { same(insert_at(&model_, p, loc), sk_insert(sk, p, loc), lt_insert(list, p, loc)); },
        [&] { same(insert_at(&model_, p, -1), sk_push(sk, p), lt_append(list, p)); },
        [&] { same(insert_at(&model_, p, 0), sk_unshift(sk, p), lt_prepend(list, p)); },
        [&] { same(erase_at(&model_, 0), sk_shift(sk), lt_rm_head(list)); },
        [&] {
          const auto at = std::find(model_.begin(), model_.end(), p) - model_.begin();
          same(erase_at(&model_, at), sk_delete_ptr(sk, p), lt_delete_ptr(list, p));
        },
        [&] {
          same(at_loc, sk_value(sk, loc), lt_get(list, loc));
          ASSERT_EQ(sk_get(sk, loc), reinterpret_cast<intptr_t>(at_loc));
          ASSERT_EQ(sk_set(sk, loc, p), at_loc != nullptr ? p : nullptr);
          sk->sorted = 0;
          if (at_loc == nullptr) return;
          model_[static_cast<size_t>(loc)] = p;
          lt_insert(list, p, loc), lt_delete(list, loc + 1);
        },
        [&] { ASSERT_EQ(sk_set_cmp_func(sk, by_key_in_slots), by_key_in_slots); },
        [&] { search(p); }, [&] { ordered(p); }, [&] { find(p); }, [&] { insert_beside(p); },
        [&] { combine(p); }, [&] { insert_copies(loc); },
        [&] { same(erase_at(&model_, size - 1), sk_pop(sk), lt_rm_tail(list)); },
        [&] { same(erase_at(&model_, loc), sk_delete(sk, loc), lt_delete(list, loc)); },
        [&] {
          lt_node *node = at_loc != nullptr ? lt_first(list) : nullptr;
          for (int i = 0; i < loc; ++i) node = lt_get_next(node);
          const int cut =
              loc % 2 == 0 ? lt_delete_from_loc(list, loc) : lt_delete_from_node(list, node);
          ASSERT_EQ(cut, at_loc != nullptr ? size - loc : 0);
          model_.resize(static_cast<size_t>(size - cut));
          stack_from_list();
        });
    ASSERT_EQ(content(sk_.get()), model_);
    ASSERT_EQ(content(list_.get()), model_);
    ASSERT_LT(sk_->num, sk_->num_alloc);
    ASSERT_TRUE(sk_->sorted == 0 || std::is_sorted(model_.begin(), model_.end(), less));
  }

  void stack_from_list() {
    sk_.reset(lt_convert_to_linear(list_.get()));
    sk_set_cmp_func(sk_.get(), by_key_in_slots);
  }

  // Sorting may put equals in any order: model and list follow what is a sorted permutation.
  void follow_sort() {
    Elements now = content(sk_.get());
    ASSERT_TRUE(std::is_sorted(now.begin(), now.end(), less));
    ASSERT_TRUE(std::is_permutation(now.begin(), now.end(), model_.begin(), model_.end()));
    model_ = std::move(now);
    list_.reset(lt_new_from_linear(sk_.get()));
  }

  // Null for no element.
  template <class Ptr>
  static void expect_copy(const Ptr &copy, const Elements &expected) {
    ASSERT_EQ(copy == nullptr, expected.empty());
    ASSERT_TRUE(copy == nullptr || content(copy.get()) == expected);
  }

  void search(const void *key) {
    const Elements expected = matches(model_, key);
    same(expected.empty() ? nullptr : expected.front(), sk_search(sk_.get(), key, by_key),
         lt_search(list_.get(), key, by_key));
    expect_copy(StackPtr(sk_search_all(sk_.get(), key, by_key)), expected);
    expect_copy(ListPtr(lt_search_all(list_.get(), key, by_key)), expected);
  }

  void ordered(void *p) {
    const ListPtr sorted(lt_new(by_key));
    for (void *element : model_) lt_sort_insert_by(sorted.get(), element, nullptr);
    Elements stable = model_;
    std::stable_sort(stable.begin(), stable.end(), less);
    ASSERT_EQ(content(sorted.get()), stable);

    pointer_stack *const sk = sk_.get();
    sk_sort_by(sk, by_key_in_slots);
    follow_sort();
    const Elements expected = matches(model_, p);
    void *const found = sk_find_by(sk, p, by_key);
    const bool good = std::find(expected.begin(), expected.end(), found) != expected.end();
    ASSERT_TRUE(expected.empty() ? found == nullptr : good);
    expect_copy(StackPtr(sk_find_all_by(sk, p, by_key)), expected);

    const auto behind = std::upper_bound(model_.begin(), model_.end(), p, less) - model_.begin();
    ASSERT_EQ(sk_sort_insert_by(sk, p, by_key), insert_at(&model_, p, static_cast<int>(behind)));
    ASSERT_EQ(content(sk), model_);
    void *const removed = sk_delete_by(sk, p, by_key);
    ASSERT_TRUE(removed != nullptr && by_key(removed, p) == 0);
    model_.erase(std::find(model_.begin(), model_.end(), removed));
    follow_sort();  // which one of several equals went is open
  }

  void find(const void *p) {
    const int at = sk_find(sk_.get(), p);
    follow_sort();
    const auto first = std::lower_bound(model_.begin(), model_.end(), p, less);
    const bool there = first != model_.end() && by_key(*first, p) == 0;
    ASSERT_EQ(at, there ? first - model_.begin() : -1);
  }

  void insert_beside(void *p) {
    lt_node *node = lt_first(list_.get());
    int at = 0;
    for (; node != nullptr && node->element != p; node = node->next) ++at;
    ASSERT_EQ(lt_index(list_.get(), p), node == nullptr ? -1 : at);
    const bool before = random_.below(2) == 0;
    const int size = (before ? lt_insert_before : lt_insert_after)(list_.get(), node, p);
    const int place = before ? (node == nullptr ? 0 : at) : at + 1;
    same(insert_at(&model_, p, place), sk_insert(sk_.get(), p, place), size);
  }

  void combine(void *p) {
    lt_list *const other = lt_new(nullptr);
    if (random_.below(4) > 0) lt_append(other, p), lt_append(other, &elements_[0]);
    const Elements more = content(other);
    const int kind = random_.below(3);
    model_.insert(kind == 0 ? model_.begin() : model_.end(), more.begin(), more.end());
    const auto call = std::array{lt_head_combine, lt_tail_combine, lt_tail_combine_nodel};
    ASSERT_EQ(call[static_cast<size_t>(kind)](list_.get(), other), static_cast<int>(model_.size()));
    ASSERT_EQ(kind == 2 ? lt_num(other) : 0, 0);
    if (kind == 2) lt_free(other);
    stack_from_list();
  }

  // Also of the list into itself, as long as it is short.
  void insert_copies(int loc) {
    const ListPtr other(lt_new(nullptr));
    lt_append(other.get(), &elements_[1]);
    const lt_list *const source = model_.size() < 8 ? list_.get() : other.get();
    const Elements more = content(source);
    const int kind = random_.below(3), size = static_cast<int>(model_.size());
    lt_node *const first = lt_first(list_.get());
    const int at = kind == 0 && loc >= 0 && loc < size ? loc : kind == 0 ? size : kind == 1 ? 0 : 1;
    model_.insert(model_.begin() + std::min(at, size), more.begin(), more.end());
    ASSERT_EQ(kind == 0   ? lt_insert_list(list_.get(), source, loc)
              : kind == 1 ? lt_insert_list_before(list_.get(), first, source)
                          : lt_insert_list_after(list_.get(), first, source),
              static_cast<int>(model_.size()));
    stack_from_list();
  }

  Random random_;
  std::array<Element, 64> elements_ = make_elements();
  StackPtr sk_{sk_new(by_key_in_slots)};
  ListPtr list_{lt_new(nullptr)};
  Elements model_;
};

TEST_F(Model, StackAndListFollowAVector) {
  for (int i = 0; i < kSteps && !HasFatalFailure(); ++i) {
    SCOPED_TRACE(i);
    step();
    if (i % 5000 == 0) {
      sk_.reset(sk_dup(StackPtr(sk_.release()).get()));
      list_.reset(lt_dup(ListPtr(list_.release()).get()));
    }
    if (i % 7000 == 0) sk_zero(sk_.get()), lt_empty(list_.get()), model_.clear();
  }
}

TEST(Stack, GrowsOneInsertionEarlyAndMissesLeaveItAlone) {
  const StackPtr sk(sk_new(nullptr));
  Element e{1};
  for (const int slots : {4, 4, 4, 8}) {
    EXPECT_GT(sk_push(sk.get(), &e), 0);
    EXPECT_EQ(sk->num_alloc, slots);
  }
  for (int i = 0; i < 3; ++i) sk_push(sk.get(), &e);
  adif::fail_allocations(1);
  EXPECT_EQ(sk_push(sk.get(), &e), 0) << "the array can't grow";
  EXPECT_EQ(sk_enlarge(sk.get(), INT32_MAX) + sk_enlarge(sk.get(), 0), 0);
  EXPECT_EQ(sk_num(sk.get()), 7);
  EXPECT_EQ(sk_enlarge(sk.get(), 5), 12);
  EXPECT_EQ(sk->num_alloc, (7 + 5 + 4) * 4);
  for (int i = 0; i < 100; ++i) sk_push(sk.get(), &e);  // into slots that must be there
  EXPECT_EQ(sk_find(sk.get(), &e), 0);
  EXPECT_EQ(sk_find(sk.get(), nullptr), 7) << "without comparison null is an element like others";

  EXPECT_EQ(sk_set_cmp_func(sk.get(), by_key_in_slots), nullptr);
  EXPECT_EQ(sk_find(sk.get(), nullptr), -1);

  std::vector<void *> freed;  // in order, without the nulls
  static std::vector<void *> *to = &freed;
  sk_zero(sk.get());
  for (int key : {1, 2}) sk_push(sk.get(), new Element{key}), sk_push(sk.get(), nullptr);
  const Elements expected{sk->data[0], sk->data[2]};
  const auto note = [](void *p) { return to->push_back(p), delete static_cast<Element *>(p), 0; };
  sk_pop_free(sk_dup(sk.get()), note);
  EXPECT_EQ(freed, expected);
  freed.clear();
  lt_free_all(lt_new_from_linear(sk.get()), [](void *p) { return to->push_back(p), 0; });
  EXPECT_EQ(freed, expected);
  pointer_stack *const blocks = sk_new(nullptr);
  sk_push(blocks, kalloc_dbg(8));
  sk_pop_kfree(blocks);  // the leak checker watches
}

TEST(Stack, EachFailedAllocationOfACopyLeavesNothingBehind) {
  const auto elements = make_elements();
  const StackPtr sk(sk_new(nullptr));
  for (int i = 0; i < 9; ++i) sk_push(sk.get(), const_cast<Element *>(&elements[0]));
  for (int maker = 0; maker < 3; ++maker) {
    int failed = 1;
    for (int nth = 1; failed > 0; ++nth) {
      adif::fail_allocations(nth);
      const StackPtr made(maker == 0   ? sk_dup(sk.get())
                          : maker == 1 ? sk_find_all_by(sk.get(), &elements[0], by_key)
                                       : sk_search_all(sk.get(), &elements[0], by_key));
      failed = adif::failed_allocations();
      adif::fail_allocations(0);
      ASSERT_EQ(made == nullptr, failed > 0) << nth;
    }
  }
}

TEST(HashTable, FollowsAMapUntilABucketAndTheOverflowAreFull) {
  Random random;
  const TablePtr table(ht_only_new(7, 5, nullptr));
  std::map<std::string, void *> model;
  std::vector<std::string> keys;  // few first bytes, so that buckets collide
  for (int i = 0; i < 40; ++i)
    keys.push_back(std::string(1, static_cast<char>(0xF0 + i % 9)) + std::to_string(i / 9));
  int refused = 0;
  for (int i = 0; i < kSteps; ++i) {
    const std::string &key = keys[static_cast<size_t>(random.below(40))];
    const auto element = [&](const std::string &k) { return model.count(k) ? model[k] : nullptr; };
    void *const other = &keys[static_cast<size_t>(random.below(40))];
    if (random.below(2) == 0) {
      ASSERT_EQ(ht_delete(table.get(), key.c_str()), element(key));
      model.erase(key);
    } else if (ht_set(table.get(), key.c_str(), other) > 0) {
      model[key] = other;
    } else {
      ASSERT_EQ(element(key), nullptr) << "an entry that is there can always be replaced";
      ASSERT_EQ(table->overflow_used, 5);
      ++refused;
    }
    ASSERT_EQ(ht_num(table.get()), static_cast<int>(model.size()));
    ASSERT_EQ(isFull(table.get()), model.size() == 12 ? 1 : 0);
    for (int k = 0; k < table->overflow_used; ++k) {
      const uint32_t bucket = defHash(table->overflow[k].key) % 7;
      ASSERT_TRUE(table->buckets[bucket].used) << "an entry waits though its bucket is free";
    }
    for (const std::string &k : keys) ASSERT_EQ(ht_value(table.get(), k.c_str()), element(k));
  }
  EXPECT_GT(refused, 0);
  EXPECT_EQ(ht_set_hash_func(table.get(), nullptr), model.empty() ? 0 : -2);
  for (const std::string &key : keys) ht_set(table.get(), key.c_str(), &refused);
  ht_empty(table.get());
  EXPECT_EQ(ht_num(table.get()) + isFull(table.get()) + table->overflow_used, 0);
  EXPECT_EQ(ht_value(table.get(), keys[0].c_str()), nullptr);
  EXPECT_EQ(defHash("\xFFz"), 255u) << "bytes are unsigned";
}

}  // namespace
