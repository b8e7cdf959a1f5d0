// The cloud session and query exchange against the cloud simulator, over
// real TLS on loopback. Time-outs and the retry interval are shortened; the
// token-based waits are observed through zor_last_wait(), never slept.
#include "qmx_zor.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "base64.h"
#include "cloudsim.h"
#include "qmx_curl.h"
#include "qmxsrv_ctx.h"
#include "test_util.h"

namespace {

using namespace std::chrono_literals;
using zor_test::eventually;
using clock_type = std::chrono::steady_clock;
using nodes = std::vector<int>;

constexpr auto kRetry = 150ms;
const char kQuery[] = R"({"q":[[20,"www.example.com",0,0],[20,"unknown.test",0,0]]})";
const std::optional<std::string> kReply = R"({"r":{"www.example.com":[20,0,0,24,3,4],"unknown.test":[20,0,0,1,0,0]}})";

// The wait the maintainer decided after its n-th round.
std::optional<zor_wait_note> wait_after_round(uint64_t n) {
    std::optional<zor_wait_note> w;
    eventually([&] { return (w = zor_last_wait()) && w->round >= n; });
    return w;
}

// The first log line holding `text`, or "".
std::string line_with(const zor_test::log_capture& log, const std::string& text) {
    for (const std::string& l : log.lines())
        if (l.find(text) != std::string::npos) return l;
    return {};
}

// How long `fn` took.
template <class F>
clock_type::duration timed(F fn) {
    auto t0 = clock_type::now();
    fn();
    return clock_type::now() - t0;
}

TEST(ZorWaitRule, FollowsTheTokenLifetime) {
    const struct {
        bool have;
        int64_t exp;
        std::chrono::milliseconds want;
    } cases[] = {
        {true, 1000 + 3600, 3300s}, {true, 1000 + 301, 1s}, {true, 1000 + 300, 300s},  // the last five minutes
        {true, 1000 + 200, 200s},   {true, 1000 + 1, 1s},   {true, 1000, 1s},          // already expired
        {true, 1000 - 50, 1s},      {false, 0, 30s},                                   // no session: the retry
    };
    for (const auto& c : cases) EXPECT_EQ(zor_wait_rule(c.have, c.exp, 1000, 30s), c.want) << c.exp;
}

TEST(ResponseErrorCode, ReadsOnlyANumericCodeOfAnErrorObject) {
    const std::pair<const char*, int> cases[] = {
        {nullptr, -1}, {"", -1}, {"not json", -1}, {"[1,2]", -1}, {"{}", 0}, {R"({"error":7})", 0},
        {R"({"error":{}})", -1}, {R"({"error":{"code":"101"}})", -1}, {R"({"error":{"code":101}})", 101},
        {R"({"error":{"code":7,"message":"busy"}})", 7},
    };
    for (auto [body, want] : cases) EXPECT_EQ(response_error_code(body), want) << (body ? body : "null");
}

TEST(LoginReply, JudgedByStatusThenErrorCode) {
    using v = zor_login_verdict;
    const std::tuple<long, const char*, zor_login_verdict> cases[] = {
        {200, "not json", v::reply},  // read later, refused there
        {401, R"({"error":{"code":5}})", v::refused},  {500, R"({"error":{"code":101}})", v::refused},
        {401, R"({"error":{"code":0}})", v::failed},   {401, R"({"error":{"code":-3}})", v::failed},
        {403, "<html>busy</html>", v::failed},         {401, nullptr, v::failed},
    };
    for (auto [status, body, want] : cases)
        EXPECT_EQ(zor_judge_login(status, body), want) << status << " " << (body ? body : "null");
}

TEST(LoginReply, KeepsTokenKeyClampedLifetimeAndAtMost64Servers) {
    auto r = zor_parse_login(R"({"token":"abc","token_ttl":3600.9,"key":"k","servers":["https://a",7,"https://b"]})");
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->token + " " + std::to_string(r->ttl) + " " + r->key, "abc 3600 k");
    EXPECT_EQ(r->servers, (std::vector<std::optional<std::string>>{"https://a", std::nullopt, "https://b"}));
    r = zor_parse_login(R"({"token":"t","token_ttl":1e30,"key":"","servers":["https://a"]})");
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->ttl, 0x7fffffff);
    std::string many = R"({"token":"t","token_ttl":60,"key":"k","servers":["https://s0")";
    for (int i = 1; i < 70; ++i) many += ",\"https://s" + std::to_string(i) + "\"";
    r = zor_parse_login((many + "]}").c_str());
    ASSERT_TRUE(r.has_value());
    ASSERT_EQ(r->servers.size(), 64u);
    EXPECT_EQ(r->servers[63], "https://s63");
}

TEST(LoginReply, UnusableRepliesAreRefused) {
    for (const char* body : std::initializer_list<const char*>{
             nullptr, "[]", R"({"token_ttl":60,"key":"k","servers":["https://a"]})",
             R"({"token":"t","token_ttl":60,"servers":["https://a"]})",
             R"({"token":"t","token_ttl":0.5,"key":"k","servers":["https://a"]})",
             R"({"token":"t","token_ttl":"60","key":"k","servers":["https://a"]})",
             R"({"token":"t","token_ttl":60,"key":"k","servers":[]})",
             R"({"token":"t","token_ttl":60,"key":"k","servers":"https://a"})",
             // A line break in the token would add headers to every request.
             R"({"token":"t\r\nX-Extra: 1","token_ttl":60,"key":"k","servers":["https://a"]})",
             R"({"token":"t\u0001","token_ttl":60,"key":"k","servers":["https://a"]})",
             R"({"token":"t\u007f","token_ttl":60,"key":"k","servers":["https://a"]})",
         })
        EXPECT_FALSE(zor_parse_login(body).has_value()) << (body ? body : "null");
}

TEST(SessionApi, ArgumentsAndLifecycleWithoutAServer) {
    EXPECT_EQ(zor_init(nullptr, "p", "i", "w", "h"), 0);
    EXPECT_EQ(zor_init("s", "p", "i", "w", nullptr), 0);
    zor_release();  // before any init
    EXPECT_FALSE(zor_ready());
    int32_t start = 5;
    std::string id = "untouched";
    EXPECT_EQ(zor_session_info(&start, &start, &id), 0);
    EXPECT_EQ(std::to_string(start) + id, "5untouched");
    EXPECT_FALSE(zor_query(kQuery));
    zor_relogin();  // no session: nothing to wake
}

class Session : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(qmx_curl_init(), 0);
        crypto_init();
    }
    static void TearDownTestSuite() { qmx_curl_release(); }

    void SetUp() override {
        qmxsrv_ctx.auth_invalid = 0;
        qmx_curl_set_timeouts(5000ms, 5000ms);  // generous: the time-out tests shorten them
        zor_set_retry_interval(kRetry);
        std::string error;
        ASSERT_TRUE(sim.start(&error)) << error;
        script("");
    }
    void TearDown() override {
        zor_release();
        sim.stop();
        qmxsrv_ctx.auth_invalid = 0;
    }

    // Replaces the simulator's script (on top of the test's category table)
    // or adds to it, and forgets the requests so far.
    void script(const std::string& lines, bool replace = true) {
        std::string error;
        ASSERT_TRUE(sim.apply((replace ? "reset\ncategory example.com 3 4 24\nunknown 0 0 1\n" : "") + lines, &error))
            << error;
        sim.clear_requests();
    }
    int start_session(const std::string& server = {}) {
        return zor_init((server.empty() ? sim.address() : server).c_str(), "prod-7", "acct-1", "secret", "gw.lan");
    }
    nodes nodes_of(const std::string& endpoint) {
        nodes out;
        for (const auto& r : sim.requests())
            if (r.endpoint == endpoint) out.push_back(r.node);
        return out;
    }

    cloudsim::simulator sim;
};

