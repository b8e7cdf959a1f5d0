// Link editing shared by the list and the hash table. A list's head and tail
// are stored as list_node_t pointers, but an intrusive table links its
// hash_entry_t headers directly; these templates edit either kind through
// its own type, so no element is ever accessed through a foreign type. The
// caller holds the list's lock or owns the list alone. Internal to src/util.
#pragma once

#include <atomic>

#include "util/list.h"

namespace list_links {

// `count` is edited under the lock but read without it by list_count and the
// pops' early empty test, so every access goes through an atomic view.
inline uint32_t count_of(const list_t* list) {
    return std::atomic_ref<uint32_t>(const_cast<uint32_t&>(list->count))
        .load(std::memory_order_relaxed);
}

inline void add_count(list_t* list, int delta) {
    std::atomic_ref<uint32_t>(list->count).store(count_of(list) + static_cast<uint32_t>(delta),
                                                 std::memory_order_relaxed);
}

template <class Node>
Node* head_of(const list_t* list) {
    return reinterpret_cast<Node*>(list->head);
}

template <class Node>
Node* tail_of(const list_t* list) {
    return reinterpret_cast<Node*>(list->tail);
}

template <class Node>
void set_head(list_t* list, Node* node) {
    list->head = reinterpret_cast<list_node_t*>(node);
}

template <class Node>
void set_tail(list_t* list, Node* node) {
    list->tail = reinterpret_cast<list_node_t*>(node);
}

template <class Node>
void link_front(list_t* list, Node* node) {
    Node* old = head_of<Node>(list);
    node->prev = nullptr;
    node->next = old;
    if (old)
        old->prev = node;
    else
        set_tail(list, node);
    set_head(list, node);
    add_count(list, 1);
}

template <class Node>
void link_back(list_t* list, Node* node) {
    Node* old = tail_of<Node>(list);
    node->next = nullptr;
    node->prev = old;
    if (old)
        old->next = node;
    else
        set_head(list, node);
    set_tail(list, node);
    add_count(list, 1);
}

// Links `node` in front of `before`, which must be in the list and not its head.
template <class Node>
void link_between(list_t* list, Node* before, Node* node) {
    node->prev = before->prev;
    node->next = before;
    before->prev->next = node;
    before->prev = node;
    add_count(list, 1);
}

// Detaches `node`, which the caller guarantees is in `list`.
template <class Node>
void unlink(list_t* list, Node* node) {
    if (node->prev)
        node->prev->next = node->next;
    else
        set_head(list, node->next);
    if (node->next)
        node->next->prev = node->prev;
    else
        set_tail(list, node->prev);
    node->next = nullptr;
    node->prev = nullptr;
    add_count(list, -1);
}

// Detaches and returns the head, or null when there is none.
template <class Node>
Node* pop_head(list_t* list) {
    Node* node = head_of<Node>(list);
    if (node) unlink(list, node);
    return node;
}

}  // namespace list_links
