// Doubly linked list with its own mutex. Nodes carry an untyped data pointer
// that the list never copies and never frees unless a free callback is
// passed. An element that begins with the two link fields may be linked
// directly as a node (the hash table relies on this).
//
// "Locked" operations take the list's mutex for their own edit only; the
// others take no lock, and the caller either owns the list alone or holds
// `lock` itself. No operation ever holds two list locks. Every node that
// leaves a list leaves with next and prev null. Null lists and nodes are
// ignored (null results) by every operation.
#pragma once

#include <cstdint>
#include <mutex>

struct list_node_t {
    list_node_t* next = nullptr;
    list_node_t* prev = nullptr;
    void* data = nullptr;
};

struct list_t {
    list_node_t* head = nullptr;  // covered by lock
    list_node_t* tail = nullptr;  // covered by lock
    uint32_t count = 0;           // written under lock (atomically); read unlocked by list_count
    std::mutex lock;
};

using list_free_cb = void (*)(void* data);

// Returns a new empty list, or null when allocation fails.
[[nodiscard]] list_t* list_create();
// Frees the header only; nodes and data are untouched. Null-safe.
void list_free(list_t* list);
// Returns a new detached node carrying `data`, or null.
[[nodiscard]] list_node_t* list_node_new(void* data);
// Frees the node only. Null-safe.
void list_node_free(list_node_t* node);

// Number of nodes; safe to call without the lock (a snapshot).
uint32_t list_count(const list_t* list);
list_node_t* list_first(const list_t* list);

// Locked: the node becomes the head / the tail.
void list_push_front(list_t* list, list_node_t* node);
void list_append(list_t* list, list_node_t* node);
// Locked: detaches a node the caller knows to be in this list.
void list_unlink(list_t* list, list_node_t* node);
// Locked; null for an empty list. The count is tested before locking, so an
// empty list never waits for its mutex.
list_node_t* list_pop_front_node(list_t* list);
list_node_t* list_pop_back_node(list_t* list);
// As above, but the node is freed and its data returned.
void* list_pop_front(list_t* list);
void* list_pop_back(list_t* list);

// Unlocked variants.
void list_push_front_nolock(list_t* list, list_node_t* node);
void list_append_nolock(list_t* list, list_node_t* node);
// Links `node` in front of `before`; a null `before` appends.
void list_insert_before(list_t* list, list_node_t* before, list_node_t* node);
list_node_t* list_pop_front_node_nolock(list_t* list);
list_node_t* list_pop_back_node_nolock(list_t* list);
void list_unlink_nolock(list_t* list, list_node_t* node);
// Walks from the head: linear. Null when index >= count.
list_node_t* list_node_at(const list_t* list, uint32_t index);
void* list_get(const list_t* list, uint32_t index);
// Detaches and frees every node, passing non-null data to `free_cb` if given.
void list_clear(list_t* list, list_free_cb free_cb);
// Detaches every node without freeing it (the nodes belong to the elements).
void list_drain(list_t* list, list_free_cb cb);
// Re-links a node of this list at the head / the tail; the count is kept.
void list_move_to_front(list_t* list, list_node_t* node);
void list_move_to_back(list_t* list, list_node_t* node);
