// Event workers: reports in, verdict commands out, through the real cache
// and the real netlink channel; only the command runner is replaced.
#include "qmx_server.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <cjson/cJSON.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base64.h"
#include "cloudsim.h"
#include "cmd_recorder.h"
#include "nl_peer.h"
#include "qmx_db.h"
#include "qmx_curl.h"
#include "qmx_nlu.h"
#include "qmx_zor.h"
#include "qmxsrv_ctx.h"
#include "test_util.h"
#include "xdb.h"
#include "xdbc.h"

namespace {

using namespace std::chrono_literals;

const std::string kGuard = "[ -f /proc/zor/ctrl ] && echo \"";
const std::string kTail = "\" > /proc/zor/ctrl";
std::string line_of(const std::string& text) { return kGuard + text + kTail; }

// Holds the thread that runs a matching command line until opened.
class gate {
public:
    void pass() {
        std::unique_lock<std::mutex> lk(m_);
        ++entered_;
        cv_.notify_all();
        cv_.wait(lk, [&] { return open_; });
    }
    bool wait_entered(int n) {
        std::unique_lock<std::mutex> lk(m_);
        return cv_.wait_for(lk, 5s, [&] { return entered_ >= n; });
    }
    void open() {
        std::lock_guard<std::mutex> g(m_);
        open_ = true;
        cv_.notify_all();
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    int entered_ = 0;
    bool open_ = false;
};

// A report as the netlink channel hands it over.
void report(uint32_t type, const std::string& text, uint32_t flags = 0,
            std::optional<uint32_t> len = std::nullopt) {
    struct {
        nl_event ev;
        char data[1008];
    } r{};
    r.ev.flags = flags;
    r.ev.data_type = type;
    r.ev.data_len = len.value_or(type == 20 ? 256u : 40u);
    memcpy(r.data, text.data(), std::min(text.size(), sizeof r.data));
    qmx_srv_handle_event(&r.ev);
}

bool wait_finished(uint64_t n) {
    for (int i = 0; i < 1000; ++i) {
        if (qmx_srv_finished_events() >= n) return true;
        std::this_thread::sleep_for(5ms);
    }
    return false;
}

template <class Pred>
bool eventually(Pred pred) {
    for (int i = 0; i < 1000; ++i) {
        if (pred()) return true;
        std::this_thread::sleep_for(5ms);
    }
    return false;
}

// The category file every worker test runs with: one domain rule and one
// address network. Ids 0x1234 and 0x5678 give the group pairs (18, 52) and
// (86, 120).
const char kCategorySource[] =
    ".cat.example 0x1234\n"
    "10.20.0.0/16 0x5678\n";

class Workers : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        std::vector<xdbc::rule> rules;
        std::vector<std::string> warnings;
        xdbc::compiled out;
        std::string error;
        ASSERT_TRUE(xdbc::parse_source(kCategorySource, rules, error)) << error;
        ASSERT_TRUE(xdbc::build({}, rules, out, error, warnings)) << error;
        files = new zor_test::temp_dir;
        const std::string path = files->file("categories.xdb");
        ASSERT_TRUE(zor_test::write_file(path, std::string(out.file.begin(), out.file.end())));
        ASSERT_EQ(xdb_init(path.c_str()), 0);
    }
    static void TearDownTestSuite() {
        xdb_release();
        delete files;
        files = nullptr;
    }
    static inline zor_test::temp_dir* files = nullptr;

    void SetUp() override {
        qmxsrv_ctx.pid = getpid();
        qmxsrv_ctx.cloud_enabled = 0;
        qmxsrv_ctx.db_capacity = 2000;
        db_set_clean_interval(1h);
        ASSERT_EQ(db_init(), 0);
        // The trigger wakes the sender while nothing is pending; a wake that
        // races with new keys would take them, so it stays out of the way.
        qmx_srv_set_trigger_interval(1h);
        ASSERT_EQ(qmx_srv_start(), 1);
    }
    void TearDown() override {
        hold.open();
        hold_u2k.open();
        qmx_srv_release();
        db_release();
        qmx_srv_set_trigger_interval(10s);
    }
    // Puts a key into the cache as if it had been reported before.
    static void cache(uint32_t type, const char* key) { ASSERT_NE(db_get_or_add(type, key, 0), nullptr); }

