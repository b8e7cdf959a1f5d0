// The locked list and the hash table built on it: random operations against
// a plain model, and the list under concurrent pushes and pops. The cache's
// own tests cover the table under threads and its cleaner's visits.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "util/hash.h"
#include "util/list.h"
#include "util/locked_queue.h"

namespace {

int values[64];

// The data of every node front to back, after checking that the links agree
// in both directions and with the count.
std::vector<void*> contents(const list_t* list) {
    std::vector<void*> forward, backward;
    const list_node_t* prev = nullptr;
    for (const list_node_t* n = list->head; n; prev = n, n = n->next) {
        EXPECT_EQ(n->prev, prev);
        forward.push_back(n->data);
    }
    for (const list_node_t* n = list->tail; n; n = n->prev) backward.insert(backward.begin(), n->data);
    EXPECT_TRUE(list->tail == prev && list_count(list) == forward.size() && forward == backward);
    return forward;
}

bool detached(const list_node_t* n) { return n && !n->next && !n->prev; }

// Edits through every entry point against a deque of nodes; a node that
// leaves the list leaves detached, and clearing hands only real data to the
// callback.
TEST(List, RandomOperationsMatchADequeModel) {
    std::mt19937 rng(7);
    list_t* l = list_create();
    std::deque<list_node_t*> model;
    for (int step = 0; step < 20000 && !HasFailure(); ++step) {
        list_node_t* fresh = list_node_new(rng() % 8 ? &values[rng() % 64] : nullptr);
        list_node_t* any = model.empty() ? nullptr : model[rng() % model.size()];
        list_node_t *out = nullptr, *end = nullptr;
        const int op = rng() % 7;
        const bool front = rng() % 2, locked = rng() % 2;
        if (!model.empty()) end = front ? model.front() : model.back();
        SCOPED_TRACE("step " + std::to_string(step) + " op " + std::to_string(op));
        if (op < 2) {
            (front ? (locked ? list_push_front : list_push_front_nolock) : (locked ? list_append : list_append_nolock))(l, fresh);
            front ? model.push_front(std::exchange(fresh, nullptr)) : model.push_back(std::exchange(fresh, nullptr));
        } else if (op == 2) {  // before a random node, or appended when there is none
            model.insert(std::find(model.begin(), model.end(), any), fresh);
            list_insert_before(l, any, std::exchange(fresh, nullptr));
        } else if (op == 3) {  // the pop frees the node
            EXPECT_EQ(front ? list_pop_front(l) : list_pop_back(l), end ? end->data : nullptr);
            if (end) front ? model.pop_front() : model.pop_back();
        } else if (op == 4) {
            out = front ? (locked ? list_pop_front_node : list_pop_front_node_nolock)(l)
                        : (locked ? list_pop_back_node : list_pop_back_node_nolock)(l);
            EXPECT_EQ(out, end);
            if (end) front ? model.pop_front() : model.pop_back();
        } else if (any) {
            model.erase(std::find(model.begin(), model.end(), any));
            if (op == 5) (locked ? list_unlink : list_unlink_nolock)(l, out = any);
            if (op == 6) (front ? list_move_to_front : list_move_to_back)(l, any);
            if (op == 6) front ? model.push_front(any) : model.push_back(any);
        }
        EXPECT_TRUE(!out || detached(out));
        list_node_free(out);
        list_node_free(fresh);
        std::vector<void*> data;
        for (list_node_t* n : model) data.push_back(n->data);
        EXPECT_EQ(contents(l), data);
    }
    static std::vector<void*> seen;
    std::vector<void*> want;
    for (list_node_t* n : model)
        if (n->data) want.push_back(n->data);
    list_clear(l, [](void* p) { seen.push_back(p); });
    EXPECT_EQ(seen, want);
    EXPECT_TRUE(contents(l).empty());
    list_free(l);
}

// Two threads push at each end while two pop from each end.
TEST(List, ConcurrentPushAndPopLoseAndDuplicateNothing) {
    constexpr int kPer = 10000;
    list_t* l = list_create();
    std::vector<int> items(2 * kPer);
    std::vector<std::atomic<int>> received(2 * kPer);
    std::atomic<int> popped{0};
    std::vector<std::thread> threads;
    for (int th = 0; th < 4; ++th)
        threads.emplace_back([&, th] {
            for (int i = th * kPer; th < 2 && i < (th + 1) * kPer; ++i) (th ? list_push_front : list_append)(l, list_node_new(&(items[i] = i)));
            while (th >= 2 && popped.load() < 2 * kPer)
                if (void* data = th == 2 ? list_pop_back(l) : list_pop_front(l)) received[*static_cast<int*>(data)]++, popped++;
        });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(std::count_if(received.begin(), received.end(), [](auto& r) { return r.load() != 1; }), 0);
    EXPECT_TRUE(contents(l).empty());
    list_free(l);
}

// A queue element that counts the live ones, so a lost or leaked element
// shows in the count.
struct queued {
    list_node_t link;
    int value = 0;
    static inline std::atomic<int> live{0};
    explicit queued(int v) : value(v) { ++live; }
    ~queued() { --live; }
};
using test_queue = locked_queue<queued, &queued::link>;

std::vector<int> drain(test_queue& q, bool from_back) {
    std::vector<int> out;
    while (auto e = from_back ? q.pop_back() : q.pop_front()) out.push_back(e->value);
    return out;
}

// Each end, each cap: what goes in comes out in the chosen order, a full
// queue refuses and frees, and what is left is freed with the queue.
TEST(LockedQueue, OrderCapAndOwnership) {
    struct row {
        uint32_t cap;
        bool push_front, pop_back;
        std::vector<int> want;
    };
    const row rows[] = {
        {0, true, false, {4, 3, 2, 1}},  // newest first
        {0, false, false, {1, 2, 3, 4}},  // oldest first
        {0, true, true, {1, 2, 3, 4}},
        {2, true, false, {2, 1}},  // 3 and 4 refused
        {3, false, true, {3, 2, 1}},
    };
    for (const row& r : rows) {
        {
            test_queue q(r.cap);
            for (int v = 1; v <= 4; ++v) {
                const bool fits = r.cap == 0 || v <= static_cast<int>(r.cap);
                auto e = std::make_unique<queued>(v);
                EXPECT_EQ(r.push_front ? q.push_front(std::move(e)) : q.push_back(std::move(e)), fits) << v;
                EXPECT_EQ(q.full(), r.cap != 0 && v >= static_cast<int>(r.cap));
            }
            EXPECT_EQ(queued::live.load(), static_cast<int>(r.want.size()));
            EXPECT_EQ(q.size(), r.want.size());
            EXPECT_TRUE(q.back_matches([&](const queued& e) { return e.value == (r.pop_back ? r.want.front() : r.want.back()); }));
            EXPECT_EQ(drain(q, r.pop_back), r.want);
            EXPECT_FALSE(q.back_matches([](const queued&) { return true; }));
            EXPECT_TRUE(q.push_back(std::make_unique<queued>(9)));
        }
        EXPECT_EQ(queued::live.load(), 0);
    }
}

// A wake given before the wait is kept for it; wait_if_empty does not sleep
// while elements wait; stop releases a sleeping consumer at once and every
// wait after it.
TEST(LockedQueue, WakeIsKeptAndStopReleasesWaiters) {
    test_queue q;
    q.wake();
    EXPECT_TRUE(q.wait());
    q.push_back(std::make_unique<queued>(1));
    EXPECT_TRUE(q.wait_if_empty());
    std::atomic<int> result{-1};
    std::thread waiter([&] {
        (void)q.pop_front();
        result = q.wait_if_empty() ? 1 : 0;  // empty, no wake: sleeps
    });
    while (q.size() != 0) std::this_thread::yield();
    q.stop();
    waiter.join();
    EXPECT_EQ(result.load(), 0);
    EXPECT_FALSE(q.wait());
    EXPECT_FALSE(q.wait_if_empty());
}

// Producers push and wake while one consumer sleeps between bursts: every
// element arrives exactly once, none is stranded by a missed wake.
TEST(LockedQueue, ConcurrentProducersLoseNothing) {
    constexpr int kPer = 5000;
    constexpr int kProducers = 3;
    test_queue q;
    std::vector<int> seen(kPer * kProducers, 0);
    std::thread consumer([&] {
        int got = 0;
        while (got < kPer * kProducers && q.wait_if_empty())
            while (auto e = q.pop_front()) ++seen[e->value], ++got;
    });
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p)
        producers.emplace_back([&, p] {
            for (int i = p * kPer; i < (p + 1) * kPer; ++i) {
                ASSERT_TRUE(p % 2 ? q.push_front(std::make_unique<queued>(i)) : q.push_back(std::make_unique<queued>(i)));
                q.wake();
            }
        });
    for (std::thread& t : producers) t.join();
    consumer.join();
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), kPer * kProducers);
    EXPECT_EQ(queued::live.load(), 0);
}

