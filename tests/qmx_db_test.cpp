// Verdict cache: references, the query decision, reply import, the cleaner's
// fill-dependent ageing and the listing.
#include "qmx_db.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cmd_recorder.h"
#include "qmxsrv_ctx.h"
#include "test_util.h"

namespace {

using namespace std::chrono_literals;

std::atomic<int32_t> fake_now{1'000'000};
int32_t fake_clock() { return fake_now.load(); }

const std::string kGuard = "[ -f /proc/zor/ctrl ] && echo \"";
const std::string kTail = "\" > /proc/zor/ctrl";
std::string line_of(const std::string& text) { return kGuard + text + kTail; }

// Enough passes of 200 buckets to visit all 512 from any cursor.
void clean_everything() {
    for (int i = 0; i < 3; ++i) db_clean_pass();
}

class Db : public ::testing::Test {
protected:
    void SetUp() override {
        fake_now = 1'000'000;
        db_set_clock(fake_clock);
        db_set_clean_interval(1h);  // passes run only when a test asks
        qmxsrv_ctx.db_capacity = 2000;
        ASSERT_EQ(db_init(), 0);
    }
    void TearDown() override {
        db_release();
        db_set_clock(nullptr);
        db_set_clean_interval(5s);
    }
    // Adds `n` entries "<prefix><i>" of type 20 without keeping references.
    static void add_many(const std::string& prefix, int n) {
        for (int i = 0; i < n; ++i)
            ASSERT_NE(db_get_or_add(20, (prefix + std::to_string(i)).c_str(), 0), nullptr);
    }
};

TEST_F(Db, GetOrAddKeepsOneEntryPerTypeAndKey) {
    verdict_entry* a = db_get_or_add(20, "a.example", 1);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(db_get_or_add(20, "a.example", 1), a);
    verdict_entry* a21 = db_get_or_add(21, "a.example", 1);
    EXPECT_NE(a21, a);
    EXPECT_EQ(db_find(20, "a.example"), a);
    EXPECT_EQ(db_find(20, "a.exampl"), nullptr);
    EXPECT_EQ(db_find(22, "a.example"), nullptr);
    EXPECT_EQ(db_count(), 2u);
    EXPECT_EQ(db_get_or_add(20, nullptr, 1), nullptr);
    EXPECT_EQ(db_find(20, nullptr), nullptr);
    for (verdict_entry* e : {a, a, a, a21}) db_put(e);
    db_put(nullptr);
}

// The cleaner only takes entries nobody holds; db_put must find the entry's
// bucket again from its key text, or the entry would stay held for ever.
TEST_F(Db, ReferencesKeepEntriesAndPutReleasesThem) {
    verdict_entry* held = db_get_or_add(20, "held.example", 1);
    verdict_entry* found = db_get_or_add(20, "found.example", 0);
    ASSERT_NE(held, nullptr);
    ASSERT_NE(found, nullptr);
    found = db_find(20, "found.example");
    fake_now += 86401;
    for (int i = 0; i < 5; ++i) clean_everything();
    EXPECT_EQ(db_count(), 2u);
    db_put(held);
    db_put(found);
    clean_everything();
    EXPECT_EQ(db_count(), 0u);

    // A lookup restarts the idle clock.
    add_many("k", 2);
    fake_now += 86000;
    db_put(db_find(20, "k0"));
    fake_now += 401;  // k1 idle 86401 s, k0 only 401 s
    clean_everything();
    EXPECT_EQ(db_count(), 1u);
    verdict_entry* k0 = db_find(20, "k0");
    EXPECT_NE(k0, nullptr);
    db_put(k0);
}

TEST_F(Db, ShouldQueryOncePerDayUntilAVerdictIsHeld) {
    verdict_entry* e = db_get_or_add(20, "q.example", 1);
    ASSERT_NE(e, nullptr);
    struct Step {
        int32_t advance;
        int expected;
    };
    const Step steps[] = {{0, 1}, {0, 0}, {86400, 0}, {1, 1}, {0, 0}, {86401, 1}, {-10, 0}};
    for (const Step& s : steps) {
        fake_now += s.advance;
        EXPECT_EQ(db_should_query(e), s.expected) << "at +" << fake_now - 1'000'000;
    }
    EXPECT_EQ(db_flag_bit1(e), 0);
    db_put(e);
}

// With a stored verdict the decision compares the ttl with verdict_time -
// now, so only a clock that went back further than the ttl asks again.
TEST_F(Db, HeldVerdictIsAskedAgainOnlyWhenTheClockGoesBack) {
    verdict_entry* e = db_get_or_add(20, "v.example", 1);
    ASSERT_EQ(db_should_query(e), 1);
    cmd_recorder rec;
    ASSERT_EQ(db_add_reply(R"({"r":{"v.example":[20,1,0,1,2,3]}})"), 0);
    fake_now += 50000;
    EXPECT_EQ(db_should_query(e), 0);
    fake_now -= 50000 + 3600;
    EXPECT_EQ(db_should_query(e), 0);  // exactly the ttl back
    fake_now -= 1;
    EXPECT_EQ(db_should_query(e), 1);
    db_put(e);
}

// Return codes, and the message of each rejection.
TEST_F(Db, AddReplyReturnCodesAndMessages) {
    struct Case {
        const char* text;
        int rc;
        const char* message;
    };
    const Case cases[] = {
        {nullptr, 5, nullptr},
        {"", 5, nullptr},
        {"{", 3, "QMX_WRONG_JSON"},
        {"not json", 3, "QMX_WRONG_JSON"},
        {"[1,2]", 0, "response has no r key"},
        {R"({"R":{}})", 0, "response has no r key"},
        {R"({"r":1})", 0, "response is not object"},
        {R"({"r":[]})", 0, "response is not object"},
        {R"({"r":{}})", 0, nullptr},
    };
    cmd_recorder rec;
    for (const Case& c : cases) {
        zor_test::log_capture log;
        EXPECT_EQ(db_add_reply(c.text), c.rc) << (c.text ? c.text : "null");
        if (c.message) {
            EXPECT_TRUE(log.contains(c.message)) << c.text;
        }
    }
    // "db add(type,second,third,group,sub,ttl s)" for each well-formed member,
    // cached or not; nothing for a malformed one.
    zor_test::log_capture log;
    db_add_reply(R"({"r":{"n.example":[20,9,8,2,3,4],"m.example":[20,9,8,2,3]}})");
    size_t adds = 0;
    for (const std::string& l : log.lines()) adds += l.find("db add(") != std::string::npos;
    EXPECT_EQ(adds, 1u);
    EXPECT_TRUE(log.contains("db add(20,9,8,3,4,7200)"));
    EXPECT_TRUE(rec.lines().empty());
    db_release();
    EXPECT_EQ(db_add_reply(R"({"r":{}})"), 40);
}

TEST_F(Db, AddReplyFillsOnlyCachedKeysWithWellFormedVerdicts) {
    const char* cached[] = {"a.example", "b.example", "bad.example", "str.example", "neg.example",
                            "big.example"};
    for (const char* k : cached) db_get_or_add(20, k, 0);
    db_get_or_add(21, "10.0.0.1", 0);
    db_get_or_add(21, "10.0.0.2", 0);
    const uint32_t before = db_count();
    cmd_recorder rec;
    const char* reply = R"({"r":{
        "a.example":[20,1,7,2,3,4],
        "b.example":[20,1,7,2,3],
        "unknown.example":[20,1,7,1,1,1],
        "10.0.0.1":[21,65536,0,1,5,6],
        "10.0.0.2":[21,65535,0,1,5,6],
        "bad.example":[20,1,7,"2",3,4],
        "str.example":["20",1,7,2,3,4],
        "neg.example":[20,1,0,1,-1,2],
        "big.example":[20,0,0,1000000,1,1],
        "obj.example":{"x":1}
    }})";
    EXPECT_EQ(db_add_reply(reply), 0);
    EXPECT_EQ(rec.lines(), (std::vector<std::string>{
                               line_of("db key2group update 1 20 a.example 7200 3 4"),
                               line_of("db key2group update 1 21 10.0.0.2 3600 5 6"),
                               line_of("db key2group update 1 20 big.example 2147483647 1 1"),
                           }));
    EXPECT_EQ(db_count(), before);  // the reply never creates entries
    struct Want {
        uint32_t type;
        const char* key;
        db_verdict v;
    };
    const Want wants[] = {
        {20, "a.example", {7200, 3, 4}},   {20, "b.example", {0, 0, 0}},
        {21, "10.0.0.1", {0, 0, 0}},       {21, "10.0.0.2", {3600, 5, 6}},
        {20, "bad.example", {0, 0, 0}},    {20, "str.example", {0, 0, 0}},
        {20, "neg.example", {3600, -1, 2}}, {20, "big.example", {INT32_MAX, 1, 1}},
    };
    for (const Want& w : wants) {
        verdict_entry* e = db_find(w.type, w.key);
        ASSERT_NE(e, nullptr) << w.key;
        db_verdict v = db_entry_verdict(e);
        EXPECT_EQ(v.ttl, w.v.ttl) << w.key;
        EXPECT_EQ(v.group, w.v.group) << w.key;
        EXPECT_EQ(v.sub_group, w.v.sub_group) << w.key;
        EXPECT_EQ(db_flag_bit1(e), 0);  // storing a reply leaves the flags alone
        db_put(e);
    }
}

