#include "util/list.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace {

int values[8] = {0, 1, 2, 3, 4, 5, 6, 7};

// Owns a list and frees whatever nodes are left in it.
struct owned_list {
    list_t* list = list_create();
    ~owned_list() {
        list_clear(list, nullptr);
        list_free(list);
    }
    list_node_t* push_back(int i) {
        list_node_t* node = list_node_new(&values[i]);
        list_append(list, node);
        return node;
    }
};

// The data of every node, read front to back, after checking that the links
// agree in both directions and with the count.
std::vector<int> contents(const list_t* list) {
    std::vector<int> forward;
    const list_node_t* prev = nullptr;
    for (const list_node_t* n = list->head; n; n = n->next) {
        EXPECT_EQ(n->prev, prev);
        forward.push_back(*static_cast<int*>(n->data));
        prev = n;
    }
    EXPECT_EQ(list->tail, prev);
    EXPECT_EQ(list_count(list), forward.size());
    std::vector<int> backward;
    for (const list_node_t* n = list->tail; n; n = n->prev)
        backward.push_back(*static_cast<int*>(n->data));
    std::reverse(backward.begin(), backward.end());
    EXPECT_EQ(forward, backward);
    return forward;
}

void expect_detached(const list_node_t* node) {
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->next, nullptr);
    EXPECT_EQ(node->prev, nullptr);
}

TEST(List, NewListIsEmptyAndNullSafeAccessorsAnswerNothing) {
    owned_list l;
    ASSERT_NE(l.list, nullptr);
    EXPECT_EQ(list_count(l.list), 0u);
    EXPECT_EQ(list_first(l.list), nullptr);
    EXPECT_EQ(list_count(nullptr), 0u);
    EXPECT_EQ(list_first(nullptr), nullptr);
    EXPECT_EQ(list_get(nullptr, 0), nullptr);
    EXPECT_EQ(list_pop_front(nullptr), nullptr);
    EXPECT_EQ(list_pop_back_node(nullptr), nullptr);
    list_free(nullptr);
    list_node_free(nullptr);
    list_push_front_nolock(l.list, nullptr);
    list_append_nolock(nullptr, nullptr);
    list_unlink_nolock(l.list, nullptr);
    list_insert_before(l.list, nullptr, nullptr);
    list_clear(nullptr, nullptr);
    list_drain(nullptr, nullptr);
    EXPECT_EQ(contents(l.list), std::vector<int>{});
}

