// The locked list and the hash table built on it: random operations against
// a plain model, the null and empty edges, and the invariants under threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <future>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "util/hash.h"
#include "util/list.h"

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

// Edits through every entry point against a deque of nodes; each round ends
// draining (nodes detached, never freed) or clearing (only real data reaches
// the callback).
TEST(List, RandomOperationsMatchADequeModel) {
    std::mt19937 rng(7);
    for (int round = 0; round < 4; ++round) {
        list_t* l = list_create();
        list_push_front_nolock(l, nullptr), list_unlink_nolock(l, nullptr), list_insert_before(l, nullptr, nullptr);
        std::deque<list_node_t*> model;
        auto take = [&](bool front) {  // what a pop must return, removed from the model
            if (model.empty()) return static_cast<list_node_t*>(nullptr);
            list_node_t* n = front ? model.front() : model.back();
            front ? model.pop_front() : model.pop_back();
            return n;
        };
        for (int step = 0; step < 5000 && !HasFailure(); ++step) {
            list_node_t* fresh = list_node_new(rng() % 8 ? &values[rng() % 64] : nullptr);
            list_node_t* any = model.empty() ? nullptr : model[rng() % model.size()];
            list_node_t *out = nullptr, *want = nullptr;
            const int op = rng() % 10;
            const bool front = rng() % 2, locked = rng() % 2;
            SCOPED_TRACE("round " + std::to_string(round) + " step " + std::to_string(step) + " op " + std::to_string(op));
            if (op < 2) {
                (front ? (locked ? list_push_front : list_push_front_nolock) : (locked ? list_append : list_append_nolock))(l, fresh);
                front ? model.push_front(std::exchange(fresh, nullptr)) : model.push_back(std::exchange(fresh, nullptr));
            } else if (op == 2) {  // before a random node, or appended when there is none
                model.insert(std::find(model.begin(), model.end(), any), fresh);
                list_insert_before(l, any, std::exchange(fresh, nullptr));
            } else if (op == 3) {
                void* data = model.empty() ? nullptr : (front ? model.front() : model.back())->data;
                EXPECT_EQ(front ? list_pop_front(l) : list_pop_back(l), data);
                take(front);  // the pop freed the node
            } else if (op == 4) {
                out = front ? (locked ? list_pop_front_node : list_pop_front_node_nolock)(l)
                            : (locked ? list_pop_back_node : list_pop_back_node_nolock)(l);
                EXPECT_EQ(out, want = take(front));
            } else if (op < 7 && any) {
                model.erase(std::find(model.begin(), model.end(), any));
                if (op == 5) (locked ? list_unlink : list_unlink_nolock)(l, out = want = any);
                if (op == 6) (front ? list_move_to_front : list_move_to_back)(l, any);
                if (op == 6) front ? model.push_front(any) : model.push_back(any);
            } else if (op >= 7) {
                uint32_t i = rng() % (model.size() + 2);
                EXPECT_EQ(list_node_at(l, i), i < model.size() ? model[i] : nullptr);
                EXPECT_EQ(list_get(l, i), i < model.size() ? model[i]->data : nullptr);
            }
            EXPECT_TRUE(!want || detached(out));
            list_node_free(out);
            list_node_free(fresh);
            std::vector<void*> data;
            for (list_node_t* n : model) data.push_back(n->data);
            EXPECT_EQ(contents(l), data);
            EXPECT_EQ(list_first(l), model.empty() ? nullptr : model.front());
        }
        static std::vector<void*> seen;
        std::vector<void*> want;
        seen.clear();
        for (list_node_t* n : model)
            if (n->data) want.push_back(n->data);
        // Without a callback the data stay with their owner (here: static).
        (round % 2 ? list_drain : list_clear)(l, round < 2 ? [](void* p) { seen.push_back(p); } : list_free_cb{});
        for (list_node_t* n : model) {  // drained nodes are still the caller's
            EXPECT_TRUE(round % 2 == 0 || detached(n));
            if (round % 2) list_node_free(n);
        }
        EXPECT_EQ(seen, round < 2 ? want : std::vector<void*>{});
        EXPECT_TRUE(contents(l).empty());
        list_free(l);
    }
    list_free(nullptr), list_node_free(nullptr), list_clear(nullptr, nullptr), list_drain(nullptr, nullptr);
    list_append_nolock(nullptr, nullptr), list_insert_before(nullptr, nullptr, nullptr), list_move_to_front(nullptr, nullptr);
    EXPECT_TRUE(list_count(nullptr) == 0 && !list_first(nullptr) && !list_get(nullptr, 0) && !list_pop_front(nullptr));
}

