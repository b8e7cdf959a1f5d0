// The cloud session and query exchange against the cloud simulator, over
// real TLS on loopback. Time-outs and the retry interval are shortened; the
// token-based waits are observed through zor_last_wait(), never slept.
#include "qmx_zor.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>

#include "base64.h"
#include "cloud_suite.h"
#include "cloudsim.h"
#include "qmx_curl.h"
#include "qmxsrv_ctx.h"
#include "stats.h"
#include "test_util.h"

namespace {

using namespace std::chrono_literals;
using zor_test::eventually;
using nodes = std::vector<int>;

constexpr auto kRetry = 150ms;
// The bound on waiting for a login round or a query: generous, for a loaded
// machine running this under a sanitizer; a wait ends when its event comes.
constexpr auto kPatience = 60s;
const char kQuery[] = R"({"q":[[20,"www.example.com",0,0],[20,"unknown.test",0,0]]})";
const std::optional<std::string> kReply = R"({"r":{"www.example.com":[20,0,0,24,3,4],"unknown.test":[20,0,0,1,0,0]}})";

// The wait the maintainer decided after its n-th round.
std::optional<zor_wait_note> wait_after_round(uint64_t n) {
    std::optional<zor_wait_note> w;
    eventually([&] { return (w = zor_last_wait()) && w->round >= n; }, kPatience);
    return w;
}

// The first log line holding `text`, or "".
std::string line_with(const zor_test::log_capture& log, const std::string& text) {
    for (const std::string& l : log.lines())
        if (l.find(text) != std::string::npos) return l;
    return {};
}

// The service counters by key, to compare before and after an exchange.
std::map<std::string, uint64_t> counters() {
    std::map<std::string, uint64_t> m;
    for (const stat_value& v : stats_snapshot()) m[v.info->name] = v.value;
    return m;
}

// Checks how much each named cloud counter grew since `before`; the error
// counters not named must not have grown at all.
void expect_grown(const std::map<std::string, uint64_t>& before,
                  const std::map<std::string, uint64_t>& want) {
    std::map<std::string, uint64_t> now = counters();
    for (const char* key : {"cloud_errors", "cloud_errors_transport", "cloud_errors_http", "cloud_errors_refused",
                            "cloud_errors_reply"})
        if (!want.count(key)) {
            EXPECT_EQ(now[key], before.at(key)) << key;
        }
    for (const auto& [key, grown] : want) EXPECT_EQ(now[key] - before.at(key), grown) << key;
}

// Five minutes before expiry, at once in the last five minutes or after it,
// the retry interval without a session.
TEST(ZorWaitRule, FollowsTheTokenLifetime) {
    const std::pair<int64_t, std::chrono::seconds> cases[] = {{3600, 3300s}, {301, 1s}, {300, 300s}, {200, 200s},
                                                              {1, 1s},       {0, 1s},   {-50, 1s}};
    for (auto [left, want] : cases) EXPECT_EQ(zor_wait_rule(true, 1000 + left, 1000, 30s), want) << left;
    EXPECT_EQ(zor_wait_rule(false, 0, 1000, 30s), 30s);
}

// A refusal (a numeric error code of 1 or more) ends the service; anything
// else is retried.
TEST(LoginReply, JudgedByStatusThenErrorCode) {
    using v = zor_login_verdict;
    const std::tuple<long, const char*, zor_login_verdict> cases[] = {
        {200, "not json", v::reply},  // read later, refused there
        {401, R"({"error":{"code":5}})", v::refused}, {500, R"({"error":{"code":101,"message":"x"}})", v::refused},
        {401, R"({"error":{"code":0}})", v::failed},  {401, R"({"error":{"code":"5"}})", v::failed},
        {403, "<html>busy</html>", v::failed},        {401, nullptr, v::failed},
    };
    for (auto [status, body, want] : cases)
        EXPECT_EQ(zor_judge_login(status, body), want) << status << " " << (body ? body : "null");
}

// What the reader keeps of a 200 login reply ("-" for a server that is no
// string), or "refused".
std::string login_kept(const std::string& body) {
    auto r = zor_parse_login(body.c_str());
    if (!r) return "refused";
    std::string s = r->token + " " + std::to_string(r->ttl) + " " + r->key;
    for (const auto& server : r->servers) s += " " + server.value_or("-");
    return s;
}

// Only https servers are kept, from the first 8 entries: a forged reply can
// neither point the transport at another protocol nor hold the threads with
// a long list.
TEST(LoginReply, KeepsTokenKeyClampedLifetimeAndAtMost8HttpsServersOrRefuses) {
    std::string many = R"({"token":"t","token_ttl":1e30,"key":"k","servers":["https://s0")", kept = "t 2147483647 k https://s0";
    for (int i = 1; i < 70; ++i)
        many += ",\"https://s" + std::to_string(i) + "\"", kept += i < 8 ? " https://s" + std::to_string(i) : "";
    const std::pair<std::string, std::string> cases[] = {
        {R"({"token":"abc","token_ttl":3600.9,"key":"k","servers":["https://a",7,"HTTPS://b"]})",
         "abc 3600 k https://a - HTTPS://b"},
        {many + "]}", kept},
        {R"({"token":"t","token_ttl":60,"key":"k","servers":["file:///etc/shadow#","https://a",)"
         R"("gopher://127.0.0.1:25/_x","http://b","dict://c","ftp://d","https:/e","httpsx://f"]})", "t 60 k https://a"},
        {R"({"token":"t","token_ttl":60,"key":"k","servers":["file:///etc/shadow#","gopher://127.0.0.1:1/_x",7]})", "refused"},
        {R"({"token":"t","token_ttl":60,"key":"k","servers":["x","x","x","x","x","x","x","x","https://ninth"]})", "refused"},
        {R"({"token_ttl":60,"key":"k","servers":["https://a"]})", "refused"},
        {R"({"token":"t","token_ttl":0.5,"key":"k","servers":["https://a"]})", "refused"},
        {R"({"token":"t","token_ttl":60,"key":"k","servers":[]})", "refused"},
        // A line break in the token would add headers to every request.
        {R"({"token":"t\r\nX-Extra: 1","token_ttl":60,"key":"k","servers":["https://a"]})", "refused"},
        {R"({"token":"t\u0001","token_ttl":60,"key":"k","servers":["https://a"]})", "refused"},
        {R"({"token":"t\u007f","token_ttl":60,"key":"k","servers":["https://a"]})", "refused"},
    };
    for (const auto& [body, want] : cases) EXPECT_EQ(login_kept(body), want) << body;
}

class Session : public zor_test::cloud_suite<> {
protected:
    void SetUp() override {
        qmxsrv_ctx.auth_invalid = 0;
        timing_set({.login_retry = kRetry, .form_timeout = 5000ms, .request_timeout = 5000ms});
        std::string error;
        ASSERT_TRUE(sim.start(&error)) << error;
        ASSERT_TRUE(sim.save_certificate(ca_.file("cloud.pem")));
        qmx_curl_set_tls(true, ca_.file("cloud.pem").c_str());
        script("");
    }
    void TearDown() override {
        zor_release();
        sim.stop();
        qmx_curl_set_tls(true, nullptr);
        qmxsrv_ctx.auth_invalid = 0;
        timing_set(zor_timing{});
    }

    // Replaces the simulator's script (on top of the test's category table)
    // or adds to it, and forgets the requests so far.
    void script(const std::string& lines, bool replace = true) {
        std::string error;
        ASSERT_TRUE(sim.apply((replace ? "reset\ncategory example.com 3 4 24\nunknown 0 0 1\n" : "") + lines, &error))
            << error;
        sim.clear_requests();
    }
    int start_session() { return zor_init(sim.address().c_str(), "prod-7", "acct-1", "secret", "gw.lan"); }
    nodes nodes_of(const std::string& endpoint) {
        nodes out;
        for (const auto& r : sim.requests())
            if (r.endpoint == endpoint) out.push_back(r.node);
        return out;
    }

    zor_test::temp_dir ca_;
    cloudsim::simulator sim;
};

// Login, ping and a query that moves on from a busy server: what crosses the
// wire, what the session publishes and what is logged.
TEST_F(Session, LoginPingAndQueryExchangesArePinned) {
    zor_test::log_capture log(7);
    script("query 0 times 1 error 503 7");
    ASSERT_EQ(start_session(), 1);
    EXPECT_EQ(start_session(), 0);  // one session at a time
    ASSERT_TRUE(eventually(zor_ready, kPatience));
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
    const std::string want[] = {
        "login  id=acct-1,product=prod-7,host=gw.lan -1 200", "ping " + token + "  0 200",
        "query " + token + "  0 503",
        "query " + token + " " + kQuery + " 1 200",  // the server deciphered exactly what was sent
    };
    auto reqs = sim.requests();
    ASSERT_EQ(reqs.size(), std::size(want));
    for (size_t i = 0; i < reqs.size(); ++i)
        EXPECT_EQ(reqs[i].endpoint + " " + reqs[i].token + " " + reqs[i].detail + " " + std::to_string(reqs[i].node) +
                      " " + std::to_string(reqs[i].status),
                  want[i]);
    for (const std::string& text : std::initializer_list<std::string>{
             "[D] Auth: " + base + "/vorteln/auth/id?id=acct-1&password=secret&product=prod-7&host=gw.lan",
             "[D] Ping: " + base + "/node0/talvo-zor/api/v1/srv/ping, token: Bearer " + token,
             "[E] [ping error] http status: 503, {\"error\":{\"code\":7,\"message\":\"refused by script\"}}",
             "[D] query " + base + "/node1/talvo-zor/api/v1/srv/q", "[D] HTTP Plain Body: " + *kReply,
         }) {
        EXPECT_NE(line_with(log, text).find(" _zor/"), std::string::npos) << text;
    }
}

// A refused token ends the query and wakes the maintainer; so does a relogin.
TEST_F(Session, RefusedTokenOrReloginBringsANewToken) {
    script("query 0 times 1 error 401 101");
    ASSERT_EQ(start_session(), 1);
    auto w = wait_after_round(1);
    ASSERT_TRUE(w && w->have_session);  // now waiting for about 3300 s
    const auto before = counters();
    EXPECT_FALSE(zor_query(kQuery));
    expect_grown(before, {{"cloud_queries", 1}, {"cloud_answers", 0}, {"cloud_errors_refused", 1}, {"cloud_errors", 1}});
    EXPECT_EQ(nodes_of("query"), nodes{0});
    ASSERT_TRUE(wait_after_round(2));
    ASSERT_TRUE(eventually(zor_ready, kPatience));
    EXPECT_EQ(zor_query(kQuery), kReply);
    EXPECT_FALSE(zor_query(nullptr));
    EXPECT_EQ(nodes_of("query"), (nodes{0, 0}));
    const std::string second = sim.tokens().back();
    zor_relogin();
    ASSERT_TRUE(wait_after_round(3) && zor_ready());
    EXPECT_EQ(sim.count("login"), 3u);
    EXPECT_NE(sim.tokens().back(), second);
}

TEST_F(Session, FailedLoginIsRetriedAfterTheInterval) {
    EXPECT_EQ(zor_init(sim.address().c_str(), "p", "i", "w", nullptr), 0);
    script("login garble");  // cut short: not JSON
    const auto before = counters();
    ASSERT_EQ(start_session(), 1);
    auto w = wait_after_round(2);  // the first failure waits, then a second round
    ASSERT_TRUE(w);
    EXPECT_FALSE(w->have_session);
    EXPECT_EQ(w->wait, kRetry);
    EXPECT_FALSE(zor_ready());
    EXPECT_FALSE(zor_query(kQuery));
    EXPECT_GE(sim.count("login"), 2u);
    EXPECT_EQ(sim.count("ping") + sim.count("query"), 0u);
    EXPECT_EQ(qmxsrv_ctx.auth_invalid.load(), 0);
    zor_release();  // no further round while the counters are read
    const auto now = counters();
    EXPECT_EQ(now.at("cloud_errors_reply") - before.at("cloud_errors_reply"), sim.count("login"));
    EXPECT_EQ(now.at("cloud_logins"), before.at("cloud_logins"));
}

TEST_F(Session, PingsAndQueriesMoveOnOverErrorsAndTimeOuts) {
    // The ping lands on node 2, so queries go 2, 0, 1; a 503 with code 7
    // moves on, and so do three time-outs; two are retried on the same server.
    script("ping 0 error 503 7\nping 1 error 503 7\nquery 2 times 1 error 503 7\nquery 0 times 1 error 503 7");
    const auto before = counters();
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually(zor_ready, kPatience));
    EXPECT_EQ(nodes_of("ping"), (nodes{0, 1, 2}));
    EXPECT_EQ(zor_query(kQuery), kReply);
    EXPECT_EQ(nodes_of("query"), (nodes{2, 0, 1}));
    EXPECT_EQ(zor_query(kQuery), kReply);  // the rotation did not move the start
    EXPECT_EQ(nodes_of("query"), (nodes{2, 0, 1, 2}));
    expect_grown(before, {{"cloud_logins", 1}, {"cloud_pings", 3}, {"cloud_queries", 2}, {"cloud_answers", 2},
                          {"cloud_errors_http", 4}, {"cloud_errors", 4}});
    const auto timed = counters();
    timing_set({.login_retry = kRetry, .form_timeout = 5000ms, .request_timeout = 800ms});
    for (auto [times, then] : {std::pair{"2", nodes{2, 2, 2}}, {"3", nodes{2, 2, 2, 0}}}) {
        script(std::string("query 2 times ") + times + " delay 3000", false);
        EXPECT_EQ(zor_query(kQuery), kReply) << times;
        EXPECT_EQ(nodes_of("query"), then) << times;
    }
    // Two time-outs and an answer on one server are one request; three are
    // one failed request.
    expect_grown(timed, {{"cloud_queries", 2}, {"cloud_answers", 2}, {"cloud_errors_transport", 1}, {"cloud_errors", 1}});
}

// Release aborts the maintainer's login and another thread's query in flight.
TEST_F(Session, ReleaseIsPromptDuringALoginOrAQuery) {
    auto timed_release = [] {
        auto t0 = std::chrono::steady_clock::now();
        zor_release();
        return std::chrono::steady_clock::now() - t0;
    };
    script("login delay 30000");
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually([&] { return sim.count("login") == 1; }, kPatience));
    EXPECT_LT(timed_release(), 1500ms);
    EXPECT_FALSE(zor_ready());

    script("query * delay 30000");
    ASSERT_EQ(start_session(), 1);
    ASSERT_TRUE(eventually(zor_ready, kPatience));
    std::optional<std::string> reply = "unset";
    std::thread t([&] { reply = zor_query(kQuery); });
    EXPECT_TRUE(eventually([&] { return sim.count("query") == 1; }, kPatience));
    EXPECT_LT(timed_release(), 1500ms);
    t.join();
    EXPECT_FALSE(reply);
    EXPECT_EQ(nodes_of("query"), nodes{0});  // no other server was tried
}

}  // namespace