TEST(List, PushFrontAndAppendKeepBothEndsAndCount) {
    owned_list l;
    l.push_back(2);
    list_push_front(l.list, list_node_new(&values[1]));
    l.push_back(3);
    list_push_front_nolock(l.list, list_node_new(&values[0]));
    list_append_nolock(l.list, list_node_new(&values[4]));
    EXPECT_EQ(contents(l.list), (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(*static_cast<int*>(list_first(l.list)->data), 0);
}

TEST(List, PopsTakeFromTheirEndAndEmptyTheListCompletely) {
    owned_list l;
    for (int i = 0; i < 4; ++i) l.push_back(i);
    EXPECT_EQ(list_pop_front(l.list), &values[0]);
    EXPECT_EQ(list_pop_back(l.list), &values[3]);
    list_node_t* front = list_pop_front_node(l.list);
    expect_detached(front);
    EXPECT_EQ(front->data, &values[1]);
    list_node_free(front);
    list_node_t* back = list_pop_back_node_nolock(l.list);
    expect_detached(back);
    EXPECT_EQ(back->data, &values[2]);
    list_node_free(back);
    EXPECT_EQ(l.list->head, nullptr);
    EXPECT_EQ(l.list->tail, nullptr);
    EXPECT_EQ(list_count(l.list), 0u);
    EXPECT_EQ(list_pop_front(l.list), nullptr);
    EXPECT_EQ(list_pop_back(l.list), nullptr);
    EXPECT_EQ(list_pop_front_node_nolock(l.list), nullptr);
    EXPECT_EQ(list_pop_back_node_nolock(l.list), nullptr);
}

TEST(List, PopOnEmptyListNeverWaitsForTheMutex) {
    owned_list l;
    std::unique_lock<std::mutex> held(l.list->lock);
    auto pops = std::async(std::launch::async, [&] {
        return list_pop_front(l.list) == nullptr && list_pop_back(l.list) == nullptr &&
               list_pop_front_node(l.list) == nullptr && list_pop_back_node(l.list) == nullptr;
    });
    bool finished = pops.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    held.unlock();  // lets a wrongly blocked pop finish before the list goes
    EXPECT_TRUE(finished) << "a pop on an empty list waited for the mutex";
    EXPECT_TRUE(pops.get());
}

TEST(List, GetAndNodeAtIndexFromTheHeadAndStopAtCount) {
    owned_list l;
    l.push_back(5);
    EXPECT_EQ(list_get(l.list, 0), &values[5]);
    EXPECT_EQ(list_get(l.list, 1), nullptr);
    l.push_back(6);
    l.push_back(7);
    EXPECT_EQ(list_get(l.list, 2), &values[7]);
    EXPECT_EQ(list_node_at(l.list, 1)->data, &values[6]);
    EXPECT_EQ(list_node_at(l.list, 3), nullptr);
    EXPECT_EQ(list_get(l.list, UINT32_MAX), nullptr);
}

TEST(List, InsertBeforePlacesTheNodeByTheRule) {
    struct insert_case {
        const char* name;
        int initial;     // nodes 0..initial-1
        int before;      // index of `before`, or -1 for null
        std::vector<int> expected;
    };
    const insert_case cases[] = {
        {"null before on empty list makes the head", 0, -1, {7}},
        {"null before appends", 3, -1, {0, 1, 2, 7}},
        {"before the head pushes front", 3, 0, {7, 0, 1, 2}},
        {"before a middle node links between", 3, 1, {0, 7, 1, 2}},
        {"before the tail", 3, 2, {0, 1, 7, 2}},
    };
    for (const insert_case& c : cases) {
        SCOPED_TRACE(c.name);
        owned_list l;
        std::vector<list_node_t*> nodes;
        for (int i = 0; i < c.initial; ++i) nodes.push_back(l.push_back(i));
        list_insert_before(l.list, c.before < 0 ? nullptr : nodes[c.before],
                           list_node_new(&values[7]));
        EXPECT_EQ(contents(l.list), c.expected);
    }
}

TEST(List, UnlinkDetachesAnyNodeAndRepairsTheEnds) {
    for (int victim = 0; victim < 3; ++victim) {
        SCOPED_TRACE(victim);
        owned_list l;
        std::vector<list_node_t*> nodes = {l.push_back(0), l.push_back(1), l.push_back(2)};
        if (victim == 1)
            list_unlink_nolock(l.list, nodes[1]);
        else
            list_unlink(l.list, nodes[victim]);
        expect_detached(nodes[victim]);
        std::vector<int> expected = {0, 1, 2};
        expected.erase(expected.begin() + victim);
        EXPECT_EQ(contents(l.list), expected);
        list_node_free(nodes[victim]);
    }
    owned_list single;
    list_node_t* only = single.push_back(4);
    list_unlink(single.list, only);
    EXPECT_EQ(single.list->head, nullptr);
    EXPECT_EQ(single.list->tail, nullptr);
    EXPECT_EQ(list_count(single.list), 0u);
    list_node_free(only);
}

TEST(List, MovesReorderWithoutChangingCount) {
    owned_list l;
    std::vector<list_node_t*> n = {l.push_back(0), l.push_back(1), l.push_back(2)};
    list_move_to_front(l.list, n[2]);
    EXPECT_EQ(contents(l.list), (std::vector<int>{2, 0, 1}));
    list_move_to_front(l.list, n[2]);  // already the head
    EXPECT_EQ(contents(l.list), (std::vector<int>{2, 0, 1}));
    list_move_to_back(l.list, n[2]);
    EXPECT_EQ(contents(l.list), (std::vector<int>{0, 1, 2}));
    list_move_to_back(l.list, n[0]);
    EXPECT_EQ(contents(l.list), (std::vector<int>{1, 2, 0}));
    list_move_to_back(l.list, n[0]);  // already the tail
    list_move_to_front(l.list, nullptr);
    EXPECT_EQ(contents(l.list), (std::vector<int>{1, 2, 0}));
}

int freed_count = 0;
void count_free(void* data) {
    ++freed_count;
    delete static_cast<int*>(data);
}

TEST(List, ClearFreesNodesAndPassesOnlyRealDataToTheCallback) {
    owned_list l;
    for (int i = 0; i < 3; ++i) list_append(l.list, list_node_new(new int(i)));
    list_append(l.list, list_node_new(nullptr));
    freed_count = 0;
    list_clear(l.list, count_free);
    EXPECT_EQ(freed_count, 3);
    EXPECT_EQ(list_count(l.list), 0u);
    EXPECT_EQ(l.list->head, nullptr);
    EXPECT_EQ(l.list->tail, nullptr);
}

TEST(List, ClearWithoutCallbackLeavesTheDataToItsOwner) {
    owned_list l;
    int kept[3] = {10, 11, 12};
    for (int& k : kept) list_append(l.list, list_node_new(&k));
    list_clear(l.list, nullptr);
    EXPECT_EQ(list_count(l.list), 0u);
    EXPECT_EQ(kept[0] + kept[1] + kept[2], 33);  // still readable, untouched
}

TEST(List, DrainDetachesButNeverFreesNodes) {
    owned_list l;
    list_node_t nodes[3];  // nodes owned by the test, as elements own theirs
    nodes[0].data = &values[1];
    nodes[2].data = &values[3];
    for (list_node_t& n : nodes) list_append(l.list, &n);
    static std::vector<void*> seen;
    seen.clear();
    list_drain(l.list, [](void* data) { seen.push_back(data); });
    EXPECT_EQ(seen, (std::vector<void*>{&values[1], &values[3]}));
    EXPECT_EQ(list_count(l.list), 0u);
    for (list_node_t& n : nodes) expect_detached(&n);
    // Without a callback the nodes come out just the same.
    for (list_node_t& n : nodes) list_push_front(l.list, &n);
    list_drain(l.list, nullptr);
    EXPECT_EQ(l.list->head, nullptr);
    for (list_node_t& n : nodes) expect_detached(&n);
}

TEST(List, ConcurrentPushAndPopLoseAndDuplicateNothing) {
    constexpr int kProducers = 4;
    constexpr int kPerProducer = 5000;
    constexpr int kTotal = kProducers * kPerProducer;
    owned_list l;
    std::vector<int> items(kTotal);
    std::vector<std::atomic<int>> received(kTotal);
    std::atomic<int> popped{0};

    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([&, p] {
            for (int i = 0; i < kPerProducer; ++i) {
                int index = p * kPerProducer + i;
                items[index] = index;
                list_node_t* node = list_node_new(&items[index]);
                // Half the producers push at each end.
                if (p % 2)
                    list_push_front(l.list, node);
                else
                    list_append(l.list, node);
            }
        });
    }
    for (int c = 0; c < 3; ++c) {
        threads.emplace_back([&, c] {
            while (popped.load() < kTotal) {
                void* data = c == 0 ? list_pop_back(l.list) : list_pop_front(l.list);
                if (!data) {
                    std::this_thread::yield();
                    continue;
                }
                received[*static_cast<int*>(data)]++;
                popped++;
            }
        });
    }
    for (std::thread& t : threads) t.join();

    EXPECT_EQ(popped.load(), kTotal);
    int wrong = 0;
    for (auto& r : received) wrong += r.load() != 1;
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(list_count(l.list), 0u);
    EXPECT_EQ(l.list->head, nullptr);
    EXPECT_EQ(l.list->tail, nullptr);
}

}  // namespace