// An empty list is answered from its count, never by waiting for the mutex.
TEST(List, PopOnEmptyListNeverWaitsForTheMutex) {
    list_t* l = list_create();
    std::unique_lock<std::mutex> held(l->lock);
    auto pops = std::async(std::launch::async, [&] {
        return !list_pop_front(l) && !list_pop_back(l) && !list_pop_front_node(l) && !list_pop_back_node(l);
    });
    bool finished = pops.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    held.unlock();  // lets a wrongly blocked pop finish before the list goes
    EXPECT_TRUE(finished) << "a pop on an empty list waited for the mutex";
    EXPECT_TRUE(pops.get());
    list_free(l);
}

TEST(List, ConcurrentPushAndPopLoseAndDuplicateNothing) {
    constexpr int kPer = 5000, kTotal = 4 * kPer;
    list_t* l = list_create();
    std::vector<int> items(kTotal);
    std::vector<std::atomic<int>> received(kTotal);
    std::atomic<int> popped{0};
    std::vector<std::thread> threads;
    for (int p = 0; p < 4; ++p)  // half push at each end
        threads.emplace_back([&, p] {
            for (int i = p * kPer; i < (p + 1) * kPer; ++i)
                (p % 2 ? list_push_front : list_append)(l, list_node_new(&(items[i] = i)));
        });
    for (int c = 0; c < 3; ++c)
        threads.emplace_back([&, c] {
            while (popped.load() < kTotal)
                if (void* data = c == 0 ? list_pop_back(l) : list_pop_front(l)) received[*static_cast<int*>(data)]++, popped++;
        });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(std::count_if(received.begin(), received.end(), [](auto& r) { return r.load() != 1; }), 0);
    EXPECT_TRUE(contents(l).empty());
    list_free(l);
}

// An intrusive element, as the verdict cache builds them.
struct item {
    hash_entry_t head;
    std::string key;
    int tag = 0;
};
uint32_t item_hash(const void* p) { return hash_string(static_cast<const item*>(p)->key.c_str()); }
int item_equal(const void* a, const void* b) { return static_cast<const item*>(a)->key == static_cast<const item*>(b)->key; }
std::atomic<int> freed{0};
void item_free(void* p) { ++freed, delete static_cast<item*>(p); }
item* make(const std::string& key, int tag = 0) { return new item{{}, key, tag}; }
item* as_item(hash_entry_t* e) { return reinterpret_cast<item*>(e); }

TEST(Hash, StringHashReferenceValuesAndRefusedTables) {
    struct { const char* text; uint32_t want; } cases[] = {
        {nullptr, 0}, {"", 0}, {"a", 124608}, {"ab", 127839770u}, {"example.com", 2269119437u},
        {"\xe9t\xe9", 1128064}};  // high bytes are taken as signed
    for (const auto& c : cases) EXPECT_EQ(hash_string(c.text), c.want) << (c.text ? c.text : "(null)");
    EXPECT_EQ(hash_string(std::string(300, 'x').c_str()), 2507899663u);
    EXPECT_EQ(hash_create(0, item_hash, item_equal, nullptr), nullptr);
    EXPECT_EQ(hash_create(4, nullptr, item_equal, nullptr), nullptr);
    EXPECT_EQ(hash_create(4, item_hash, nullptr, nullptr), nullptr);
    hash_free(nullptr);
    hash_destroy(nullptr);
    item probe{{}, "k"};
    EXPECT_EQ(hash_find(nullptr, &probe, 1), nullptr);
}

