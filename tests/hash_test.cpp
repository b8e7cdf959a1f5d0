#include "util/hash.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

// An intrusive element, as the verdict cache builds them.
struct item {
    hash_entry_t head;
    std::string key;
    int tag = 0;
};

uint32_t item_hash(const void* p) { return hash_string(static_cast<const item*>(p)->key.c_str()); }

int item_equal(const void* key, const void* stored) {
    return static_cast<const item*>(key)->key == static_cast<const item*>(stored)->key;
}

std::atomic<int> freed{0};
void item_free(void* p) {
    ++freed;
    delete static_cast<item*>(p);
}

item* make(const std::string& key, int tag = 0) {
    item* it = new item;
    it->key = key;
    it->tag = tag;
    return it;
}

hash_entry_t* entry(item* it) { return &it->head; }
item* as_item(hash_entry_t* e) { return reinterpret_cast<item*>(e); }

// A table that frees whatever it still holds.
struct table_fixture : ::testing::Test {
    hash_t* table = hash_create(8, item_hash, item_equal, item_free);
    void SetUp() override {
        ASSERT_NE(table, nullptr);
        freed = 0;
    }
    void TearDown() override {
        hash_clear(table);
        hash_free(table);
    }
};

TEST(HashString, MatchesTheReferenceValues) {
    struct hash_case {
        const char* text;
        uint32_t expected;
    };
    const hash_case cases[] = {
        {nullptr, 0},
        {"", 0},
        {"a", 124608},
        {"ab", 127839770u},
        {"example.com", 2269119437u},
        {"\xe9t\xe9", 1128064},  // high bytes are taken as signed
    };
    for (const hash_case& c : cases) {
        SCOPED_TRACE(c.text ? c.text : "(null)");
        EXPECT_EQ(hash_string(c.text), c.expected);
    }
    EXPECT_EQ(hash_string(std::string(300, 'x').c_str()), 2507899663u);
}

TEST(HashCreate, RefusesUnusableArguments) {
    EXPECT_EQ(hash_create(0, item_hash, item_equal, nullptr), nullptr);
    EXPECT_EQ(hash_create(4, nullptr, item_equal, nullptr), nullptr);
    EXPECT_EQ(hash_create(4, item_hash, nullptr, nullptr), nullptr);
    hash_t* t = hash_create(3, item_hash, item_equal, nullptr);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->bucket_count, 3u);
    for (uint32_t i = 0; i < 3; ++i) EXPECT_NE(t->buckets[i], nullptr);
    hash_free(t);
    hash_free(nullptr);
    hash_destroy(nullptr);
}

TEST_F(table_fixture, GetOrAddTwiceKeepsTheFirstEntryAndAddsBothCounts) {
    item* first = make("example.com");
    item* second = make("example.com");
    EXPECT_EQ(hash_get_or_add(table, entry(first), 1), entry(first));
    EXPECT_EQ(hash_get_or_add(table, entry(second), 2), entry(first));
    EXPECT_EQ(first->head.refs, 3u);
    EXPECT_EQ(second->head.refs, 0u);
    EXPECT_EQ(hash_count(table), 1u);
    delete second;
}

TEST_F(table_fixture, FindAddsReferencesAndMissesGiveNull) {
    item* stored = make("a.example");
    hash_add(table, entry(stored), 0);
    item probe;
    probe.key = "a.example";
    EXPECT_EQ(hash_find(table, &probe, 2), entry(stored));
    EXPECT_EQ(stored->head.refs, 2u);
    probe.key = "b.example";
    EXPECT_EQ(hash_find(table, &probe, 1), nullptr);
    EXPECT_EQ(hash_find(nullptr, &probe, 1), nullptr);
    EXPECT_EQ(hash_find(table, nullptr, 1), nullptr);
}

