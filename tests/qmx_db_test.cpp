// Verdict cache: references, the query decision, reply import, the cleaner's
// fill-dependent ageing and concurrent use.
#include "qmx_db.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "ctrl_capture.h"
#include "qmxsrv_ctx.h"
#include "test_util.h"
#include "util/clock.h"
#include "util/timing.h"

namespace {

using namespace std::chrono_literals;

std::atomic<int32_t> fake_now{1'000'000};

// Enough passes of 200 buckets to visit all 512 from any cursor.
void clean_everything() {
    for (int i = 0; i < 3; ++i) db_clean_pass();
}

// Adds `n` entries "<prefix><i>" of type 20 without keeping references.
void add_many(const std::string& prefix, int n) {
    for (int i = 0; i < n; ++i) ASSERT_NE(db_get_or_add(20, (prefix + std::to_string(i)).c_str(), 0), nullptr);
}

class Db : public ::testing::Test {
protected:
    void SetUp() override {
        fake_now = 1'000'000;
        clock_set_source([] { return int64_t{fake_now.load()}; });
        qmxsrv_ctx.db_capacity = 2000;
        restart(1h);  // passes run only when a test asks
    }
    void TearDown() override {
        db_release();
        clock_set_source(nullptr);
        timing_set(zor_timing{});
    }
    static void restart(std::chrono::milliseconds clean_interval) {
        db_release();
        timing_set(zor_timing{.cache_clean = clean_interval});
        ASSERT_EQ(db_init(), 0);
    }
};

// One entry per (type, key). The cleaner only takes entries nobody holds;
// db_put must find the entry's bucket again from its key text, or the entry
// would stay held for ever.
TEST_F(Db, ReferencesKeepEntriesAndPutReleasesThem) {
    verdict_entry* held = db_get_or_add(20, "held.example", 1);
    ASSERT_NE(held, nullptr);
    EXPECT_EQ(db_get_or_add(20, "held.example", 1), held);
    verdict_entry* found = db_get_or_add(21, "held.example", 0);
    EXPECT_NE(found, held);
    EXPECT_EQ(db_find(21, "held.example"), found);
    for (auto [type, key] : {std::pair{20u, "held.exampl"}, {22u, "held.example"}, {20u, nullptr}})
        EXPECT_EQ(db_find(type, key), nullptr) << type << (key ? key : "null");
    EXPECT_EQ(db_get_or_add(20, nullptr, 1), nullptr);
    fake_now += 86401;
    clean_everything();
    EXPECT_EQ(db_count(), 2u);
    for (verdict_entry* e : {held, held, found, static_cast<verdict_entry*>(nullptr)}) db_put(e);
    clean_everything();
    EXPECT_EQ(db_count(), 0u);

}

// However fast new keys come, the cache stops growing at 8 times its
// capacity until the cleaner makes room; keys it holds are still found.
TEST_F(Db, NewKeysAreRefusedAtEightTimesTheCapacity) {
    qmxsrv_ctx.db_capacity = 10;
    add_many("k", 80);
    EXPECT_EQ(db_get_or_add(20, "one-more", 0), nullptr);
    EXPECT_NE(db_get_or_add(20, "k7", 0), nullptr);
    verdict_entry* held = db_get_or_add(20, "k9", 1);
    ASSERT_NE(held, nullptr);
    db_put(held);
    EXPECT_EQ(db_count(), 80u);
    fake_now += 86401;
    clean_everything();
    EXPECT_NE(db_get_or_add(20, "one-more", 0), nullptr);
    qmxsrv_ctx.db_capacity = 2000;
}

// Without a verdict: once per day. With one, the decision compares the ttl
// with verdict_time - now, so only a clock that went back further than the
// ttl (3600 s here) asks again.
TEST_F(Db, ShouldQueryStampsOncePerDayUntilAVerdictIsHeld) {
    verdict_entry* e = db_get_or_add(20, "v.example", 1);
    ASSERT_NE(e, nullptr);
    auto expect_steps = [&](std::initializer_list<std::pair<int32_t, int>> steps) {
        for (auto [advance, expected] : steps) {
            fake_now += advance;
            EXPECT_EQ(db_should_query(e), expected) << "at +" << fake_now - 1'000'000;
        }
    };
    expect_steps({{0, 1}, {0, 0}, {86400, 0}, {1, 1}, {0, 0}, {86401, 1}, {-10, 0}});
    ctrl_capture rec;
    ASSERT_EQ(db_add_reply(R"({"r":{"v.example":[20,1,0,1,2,3]}})"), 0);
    expect_steps({{50000, 0}, {-50000 - 3600, 0}, {-1, 1}});  // exactly the ttl back, then one more
    EXPECT_EQ(db_flag_bit1(e), 0);
    db_put(e);
}

// Only keys already cached take a verdict, and only a well-formed one; each
// stored verdict goes to the module; the flags stay as they were. A reply
// that is missing or not JSON is refused with its own code.
TEST_F(Db, AddReplyFillsOnlyCachedKeysWithWellFormedVerdicts) {
    const std::tuple<uint32_t, const char*, int32_t, int32_t, int32_t> wants[] = {
        {20, "a.example", 7200, 3, 4},   {20, "b.example", 0, 0, 0},   {21, "10.0.0.1", 0, 0, 0},
        {21, "10.0.0.2", 3600, 5, 6},    {20, "bad.example", 0, 0, 0}, {20, "str.example", 0, 0, 0},
        {20, "neg.example", 3600, -1, 2}, {20, "big.example", INT32_MAX, 1, 1},
    };
    for (auto [type, key, ttl, group, sub] : wants) db_get_or_add(type, key, 0);
    ctrl_capture rec;
    EXPECT_EQ(db_add_reply(R"({"r":{"a.example":[20,1,7,2,3,4],"b.example":[20,1,7,2,3],
        "unknown.example":[20,1,7,1,1,1],"10.0.0.1":[21,65536,0,1,5,6],"10.0.0.2":[21,65535,0,1,5,6],
        "bad.example":[20,1,7,"2",3,4],"str.example":["20",1,7,2,3,4],"neg.example":[20,1,0,1,-1,2],
        "big.example":[20,0,0,1000000,1,1],"obj.example":{"x":1}}})"),
              0);
    EXPECT_EQ(db_add_reply(nullptr), 5);
    EXPECT_EQ(db_add_reply("{"), 3);
    EXPECT_EQ(db_add_reply(R"({"r":[]})"), 0);
    std::vector<std::string> expected;
    for (const char* t : {"1 20 a.example 7200 3 4", "1 21 10.0.0.2 3600 5 6", "1 20 big.example 2147483647 1 1"})
        expected.push_back(std::string("db key2group update ") + t);
    EXPECT_EQ(rec.lines(), expected);
    EXPECT_EQ(db_count(), std::size(wants));  // the reply never creates entries
    for (auto [type, key, ttl, group, sub] : wants) {
        verdict_entry* e = db_find(type, key);
        ASSERT_NE(e, nullptr) << key;
        const db_verdict v = db_entry_verdict(e);
        EXPECT_EQ(std::tie(v.ttl, v.group, v.sub_group), std::tie(ttl, group, sub)) << key;
        EXPECT_EQ(db_flag_bit1(e), 0) << key;
        db_put(e);
    }
}

