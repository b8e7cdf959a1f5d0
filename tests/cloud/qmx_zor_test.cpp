// The cloud session and query exchange against the cloud simulator, over
// real TLS on loopback. Time-outs and the retry interval are shortened; the
// token-based waits are observed through zor_last_wait(), never slept.
#include "qmx_zor.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "base64.h"
#include "cloudsim.h"
#include "qmx_curl.h"
#include "qmxsrv_ctx.h"
#include "test_util.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr auto kRetry = 150ms;

bool eventually(const std::function<bool()>& pred, std::chrono::milliseconds limit = 8000ms) {
    auto end = clock_type::now() + limit;
    while (clock_type::now() < end) {
        if (pred()) return true;
        std::this_thread::sleep_for(10ms);
    }
    return pred();
}

// The wait the maintainer decided after its n-th round.
std::optional<zor_wait_note> wait_after_round(uint64_t n) {
    std::optional<zor_wait_note> w;
    eventually([&] {
        w = zor_last_wait();
        return w && w->round >= n;
    });
    return w;
}

// The first log line containing `text`, or "".
std::string line_with(const zor_test::log_capture& log, const std::string& text) {
    for (const std::string& l : log.lines())
        if (l.find(text) != std::string::npos) return l;
    return {};
}

const char kQuery[] = R"({"q":[[20,"www.example.com",0,0],[20,"unknown.test",0,0]]})";

class Session : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(qmx_curl_init(), 0);
        crypto_init();
    }
    static void TearDownTestSuite() { qmx_curl_release(); }

    void SetUp() override {
        qmxsrv_ctx.auth_invalid = 0;
        // Generous, so that a loaded machine never times out by accident;
        // the time-out tests shorten them further.
        qmx_curl_set_timeouts(5000ms, 5000ms);
        zor_set_retry_interval(kRetry);
        std::string error;
        ASSERT_TRUE(sim.start(&error)) << error;
        ASSERT_TRUE(sim.apply("category example.com 3 4 24\nunknown 0 0 1", &error)) << error;
    }
    void TearDown() override {
        zor_release();
        sim.stop();
        qmxsrv_ctx.auth_invalid = 0;
    }

    void script(const std::string& lines) {
        std::string error;
        ASSERT_TRUE(sim.apply(lines, &error)) << error;
    }
    int start_session(const std::string& server = {}) {
        std::string s = server.empty() ? sim.address() : server;
        return zor_init(s.c_str(), "prod-7", "acct-1", "secret", "gw.lan");
    }
    // Nodes of the requests of one endpoint, in arrival order.
    std::vector<int> nodes_of(const std::string& endpoint) {
        std::vector<int> out;
        for (const auto& r : sim.requests())
            if (r.endpoint == endpoint) out.push_back(r.node);
        return out;
    }

    cloudsim::simulator sim;
};

TEST(ZorWaitRule, FollowsTheTokenLifetime) {
    struct {
        bool have;
        int64_t exp;
        std::chrono::milliseconds want;
    } cases[] = {
        {true, 1000 + 3600, 3300s},  // five minutes before expiry
        {true, 1000 + 301, 1s},
        {true, 1000 + 300, 300s},    // the last five minutes: the remaining time
        {true, 1000 + 200, 200s},
        {true, 1000 + 1, 1s},
        {true, 1000, 1s},            // already expired
        {true, 1000 - 50, 1s},
        {false, 0, 30s},             // no session: the retry interval
    };
    for (const auto& c : cases) EXPECT_EQ(zor_wait_rule(c.have, c.exp, 1000, 30s), c.want) << c.exp;
}

