// The commands that reach the cloud client (status with a login held, a stop
// during a query by hand), with the cloud simulator over real TLS on loopback.
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <string>
#include <thread>

#include "base64.h"
#include "cloud_suite.h"
#include "cloudsim.h"
#include "ipc_client.h"
#include "qmx_curl.h"
#include "qmx_zor.h"
#include "test_util.h"
#include "zorctl_run.h"

namespace {

using namespace std::chrono_literals;
using zor_test::eventually;

std::string local_date(time_t t) {
    struct tm tm;
    localtime_r(&t, &tm);
    char buf[64];
    strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S %Z", &tm);
    return buf;
}

class IpcCloud : public zor_test::cloud_suite<zor_test::ipc_server_fixture> {
protected:
    void SetUp() override {
        timing_set({.login_retry = 150ms, .form_timeout = 5000ms, .request_timeout = 5000ms});
        ipc_server_fixture::SetUp();
        std::string error;
        ASSERT_TRUE(sim_.start(&error)) << error;
        ASSERT_TRUE(sim_.apply("category www.example.com 3 4 24", &error)) << error;
        ASSERT_TRUE(sim_.save_certificate(dir_.file("cloud.pem")));
        qmx_curl_set_tls(true, dir_.file("cloud.pem").c_str());
        ASSERT_EQ(zor_init(sim_.address().c_str(), "prod-7", "acct-1", "secret", "gw.lan"), 1);
        ASSERT_TRUE(eventually(zor_ready));
    }
    void TearDown() override {
        ipc_server_fixture::TearDown();
        zor_release();
        sim_.stop();
        qmx_curl_set_tls(true, nullptr);
        timing_set(zor_timing{});
    }

    cloudsim::simulator sim_;
};

TEST_F(IpcCloud, StatusReportsTheLoginHeld) {
    int32_t start = 0, expiry = 0;
    std::string id;
    ASSERT_EQ(zor_session_info(&start, &expiry, &id), 1);
    const std::string times = std::to_string(start) + " " + std::to_string(expiry);
    EXPECT_STREQ(call(IPC_CMD_STATUS).msg, ("1 1 " + times + " acct-1").c_str());
    zorctl_result z = run_zorctl({"-s", sock_, "status"});
    EXPECT_EQ(z.status, 0) << z.err;
    EXPECT_EQ(z.out, "cloud:      on\nlogged in:  yes\nlogin time: " + local_date(start) + "\nexpires:    " +
                         local_date(expiry) + "\naccount:    acct-1\n");
    EXPECT_EQ(run_zorctl({"-s", sock_, "--json", "status"}).out,
              R"({"command":"status","ok":true,"cloud":true,"logged_in":true,"login_time":)" + std::to_string(start) +
                  R"(,"expiry_time":)" + std::to_string(expiry) + R"(,"account":"acct-1"})" + "\n");
}

// The command thread passes its stop signal to the query: the stop does not
// wait on the network, and no other server is tried.
TEST_F(IpcCloud, StopAbandonsAQueryInFlight) {
    std::string error;
    ASSERT_TRUE(sim_.apply("query * delay 20000", &error)) << error;
    ipc_request req = zor_test::make_request(IPC_CMD_QUERY, "www.example.com 0 0", 20);
    std::thread asker([&] { zor_test::ipc_call_raw(sock_, &req, sizeof req); });
    EXPECT_TRUE(eventually([this] { return sim_.count("query") > 0; }));
    auto t0 = std::chrono::steady_clock::now();
    ipc_srv_stop();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 2s);
    asker.join();
    EXPECT_EQ(sim_.count("query"), 1u);
}

}  // namespace