TEST_F(table_fixture, AddPutsTheNewestEqualEntryFirst) {
    item* older = make("dup", 1);
    item* newer = make("dup", 2);
    hash_add(table, entry(older), 0);
    hash_add(table, entry(newer), 0);
    EXPECT_EQ(hash_count(table), 2u);
    item probe;
    probe.key = "dup";
    EXPECT_EQ(as_item(hash_find(table, &probe, 0))->tag, 2);
}

TEST_F(table_fixture, RemoveIdleRefusesAReferencedEntryAndLeavesItInPlace) {
    item* it = make("busy");
    hash_add(table, entry(it), 1);
    item probe;
    probe.key = "busy";
    EXPECT_EQ(hash_remove_idle(table, &probe), nullptr);
    EXPECT_EQ(hash_find(table, &probe, 0), entry(it));
    hash_unref(table, entry(it));
    EXPECT_EQ(it->head.refs, 0u);
    hash_entry_t* removed = hash_remove_idle(table, &probe);
    ASSERT_EQ(removed, entry(it));
    EXPECT_EQ(removed->next, nullptr);
    EXPECT_EQ(removed->prev, nullptr);
    EXPECT_EQ(hash_count(table), 0u);
    delete it;
}

TEST_F(table_fixture, RemoveIdleLooksAtTheFirstMatchOnly) {
    item* idle = make("twice", 1);
    item* busy = make("twice", 2);
    hash_add(table, entry(idle), 0);
    hash_add(table, entry(busy), 1);  // newest, so matched first
    item probe;
    probe.key = "twice";
    EXPECT_EQ(hash_remove_idle(table, &probe), nullptr);
    EXPECT_EQ(hash_count(table), 2u);
}

TEST_F(table_fixture, RemoveDetachesRegardlessOfReferences) {
    item* keep = make("keep");
    item* gone = make("gone");
    hash_add(table, entry(keep), 0);
    hash_add(table, entry(gone), 5);
    item probe;
    probe.key = "gone";
    EXPECT_EQ(hash_remove(table, &probe), entry(gone));
    EXPECT_EQ(hash_remove(table, &probe), nullptr);
    EXPECT_EQ(hash_count(table), 1u);
    probe.key = "keep";
    EXPECT_EQ(hash_find(table, &probe, 0), entry(keep));
    delete gone;
}

TEST_F(table_fixture, UnrefNeverGoesBelowZero) {
    item* it = make("k");
    hash_add(table, entry(it), 0);
    hash_unref(table, entry(it));
    EXPECT_EQ(it->head.refs, 0u);
    hash_ref(table, entry(it));
    hash_ref(table, entry(it));
    hash_unref(table, entry(it));
    EXPECT_EQ(it->head.refs, 1u);
}

TEST_F(table_fixture, CountSpansBucketsAndIndexIsHashModuloBuckets) {
    std::vector<std::string> keys;
    for (int i = 0; i < 40; ++i) keys.push_back("host" + std::to_string(i) + ".example");
    std::vector<int> per_bucket(table->bucket_count);
    for (const std::string& k : keys) {
        item* it = make(k);
        hash_add(table, entry(it), 0);
        uint32_t index = hash_bucket_index(table, it);
        EXPECT_EQ(index, hash_string(k.c_str()) % 8);
        per_bucket[index]++;
    }
    EXPECT_EQ(hash_count(table), 40u);
    for (uint32_t i = 0; i < table->bucket_count; ++i)
        EXPECT_EQ(list_count(table->buckets[i]), static_cast<uint32_t>(per_bucket[i]));
}

TEST_F(table_fixture, ClearHandsEveryEntryToTheFreeCallback) {
    for (int i = 0; i < 20; ++i) hash_add(table, entry(make("k" + std::to_string(i))), 0);
    hash_clear(table);
    EXPECT_EQ(freed.load(), 20);
    EXPECT_EQ(hash_count(table), 0u);
}