    gate hold;
    gate hold_u2k;
    // The worker stops on the verdict for "block.example" until `hold`
    // opens; the announcer stops on the u2k of "held.example" until
    // `hold_u2k` opens.
    cmd_recorder rec{[this](const std::string& line) {
        if (line.find(" block.example ") != std::string::npos &&
            line.find("update") != std::string::npos)
            hold.pass();
        if (line.find("u2k 20 held.example\"") != std::string::npos) hold_u2k.pass();
        return 0;
    }};
};

// A key the category file knows is answered at once with source 2 and a
// day's ttl, with the whole reported text; it never reaches the cache.
TEST_F(Workers, CategoryFileHitsAreAnsweredWithoutTheCloud) {
    report(20, "www.cat.example");
    report(21, "10.20.3.4");
    report(22, "10.20.250.1");
    ASSERT_TRUE(wait_finished(3));
    // Reports queued together are taken newest first; only the set matters.
    auto updates = rec.lines_with("update");
    std::sort(updates.begin(), updates.end());
    EXPECT_EQ(updates,
              (std::vector<std::string>{
                  line_of("db key2group update 2 20 www.cat.example 86400 18 52"),
                  line_of("db key2group update 2 21 10.20.3.4 86400 86 120"),
                  line_of("db key2group update 2 22 10.20.250.1 86400 86 120")}));
    EXPECT_EQ(rec.count_with("u2k"), 3u);
    EXPECT_EQ(db_count(), 0u);
    EXPECT_EQ(qmx_srv_pending_queries(), 0u);
    report(20, "cat.example.org");  // not under .cat.example
    report(21, "10.21.0.1");
    ASSERT_TRUE(wait_finished(5));
    EXPECT_EQ(rec.count_with("update 2 "), 3u);
    EXPECT_EQ(qmx_srv_pending_queries(), 2u);
}

// Valid reports are announced with u2k and looked up; a wrong length for
// the type or an unknown type is queued, then skipped with no command, no
// cache entry and no query.
TEST_F(Workers, OnlyValidReportsAreAnnouncedAndLookedUp) {
    report(20, "www.example.com");
    report(21, "192.168.1.7");
    report(22, "10.0.0.9");
    report(20, "short.example", 0, 40);
    report(21, "10.1.1.1", 0, 256);
    report(22, "10.1.1.2", 0, 39);
    report(23, "10.1.1.3", 0, 40);
    report(0, "", 0, 0);
    ASSERT_TRUE(wait_finished(8));
    EXPECT_EQ(rec.lines(),
              (std::vector<std::string>{line_of("db key2group u2k 20 www.example.com"),
                                        line_of("db key2group u2k 21 192.168.1.7"),
                                        line_of("db key2group u2k 22 10.0.0.9")}));
    EXPECT_EQ(db_count(), 3u);
    EXPECT_EQ(qmx_srv_pending_queries(), 3u);
}

// The first report creates the entry and queues one query; later reports
// are answered from the stored values (zeros until a reply fills them),
// without another query, and a flag on such a report wakes nobody.
TEST_F(Workers, CachedKeysAreAnsweredFromTheCache) {
    report(20, "a.example");
    ASSERT_TRUE(wait_finished(1));
    EXPECT_EQ(qmx_srv_pending_queries(), 1u);
    report(20, "a.example", 1);
    ASSERT_TRUE(wait_finished(2));
    ASSERT_EQ(db_add_reply(R"({"r":{"a.example":[20,1,0,2,3,4]}})"), 0);
    report(20, "a.example");
    ASSERT_TRUE(wait_finished(3));
    EXPECT_EQ(rec.lines_with("update"),
              (std::vector<std::string>{line_of("db key2group update 1 20 a.example 0 0 0"),
                                        line_of("db key2group update 1 20 a.example 7200 3 4"),
                                        line_of("db key2group update 1 20 a.example 7200 3 4")}));
    EXPECT_EQ(qmx_srv_pending_queries(), 1u);
}