// Idle entries go once their idle time exceeds the limit for the fill
// level; one second less and they stay.
TEST_F(Db, CleanerAgesByFillLevel) {
    struct Case {
        int count;  // entries, giving fill = count * 100 / 2000
        int32_t max_idle;
    };
    const Case cases[] = {{1400, 86400}, {1420, 300}, {1600, 300},
                          {1620, 150},   {1800, 150}, {1820, 30}};
    for (const Case& c : cases) {
        db_release();
        ASSERT_EQ(db_init(), 0);
        db_get_or_add(20, "stale.example", 0);
        fake_now += 1;
        db_get_or_add(20, "edge.example", 0);
        fake_now += c.max_idle;  // stale idle max + 1, edge exactly max
        add_many("fresh", c.count - 2);
        ASSERT_EQ(db_count(), static_cast<uint32_t>(c.count));
        clean_everything();
        EXPECT_EQ(db_count(), static_cast<uint32_t>(c.count - 1)) << c.count;
        verdict_entry* edge = db_find(20, "edge.example");
        EXPECT_NE(edge, nullptr) << c.count;
        db_put(edge);
        EXPECT_EQ(db_find(20, "stale.example"), nullptr) << c.count;
    }
}

// Keys are spread over the buckets by their text: a pass of 200 of the 512
// buckets removes only part of the stale entries.
TEST_F(Db, OnePassVisitsPartOfTheTable) {
    add_many("spread", 300);
    fake_now += 86401;
    db_clean_pass();
    const uint32_t left = db_count();
    EXPECT_GT(left, 60u);
    EXPECT_LT(left, 240u);
    db_clean_pass();
    db_clean_pass();
    EXPECT_EQ(db_count(), 0u);
}

