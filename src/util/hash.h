// Hash table whose buckets are locked lists. Intrusive entries begin with a
// hash_entry_t header and are linked into the bucket directly; wrapped items
// are linked through a list node. The table never resizes. Every operation
// that touches a bucket holds that bucket's lock for its whole search and
// edit; the hash and equal callbacks run under it.
#pragma once

#include <cstdint>

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

[[nodiscard]] hash_t* hash_create(uint32_t bucket_count, hash_fn hash, hash_equal_fn equal,
                                  hash_free_fn free_cb);
void hash_free(hash_t* table);
void hash_destroy(hash_t* table);

void hash_add(hash_t* table, hash_entry_t* entry, uint32_t n);
hash_entry_t* hash_get_or_add(hash_t* table, hash_entry_t* entry, uint32_t n);
void* hash_get_or_add_item(hash_t* table, void* item);
hash_entry_t* hash_find(hash_t* table, const void* key, uint32_t n);
void* hash_find_item(hash_t* table, const void* key);
hash_entry_t* hash_remove(hash_t* table, const void* key);
hash_entry_t* hash_remove_idle(hash_t* table, const void* key);
void* hash_remove_item(hash_t* table, const void* key);
void hash_clear(hash_t* table);
void hash_ref(hash_t* table, hash_entry_t* entry);
void hash_unref(hash_t* table, hash_entry_t* entry);
uint32_t hash_count(const hash_t* table);
uint32_t hash_bucket_index(const hash_t* table, const void* key);
// 0 for a null or empty string.
uint32_t hash_string(const char* s);
