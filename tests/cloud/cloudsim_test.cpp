// The cloud simulator itself: its script language, its replies and error
// texts, and its category table, driven through the service's transport.
#include "cloudsim.h"

#include <gtest/gtest.h>

#include <string>

#include "qmx_curl.h"
#include "sim_crypto.h"
#include "test_util.h"

namespace {

TEST(SimulatorScript, BadLinesAreNamedAndEarlierLinesStand) {
    cloudsim::simulator sim;
    for (const char* line : {"frobnicate", "token_ttl soon", "ping 3 ok", "ping x ok", "query 0", "query 0 times 0 ok",
                             "login delay", "login error 401", "login error 99 5", "ping 0 omit key", "query 1 ok extra",
                             "category a.example 3", "category a.example 300 1", "login sealed {}"}) {
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

// Every request goes through the transport; "status body" comes back, with a
// 200 body deciphered under the session's key.
TEST(Simulator, RepliesAndErrorTextsOfEveryEndpoint) {
    ASSERT_EQ(qmx_curl_init(), 0);
    cloudsim::simulator sim;
    zor_test::temp_dir dir;
    std::string error, table = dir.file("categories");
    ASSERT_TRUE(sim.start(&error)) << error;
    ASSERT_TRUE(zor_test::write_file(table, "# name group sub ttl\nexample.com 3 4\nads.example.com 9 1 2\n"));
    ASSERT_TRUE(sim.load_categories(table, &error)) << error;
    ASSERT_TRUE(sim.apply("token_ttl 77\nkey fixed-pass\nservers @1 https://elsewhere.test\nunknown omit\n"
                          "ping 1 times 1 sealed  not json at all\naccount a b",
                          &error))
        << error;
    const cloudsim::payload_key key = cloudsim::derive_key("fixed-pass");
    std::string bearer;
    auto call = [&](const std::string& path, const std::string& body, bool form = false) {
        const http_form_field login[] = {{"id", "a"}, {"password", body.c_str()}, {"product", "c"}, {"host", "d"}};
        http_response_ptr r;
        std::string url = "https://" + sim.address() + path;
        int rc = form ? curl_post_form(url.c_str(), login, r)
                      : curl_request(url.c_str(), bearer.empty() ? nullptr : bearer.c_str(),
                                     body.empty() ? nullptr : body.c_str(), r);
        if (rc != 0 || !r) return "curl " + std::to_string(rc);
        if (r->status != 200 || form || path[1] == '_') return std::to_string(r->status) + " " + r->body;
        return "200 " + cloudsim::open(key, r->body).value_or("<does not decipher>");
    };
    const std::string ping = "/node1/talvo-zor/api/v1/srv/ping", q = "/node1/talvo-zor/api/v1/srv/q";
    EXPECT_EQ(call("/node0/talvo-zor/api/v1/srv/ping", ""), R"(401 {"error":{"code":101,"message":"token invalid"}})");
    EXPECT_EQ(call("/vorteln/auth/id", "wrong", true), R"(401 {"error":{"code":5,"message":"unknown account"}})");
    std::string login = call("/vorteln/auth/id", "b", true);
    ASSERT_EQ(sim.tokens().size(), 1u);
    EXPECT_EQ(login, "200 {\"token\":\"" + sim.tokens().back() + "\",\"token_ttl\":77,\"key\":\"fixed-pass\",\"servers\":[\"" +
                         sim.node_url(1) + "\",\"https://elsewhere.test\"]}");
    bearer = "Bearer " + sim.tokens().back();
    EXPECT_EQ(call(ping, ""), "200 not json at all");
    EXPECT_EQ(call(ping, "").rfind("200 {\"time\":", 0), 0u);
    EXPECT_EQ(call(q, "not base64!").substr(0, 28), R"(400 {"error":{"code":3,"mess)");
    EXPECT_EQ(call(q, cloudsim::seal(key, R"({"x":1})")).substr(0, 28), R"(400 {"error":{"code":4,"mess)");
    EXPECT_EQ(call("/node9/talvo-zor/api/v1/srv/q", cloudsim::seal(key, "{}")).substr(0, 4), "404 ");
    // Names match their table entry and its subdomains; unknown names are left out.
    EXPECT_EQ(call(q, cloudsim::seal(key, R"({"q":[[20,"www.example.com",0,0],[20,"x.ads.example.com",0,0],)"
                                          R"([20,"other.test",0,0],[21,"1.2.3.4",0,0]]})")),
              R"(200 {"r":{"www.example.com":[20,0,0,24,3,4],"x.ads.example.com":[20,0,0,2,9,1]}})");
    EXPECT_EQ(call("/_sim/script", "login bogus").substr(0, 12), "400 line 1: ");
    EXPECT_EQ(call("/_sim/script", "token_ttl 0"), "200 ok\n");
    call("/vorteln/auth/id", "b", true);
    bearer = "Bearer " + sim.tokens().back();  // expired at once
    EXPECT_EQ(call(ping, "").substr(0, 4), "401 ");
    std::string log = call("/_sim/log", "");
    EXPECT_NE(log.find(" login -1 POST 401 - id=a,product=c,host=d\n"), std::string::npos) << log;

    ASSERT_TRUE(zor_test::write_file(table, "good.test 1 1\nbad.test one 1\n"));
    EXPECT_FALSE(sim.load_categories(table, &error));
    EXPECT_NE(error.find(":2: "), std::string::npos) << error;
    sim.stop();
    qmx_curl_release();
}

}  // namespace