TEST_F(table_fixture, VisitDetachesAndFreesTheChosenEntries) {
    hash_t* one = hash_create(1, item_hash, item_equal, item_free);
    for (int i = 0; i < 6; ++i) hash_add(one, entry(make("k", i)), 0);
    std::vector<int> order;
    hash_visit_bucket(one, 0, [&](hash_entry_t* e) {
        order.push_back(as_item(e)->tag);
        return as_item(e)->tag % 2;
    });
    EXPECT_EQ(order, (std::vector<int>{5, 4, 3, 2, 1, 0}));
    EXPECT_EQ(freed.load(), 3);
    order.clear();
    hash_visit_bucket(one, 0, [&](hash_entry_t* e) {
        order.push_back(as_item(e)->tag);
        return 0;
    });
    EXPECT_EQ(order, (std::vector<int>{4, 2, 0}));
    hash_visit_bucket(one, 1, [](hash_entry_t*) { return 1; });  // no such bucket
    EXPECT_EQ(hash_count(one), 3u);
    hash_clear(one);
    hash_free(one);
}

// Wrapped tables hold plain C strings.
uint32_t text_hash(const void* p) { return hash_string(static_cast<const char*>(p)); }
int text_equal(const void* a, const void* b) {
    return strcmp(static_cast<const char*>(a), static_cast<const char*>(b)) == 0;
}
void text_free(void* p) {
    ++freed;
    free(p);
}

TEST(HashWrapped, ItemsAreFoundAddedRemovedAndDestroyed) {
    freed = 0;
    hash_t* t = hash_create(4, text_hash, text_equal, text_free);
    ASSERT_NE(t, nullptr);
    char* a = strdup("alpha");
    char* a2 = strdup("alpha");
    EXPECT_EQ(hash_get_or_add_item(t, a), a);
    EXPECT_EQ(hash_get_or_add_item(t, a2), a);
    free(a2);
    for (const char* s : {"beta", "gamma", "delta"}) hash_get_or_add_item(t, strdup(s));
    EXPECT_EQ(hash_count(t), 4u);
    EXPECT_EQ(hash_find_item(t, "alpha"), a);
    EXPECT_EQ(hash_find_item(t, "omega"), nullptr);
    char* removed = static_cast<char*>(hash_remove_item(t, "beta"));
    ASSERT_NE(removed, nullptr);
    EXPECT_STREQ(removed, "beta");
    free(removed);
    EXPECT_EQ(hash_remove_item(t, "beta"), nullptr);
    EXPECT_EQ(hash_count(t), 3u);
    hash_destroy(t);
    EXPECT_EQ(freed.load(), 3);
}

TEST(HashConcurrency, SharedKeysEndWithOneEntryEachAndNoReferencesLeft) {
    hash_t* t = hash_create(4, item_hash, item_equal, item_free);
    ASSERT_NE(t, nullptr);
    freed = 0;
    constexpr int kKeys = 50;
    constexpr int kThreads = 4;
    std::atomic<int> losers{0};
    std::vector<std::thread> threads;
    for (int th = 0; th < kThreads; ++th) {
        threads.emplace_back([&] {
            for (int round = 0; round < 20; ++round) {
                for (int k = 0; k < kKeys; ++k) {
                    item* fresh = make("key" + std::to_string(k));
                    hash_entry_t* got = hash_get_or_add(t, entry(fresh), 1);
                    if (got != entry(fresh)) {
                        delete fresh;
                        ++losers;
                    }
                    hash_ref(t, got);
                    hash_unref(t, got);
                    hash_unref(t, got);
                }
            }
        });
    }
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(hash_count(t), static_cast<uint32_t>(kKeys));
    EXPECT_EQ(losers.load(), kThreads * 20 * kKeys - kKeys);
    for (int k = 0; k < kKeys; ++k) {
        item probe;
        probe.key = "key" + std::to_string(k);
        hash_entry_t* e = hash_remove_idle(t, &probe);
        ASSERT_NE(e, nullptr) << probe.key << " still referenced or missing";
        item_free(e);
    }
    EXPECT_EQ(hash_count(t), 0u);
    hash_free(t);
}

}  // namespace
