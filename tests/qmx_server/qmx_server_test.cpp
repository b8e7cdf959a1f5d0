// Event workers: reports in, verdict commands out, through the real category
// file, cache and cloud client; only the command runner is replaced.
#include "qmx_server.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "base64.h"
#include "cloud_suite.h"
#include "cloudsim.h"
#include "ctrl_capture.h"
#include "qmx_curl.h"
#include "qmx_db.h"
#include "qmx_nlu.h"
#include "qmx_zor.h"
#include "qmxsrv_ctx.h"
#include "test_util.h"
#include "xdb.h"
#include "xdb_reference.h"

namespace {

using namespace std::chrono_literals;
using lines = std::vector<std::string>;

std::string ctrl(const std::string& text) { return "db key2group " + text; }

// Holds the threads that run a matching command line until opened.
struct gate {
    std::atomic<bool> entered{false}, opened{false};
    void pass() {
        for (entered = true; !opened;) std::this_thread::sleep_for(1ms);
    }
};

// A report as the netlink channel hands it over; `len` 0 means the field
// size of a domain (256) or address (40) type.
void report(uint32_t type, const std::string& text, uint32_t flags = 0, uint32_t len = 0) {
    struct {
        nl_event ev;
        char data[1008];
    } r{};
    r.ev = {flags, type, len ? len : type == 20 ? 256u : 40u};
    memcpy(r.data, text.data(), std::min(text.size(), sizeof r.data));
    qmx_srv_handle_event(&r.ev);
}

bool wait_finished(uint64_t n) { return zor_test::eventually([n] { return qmx_srv_finished_events() >= n; }); }

// The workers with a category file and a cloud session to the simulator,
// which knows example.com (group 3, sub-group 4, 24 hours); the cloud is
// switched on by the tests that use it.
class Workers : public zor_test::cloud_suite<> {
protected:
    // Category ids 0x1234 and 0x5678 give the group pairs (18, 52) and (86, 120).
    static void SetUpTestSuite() {
        std::string error;
        const std::vector<uint8_t> file = xdbref::build_source(".cat.example 0x1234\n10.20.0.0/16 0x5678\n", error);
        ASSERT_TRUE(zor_test::write_file(files.file("c.xdb"), std::string(file.begin(), file.end()))) << error;
        ASSERT_EQ(xdb_init(files.file("c.xdb").c_str()), 0);
        cloud_suite::SetUpTestSuite();
    }
    static void TearDownTestSuite() {
        cloud_suite::TearDownTestSuite();
        xdb_release();
    }
    static inline zor_test::temp_dir files;

    void SetUp() override {
        qmxsrv_ctx.pid = getpid();
        qmxsrv_ctx.db_capacity = 2000;
        // The trigger wakes the sender while nothing is pending; a wake that
        // races with new keys would take them, so it stays out of the way.
        timing_set({.cache_clean = 1h, .query_trigger = 1h, .form_timeout = 5000ms, .request_timeout = 5000ms});
        ASSERT_EQ(db_init(), 0);
        ASSERT_EQ(qmx_srv_start(), 1);
        std::string error;
        ASSERT_TRUE(sim.start(&error) && sim.apply("category example.com 3 4 24", &error)) << error;
        ASSERT_TRUE(sim.save_certificate(files.file("cloud.pem")));
        qmx_curl_set_tls(true, files.file("cloud.pem").c_str());
        ASSERT_EQ(zor_init(sim.address().c_str(), "prod-1", "acct-1", "secret", "gw.lan"), 1);
        ASSERT_TRUE(zor_test::eventually(zor_ready));
    }
    void TearDown() override {
        hold.opened = hold_u2k.opened = hold_late.opened = true;
        qmx_srv_release();
        db_release();
        zor_release();
        timing_set(zor_timing{});
        sim.stop();
        qmx_curl_set_tls(true, nullptr);
        qmxsrv_ctx.cloud_enabled = 0;
    }
    // Each query the simulator received, in arrival order.
    lines queries() const {
        lines out;
        for (const auto& r : sim.requests())
            if (r.endpoint == "query") out.push_back(r.detail);
        return out;
    }
    // Puts a key into the cache as if it had been reported before.
    static void cache(const std::string& key) { ASSERT_NE(db_get_or_add(20, key.c_str(), 0), nullptr); }