// Login, ping and a query that moves on from a busy server: what crosses the
// wire, what the session publishes and what is logged.
TEST_F(Session, LoginPingAndQueryExchangesArePinned) {
    zor_test::log_capture log(7);
    script("query 0 times 1 error 503 7");
    ASSERT_EQ(start_session(), 1);
    EXPECT_EQ(start_session(), 0);  // one session at a time
    ASSERT_TRUE(eventually(zor_ready));
    int32_t start = 0, exp = 0;
    std::string id;
    ASSERT_EQ(zor_session_info(&start, &exp, &id), 1);
    EXPECT_EQ(exp - start, 3600);
    EXPECT_EQ(id, "acct-1");
    auto w = wait_after_round(1);  // until five minutes before expiry
    ASSERT_TRUE(w && w->have_session);
    EXPECT_EQ(w->exp_time, exp);
    EXPECT_EQ(w->wait, std::chrono::seconds(exp - 300 - w->decided_at));
    EXPECT_GE(w->wait, 3299s);
    EXPECT_EQ(zor_query(kQuery), kReply);

    const std::string token = sim.tokens().back(), base = "https://" + sim.address();
    const struct {
        std::string endpoint, token, detail;
        int node, status;
    } want[] = {
        {"login", "", "id=acct-1,product=prod-7,host=gw.lan", -1, 200},
        {"ping", token, "", 0, 200},
        {"query", token, "", 0, 503},
        {"query", token, kQuery, 1, 200},  // the server deciphered exactly what was sent
    };
    auto reqs = sim.requests();
    ASSERT_EQ(reqs.size(), std::size(want));
    for (size_t i = 0; i < reqs.size(); ++i) {
        EXPECT_EQ(reqs[i].endpoint + " " + reqs[i].token + " " + reqs[i].detail,
                  want[i].endpoint + " " + want[i].token + " " + want[i].detail);
        EXPECT_EQ(reqs[i].node, want[i].node) << i;
        EXPECT_EQ(reqs[i].status, want[i].status) << i;
    }
    for (const std::string& text : std::initializer_list<std::string>{
             "[D] Auth: " + base + "/vorteln/auth/id?id=acct-1&password=secret&product=prod-7&host=gw.lan",
             "[D] token: Bearer " + token, "[D] token_ttl: 3600", "[D] talvo server list:",
             "[D] 2 -> " + base + "/node2", "[D] _refresh_server server: 3",
             "[D] Ping: " + base + "/node0/talvo-zor/api/v1/srv/ping, token: Bearer " + token, "[D] Ping OK",
             "[D] query " + base + "/node0/talvo-zor/api/v1/srv/q", "[D] respose error code: 7",
             "[E] [ping error] http status: 503, {\"error\":{\"code\":7,\"message\":\"refused by script\"}}",
             "[D] query " + base + "/node1/talvo-zor/api/v1/srv/q", "[D] Cipher = ", "[D] curl result: 0",
             "[D] HTTP Plain Body: " + *kReply,
         }) {
        EXPECT_NE(line_with(log, text).find(" _zor/"), std::string::npos) << text;
    }
    testing::internal::CaptureStdout();
    zor_print_account();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Product: prod-7\r\nID: acct-1\r\n");
}