TEST(ResponseErrorCode, ReadsOnlyANumericCodeOfAnErrorObject) {
    struct {
        const char* body;
        int want;
    } cases[] = {
        {nullptr, -1},
        {"", -1},
        {"not json", -1},
        {"[1,2]", -1},
        {"{}", 0},
        {R"({"error":7})", 0},
        {R"({"error":{}})", -1},
        {R"({"error":{"code":"101"}})", -1},
        {R"({"error":{"code":101}})", 101},
        {R"({"error":{"code":7,"message":"busy"}})", 7},
    };
    for (const auto& c : cases) EXPECT_EQ(response_error_code(c.body), c.want) << (c.body ? c.body : "null");
}

TEST(LoginReply, JudgedByStatusThenErrorCode) {
    struct {
        long status;
        const char* body;
        zor_login_verdict want;
    } cases[] = {
        {200, "not json", zor_login_verdict::reply},  // read later, refused there
        {401, R"({"error":{"code":5}})", zor_login_verdict::refused},
        {500, R"({"error":{"code":101}})", zor_login_verdict::refused},
        {401, R"({"error":{"code":0}})", zor_login_verdict::failed},
        {401, R"({"error":{"code":-3}})", zor_login_verdict::failed},
        {403, "<html>busy</html>", zor_login_verdict::failed},
        {401, nullptr, zor_login_verdict::failed},
    };
    for (const auto& c : cases)
        EXPECT_EQ(zor_judge_login(c.status, c.body), c.want) << c.status << " " << (c.body ? c.body : "null");
}

TEST(LoginReply, KeepsTokenKeyClampedLifetimeAndServers) {
    auto r = zor_parse_login(
        R"({"token":"abc","token_ttl":3600.9,"key":"k","servers":["https://a",7,"https://b"]})");
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->token, "abc");
    EXPECT_EQ(r->ttl, 3600);
    EXPECT_EQ(r->key, "k");
    ASSERT_EQ(r->servers.size(), 3u);
    EXPECT_EQ(r->servers[0], "https://a");
    EXPECT_FALSE(r->servers[1].has_value());
    EXPECT_EQ(r->servers[2], "https://b");

    r = zor_parse_login(R"({"token":"t","token_ttl":1e30,"key":"","servers":["https://a"]})");
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->ttl, 0x7fffffff);

    std::string many = R"({"token":"t","token_ttl":60,"key":"k","servers":[)";
    for (int i = 0; i < 70; ++i) many += (i ? ",\"https://s" : "\"https://s") + std::to_string(i) + "\"";
    r = zor_parse_login((many + "]}").c_str());
    ASSERT_TRUE(r.has_value());
    ASSERT_EQ(r->servers.size(), 64u);
    EXPECT_EQ(r->servers[63], "https://s63");
}

TEST(LoginReply, UnusableRepliesAreRefused) {
    const char* cases[] = {
        nullptr,
        "[]",
        R"({"token_ttl":60,"key":"k","servers":["https://a"]})",
        R"({"token":"t","token_ttl":60,"servers":["https://a"]})",
        R"({"token":"t","token_ttl":0.5,"key":"k","servers":["https://a"]})",
        R"({"token":"t","token_ttl":"60","key":"k","servers":["https://a"]})",
        R"({"token":"t","token_ttl":60,"key":"k","servers":[]})",
        R"({"token":"t","token_ttl":60,"key":"k","servers":"https://a"})",
        // A line break in the token would add headers to every request.
        R"({"token":"t\r\nX-Extra: 1","token_ttl":60,"key":"k","servers":["https://a"]})",
        R"({"token":"t\u0001","token_ttl":60,"key":"k","servers":["https://a"]})",
    };
    for (const char* body : cases) EXPECT_FALSE(zor_parse_login(body).has_value()) << (body ? body : "null");
}

TEST(SessionApi, ArgumentsAndLifecycleWithoutAServer) {
    EXPECT_EQ(zor_init(nullptr, "p", "i", "w", "h"), 0);
    EXPECT_EQ(zor_init("s", "p", "i", "w", nullptr), 0);
    zor_release();  // before any init
    EXPECT_FALSE(zor_ready());
    int32_t start = 5;
    std::string id = "untouched";
    EXPECT_EQ(zor_session_info(&start, &start, &id), 0);
    EXPECT_EQ(start, 5);
    EXPECT_EQ(id, "untouched");
    EXPECT_FALSE(zor_query(kQuery));
    zor_relogin();  // no session: nothing to wake
}

