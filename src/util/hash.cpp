#include "util/hash.h"

#include <new>

#include "util/list_links.h"

namespace {

using list_links::head_of;

list_t* bucket_of(const hash_t* table, const void* item) {
    return table->buckets[hash_bucket_index(table, item)];
}

// First node of `bucket` that `match` accepts; the bucket lock is held.
template <class Node, class Match>
Node* first_match(const list_t* bucket, Match match) {
    for (Node* node = head_of<Node>(bucket); node; node = node->next)
        if (match(node)) return node;
    return nullptr;
}

// The stored intrusive entry equal to `key`; the bucket lock is held.
hash_entry_t* find_entry(const hash_t* table, const list_t* bucket, const void* key) {
    return first_match<hash_entry_t>(
        bucket, [&](const hash_entry_t* stored) { return table->equal(key, stored) != 0; });
}

// The node of a wrapped table whose data is equal to `key`; the lock is held.
list_node_t* find_node(const hash_t* table, const list_t* bucket, const void* key) {
    return first_match<list_node_t>(
        bucket, [&](const list_node_t* node) { return table->equal(key, node->data) != 0; });
}

// Runs `op(bucket)` under the lock of the bucket chosen by `item`.
template <class Op>
auto in_bucket(hash_t* table, const void* item, Op op) -> decltype(op(nullptr)) {
    if (!table || !item) return decltype(op(nullptr))();
    list_t* bucket = bucket_of(table, item);
    std::lock_guard<std::mutex> guard(bucket->lock);
    return op(bucket);
}

void free_buckets(hash_t* table) {
    for (uint32_t i = 0; i < table->bucket_count; ++i) list_free(table->buckets[i]);
    delete[] table->buckets;
    delete table;
}

uint32_t rotate_left(uint32_t value, uint32_t shift) {
    return shift == 0 ? value : (value << shift) | (value >> (32 - shift));
}

}  // namespace

hash_t* hash_create(uint32_t bucket_count, hash_fn hash, hash_equal_fn equal,
                    hash_free_fn free_cb) {
    if (bucket_count == 0 || !hash || !equal) return nullptr;
    hash_t* table = new (std::nothrow) hash_t;
    if (!table) return nullptr;
    table->buckets = new (std::nothrow) list_t*[bucket_count]();
    if (!table->buckets) {
        delete table;
        return nullptr;
    }
    table->hash = hash;
    table->equal = equal;
    table->free = free_cb;
    table->bucket_count = bucket_count;
    // A table with a missing bucket would fail later on some keys only, so
    // it is refused whole.
    for (uint32_t i = 0; i < bucket_count; ++i) {
        table->buckets[i] = list_create();
        if (!table->buckets[i]) {
            free_buckets(table);
            return nullptr;
        }
    }
    return table;
}

void hash_free(hash_t* table) {
    if (table) free_buckets(table);
}

void hash_destroy(hash_t* table) {
    if (!table) return;
    for (uint32_t i = 0; i < table->bucket_count; ++i) list_clear(table->buckets[i], table->free);
    free_buckets(table);
}

void hash_add(hash_t* table, hash_entry_t* entry, uint32_t n) {
    in_bucket(table, entry, [&](list_t* bucket) {
        list_links::link_front(bucket, entry);
        entry->refs += n;
    });
}

hash_entry_t* hash_get_or_add(hash_t* table, hash_entry_t* entry, uint32_t n) {
    return in_bucket(table, entry, [&](list_t* bucket) {
        hash_entry_t* stored = find_entry(table, bucket, entry);
        if (!stored) {
            stored = entry;
            list_links::link_front(bucket, stored);
        }
        stored->refs += n;
        return stored;
    });
}

void* hash_get_or_add_item(hash_t* table, void* item) {
    return in_bucket(table, item, [&](list_t* bucket) -> void* {
        if (list_node_t* node = find_node(table, bucket, item)) return node->data;
        list_node_t* node = list_node_new(item);
        if (!node) return nullptr;
        list_links::link_front(bucket, node);
        return item;
    });
}

hash_entry_t* hash_find(hash_t* table, const void* key, uint32_t n) {
    return in_bucket(table, key, [&](list_t* bucket) {
        hash_entry_t* stored = find_entry(table, bucket, key);
        if (stored) stored->refs += n;
        return stored;
    });
}

void* hash_find_item(hash_t* table, const void* key) {
    return in_bucket(table, key, [&](list_t* bucket) -> void* {
        list_node_t* node = find_node(table, bucket, key);
        return node ? node->data : nullptr;
    });
}

hash_entry_t* hash_remove(hash_t* table, const void* key) {
    return in_bucket(table, key, [&](list_t* bucket) {
        hash_entry_t* stored = find_entry(table, bucket, key);
        if (stored) list_links::unlink(bucket, stored);
        return stored;
    });
}

hash_entry_t* hash_remove_idle(hash_t* table, const void* key) {
    return in_bucket(table, key, [&](list_t* bucket) -> hash_entry_t* {
        hash_entry_t* stored = find_entry(table, bucket, key);
        if (!stored || stored->refs != 0) return nullptr;
        list_links::unlink(bucket, stored);
        return stored;
    });
}

void* hash_remove_item(hash_t* table, const void* key) {
    list_node_t* node = in_bucket(table, key, [&](list_t* bucket) {
        list_node_t* found = find_node(table, bucket, key);
        if (found) list_links::unlink(bucket, found);
        return found;
    });
    if (!node) return nullptr;
    void* data = node->data;
    list_node_free(node);
    return data;
}

void hash_clear(hash_t* table) {
    if (!table) return;
    for (uint32_t i = 0; i < table->bucket_count; ++i)
        hash_visit_bucket(table, i, [](hash_entry_t*) { return 1; });
}

void hash_visit_bucket(hash_t* table, uint32_t index,
                       const std::function<int(hash_entry_t*)>& visit) {
    if (!table || index >= table->bucket_count) return;
    list_t* bucket = table->buckets[index];
    std::lock_guard<std::mutex> guard(bucket->lock);
    hash_entry_t* entry = head_of<hash_entry_t>(bucket);
    while (entry) {
        hash_entry_t* next = entry->next;  // the visit may end the entry's life
        if (visit(entry)) {
            list_links::unlink(bucket, entry);
            if (table->free) table->free(entry);
        }
        entry = next;
    }
}

void hash_ref(hash_t* table, hash_entry_t* entry) {
    in_bucket(table, entry, [&](list_t*) { ++entry->refs; });
}

// Never below zero: an extra release must not make an entry look busy forever.
void hash_unref(hash_t* table, hash_entry_t* entry) {
    in_bucket(table, entry, [&](list_t*) {
        if (entry->refs > 0) --entry->refs;
    });
}

uint32_t hash_count(const hash_t* table) {
    if (!table) return 0;
    uint32_t total = 0;
    for (uint32_t i = 0; i < table->bucket_count; ++i) total += list_count(table->buckets[i]);
    return total;
}

uint32_t hash_bucket_index(const hash_t* table, const void* key) {
    return table->hash(key) % table->bucket_count;
}

uint32_t hash_string(const char* s) {
    if (!s) return 0;
    uint32_t h = 0;
    uint32_t weight = 256;
    for (const signed char* p = reinterpret_cast<const signed char*>(s); *p; ++p) {
        uint32_t v = weight | static_cast<uint32_t>(static_cast<int32_t>(*p));
        h = rotate_left(h, ((v >> 2) ^ v) & 15) ^ (v * v);
        weight += 256;
    }
    return h ^ (h >> 16);
}