// Idle entries go once their idle time since the last lookup exceeds the
// limit for the fill level (count * 100 / 2000); one second less and they
// stay.
TEST_F(Db, CleanerAgesByFillLevel) {
    for (auto [count, max_idle] : {std::pair{1400, 86400}, {1420, 300}, {1600, 300}, {1620, 150}, {1800, 150}, {1820, 30}}) {
        restart(1h);
        db_get_or_add(20, "stale.example", 0);
        db_get_or_add(20, "edge.example", 0);
        fake_now += 1;
        db_put(db_find(20, "edge.example"));  // a lookup restarts the idle clock
        fake_now += max_idle;                 // stale idle max + 1, edge exactly max
        add_many("fresh", count - 2);
        clean_everything();
        EXPECT_EQ(db_count(), static_cast<uint32_t>(count - 1)) << count;
        verdict_entry* edge = db_find(20, "edge.example");
        EXPECT_NE(edge, nullptr) << count;
        db_put(edge);
        EXPECT_EQ(db_find(20, "stale.example"), nullptr) << count;
    }
}

// The cleaner thread runs on its period; release stops it, is safe twice,
// and leaves a fresh table for the next start.
TEST_F(Db, CleanerThreadRunsOnItsPeriodAndReleaseStopsIt) {
    restart(10ms);
    add_many("idle", 50);
    fake_now += 86401;
    EXPECT_TRUE(zor_test::eventually([] { return db_count() == 0; }));
    db_put(db_get_or_add(20, "x.example", 1));
    db_release();
    db_release();
    db_wake();
    EXPECT_EQ(db_add_reply(R"({"r":{}})"), 40);
    EXPECT_EQ(db_find(20, "x.example"), nullptr);
    EXPECT_EQ(db_get_or_add(20, "x.example", 1), nullptr);
    ASSERT_EQ(db_init(), 0);
    EXPECT_EQ(db_find(20, "x.example"), nullptr);
}

// Workers, the reply import and a cleaner running flat out share the table;
// every reference is returned, so everything ages out at the end.
TEST_F(Db, ConcurrentUseKeepsReferencesBalanced) {
    restart(1ms);
    ctrl_capture rec;
    std::atomic<bool> stop{false};
    std::thread importer([&] {
        while (!stop.load()) {
            db_add_reply(R"({"r":{"k1.example":[20,1,0,1,2,3],"k2.example":[20,1,0,2,3,4]}})");
            fake_now += 3000;  // everything idle goes now and then
            (void)db_show();
        }
    });
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t) {
        workers.emplace_back([t] {
            for (int i = 0; i < 3000; ++i) {
                const std::string key = "k" + std::to_string((i * 7 + t) % 97) + ".example";
                verdict_entry* e = db_find(20, key.c_str());
                if (!e) e = db_get_or_add(20, key.c_str(), 1);
                ASSERT_NE(e, nullptr);
                if (db_flag_bit1(e) == 0) (void)db_entry_verdict(e);
                (void)db_should_query(e);
                db_put(e);
            }
        });
    }
    for (std::thread& w : workers) w.join();
    stop = true;
    importer.join();
    fake_now += 86401;
    clean_everything();
    EXPECT_EQ(db_count(), 0u);
}

}  // namespace