TEST_F(Session, LoginPublishesTheSessionAndWaitsUntilFiveMinutesBeforeExpiry) {
    ASSERT_EQ(start_session(), 1);
    EXPECT_EQ(start_session(), 0);  // one session at a time
    ASSERT_TRUE(eventually(zor_ready));
    int32_t start = 0, exp = 0;
    std::string id;
    ASSERT_EQ(zor_session_info(&start, &exp, &id), 1);
    EXPECT_EQ(exp - start, 3600);
    EXPECT_EQ(id, "acct-1");

    auto w = wait_after_round(1);
    ASSERT_TRUE(w);
    EXPECT_TRUE(w->have_session);
    EXPECT_EQ(w->exp_time, exp);
    EXPECT_EQ(w->wait, std::chrono::seconds(exp - 300 - w->decided_at));
    EXPECT_GE(w->wait, 3299s);
    EXPECT_LE(w->wait, 3300s);

    auto reqs = sim.requests();
    ASSERT_EQ(reqs.size(), 2u);
    EXPECT_EQ(reqs[0].endpoint, "login");
    EXPECT_EQ(reqs[0].detail, "id=acct-1,product=prod-7,host=gw.lan");
    EXPECT_EQ(reqs[1].endpoint, "ping");
    EXPECT_EQ(reqs[1].node, 0);
    EXPECT_EQ(reqs[1].token, sim.tokens().back());
    EXPECT_EQ(reqs[1].status, 200);

    testing::internal::CaptureStdout();
    zor_print_account();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Product: prod-7\r\nID: acct-1\r\n");
}

TEST_F(Session, ShortTokenIsRenewedWhenItRunsOut) {
    script("token_ttl 200");
    ASSERT_EQ(start_session(), 1);
    auto w = wait_after_round(1);
    ASSERT_TRUE(w && w->have_session);
    EXPECT_GE(w->wait, 199s);
    EXPECT_LE(w->wait, 200s);
}

TEST_F(Session, ReloginCutsTheWaitShortAndBringsANewToken) {
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(wait_after_round(1));
    std::string first = sim.tokens().back();
    zor_relogin();
    auto w = wait_after_round(2);
    ASSERT_TRUE(w && w->have_session);
    EXPECT_EQ(sim.count("login"), 2u);
    EXPECT_NE(sim.tokens().back(), first);
    EXPECT_TRUE(zor_ready());
}

TEST_F(Session, UnusableLoginRepliesAreRetriedAfterTheInterval) {
    const char* scripts[] = {
        "token_ttl 0",                            // lifetime below one second
        "servers",                                // empty server list
        "login omit token",
        "login omit key",
        "login omit token_ttl",
        "login omit servers",
        "login garble",                           // cut short: not JSON
        "login raw 200 [\"token\",\"key\"]",      // JSON, but not an object
        "login raw 401 not json",                 // an error without a code
        "login error 500 0",                      // a code below 1 is no refusal
        "login raw 503 {\"error\":{}}",
    };
    for (const char* s : scripts) {
        SCOPED_TRACE(s);
        script(std::string("reset\ncategory example.com 3 4 24\n") + s);
        sim.clear_requests();
        ASSERT_EQ(start_session(), 1);
        auto w = wait_after_round(2);  // the first failure waits, then a second round
        ASSERT_TRUE(w);
        EXPECT_FALSE(w->have_session);
        EXPECT_EQ(w->wait, kRetry);
        EXPECT_FALSE(zor_ready());
        EXPECT_EQ(sim.count("ping"), 0u);
        EXPECT_GE(sim.count("login"), 2u);
        EXPECT_EQ(qmxsrv_ctx.auth_invalid.load(), 0);
        zor_release();
    }
}

