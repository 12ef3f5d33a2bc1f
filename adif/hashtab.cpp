// The hash table. See hashtab.h.
#include "adif/hashtab.h"

#include <algorithm>
#include <cstring>

#include "adif/kalloc.h"

namespace {

constexpr int kDefaultSlots = 256;

// Where the entry of a key is, or where a new one would go.
enum class mode { bucket, overflow, nowhere };

int compare_texts(const void *a, const void *b) {
  return std::strcmp(static_cast<const char *>(a), static_cast<const char *>(b));
}

bool holds(const hash_table *table, const ht_slot *slot, const void *key) {
  return slot->used && table->comp(slot->key, key) == 0;
}

ht_slot *bucket_of(const hash_table *table, const void *key) {
  return &table->buckets[table->hash(key) % static_cast<uint32_t>(table->num_buckets)];
}

// Percent of the slots, or of the overflow slots, that are used.
int64_t getFullRate(const hash_table *table) {
  return int64_t{table->used} * 100 / (int64_t{table->num_buckets} + table->num_overflow);
}

int64_t getOverflowRate(const hash_table *table) {
  return table->num_overflow == 0 ? 100 : int64_t{table->overflow_used} * 100 / table->num_overflow;
}

ht_slot *array_add(hash_table *table) {
  return &table->overflow[table->overflow_used++];
}

// The last slot fills the gap.
void array_del(hash_table *table, ht_slot *slot) {
  ht_slot *const last = &table->overflow[--table->overflow_used];
  *slot = *last;
  *last = {};
}

ht_slot *find(const hash_table *table, const void *key) {
  ht_slot *const bucket = bucket_of(table, key);
  if (holds(table, bucket, key)) return bucket;
  ht_slot *const end = table->overflow + table->overflow_used;
  ht_slot *const slot =
      std::find_if(table->overflow, end, [&](const ht_slot &s) { return holds(table, &s, key); });
  return slot == end ? nullptr : slot;
}

mode getMode(const hash_table *table, const void *key) {
  if (!bucket_of(table, key)->used) return mode::bucket;
  return getOverflowRate(table) < 100 ? mode::overflow : mode::nowhere;
}

bool insert(hash_table *table, const void *key, void *element) {
  const mode where = getMode(table, key);
  if (where == mode::nowhere) return false;
  ht_slot *const slot = where == mode::bucket ? bucket_of(table, key) : array_add(table);
  *slot = {key, element, true};
  ++table->used;
  return true;
}

// Takes a slot out. A bucket that comes free takes an entry of its own back from the overflow area,
// so that the area holds only entries whose bucket is used.
void remov(hash_table *table, ht_slot *slot) {
  --table->used;
  ht_slot *const end = table->overflow + table->overflow_used;
  if (slot >= table->overflow && slot < end) {
    array_del(table, slot);
    return;
  }
  *slot = {};
  ht_slot *const waiting = std::find_if(
      table->overflow, end, [&](const ht_slot &s) { return bucket_of(table, s.key) == slot; });
  if (waiting == end) return;
  *slot = *waiting;
  array_del(table, waiting);
}

void clear_Overflow(hash_table *table) {
  std::fill_n(table->overflow, table->overflow_used, ht_slot{});
  table->overflow_used = 0;
}

void clear(hash_table *table) {
  std::fill_n(table->buckets, table->num_buckets, ht_slot{});
  clear_Overflow(table);
  table->used = 0;
}

template <class Use>
void for_each_element(const hash_table *table, Use use) {
  const auto visit = [&](const ht_slot &slot) {
    if (slot.used && slot.element != nullptr) use(slot.element);
  };
  std::for_each_n(table->buckets, table->num_buckets, visit);
  std::for_each_n(table->overflow, table->overflow_used, visit);
}

}  // namespace

uint32_t defHash(const void *key) {
  return key == nullptr ? 0 : *static_cast<const unsigned char *>(key);
}

hash_table *ht_new(sk_compare comp) {
  return ht_only_new(kDefaultSlots, kDefaultSlots, comp);
}

hash_table *ht_only_new(int buckets, int overflow, sk_compare comp) {
  if (buckets < 1 || overflow < 0) return nullptr;
  const int64_t slots = int64_t{buckets} + overflow;
  adif::kptr<hash_table> table(static_cast<hash_table *>(kzalloc_dbg(sizeof(hash_table))));
  if (table == nullptr) return nullptr;
  table->buckets = static_cast<ht_slot *>(kzalloc_dbg(slots * int64_t{sizeof(ht_slot)}));
  if (table->buckets == nullptr) return nullptr;
  table->overflow = table->buckets + buckets;
  table->num_buckets = buckets;
  table->num_overflow = overflow;
  table->comp = comp != nullptr ? comp : compare_texts;
  table->hash = defHash;
  return table.release();
}

void ht_free(hash_table *table) {
  if (table == nullptr) return;
  kfree_dbg(table->buckets);
  kfree_dbg(table);
}

void ht_free_all(hash_table *table, sk_free_fn free_fn) {
  if (table == nullptr) return;
  for_each_element(table, [free_fn](void *element) {
    if (free_fn != nullptr) {
      free_fn(element);
    } else {
      kfree_dbg(element);
    }
  });
  ht_free(table);
}

void ht_empty(hash_table *table) {
  if (table != nullptr && table->used > 0) clear(table);
}

int ht_set_hash_func(hash_table *table, ht_hash_fn hash) {
  if (table == nullptr) return -1;
  if (table->used > 0) return -2;
  table->hash = hash != nullptr ? hash : defHash;
  return 0;
}

int ht_num(const hash_table *table) {
  return table == nullptr ? -1 : table->used;
}

int isFull(const hash_table *table) {
  if (table == nullptr) return -1;
  return getFullRate(table) == 100 ? 1 : 0;
}

void *ht_value(const hash_table *table, const void *key) {
  if (table == nullptr || key == nullptr) return nullptr;
  const ht_slot *const slot = find(table, key);
  return slot == nullptr ? nullptr : slot->element;
}

void *ht_get(const hash_table *table, const void *key) {
  return ht_value(table, key);
}

int ht_set(hash_table *table, const void *key, void *element) {
  if (table == nullptr || key == nullptr) return 0;
  ht_slot *const slot = find(table, key);
  if (slot != nullptr) {
    *slot = {key, element, true};
    return table->used;
  }
  return insert(table, key, element) ? table->used : 0;
}

void *ht_delete(hash_table *table, const void *key) {
  if (table == nullptr || key == nullptr) return nullptr;
  ht_slot *const slot = find(table, key);
  if (slot == nullptr) return nullptr;
  void *const element = slot->element;
  remov(table, slot);
  return element;
}