TEST_F(Db, CleanerThreadRunsOnItsPeriodAndOnWake) {
    auto eventually_empty = [] {
        for (int i = 0; i < 500 && db_count() != 0; ++i) std::this_thread::sleep_for(10ms);
        return db_count() == 0;
    };
    db_release();
    db_set_clean_interval(10ms);
    ASSERT_EQ(db_init(), 0);
    add_many("periodic", 50);
    fake_now += 86401;
    EXPECT_TRUE(eventually_empty());

    db_release();
    db_set_clean_interval(1h);
    ASSERT_EQ(db_init(), 0);
    add_many("woken", 50);
    fake_now += 86401;
    bool empty = false;
    for (int i = 0; i < 500 && !empty; ++i) {
        db_wake();
        std::this_thread::sleep_for(10ms);
        empty = db_count() == 0;
    }
    EXPECT_TRUE(empty);
}

TEST_F(Db, ShowListsEveryEntry) {
    EXPECT_FALSE(db_show().has_value());
    db_get_or_add(20, "www.example.com", 0);
    db_get_or_add(21, "192.168.0.1", 0);
    db_get_or_add(22, "fe80::1", 0);
    auto listing = db_show();
    ASSERT_TRUE(listing.has_value());
    std::multiset<std::string> lines;
    std::istringstream in(*listing);
    for (std::string l; std::getline(in, l);) lines.insert(l);
    EXPECT_EQ(lines, (std::multiset<std::string>{"[20]www.example.com", "[21]192.168.0.1",
                                                 "[22]fe80::1"}));
    EXPECT_EQ(listing->back(), '\n');
}

TEST_F(Db, ReleaseIsSafeTwiceAndStopsEverything) {
    db_put(db_get_or_add(20, "x.example", 1));
    db_release();
    db_release();
    db_wake();
    EXPECT_EQ(db_find(20, "x.example"), nullptr);
    EXPECT_EQ(db_get_or_add(20, "x.example", 1), nullptr);
    EXPECT_FALSE(db_show().has_value());
    ASSERT_EQ(db_init(), 0);
    EXPECT_EQ(db_find(20, "x.example"), nullptr);  // a fresh table
}

// Workers, the reply import and a cleaner running flat out share the table;
// every reference is returned, so everything ages out at the end.
TEST_F(Db, ConcurrentUseKeepsReferencesBalanced) {
    db_release();
    db_set_clean_interval(1ms);
    ASSERT_EQ(db_init(), 0);
    cmd_recorder rec;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 3000; ++i) {
                std::string key = "k" + std::to_string((i * 7 + t) % 97) + ".example";
                verdict_entry* e = db_find(20, key.c_str());
                if (!e) e = db_get_or_add(20, key.c_str(), 1);
                ASSERT_NE(e, nullptr);
                if (db_flag_bit1(e) == 0) (void)db_entry_verdict(e);
                (void)db_should_query(e);
                db_put(e);
            }
        });
    }
    threads.emplace_back([&] {
        while (!stop.load()) {
            db_add_reply(R"({"r":{"k1.example":[20,1,0,1,2,3],"k2.example":[20,1,0,2,3,4]}})");
            fake_now += 3000;  // everything idle goes now and then
            (void)db_show();
        }
    });
    for (int t = 0; t < 4; ++t) threads[static_cast<size_t>(t)].join();
    stop = true;
    threads.back().join();
    fake_now += 86401;
    db_set_clean_interval(1h);
    clean_everything();
    EXPECT_EQ(db_count(), 0u);
}

}  // namespace