TEST_F(Session, UnreachableLoginServerIsRetried) {
    ASSERT_EQ(start_session("127.0.0.1:1"), 1);
    auto w = wait_after_round(2);
    ASSERT_TRUE(w);
    EXPECT_FALSE(w->have_session);
    EXPECT_FALSE(zor_ready());
}

TEST_F(Session, LoginTimingOutThreeTimesWaitsThenSucceeds) {
    qmx_curl_set_timeouts(800ms, 5000ms);
    script("login times 3 delay 3000");
    ASSERT_EQ(start_session(), 1);
    auto first = wait_after_round(1);
    ASSERT_TRUE(first);
    EXPECT_FALSE(first->have_session);
    EXPECT_EQ(sim.count("login"), 3u);  // three attempts, then the wait
    ASSERT_TRUE(eventually(zor_ready));
    EXPECT_EQ(sim.count("login"), 4u);
}

TEST_F(Session, RefusedAccountSetsAuthInvalidAndStopsTrying) {
    script("login error 401 5");
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually([] { return qmxsrv_ctx.auth_invalid.load() == 1; }));
    std::this_thread::sleep_for(kRetry * 3);
    EXPECT_EQ(sim.count("login"), 1u);
    EXPECT_FALSE(zor_ready());
    EXPECT_FALSE(zor_last_wait());  // the maintainer ended without waiting
}

TEST_F(Session, ConfiguredAccountsAreCheckedBySimulator) {
    script("account acct-1 wrong-password");
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually([] { return qmxsrv_ctx.auth_invalid.load() == 1; }));
}

TEST_F(Session, PingsStartAtTheFirstServerAndSkipFailingOnes) {
    // Node 0: an error code other than 101; node 1: a reply that does not
    // decipher; node 2 answers. The round stops there.
    script("ping 0 error 503 7\nping 1 garble");
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually(zor_ready));
    EXPECT_EQ(nodes_of("ping"), (std::vector<int>{0, 1, 2}));
}

TEST_F(Session, PingFailuresOfEveryKindMoveOnAndNoAnswerMeansRetry) {
    script("ping 0 raw 200\nping 1 raw 401 not json\nping 2 raw 200 bm90IGEgY2lwaGVyIHRleHQ=");
    script("servers @0 @1 https://127.0.0.1:1 @2");
    ASSERT_EQ(start_session(), 1);
    auto w = wait_after_round(1);
    ASSERT_TRUE(w);
    EXPECT_FALSE(w->have_session);
    EXPECT_EQ(w->wait, kRetry);
    EXPECT_EQ(nodes_of("ping"), (std::vector<int>{0, 1, 2}));
    EXPECT_FALSE(zor_ready());
}

TEST_F(Session, PingRefusedWith101DropsTheRecordAndWaitsWithoutBlocking) {
    script("ping 0 times 1 error 401 101");
    ASSERT_EQ(start_session(), 1);
    auto w = wait_after_round(1);
    ASSERT_TRUE(w);
    EXPECT_FALSE(w->have_session);
    EXPECT_EQ(w->wait, kRetry);
    // The refusal ended the round: node 1 was not tried.
    EXPECT_EQ(nodes_of("ping"), (std::vector<int>{0}));
    // The maintainer is not stuck: it logs in again after the interval.
    ASSERT_TRUE(eventually(zor_ready));
    EXPECT_EQ(sim.count("login"), 2u);
    EXPECT_EQ(nodes_of("ping"), (std::vector<int>{0, 0}));
}

TEST_F(Session, QueryReturnsTheDecipheredReply) {
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually(zor_ready));
    std::optional<std::string> reply = zor_query(kQuery);
    ASSERT_TRUE(reply);
    EXPECT_EQ(*reply, R"({"r":{"www.example.com":[20,0,0,24,3,4],"unknown.test":[20,0,0,1,0,0]}})");
    auto reqs = sim.requests();
    ASSERT_EQ(reqs.back().endpoint, "query");
    EXPECT_EQ(reqs.back().node, 0);
    EXPECT_EQ(reqs.back().detail, kQuery);  // the server deciphered exactly what was sent
    EXPECT_EQ(reqs.back().token, sim.tokens().back());
}

