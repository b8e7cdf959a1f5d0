// The cloud simulator itself: its script language, category table, token
// checks and control endpoints, driven through the service's transport.
#include "cloudsim.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "qmx_curl.h"
#include "sim_crypto.h"
#include "test_util.h"

namespace {

class Simulator : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(qmx_curl_init(), 0); }
    static void TearDownTestSuite() { qmx_curl_release(); }

    void SetUp() override {
        std::string error;
        ASSERT_TRUE(sim.start(&error)) << error;
    }

    // GET (body null) or POST of text; returns "status body".
    std::string call(const std::string& path, const char* body = nullptr, const char* auth = nullptr) {
        http_response_ptr r;
        std::string url = "https://" + sim.address() + path;
        int rc = curl_request(url.c_str(), auth, body, r);
        if (rc != 0 || !r) return "curl " + std::to_string(rc);
        return std::to_string(r->status) + " " + r->body;
    }
    // Logs in and returns the token and pass phrase.
    std::pair<std::string, std::string> login() {
        const http_form_field form[] = {{"id", "a"}, {"password", "b"}, {"product", "c"}, {"host", "d"}};
        http_response_ptr r;
        std::string url = "https://" + sim.address() + "/vorteln/auth/id";
        EXPECT_EQ(curl_post_form(url.c_str(), form, r), 0);
        if (!r || r->status != 200) return {};
        std::string body = r->body;
        auto field = [&](const std::string& name) {
            size_t at = body.find("\"" + name + "\":\"");
            if (at == std::string::npos) return std::string();
            at += name.size() + 4;
            return body.substr(at, body.find('"', at) - at);
        };
        return {field("token"), field("key")};
    }

    cloudsim::simulator sim;
};

TEST(SimulatorScript, BadLinesAreNamedAndEarlierLinesStand) {
    cloudsim::simulator sim;
    const char* bad[] = {
        "frobnicate",
        "token_ttl soon",
        "ping 3 ok",         // only nodes 0..2
        "ping x ok",
        "query 0",           // no action
        "query 0 times 0 ok",
        "login delay",
        "login error 401",
        "login error 99 5",
        "ping 0 omit key",   // omit is for login only
        "query 1 ok extra",
        "category a.example 3",
        "category a.example 300 1",
    };
    for (const char* line : bad) {
        std::string error;
        EXPECT_FALSE(sim.apply(std::string("token_ttl 10\n") + line, &error)) << line;
        EXPECT_EQ(error.rfind("line 2: ", 0), 0u) << error;
    }
    std::string error;
    EXPECT_TRUE(sim.apply("# comment\n\n  login times 2 delay 10 error 503 7\r\nservers @1 https://x.test\n"
                          "query * raw 200 a b  c\nkey random\nunknown omit\n",
                          &error))
        << error;
}

TEST_F(Simulator, LoginHandsOutScriptedValuesAndChecksAccounts) {
    std::string error;
    ASSERT_TRUE(sim.apply("token_ttl 77\nkey fixed-pass\nservers @1 https://elsewhere.test", &error)) << error;
    const http_form_field form[] = {{"id", "a"}, {"password", "b"}, {"product", "c"}, {"host", "d"}};
    http_response_ptr r;
    std::string url = "https://" + sim.address() + "/vorteln/auth/id";
    ASSERT_EQ(curl_post_form(url.c_str(), form, r), 0);
    ASSERT_TRUE(r);
    std::string want = "{\"token\":\"" + sim.tokens().back() + "\",\"token_ttl\":77,\"key\":\"fixed-pass\","
                       "\"servers\":[\"" + sim.node_url(1) + "\",\"https://elsewhere.test\"]}";
    EXPECT_EQ(std::string(r->body), want);

    ASSERT_TRUE(sim.apply("account a other", &error));
    ASSERT_EQ(curl_post_form(url.c_str(), form, r), 0);
    EXPECT_EQ(r->status, 401);
    EXPECT_STREQ(r->body, R"({"error":{"code":5,"message":"unknown account"}})");

    const http_form_field partial[] = {{"id", "a"}, {"password", "b"}};
    ASSERT_EQ(curl_post_form(url.c_str(), partial, r), 0);
    EXPECT_EQ(r->status, 400);
}

TEST_F(Simulator, PingAndQueryNeedALiveTokenAndAnEncipheredBody) {
    EXPECT_EQ(call("/node0/talvo-zor/api/v1/srv/ping"), R"(401 {"error":{"code":101,"message":"token invalid"}})");
    auto [token, pass] = login();
    ASSERT_FALSE(token.empty());
    const std::string bearer = "Bearer " + token;
    std::string ping = call("/node2/talvo-zor/api/v1/srv/ping", nullptr, bearer.c_str());
    ASSERT_EQ(ping.substr(0, 4), "200 ");
    auto plain = cloudsim::open(cloudsim::derive_key(pass), ping.substr(4));
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->rfind("{\"time\":", 0), 0u) << *plain;

    EXPECT_EQ(call("/node0/talvo-zor/api/v1/srv/q", "not base64!", bearer.c_str()).substr(0, 28),
              R"(400 {"error":{"code":3,"mess)");
    std::string q = cloudsim::seal(cloudsim::derive_key(pass), R"({"x":1})");
    EXPECT_EQ(call("/node0/talvo-zor/api/v1/srv/q", q.c_str(), bearer.c_str()).substr(0, 28),
              R"(400 {"error":{"code":4,"mess)");
    EXPECT_EQ(call("/node9/talvo-zor/api/v1/srv/q", q.c_str(), bearer.c_str()).substr(0, 4), "404 ");
    EXPECT_EQ(sim.count("other"), 1u);

    std::string error;
    ASSERT_TRUE(sim.apply("token_ttl 0", &error));
    auto [expired, pass2] = login();
    const std::string stale = "Bearer " + expired;
    EXPECT_EQ(call("/node0/talvo-zor/api/v1/srv/ping", nullptr, stale.c_str()).substr(0, 4), "401 ");
}

