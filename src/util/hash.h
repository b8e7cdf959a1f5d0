// Hash table whose buckets are locked lists. Intrusive entries begin with a
// hash_entry_t header and are linked into the bucket directly; wrapped items
// are linked through a list node. The table never resizes. Every operation
// that touches a bucket holds that bucket's lock for its whole search and
// edit; the equal callback runs under it (the hash callback runs just before,
// to choose the bucket), and so does the free callback in hash_clear and
// hash_visit_bucket. No operation holds two bucket locks.
//
// In an intrusive table the bucket's head and tail hold hash_entry_t
// pointers (stored as list_node_t pointers): walk them only as entries, and
// preferably through hash_visit_bucket.
#pragma once

#include <cstdint>
#include <functional>

#include "util/list.h"

// Header of an intrusive element; the element's own fields follow it.
struct hash_entry_t {
    hash_entry_t* next = nullptr;  // covered by the bucket lock
    hash_entry_t* prev = nullptr;  // covered by the bucket lock
    uint32_t refs = 0;             // users of the entry; changed under the bucket lock
};

using hash_fn = uint32_t (*)(const void* item);
// (key item, stored entry or stored data): non-zero when they match.
using hash_equal_fn = int (*)(const void* key, const void* stored);
using hash_free_fn = void (*)(void* item);

struct hash_t {
    hash_fn hash = nullptr;
    hash_equal_fn equal = nullptr;
    hash_free_fn free = nullptr;
    uint32_t bucket_count = 0;
    list_t** buckets = nullptr;
};

// Returns a table of `bucket_count` buckets, or null when bucket_count is 0,
// hash or equal is null, or any allocation fails (free_cb may be null).
[[nodiscard]] hash_t* hash_create(uint32_t bucket_count, hash_fn hash, hash_equal_fn equal,
                                  hash_free_fn free_cb);
// Frees the buckets and the table; entries are untouched. Null-safe.
void hash_free(hash_t* table);
// Wrapped tables: frees every node, passing its data to the free callback,
// then the table. Null-safe.
void hash_destroy(hash_t* table);

// Intrusive tables. Insertion is always at the bucket head, so the newest of
// equal entries is found first. `n` is added to the entry's refs.
void hash_add(hash_t* table, hash_entry_t* entry, uint32_t n);
// Returns the stored entry equal to `entry` (refs + n), or links `entry`
// itself (refs + n) and returns it.
hash_entry_t* hash_get_or_add(hash_t* table, hash_entry_t* entry, uint32_t n);
// First entry equal to `key` with refs + n, or null.
hash_entry_t* hash_find(hash_t* table, const void* key, uint32_t n);
// Detaches and returns the first entry equal to `key`, or null.
hash_entry_t* hash_remove(hash_t* table, const void* key);
// As hash_remove, but only when that first match has refs 0; otherwise null
// and the entry stays (later matches are not considered).
hash_entry_t* hash_remove_idle(hash_t* table, const void* key);
// Detaches every entry, bucket by bucket, passing each to the free callback.
void hash_clear(hash_t* table);
// Visits the entries of bucket `index` newest first under the bucket's lock.
// When `visit` returns non-zero the entry is detached and passed to the free
// callback (if any); `visit` itself must not free or relink it.
void hash_visit_bucket(hash_t* table, uint32_t index,
                       const std::function<int(hash_entry_t*)>& visit);
// refs + 1 / refs - 1 under the lock of the entry's bucket; refs never goes
// below 0.
void hash_ref(hash_t* table, hash_entry_t* entry);
void hash_unref(hash_t* table, hash_entry_t* entry);

// Wrapped tables: items linked through list nodes; equal(key, stored data).
// Returns the stored item equal to `item`, or links `item` and returns it;
// null when the node cannot be allocated.
void* hash_get_or_add_item(hash_t* table, void* item);
void* hash_find_item(hash_t* table, const void* key);
// Detaches the first matching item, frees its node and returns the item.
void* hash_remove_item(hash_t* table, const void* key);

// Sum of the bucket counts, read without locks (a snapshot).
uint32_t hash_count(const hash_t* table);
// hash(key) modulo bucket_count; `table` must not be null.
uint32_t hash_bucket_index(const hash_t* table, const void* key);
// 0 for a null or empty string.
uint32_t hash_string(const char* s);