TEST_F(Session, QueryWithoutSessionSendsNothing) {
    script("login error 503 0");
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(wait_after_round(1));
    EXPECT_FALSE(zor_query(kQuery));
    EXPECT_FALSE(zor_query(nullptr));
    EXPECT_EQ(sim.count("query"), 0u);
}

TEST_F(Session, QueriesStartAtTheServerThatAnsweredThePing) {
    // The ping lands on node 2, so queries go 2, 0, 1; a 503 with code 7
    // moves on to the next server.
    script("ping 0 error 503 7\nping 1 error 503 7\nquery 2 error 503 7\nquery 0 error 503 7");
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually(zor_ready));
    std::optional<std::string> reply = zor_query(kQuery);
    ASSERT_TRUE(reply);
    EXPECT_NE(reply->find("www.example.com"), std::string::npos);
    EXPECT_EQ(nodes_of("query"), (std::vector<int>{2, 0, 1}));
    // The rotation does not move where the next query starts.
    ASSERT_TRUE(zor_query(kQuery));
    EXPECT_EQ(nodes_of("query"), (std::vector<int>{2, 0, 1, 2, 0, 1}));
}

TEST_F(Session, RefusedTokenEndsTheQueryAndWakesTheMaintainer) {
    script("query 0 times 1 error 401 101");
    ASSERT_EQ(start_session(), 1);
    auto w = wait_after_round(1);
    ASSERT_TRUE(w && w->have_session);  // now waiting for about 3300 s
    EXPECT_FALSE(zor_query(kQuery));
    EXPECT_EQ(nodes_of("query"), (std::vector<int>{0}));
    ASSERT_TRUE(wait_after_round(2));
    EXPECT_EQ(sim.count("login"), 2u);
    ASSERT_TRUE(eventually(zor_ready));
    EXPECT_TRUE(zor_query(kQuery));
}

TEST_F(Session, ReplyThatDoesNotDecipherIsNotRetried) {
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually(zor_ready));
    for (const char* s : {"query 0 times 1 garble", "query 0 times 1 raw 200", "query 0 times 1 raw 200 !!!!"}) {
        SCOPED_TRACE(s);
        script(s);
        sim.clear_requests();
        std::optional<std::string> reply = zor_query(kQuery);
        if (reply) {
            // Deciphered with the session key, a foreign text is garbage.
            cJSON* j = cJSON_ParseWithOpts(reply->c_str(), nullptr, 1);
            EXPECT_EQ(j, nullptr) << *reply;
            cJSON_Delete(j);
        }
        EXPECT_EQ(nodes_of("query"), (std::vector<int>{0}));
    }
}

TEST_F(Session, TwoTimeOutsThenSuccessReturnTheReply) {
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually(zor_ready));
    qmx_curl_set_timeouts(5000ms, 800ms);
    script("query 0 times 2 delay 3000");
    std::optional<std::string> reply = zor_query(kQuery);
    ASSERT_TRUE(reply);
    EXPECT_NE(reply->find("www.example.com"), std::string::npos);
    EXPECT_EQ(nodes_of("query"), (std::vector<int>{0, 0, 0}));
}

TEST_F(Session, ThreeTimeOutsMoveOnToTheNextServer) {
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually(zor_ready));
    qmx_curl_set_timeouts(5000ms, 800ms);
    script("query 0 times 3 delay 3000");
    ASSERT_TRUE(zor_query(kQuery));
    EXPECT_EQ(nodes_of("query"), (std::vector<int>{0, 0, 0, 1}));
}