    // The worker stops on the verdict for "block.example" until `hold`
    // opens, and on that for "late.example" until `hold_late` opens; the
    // announcer stops on the u2k of "held.example" until `hold_u2k` opens.
    // The holds need the command runner, so commands take the shell channel.
    gate hold, hold_u2k, hold_late;
    ctrl_capture rec{ctrl_capture::shell, [this](const std::string& line) {
        if (line.find("update 1 20 block.example ") != std::string::npos) hold.pass();
        if (line.find("update 1 20 late.example ") != std::string::npos) hold_late.pass();
        if (line.find("u2k 20 held.example\"") != std::string::npos) hold_u2k.pass();
        return 0;
    }};
    cloudsim::simulator sim;
};

// Keys the category file knows are answered at once with source 2, a day's
// ttl and the whole reported text, and never reach the cache; others are
// cached and queued for the cloud. A wrong length for the type or an unknown
// type is skipped with no command, no cache entry and no query.
TEST_F(Workers, ReportsAreValidatedAnnouncedAndLookedUp) {
    report(21, "10.20.3.4");
    ASSERT_TRUE(wait_finished(1));
    report(20, "www.cat.example");
    ASSERT_TRUE(wait_finished(2));
    for (const auto& [type, text, len] : {std::tuple{20u, "cat.example.org", 0u}, {20u, "short.example", 40u},
                                          {21u, "10.1.1.1", 256u}, {23u, "10.1.1.3", 40u}})
        report(type, text, 0, len);
    ASSERT_TRUE(wait_finished(6));
    EXPECT_EQ(rec.lines(), (lines{ctrl("u2k 21 10.20.3.4"), ctrl("update 2 21 10.20.3.4 86400 86 120"),
                                  ctrl("u2k 20 www.cat.example"), ctrl("update 2 20 www.cat.example 86400 18 52"),
                                  ctrl("u2k 20 cat.example.org")}));
    EXPECT_EQ(db_count(), 1u);
    EXPECT_EQ(qmx_srv_pending_queries(), 1u);
}

// The receive thread only queues: a kernel command that hangs in the shell
// holds neither the handler nor the order of the u2k announcements. At 1025
// queued reports further ones are dropped before u2k; announced reports
// count until the worker takes them, the newest first.
TEST_F(Workers, QueueHoldsAtMost1025ReportsAndTheNewestIsTakenFirst) {
    const auto key = [](int i) { return "k" + std::to_string(i) + ".example"; };
    for (int i = 0; i < 1030; ++i) cache(key(i));
    cache("block.example");
    cache("held.example");
    report(20, "block.example");
    ASSERT_TRUE(zor_test::eventually([&] { return hold.entered.load(); }));
    std::atomic<bool> returned{false};
    std::thread receiver([&] {
        report(20, "held.example");
        for (int i = 0; i < 1030; ++i) report(20, key(i));
        returned = true;
    });
    ASSERT_TRUE(zor_test::eventually([&] { return hold_u2k.entered.load(); }));
    const bool handler_returned = zor_test::eventually([&] { return returned.load(); });
    if (!handler_returned) hold_u2k.opened = true;
    receiver.join();
    ASSERT_TRUE(handler_returned) << "the handler waited for the u2k command";
    EXPECT_EQ(qmx_srv_queued_events(), 1025u);
    hold_u2k.opened = true;
    EXPECT_TRUE(zor_test::eventually([] { return qmx_srv_lookup_events() == 1025u; }));
    report(20, key(1029));  // still full
    EXPECT_EQ(qmx_srv_queued_events(), 1025u);
    hold.opened = true;
    ASSERT_TRUE(wait_finished(1026));
    lines u2k = {ctrl("u2k 20 block.example"), ctrl("u2k 20 held.example")},
          updates = {ctrl("update 1 20 block.example 0 0 0")};
    for (int i = 0; i < 1024; ++i) u2k.push_back(ctrl("u2k 20 " + key(i)));
    for (int i = 1023; i >= -1; --i) updates.push_back(ctrl("update 1 20 " + (i < 0 ? "held.example" : key(i)) + " 0 0 0"));
    EXPECT_EQ(rec.lines_with("u2k"), u2k);
    EXPECT_EQ(rec.lines_with("update"), updates);
}

// 120 unknown keys, then a flagged report: queries of 50, 50 and 20 keys,
// newest first; the verdicts reach the kernel with source 1 and the ttl in
// seconds, and a cached key is answered without another query. With the
// cloud switched off, a flagged report (valid or not) makes the sender take
// every pending key and drop it; the keys stay marked as asked.
TEST_F(Workers, PendingKeysGoOutInBatchesOf50NewestFirst) {
    qmxsrv_ctx.cloud_enabled = 1;
    lines want(3, "{\"q\":[");
    for (int i = 0; i < 120; ++i) {
        report(20, "k" + std::to_string(i) + ".example.com");
        ASSERT_TRUE(wait_finished(static_cast<uint64_t>(i) + 1));  // one at a time: a known order
    }
    for (int i = 119; i >= 0; --i) {
        std::string& q = want[i >= 70 ? 0 : i >= 20 ? 1 : 2];
        q += (q.back() == '[' ? "[20,\"k" : ",[20,\"k") + std::to_string(i) + ".example.com\",0,0]";
    }
    for (std::string& q : want) q += "]}";
    EXPECT_TRUE(queries().empty());
    report(20, "flag", 1, 8);
    ASSERT_TRUE(rec.wait_for("update 1 20 ", 120, 10s));
    EXPECT_EQ(queries(), want);
    report(20, "k5.example.com");
    ASSERT_TRUE(wait_finished(122));
    EXPECT_EQ(rec.count_with("update 1 20 k5.example.com 86400 3 4"), 2u);

    qmxsrv_ctx.cloud_enabled = 0;
    for (int i = 0; i < 60; ++i) report(20, "off" + std::to_string(i) + ".example.com");
    ASSERT_TRUE(wait_finished(182));
    EXPECT_EQ(qmx_srv_pending_queries(), 60u);
    report(20, "flag", 1, 8);  // bad length: skipped, but the flag counts
    ASSERT_TRUE(zor_test::eventually([] { return qmx_srv_pending_queries() == 0; }));
    report(20, "off7.example.com");
    ASSERT_TRUE(wait_finished(184));
    EXPECT_EQ(rec.lines_with("update 1 20 off"), lines{ctrl("update 1 20 off7.example.com 0 0 0")});
    EXPECT_EQ(queries().size(), 3u);
}

// A flagged report that reaches the worker together with earlier ones is
// taken first, yet it sends their keys: here the worker, held on a cached
// key, finds a new key, another cached one and then an invalid flagged
// report queued; the flag is looked at first and the sender is given time to
// run before the new key is looked up.
TEST_F(Workers, FlaggedReportSendsKeysReportedBeforeIt) {
    qmxsrv_ctx.cloud_enabled = 1;
    cache("block.example");
    cache("late.example");
    report(20, "block.example");
    ASSERT_TRUE(zor_test::eventually([&] { return hold.entered.load(); }));
    report(20, "fresh.example.com");
    report(20, "late.example");
    report(20, "flush", 1, 40);
    ASSERT_TRUE(zor_test::eventually([] { return qmx_srv_lookup_events() == 3u; }));
    hold.opened = true;
    ASSERT_TRUE(zor_test::eventually([&] { return hold_late.entered.load(); }));
    std::this_thread::sleep_for(100ms);
    hold_late.opened = true;
    ASSERT_TRUE(wait_finished(4));
    // The simulator logs a query on arrival and its text once read.
    EXPECT_TRUE(zor_test::eventually([&] {
        const lines q = queries();
        return !q.empty() && !q.back().empty();
    })) << "the new key was never sent";
    EXPECT_EQ(queries(), lines{R"({"q":[[20,"fresh.example.com",0,0]]})"});
}

// A query in flight is abandoned by the release, which never waits for the
// cloud's answer; reports while stopped are ignored.
TEST_F(Workers, ReleaseDoesNotWaitForTheCloud) {
    qmxsrv_ctx.cloud_enabled = 1;
    zor_test::log_capture log;
    std::string error;
    ASSERT_TRUE(sim.apply("query * delay 30000", &error)) << error;
    report(20, "slow.example.com", 1);
    ASSERT_TRUE(zor_test::eventually([&] { return log.contains(R"(Send query: {"q":[[20,"slow.example.com",0,0]]})"); }));
    std::this_thread::sleep_for(100ms);  // the request is on its way
    auto start = std::chrono::steady_clock::now();
    qmx_srv_release();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    report(20, "late.example");  // not running: ignored
    EXPECT_EQ(rec.lines(), lines{ctrl("u2k 20 slow.example.com")});
}

}  // namespace