TEST_F(Session, RefusedTokenOrReloginBringsANewToken) {
    script("query 0 times 1 error 401 101");
    ASSERT_EQ(start_session(), 1);
    auto w = wait_after_round(1);
    ASSERT_TRUE(w && w->have_session);  // now waiting for about 3300 s
    EXPECT_FALSE(zor_query(kQuery));
    EXPECT_EQ(nodes_of("query"), nodes{0});  // the refusal ends the query
    ASSERT_TRUE(wait_after_round(2));         // and wakes the maintainer
    ASSERT_TRUE(eventually(zor_ready));
    EXPECT_EQ(zor_query(kQuery), kReply);
    EXPECT_FALSE(zor_query(nullptr));
    EXPECT_EQ(nodes_of("query"), (nodes{0, 0}));
    const std::string second = sim.tokens().back();
    zor_relogin();
    ASSERT_TRUE(wait_after_round(3) && zor_ready());
    EXPECT_EQ(sim.count("login"), 3u);
    EXPECT_NE(sim.tokens().back(), second);
}

TEST_F(Session, FailedLoginsAreRetriedAfterTheInterval) {
    const std::pair<const char*, const char*> cases[] = {
        {"token_ttl 0", ""},  // a lifetime below one second
        {"servers", ""},      // an empty server list
        {"login omit token", ""},
        {"login garble", ""},                      // cut short: not JSON
        {"login raw 200 [\"token\",\"key\"]", ""},  // JSON, but not an object
        {"login raw 401 not json", ""},            // an error without a code
        {"login error 500 0", ""},                 // a code below 1 is no refusal
        {"login raw 503 {\"error\":{}}", ""},
        {"", "127.0.0.1:1"},  // unreachable
    };
    for (auto [lines, server] : cases) {
        SCOPED_TRACE(std::string(lines) + server);
        script(lines);
        ASSERT_EQ(start_session(server), 1);
        auto w = wait_after_round(2);  // the first failure waits, then a second round
        ASSERT_TRUE(w);
        EXPECT_FALSE(w->have_session);
        EXPECT_EQ(w->wait, kRetry);
        EXPECT_FALSE(zor_ready());
        EXPECT_FALSE(zor_query(kQuery));
        EXPECT_GE(sim.count("login") + (*server ? 2 : 0), 2u);  // the unreachable one never arrives
        EXPECT_EQ(sim.count("ping") + sim.count("query"), 0u);
        EXPECT_EQ(qmxsrv_ctx.auth_invalid.load(), 0);
        zor_release();
    }
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

TEST_F(Session, RefusedAccountSetsAuthInvalidLogsAndStops) {
    zor_test::log_capture log(3);
    script("account acct-1 wrong-password");
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually([] { return qmxsrv_ctx.auth_invalid.load() == 1; }));
    std::this_thread::sleep_for(kRetry * 3);
    EXPECT_EQ(sim.count("login"), 1u);
    EXPECT_FALSE(zor_ready());
    EXPECT_FALSE(zor_last_wait());  // the maintainer ended without waiting
    std::string line = line_with(log, "Authentication invalid");
    EXPECT_NE(line.find("_zor/"), std::string::npos) << line;
    EXPECT_NE(line.find("[E] Authentication invalid: acct-1/, {\"error\":{\"code\":5,"), std::string::npos) << line;
}