// Reports are taken newest first: of two reports queued while the worker is
// busy, the later one is looked up first.
TEST_F(Workers, NewestReportIsHandledFirst) {
    for (const char* k : {"block.example", "first.example", "second.example"}) cache(20, k);
    report(20, "block.example");
    ASSERT_TRUE(hold.wait_entered(1));
    report(20, "first.example");
    report(20, "second.example");
    ASSERT_TRUE(eventually([] { return qmx_srv_lookup_events() == 2; }));
    hold.open();
    ASSERT_TRUE(wait_finished(3));
    EXPECT_EQ(rec.lines_with("update"),
              (std::vector<std::string>{line_of("db key2group update 1 20 block.example 0 0 0"),
                                        line_of("db key2group update 1 20 second.example 0 0 0"),
                                        line_of("db key2group update 1 20 first.example 0 0 0")}));
}

// At 1025 queued reports further ones are dropped before u2k. Reports are
// announced in arrival order while the worker is busy, and the cap counts
// them until the worker takes them.
TEST_F(Workers, QueueHoldsAtMost1025Reports) {
    cache(20, "block.example");
    report(20, "block.example");
    ASSERT_TRUE(hold.wait_entered(1));
    for (int i = 0; i < 1030; ++i) report(21, "10.3." + std::to_string(i / 256) + "." + std::to_string(i % 256));
    EXPECT_EQ(qmx_srv_queued_events(), 1025u);
    ASSERT_TRUE(rec.wait_for("u2k", 1u + 1025u));
    EXPECT_TRUE(eventually([] { return qmx_srv_lookup_events() == 1025u; }));
    EXPECT_EQ(qmx_srv_queued_events(), 1025u);
    report(21, "10.9.9.9");  // still full: the announced reports count
    const auto u2k = rec.lines_with("u2k");
    ASSERT_EQ(u2k.size(), 1u + 1025u);
    EXPECT_EQ(u2k[1], line_of("db key2group u2k 21 10.3.0.0"));
    EXPECT_EQ(u2k.back(), line_of("db key2group u2k 21 10.3.4.0"));  // report 1024, the last taken
    hold.open();
    ASSERT_TRUE(wait_finished(1026));
    EXPECT_EQ(qmx_srv_queued_events(), 0u);
}

// The receive thread only queues: a kernel command that hangs in the shell
// holds neither the handler nor the order in which reports are announced.
TEST_F(Workers, HandlerNeverWaitsForTheShell) {
    std::atomic<bool> returned{false};
    std::thread receiver([&] {
        report(20, "held.example");
        returned = true;
    });
    ASSERT_TRUE(hold_u2k.wait_entered(1));
    const bool handler_returned = eventually([&] { return returned.load(); });
    if (!handler_returned) hold_u2k.open();
    receiver.join();
    ASSERT_TRUE(handler_returned) << "the handler waited for the u2k command";
    for (int i = 0; i < 10; ++i) report(20, "next" + std::to_string(i) + ".example");
    EXPECT_EQ(qmx_srv_queued_events(), 11u);
    EXPECT_EQ(qmx_srv_finished_events(), 0u);
    hold_u2k.open();
    ASSERT_TRUE(wait_finished(11));
    const auto u2k = rec.lines_with("u2k");
    ASSERT_EQ(u2k.size(), 11u);
    EXPECT_EQ(u2k[0], line_of("db key2group u2k 20 held.example"));
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(u2k[static_cast<size_t>(i) + 1], line_of("db key2group u2k 20 next" + std::to_string(i) + ".example"));
}

// The trigger wakes the sender only while nothing is pending, so pending
// keys wait for a flagged report.
TEST_F(Workers, TriggerLeavesPendingKeysAlone) {
    qmx_srv_release();
    qmx_srv_set_trigger_interval(20ms);
    ASSERT_EQ(qmx_srv_start(), 1);
    // A trigger wake may still take keys that arrive just as it fires.
    for (int i = 0; i < 20 && qmx_srv_pending_queries() < 2; ++i) {
        report(20, "wait" + std::to_string(i) + ".example");
        ASSERT_TRUE(wait_finished(static_cast<uint64_t>(i) + 1));
    }
    const uint32_t pending = qmx_srv_pending_queries();
    ASSERT_GE(pending, 2u);
    std::this_thread::sleep_for(200ms);  // ten trigger periods
    EXPECT_EQ(qmx_srv_pending_queries(), pending);
}

