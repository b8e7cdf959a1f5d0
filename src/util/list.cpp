#include "util/list.h"

#include <new>

#include "util/list_links.h"

using list_links::count_of;

namespace {

// Runs `edit` on the list under its lock; null lists are refused before the
// lock is touched.
template <class Edit>
auto locked(list_t* list, Edit edit) -> decltype(edit()) {
    if (!list) return decltype(edit())();
    std::lock_guard<std::mutex> guard(list->lock);
    return edit();
}

// Frees a popped node and hands back what it carried.
void* take_data(list_node_t* node) {
    if (!node) return nullptr;
    void* data = node->data;
    list_node_free(node);
    return data;
}

}  // namespace

list_t* list_create() { return new (std::nothrow) list_t; }

void list_free(list_t* list) { delete list; }

list_node_t* list_node_new(void* data) {
    list_node_t* node = new (std::nothrow) list_node_t;
    if (node) node->data = data;
    return node;
}

void list_node_free(list_node_t* node) { delete node; }

uint32_t list_count(const list_t* list) { return list ? count_of(list) : 0; }

list_node_t* list_first(const list_t* list) { return list ? list->head : nullptr; }

void list_push_front(list_t* list, list_node_t* node) {
    locked(list, [&] { list_push_front_nolock(list, node); });
}

void list_append(list_t* list, list_node_t* node) {
    locked(list, [&] { list_append_nolock(list, node); });
}

void list_unlink(list_t* list, list_node_t* node) {
    locked(list, [&] { list_unlink_nolock(list, node); });
}

// The pops look at the count before locking, so polling an empty queue never
// contends for its mutex; a list emptied meanwhile still yields null.
list_node_t* list_pop_front_node(list_t* list) {
    if (list_count(list) == 0) return nullptr;
    return locked(list, [&] { return list_pop_front_node_nolock(list); });
}

list_node_t* list_pop_back_node(list_t* list) {
    if (list_count(list) == 0) return nullptr;
    return locked(list, [&] { return list_pop_back_node_nolock(list); });
}

void* list_pop_front(list_t* list) { return take_data(list_pop_front_node(list)); }

void* list_pop_back(list_t* list) { return take_data(list_pop_back_node(list)); }

void list_push_front_nolock(list_t* list, list_node_t* node) {
    if (list && node) list_links::link_front(list, node);
}

void list_append_nolock(list_t* list, list_node_t* node) {
    if (list && node) list_links::link_back(list, node);
}

void list_insert_before(list_t* list, list_node_t* before, list_node_t* node) {
    if (!list || !node) return;
    if (!before) {
        list_links::link_back(list, node);  // an empty list makes it the head too
    } else if (before == list->head) {
        list_links::link_front(list, node);
    } else {
        list_links::link_between(list, before, node);
    }
}

list_node_t* list_pop_front_node_nolock(list_t* list) {
    return list ? list_links::pop_head<list_node_t>(list) : nullptr;
}

list_node_t* list_pop_back_node_nolock(list_t* list) {
    if (!list || !list->tail) return nullptr;
    list_node_t* node = list->tail;
    list_links::unlink(list, node);
    return node;
}

void list_unlink_nolock(list_t* list, list_node_t* node) {
    if (list && node) list_links::unlink(list, node);
}

list_node_t* list_node_at(const list_t* list, uint32_t index) {
    if (!list || index >= count_of(list)) return nullptr;
    list_node_t* node = list->head;
    for (uint32_t i = 0; node && i < index; ++i) node = node->next;
    return node;
}

void* list_get(const list_t* list, uint32_t index) {
    const list_node_t* node = list_node_at(list, index);
    return node ? node->data : nullptr;
}

// Detaches the nodes one by one from the head and passes each to `visit`.
template <class Visit>
static void detach_all(list_t* list, Visit visit) {
    if (!list) return;
    while (list_node_t* node = list_links::pop_head<list_node_t>(list)) visit(node);
}

void list_clear(list_t* list, list_free_cb free_cb) {
    detach_all(list, [free_cb](list_node_t* node) {
        if (free_cb && node->data) free_cb(node->data);
        list_node_free(node);
    });
}

void list_drain(list_t* list, list_free_cb cb) {
    detach_all(list, [cb](list_node_t* node) {
        if (cb && node->data) cb(node->data);
    });
}

// Both moves leave the count as it was: one unlink, one link.
void list_move_to_front(list_t* list, list_node_t* node) {
    if (!list || !node || node == list->head) return;
    list_links::unlink(list, node);
    list_links::link_front(list, node);
}

void list_move_to_back(list_t* list, list_node_t* node) {
    if (!list || !node || node == list->tail) return;
    list_links::unlink(list, node);
    list_links::link_back(list, node);
}
