// A hash table of fixed size: one slot per bucket, and one overflow area shared by all buckets,
// which is searched in a line. Elements and keys are the caller's; a key must live as long as its
// entry. No lock inside, no call blocks.
#pragma once

#include <cstdint>

#include "adif/stack.h"

using ht_hash_fn = uint32_t (*)(const void *key);

struct ht_slot {
  const void *key;
  void *element;
  bool used;
};

struct hash_table {
  int32_t num_buckets;
  int32_t num_overflow;
  int32_t used;           ///< entries, those of the overflow area included
  int32_t overflow_used;  ///< the first so many slots of `overflow`
  sk_compare comp;        ///< compares two keys, 0 is equal; null: texts, as strcmp
  ht_hash_fn hash;
  ht_slot *buckets;
  ht_slot *overflow;
};

/// The first byte of the key, 0 for null.
uint32_t defHash(const void *key);

/// A table of 256 buckets and as many overflow slots, hashed by defHash(). Null without memory.
[[nodiscard]] hash_table *ht_new(sk_compare comp);
/// The same with sizes of one's own: `buckets` at least 1, `overflow` at least 0, else null.
[[nodiscard]] hash_table *ht_only_new(int buckets, int overflow, sk_compare comp);
void ht_free(hash_table *table);  ///< not the elements; null is ignored
/// `free_fn` (null: kfree_dbg) on each element that is not null, then ht_free().
void ht_free_all(hash_table *table, sk_free_fn free_fn);
void ht_empty(hash_table *table);  ///< removes all entries, keeps the elements
/// Another hash (null: defHash) for an empty table. 0; -1 for null, -2 when it holds entries.
int ht_set_hash_func(hash_table *table, ht_hash_fn hash);

int ht_num(const hash_table *table);  ///< entries; -1 for null
/// 1 when every slot, buckets and overflow, is used; 0 when not; -1 for null. A key can find no
/// slot before that: its own bucket and the overflow area are all that it may use.
int isFull(const hash_table *table);
/// The key's element, or null.
void *ht_value(const hash_table *table, const void *key);
void *ht_get(const hash_table *table, const void *key);  ///< the same
/// Puts an element under a key, replacing one that is there together with its key. The number of
/// entries; 0 for a null table or key, or when there is no slot for the key.
int ht_set(hash_table *table, const void *key, void *element);
/// Removes a key and returns its element, or null.
void *ht_delete(hash_table *table, const void *key);