TEST_F(Workers, ReleaseReturnsPromptlyWithAFullQueue) {
    cache(20, "block.example");
    report(20, "block.example");
    ASSERT_TRUE(hold.wait_entered(1));
    for (int i = 0; i < 1024; ++i) report(20, "q" + std::to_string(i) + ".example");
    hold.open();
    auto start = std::chrono::steady_clock::now();
    qmx_srv_release();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    report(20, "late.example");  // not running: ignored
    EXPECT_EQ(rec.count_with("late.example"), 0u);
    qmx_srv_release();
    EXPECT_EQ(qmx_srv_start(), 1);
    EXPECT_EQ(qmx_srv_start(), 1);  // already running
}

// The whole way in through the socket: the announcement reaches the kernel
// as "env server_port <pid>", then an event becomes u2k and a lookup.
TEST_F(Workers, ReportsArriveOverNetlink) {
    nl_peer::socket_peer kernel;
    ASSERT_TRUE(kernel.ok());
    const uint32_t port = static_cast<uint32_t>(getpid());
    int err = kernel.send_to(port, nl_peer::announce("zor_notify", 33));
    if (err == EPERM || err == EACCES)
        GTEST_SKIP() << "unicast between netlink sockets needs CAP_NET_ADMIN: " << strerror(err);
    ASSERT_EQ(err, 0);
    ASSERT_TRUE(rec.wait_for("env server_port " + std::to_string(port) + "\"", 1));
    cache(20, "net.example");
    ASSERT_EQ(kernel.send_to(port, nl_peer::domain_event(33, "net.example")), 0);
    ASSERT_EQ(kernel.send_to(port, nl_peer::address_event(33, "172.16.0.1", 22)), 0);
    ASSERT_TRUE(wait_finished(2));
    EXPECT_EQ(rec.count_with("u2k 20 net.example\""), 1u);
    EXPECT_EQ(rec.count_with("u2k 22 172.16.0.1\""), 1u);
    EXPECT_EQ(rec.count_with("update 1 20 net.example 0 0 0\""), 1u);
}

// ---- with the cloud ----

// The workers with a cloud session to the simulator, which knows
// example.com (group 3, sub-group 4, 24 hours).
class WorkersWithCloud : public Workers {
protected:
    static void SetUpTestSuite() {
        Workers::SetUpTestSuite();
        ASSERT_EQ(qmx_curl_init(), 0);
        crypto_init();
    }
    static void TearDownTestSuite() {
        qmx_curl_release();
        Workers::TearDownTestSuite();
    }
    void SetUp() override {
        Workers::SetUp();
        qmx_curl_set_timeouts(5000ms, 5000ms);
        std::string error;
        ASSERT_TRUE(sim.start(&error)) << error;
        ASSERT_TRUE(sim.apply("category example.com 3 4 24", &error)) << error;
        const std::string server = sim.address();
        ASSERT_EQ(zor_init(server.c_str(), "prod-1", "acct-1", "secret", "gw.lan"), 1);
        ASSERT_TRUE(eventually(zor_ready));
        qmxsrv_ctx.cloud_enabled = 1;
    }
    void TearDown() override {
        Workers::TearDown();
        zor_release();
        sim.stop();
        qmxsrv_ctx.cloud_enabled = 0;
    }
    // The keys of each query the simulator received, in arrival order.
    std::vector<std::vector<std::string>> queries() {
        std::vector<std::vector<std::string>> out;
        for (const auto& r : sim.requests()) {
            if (r.endpoint != "query") continue;
            std::unique_ptr<cJSON, void (*)(cJSON*)> q(cJSON_Parse(r.detail.c_str()), cJSON_Delete);
            std::vector<std::string> keys;
            const cJSON* row = nullptr;
            cJSON_ArrayForEach(row, cJSON_GetObjectItemCaseSensitive(q.get(), "q")) {
                EXPECT_EQ(cJSON_GetArraySize(row), 4);
                EXPECT_EQ(cJSON_GetArrayItem(row, 0)->valueint, 20);
                EXPECT_EQ(cJSON_GetArrayItem(row, 2)->valueint, 0);
                EXPECT_EQ(cJSON_GetArrayItem(row, 3)->valueint, 0);
                keys.push_back(cJSON_GetArrayItem(row, 1)->valuestring);
            }
            out.push_back(keys);
        }
        return out;
    }
    cloudsim::simulator sim;
};