// Entries under a few shared keys, reference counts and all, against a model
// that keeps each key's entries newest first.
TEST(Hash, RandomOperationsMatchAModel) {
    std::mt19937 rng(11);
    hash_t* t = hash_create(3, item_hash, item_equal, item_free);
    std::map<std::string, std::deque<item*>> model;
    std::map<item*, uint32_t> refs;
    std::vector<std::unique_ptr<item>> unstored;
    item probe;
    EXPECT_EQ(hash_find(t, nullptr, 1), nullptr);
    for (int step = 0; step < 5000 && !HasFailure(); ++step) {
        probe.key = "k" + std::to_string(rng() % 7);
        std::deque<item*>& same = model[probe.key];
        item* first = same.empty() ? nullptr : same.front();
        hash_entry_t* const first_entry = first ? &first->head : nullptr;
        const uint32_t n = rng() % 3;
        SCOPED_TRACE("step " + std::to_string(step));
        switch (rng() % 6) {
            case 0:
                same.push_front(make(probe.key));
                hash_add(t, &same.front()->head, refs[same.front()] = n);
                break;
            case 1: {  // an equal stored entry wins and takes the count
                item* fresh = make(probe.key);
                EXPECT_EQ(hash_get_or_add(t, &fresh->head, n), first ? first_entry : &fresh->head);
                first ? void(unstored.emplace_back(fresh)) : (same.push_front(fresh), void(refs[fresh] = 0));
                refs[same.front()] += n;
                break;
            }
            case 2:
                EXPECT_EQ(hash_find(t, &probe, n), first_entry);
                if (first) refs[first] += n;
                break;
            case 3:  // refs never go below zero
                if (first) (n ? hash_ref : hash_unref)(t, first_entry);
                if (first) refs[first] = n ? refs[first] + 1 : refs[first] - (refs[first] > 0);
                break;
            case 4: case 5: {  // both take the first match; remove_idle only when it is idle
                const bool idle_only = rng() % 2, gone = first && (!idle_only || refs[first] == 0);
                EXPECT_EQ(idle_only ? hash_remove_idle(t, &probe) : hash_remove(t, &probe), gone ? first_entry : nullptr);
                EXPECT_TRUE(!gone || (!first->head.next && !first->head.prev));
                if (gone) unstored.emplace_back(first), refs.erase(first), same.pop_front();
                break;
            }
        }
        uint32_t total = 0;
        for (auto& [key, list] : model) {
            total += list.size();
            for (item* it : list) EXPECT_EQ(it->head.refs, refs[it]) << key;
        }
        EXPECT_EQ(hash_count(t), total);
    }
    std::vector<uint32_t> per_bucket(3);
    for (auto& [key, list] : model)
        for (item* it : list) per_bucket[hash_string(key.c_str()) % 3] += hash_bucket_index(t, it) == hash_string(key.c_str()) % 3;
    for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(list_count(t->buckets[i]), per_bucket[i]);
    const uint32_t stored = hash_count(t);
    freed = 0;
    hash_clear(t);
    EXPECT_EQ(freed.load(), static_cast<int>(stored));
    EXPECT_EQ(hash_count(t), 0u);
    hash_free(t);
}

TEST(Hash, VisitFreesTheChosenEntriesAndWrappedItemsWork) {
    hash_t* one = hash_create(1, item_hash, item_equal, item_free);
    for (int i = 0; i < 6; ++i) hash_add(one, &make("k", i)->head, 0);
    freed = 0;
    for (std::vector<int> want : {std::vector<int>{5, 4, 3, 2, 1, 0}, {4, 2, 0}}) {  // newest first
        std::vector<int> order;
        hash_visit_bucket(one, 0, [&](hash_entry_t* e) { return order.push_back(as_item(e)->tag), as_item(e)->tag % 2; });
        EXPECT_EQ(order, want);
    }
    hash_visit_bucket(one, 1, [](hash_entry_t*) { return 1; });  // no such bucket
    EXPECT_TRUE(freed == 3 && hash_count(one) == 3u);
    hash_clear(one), hash_free(one);
    hash_t* t = hash_create(4, [](const void* p) { return hash_string(static_cast<const char*>(p)); },
                            [](const void* a, const void* b) { return int(strcmp(static_cast<const char*>(a), static_cast<const char*>(b)) == 0); },
                            [](void* p) { ++freed, free(p); });
    char *a = strdup("alpha"), *a2 = strdup("alpha"), *b = strdup("beta");
    EXPECT_TRUE(hash_get_or_add_item(t, a) == a && hash_get_or_add_item(t, a2) == a && hash_get_or_add_item(t, b) == b);
    EXPECT_TRUE(hash_find_item(t, "alpha") == a && !hash_find_item(t, "omega"));
    EXPECT_TRUE(hash_remove_item(t, "beta") == b && !hash_remove_item(t, "beta"));
    free(a2), free(b), freed = 0;
    hash_destroy(t);
    EXPECT_EQ(freed.load(), 1);
}

TEST(Hash, SharedKeysFromManyThreadsEndWithOneIdleEntryEach) {
    hash_t* t = hash_create(4, item_hash, item_equal, item_free);
    constexpr int kKeys = 50, kThreads = 4, kRounds = 20;
    std::atomic<int> losers{0};
    std::vector<std::thread> threads;
    for (int th = 0; th < kThreads; ++th)
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds * kKeys; ++i) {
                item* fresh = make("key" + std::to_string(i % kKeys));
                hash_entry_t* got = hash_get_or_add(t, &fresh->head, 1);
                if (got != &fresh->head) delete fresh, ++losers;
                hash_ref(t, got), hash_unref(t, got), hash_unref(t, got);
            }
        });
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(hash_count(t), static_cast<uint32_t>(kKeys));
    EXPECT_EQ(losers.load(), kThreads * kRounds * kKeys - kKeys);
    item probe;
    for (int k = 0; k < kKeys; ++k) {
        probe.key = "key" + std::to_string(k);
        hash_entry_t* e = hash_remove_idle(t, &probe);
        ASSERT_NE(e, nullptr) << probe.key << " still referenced or missing";
        item_free(e);
    }
    hash_free(t);
}

}  // namespace