// A sealed reply deciphers under the token's key to exactly the scripted
// text, however broken that text is as JSON; it still needs a live token.
TEST_F(Simulator, SealedRepliesDecipherToTheScriptedText) {
    std::string error;
    ASSERT_TRUE(sim.apply("query * times 1 sealed {\"r\":{\"a\":[20,0\nping 1 sealed  not json at all", &error))
        << error;
    EXPECT_FALSE(sim.apply("login sealed {}", &error));
    EXPECT_EQ(call("/node1/talvo-zor/api/v1/srv/ping").substr(0, 4), "401 ");
    auto [token, pass] = login();
    const std::string bearer = "Bearer " + token;
    const cloudsim::payload_key key = cloudsim::derive_key(pass);
    std::string ping = call("/node1/talvo-zor/api/v1/srv/ping", nullptr, bearer.c_str());
    ASSERT_EQ(ping.substr(0, 4), "200 ");
    EXPECT_EQ(cloudsim::open(key, ping.substr(4)), std::optional<std::string>("not json at all"));
    const std::string q = cloudsim::seal(key, R"({"q":[[20,"a",0,0]]})");
    std::string first = call("/node2/talvo-zor/api/v1/srv/q", q.c_str(), bearer.c_str());
    ASSERT_EQ(first.substr(0, 4), "200 ");
    EXPECT_EQ(cloudsim::open(key, first.substr(4)), std::optional<std::string>(R"({"r":{"a":[20,0)"));
    std::string second = call("/node2/talvo-zor/api/v1/srv/q", q.c_str(), bearer.c_str());
    ASSERT_EQ(second.substr(0, 4), "200 ");
    EXPECT_EQ(cloudsim::open(key, second.substr(4)), std::optional<std::string>(R"({"r":{"a":[20,0,0,24,0,0]}})"));
}

TEST_F(Simulator, CategoryTableAnswersNamesAndTheirSubdomains) {
    zor_test::temp_dir dir;
    std::string table = dir.file("categories");
    ASSERT_TRUE(zor_test::write_file(table, "# name group sub ttl\nexample.com 3 4\nads.example.com 9 1 2\n"));
    std::string error;
    ASSERT_TRUE(sim.load_categories(table, &error)) << error;
    ASSERT_TRUE(sim.apply("unknown omit", &error));
    auto [token, pass] = login();
    const std::string bearer = "Bearer " + token;
    std::string q = cloudsim::seal(cloudsim::derive_key(pass),
                                   R"({"q":[[20,"www.example.com",0,0],[20,"x.ads.example.com",0,0],)"
                                   R"([20,"other.test",0,0],[21,"1.2.3.4",0,0]]})");
    std::string reply = call("/node1/talvo-zor/api/v1/srv/q", q.c_str(), bearer.c_str());
    ASSERT_EQ(reply.substr(0, 4), "200 ");
    auto plain = cloudsim::open(cloudsim::derive_key(pass), reply.substr(4));
    ASSERT_TRUE(plain);
    EXPECT_EQ(*plain, R"({"r":{"www.example.com":[20,0,0,24,3,4],"x.ads.example.com":[20,0,0,2,9,1]}})");
    EXPECT_EQ(sim.requests().back().detail.substr(0, 6), R"({"q":[)");

    ASSERT_TRUE(zor_test::write_file(table, "good.test 1 1\nbad.test one 1\n"));
    EXPECT_FALSE(sim.load_categories(table, &error));
    EXPECT_NE(error.find(":2: "), std::string::npos) << error;
}

TEST_F(Simulator, ControlEndpointsTakeScriptsAndShowTheLog) {
    EXPECT_EQ(call("/_sim/script", "login error 403 5"), "200 ok\n");
    EXPECT_EQ(call("/_sim/script", "login bogus").substr(0, 12), "400 line 1: ");
    login();
    std::string log = call("/_sim/log");
    EXPECT_NE(log.find(" login -1 POST 403 - id=a,product=c,host=d\n"), std::string::npos) << log;
}

TEST_F(Simulator, StopEndsPendingDelaysAtOnce) {
    std::string error;
    ASSERT_TRUE(sim.apply("ping * delay 60000", &error));
    std::thread caller([this] { call("/node0/talvo-zor/api/v1/srv/ping"); });
    ASSERT_TRUE([this] {
        for (int i = 0; i < 500 && sim.count("ping") == 0; i++) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return sim.count("ping") == 1;
    }());
    auto t0 = std::chrono::steady_clock::now();
    sim.stop();
    caller.join();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(2));
}

}  // namespace