// An intrusive element, as the verdict cache builds them.
struct item {
    hash_entry_t head;
    std::string key;
};
uint32_t item_hash(const void* p) { return hash_string(static_cast<const item*>(p)->key.c_str()); }
int item_equal(const void* a, const void* b) { return static_cast<const item*>(a)->key == static_cast<const item*>(b)->key; }
int freed = 0;
void item_free(void* p) { ++freed, delete static_cast<item*>(p); }
item* make(const std::string& key) { return new item{{}, key}; }

// Pinned values: the cache's bucket choice must not drift.
TEST(Hash, StringHashReferenceValues) {
    struct { const char* text; uint32_t want; } cases[] = {
        {nullptr, 0}, {"example.com", 2269119437u}, {"\xe9t\xe9", 1128064}};  // high bytes are taken as signed
    for (const auto& c : cases) EXPECT_EQ(hash_string(c.text), c.want) << (c.text ? c.text : "(null)");
    EXPECT_EQ(hash_create(0, item_hash, item_equal, nullptr), nullptr);
}

// Entries under a few shared keys, with their reference counts, against a
// map model, through the operations the verdict cache uses.
TEST(Hash, RandomOperationsMatchAModel) {
    std::mt19937 rng(11);
    hash_t* t = hash_create(3, item_hash, item_equal, item_free);
    std::map<std::string, std::pair<item*, uint32_t>> model;  // the stored entry and its refs
    item probe;
    for (int step = 0; step < 5000 && !HasFailure(); ++step) {
        probe.key = "k" + std::to_string(rng() % 7);
        auto it = model.find(probe.key);
        hash_entry_t* const stored = it == model.end() ? nullptr : &it->second.first->head;
        const uint32_t n = rng() % 3;
        SCOPED_TRACE("step " + std::to_string(step));
        switch (rng() % 4) {
            case 0: {  // an equal stored entry wins and takes the count
                item* fresh = make(probe.key);
                EXPECT_EQ(hash_get_or_add(t, &fresh->head, n), stored ? stored : &fresh->head);
                if (stored) {
                    delete fresh;
                    it->second.second += n;
                } else {
                    model[probe.key] = {fresh, n};
                }
                break;
            }
            case 1:
                EXPECT_EQ(hash_find(t, &probe, n), stored);
                if (stored) it->second.second += n;
                break;
            case 2:  // refs never go below zero
                if (stored) hash_unref(t, stored), it->second.second -= it->second.second > 0;
                break;
            case 3: {  // remove_idle takes only an idle entry
                const bool idle_only = rng() % 2, gone = stored && (!idle_only || it->second.second == 0);
                EXPECT_EQ(idle_only ? hash_remove_idle(t, &probe) : hash_remove(t, &probe), gone ? stored : nullptr);
                EXPECT_TRUE(!gone || (!stored->next && !stored->prev));
                if (gone) delete it->second.first, model.erase(it);
                break;
            }
        }
        for (auto& [key, entry] : model) EXPECT_EQ(entry.first->head.refs, entry.second) << key;
        EXPECT_EQ(hash_count(t), model.size());
    }
    freed = 0;
    hash_clear(t);
    EXPECT_EQ(freed, static_cast<int>(model.size()));
    EXPECT_EQ(hash_count(t), 0u);
    hash_free(t);
}

}  // namespace
