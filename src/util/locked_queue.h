// A typed queue between threads over the locked list. Elements carry their
// own link (the member `Link`), belong to the queue while linked and leave it
// as unique_ptr, so no caller casts a node back to its element. Producers
// push at either end (newest first or oldest first is the caller's choice)
// and wake the consumer; the consumer sleeps in wait() until woken or
// stopped. A wake is remembered until a wait consumes it, so none is lost
// between a consumer's last pop and its next wait. stop() is final and
// releases every waiter at once. Elements still queued are freed with the
// queue.
//
// Locks: the list's own mutex covers the elements (held only for one edit
// or one look at the tail); `wake_lock_` covers the wake and stop flags. No
// operation holds both.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "list.h"

template <class T, list_node_t T::*Link>
class locked_queue {
public:
    // `cap`: most elements held at once; 0 for no bound.
    explicit locked_queue(uint32_t cap = 0) : cap_(cap) {}
    ~locked_queue() {
        while (pop_front()) {
        }
    }
    locked_queue(const locked_queue&) = delete;
    locked_queue& operator=(const locked_queue&) = delete;

    uint32_t size() const { return list_count(&list_); }
    bool full() const { return cap_ != 0 && size() >= cap_; }

    // The element becomes the head (push_front) or the tail (push_back).
    // A full queue refuses it: false, and the element is freed. The cap is
    // exact with one producer; several may overshoot it by their number.
    bool push_front(std::unique_ptr<T> item) { return push(std::move(item), list_push_front); }
    bool push_back(std::unique_ptr<T> item) { return push(std::move(item), list_append); }

    // Null when empty; an empty queue never waits for its lock.
    std::unique_ptr<T> pop_front() { return own(list_pop_front_node(&list_)); }
    std::unique_ptr<T> pop_back() { return own(list_pop_back_node(&list_)); }

    // `pred` applied to the tail under the list's lock; false when empty.
    template <class Pred>
    bool back_matches(Pred pred) {
        std::lock_guard<std::mutex> g(list_.lock);
        return list_.tail && pred(*static_cast<const T*>(list_.tail->data));
    }

    // Calls `fn` on each element, head to tail, under the list's lock; `fn`
    // must not use this queue.
    template <class Fn>
    void for_each(Fn fn) const {
        std::lock_guard<std::mutex> g(list_.lock);
        for (const list_node_t* n = list_.head; n; n = n->next) fn(*static_cast<const T*>(n->data));
    }

    void wake() { set_flag(&wake_); }
    void stop() { set_flag(&stopped_); }

    // Sleeps until a wake (which it consumes) or stop; false once stopped.
    bool wait() {
        std::unique_lock<std::mutex> lk(wake_lock_);
        cond_.wait(lk, [&] { return wake_ || stopped_; });
        wake_ = false;
        return !stopped_;
    }

    // As wait(), but returns at once (consuming any wake) while elements
    // are queued.
    bool wait_if_empty() {
        std::unique_lock<std::mutex> lk(wake_lock_);
        if (size() == 0) cond_.wait(lk, [&] { return wake_ || stopped_; });
        wake_ = false;
        return !stopped_;
    }

private:
    template <class PushFn>
    bool push(std::unique_ptr<T> item, PushFn fn) {
        if (!item || full()) return false;
        list_node_t* node = &(item.get()->*Link);
        node->data = item.get();
        fn(&list_, node);
        item.release();  // owned through the list until popped
        return true;
    }

    static std::unique_ptr<T> own(list_node_t* node) {
        return std::unique_ptr<T>(node ? static_cast<T*>(node->data) : nullptr);
    }

    void set_flag(bool* flag) {
        {
            std::lock_guard<std::mutex> g(wake_lock_);
            *flag = true;
        }
        cond_.notify_all();
    }

    const uint32_t cap_;
    mutable list_t list_;  // mutable for its lock
    std::mutex wake_lock_;
    std::condition_variable cond_;
    bool wake_ = false;     // covered by wake_lock_
    bool stopped_ = false;  // covered by wake_lock_
};