TEST_F(Session, ReleaseIsPromptDuringALogin) {
    script("login delay 30000");
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually([&] { return sim.count("login") == 1; }));
    auto t0 = clock_type::now();
    zor_release();
    EXPECT_LT(clock_type::now() - t0, 1500ms);
    EXPECT_FALSE(zor_ready());
}

TEST_F(Session, ReleaseAndCallerStopEndQueriesInFlight) {
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually(zor_ready));
    script("query * delay 30000");

    // A caller's own stop signal.
    std::atomic<bool> stop{false};
    std::thread stopper([&] {
        std::this_thread::sleep_for(200ms);
        stop = true;
    });
    auto t0 = clock_type::now();
    EXPECT_FALSE(zor_query(kQuery, [&] { return stop.load(); }));
    EXPECT_LT(clock_type::now() - t0, 1500ms);
    stopper.join();
    EXPECT_EQ(nodes_of("query"), (std::vector<int>{0}));  // no other server was tried

    // A caller's stop flag.
    std::atomic<bool> flag{false};
    std::thread flagger([&] {
        std::this_thread::sleep_for(200ms);
        flag = true;
    });
    t0 = clock_type::now();
    EXPECT_FALSE(zor_query(kQuery, &flag));
    EXPECT_LT(clock_type::now() - t0, 1500ms);
    flagger.join();
    EXPECT_EQ(nodes_of("query"), (std::vector<int>{0, 0}));

    // The session going away.
    std::optional<std::string> reply = "unset";
    std::thread asker([&] { reply = zor_query(kQuery); });
    ASSERT_TRUE(eventually([&] { return sim.count("query") == 3; }));
    t0 = clock_type::now();
    zor_release();
    asker.join();
    EXPECT_LT(clock_type::now() - t0, 1500ms);
    EXPECT_FALSE(reply);
}

TEST_F(Session, LoginPingAndQueryAreLoggedUnderTheModuleName) {
    zor_test::log_capture log(7);
    script("query 0 times 1 error 503 7");
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually(zor_ready));
    ASSERT_TRUE(zor_query(kQuery));
    const std::string base = "https://" + sim.address();
    const std::string token = sim.tokens().back();
    const std::string wanted[] = {
        "[D] Auth: " + base + "/vorteln/auth/id?id=acct-1&password=secret&product=prod-7&host=gw.lan",
        "[D] token: Bearer " + token,
        "[D] token_ttl: 3600",
        "[D] talvo server list:",
        "[D] 2 -> " + base + "/node2",
        "[D] _refresh_server server: 3",
        "[D] Ping: " + base + "/node0/talvo-zor/api/v1/srv/ping, token: Bearer " + token,
        "[D] Ping OK",
        "[D] query " + base + "/node0/talvo-zor/api/v1/srv/q",
        "[D] respose error code: 7",
        "[E] [ping error] http status: 503, {\"error\":{\"code\":7,\"message\":\"refused by script\"}}",
        "[D] query " + base + "/node1/talvo-zor/api/v1/srv/q",
        "[D] Cipher = ",
        "[D] curl result: 0",
        "[D] HTTP Plain Body: {\"r\":{\"www.example.com\":[20,0,0,24,3,4]",
    };
    for (const std::string& w : wanted) {
        std::string line = line_with(log, w);
        EXPECT_NE(line, "") << w;
        EXPECT_NE(line.find(" _zor/"), std::string::npos) << line;
    }
}

TEST_F(Session, RefusalIsLoggedWithTheAccountAndTheReply) {
    zor_test::log_capture log(3);
    script("login error 401 5");
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually([] { return qmxsrv_ctx.auth_invalid.load() == 1; }));
    std::string line = line_with(log, "Authentication invalid");
    EXPECT_NE(line.find("_zor/"), std::string::npos) << line;
    EXPECT_NE(line.find("[E] Authentication invalid: acct-1/, {\"error\":{\"code\":5,"), std::string::npos) << line;
}

}  // namespace