TEST_F(Session, PingsMoveOnUntilAServerAnswers) {
    const struct {
        const char* script;
        nodes pinged;
        bool answered;
    } cases[] = {
        {"ping 0 error 503 7\nping 1 garble", {0, 1, 2}, true},  // another code than 101; no decipher
        {"ping 0 raw 200\nping 1 raw 401 not json\nping 2 raw 200 bm90IGEgY2lwaGVyIHRleHQ=\n"
         "servers @0 @1 https://127.0.0.1:1 @2",
         {0, 1, 2}, false},
        {"ping 0 times 1 error 401 101", {0}, false},  // a refused token ends the round; kept last
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script);
        zor_release();
        script(c.script);
        ASSERT_EQ(start_session(), 1);
        auto w = wait_after_round(1);
        ASSERT_TRUE(w);
        EXPECT_EQ(w->have_session, c.answered);
        EXPECT_EQ(w->wait == kRetry, !c.answered);
        EXPECT_EQ(nodes_of("ping"), c.pinged);
        EXPECT_EQ(zor_ready(), c.answered);
    }
    // After the refusal the maintainer is not stuck: it logs in again.
    ASSERT_TRUE(eventually(zor_ready));
    EXPECT_EQ(sim.count("login"), 2u);
    EXPECT_EQ(nodes_of("ping"), (nodes{0, 0}));
}

TEST_F(Session, QueriesStartAtThePingedServerAndMoveOnOnErrorsAndTimeOuts) {
    // The ping lands on node 2, so queries go 2, 0, 1; a 503 with code 7
    // moves on, and so do three time-outs; two are retried on the same server.
    script("ping 0 error 503 7\nping 1 error 503 7\nquery 2 times 1 error 503 7\nquery 0 times 1 error 503 7");
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually(zor_ready));
    EXPECT_EQ(zor_query(kQuery), kReply);
    EXPECT_EQ(nodes_of("query"), (nodes{2, 0, 1}));
    EXPECT_EQ(zor_query(kQuery), kReply);  // the rotation did not move the start
    EXPECT_EQ(nodes_of("query"), (nodes{2, 0, 1, 2}));
    qmx_curl_set_timeouts(5000ms, 800ms);
    for (auto [times, then] : {std::pair{"2", nodes{2, 2, 2}}, {"3", nodes{2, 2, 2, 0}}}) {
        script(std::string("query 2 times ") + times + " delay 3000", false);
        EXPECT_EQ(zor_query(kQuery), kReply) << times;
        EXPECT_EQ(nodes_of("query"), then) << times;
    }
}

TEST_F(Session, ReplyThatDoesNotDecipherIsNotRetried) {
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually(zor_ready));
    for (const char* s : {"query 0 times 1 garble", "query 0 times 1 raw 200", "query 0 times 1 raw 200 !!!!"}) {
        SCOPED_TRACE(s);
        script(s, false);
        std::optional<std::string> reply = zor_query(kQuery);
        // Deciphered with the session key, a foreign text is garbage.
        cJSON* j = reply ? cJSON_ParseWithOpts(reply->c_str(), nullptr, 1) : nullptr;
        EXPECT_EQ(j, nullptr) << *reply;
        cJSON_Delete(j);
        EXPECT_EQ(nodes_of("query"), nodes{0});
    }
}

TEST_F(Session, ReleaseIsPromptDuringALogin) {
    script("login delay 30000");
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually([&] { return sim.count("login") == 1; }));
    EXPECT_LT(timed(zor_release), 1500ms);
    EXPECT_FALSE(zor_ready());
}

TEST_F(Session, CallerStopOrReleaseEndsAQueryInFlight) {
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually(zor_ready));
    script("query * delay 30000", false);
    // The flag form of the stop signal only wraps this predicate.
    std::atomic<bool> stop{false};
    std::thread t([&] {
        std::this_thread::sleep_for(200ms);
        stop = true;
    });
    EXPECT_LT(timed([&] { EXPECT_FALSE(zor_query(kQuery, [&] { return stop.load(); })); }), 1500ms);
    t.join();
    EXPECT_EQ(nodes_of("query"), nodes{0});  // no other server was tried

    std::optional<std::string> reply = "unset";  // the session going away
    t = std::thread([&] { reply = zor_query(kQuery); });
    ASSERT_TRUE(eventually([&] { return sim.count("query") == 2; }));
    EXPECT_LT(timed(zor_release), 1500ms);
    t.join();
    EXPECT_FALSE(reply);
}

}  // namespace