// 120 unknown keys, then a flagged report: queries of 50, 50 and 20 keys,
// newest first; the verdicts reach the kernel with source 1 and the ttl in
// seconds.
TEST_F(WorkersWithCloud, PendingKeysGoOutInBatchesOf50NewestFirst) {
    for (int i = 0; i < 120; ++i) {
        report(20, "k" + std::to_string(i) + ".example.com");
        ASSERT_TRUE(wait_finished(static_cast<uint64_t>(i) + 1));  // one at a time: a known order
    }
    EXPECT_TRUE(queries().empty());
    report(20, "flag", 1, 8);
    ASSERT_TRUE(rec.wait_for("update 1 20 ", 120, 10s));
    auto q = queries();
    ASSERT_EQ(q.size(), 3u);
    EXPECT_EQ(q[0].size(), 50u);
    EXPECT_EQ(q[1].size(), 50u);
    EXPECT_EQ(q[2].size(), 20u);
    std::vector<std::string> sent;
    for (const auto& batch : q) sent.insert(sent.end(), batch.begin(), batch.end());
    ASSERT_EQ(sent.size(), 120u);
    for (int i = 0; i < 120; ++i) EXPECT_EQ(sent[static_cast<size_t>(i)], "k" + std::to_string(119 - i) + ".example.com");
    EXPECT_EQ(rec.count_with("update 1 20 k0.example.com 86400 3 4\""), 1u);
    // Now cached: answered without another query.
    report(20, "k5.example.com");
    ASSERT_TRUE(wait_finished(122));
    EXPECT_EQ(rec.count_with("update 1 20 k5.example.com 86400 3 4\""), 2u);
    EXPECT_EQ(queries().size(), 3u);
}

// With the cloud switched off, a flagged report (valid or not) makes the
// sender take every pending key and drop it; the keys stay marked as asked,
// so they are answered from the cache afterwards.
TEST_F(WorkersWithCloud, DisabledCloudDropsTheBatch) {
    qmxsrv_ctx.cloud_enabled = 0;
    for (int i = 0; i < 60; ++i) report(20, "k" + std::to_string(i) + ".example.com");
    ASSERT_TRUE(wait_finished(60));
    EXPECT_EQ(qmx_srv_pending_queries(), 60u);
    report(20, "flag", 1, 8);  // bad length: skipped, but the flag counts
    ASSERT_TRUE(eventually([] { return qmx_srv_pending_queries() == 0; }));
    report(20, "k7.example.com");
    ASSERT_TRUE(wait_finished(62));
    EXPECT_TRUE(queries().empty());
    EXPECT_EQ(rec.lines_with("update"),
              std::vector<std::string>{line_of("db key2group update 1 20 k7.example.com 0 0 0")});
    EXPECT_EQ(qmx_srv_pending_queries(), 0u);
}

// A query in flight is abandoned by the release, which never waits for the
// cloud's answer.
TEST_F(WorkersWithCloud, ReleaseDoesNotWaitForTheCloud) {
    zor_test::log_capture log;
    std::string error;
    ASSERT_TRUE(sim.apply("query * delay 30000", &error)) << error;
    report(20, "slow.example.com", 1);
    ASSERT_TRUE(eventually([&] { return log.contains("Send query: {\"q\":[[20,\"slow.example.com\",0,0]]}"); }));
    std::this_thread::sleep_for(100ms);  // the request is on its way
    auto start = std::chrono::steady_clock::now();
    qmx_srv_release();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_TRUE(rec.lines_with("update").empty());
}

TEST(WorkersLifecycle, ReleaseBeforeStartAndReportsWithoutWorkers) {
    cmd_recorder rec;
    qmx_srv_release();
    report(20, "nobody.example");
    EXPECT_TRUE(rec.lines().empty());
    EXPECT_EQ(qmx_srv_finished_events(), 0u);
}

}  // namespace
