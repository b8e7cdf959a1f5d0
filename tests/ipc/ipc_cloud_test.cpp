// The commands that reach the cloud client (status with a login held, a query
// by hand), with the cloud simulator over real TLS on loopback.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <thread>

#include "base64.h"
#include "cloudsim.h"
#include "ipc/ipc_server.h"
#include "qmx_curl.h"
#include "qmx_zor.h"
#include "qmxsrv_ctx.h"
#include "test_util.h"
#include "zorctl_run.h"

namespace {

using namespace std::chrono_literals;

bool eventually(const std::function<bool()>& pred, std::chrono::milliseconds limit = 8000ms) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (pred()) return true;
        std::this_thread::sleep_for(10ms);
    }
    return pred();
}

std::string local_date(time_t t) {
    struct tm tm;
    localtime_r(&t, &tm);
    char buf[64];
    strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S %Z", &tm);
    return buf;
}

// Sends one request and returns the reply (zeroed when none came).
ipc_reply call(const std::string& path, int32_t cmd, const std::string& buf, int32_t type = 0) {
    ipc_request req{};
    req.cmd = cmd;
    req.type = type;
    snprintf(req.buf, sizeof req.buf, "%s", buf.c_str());
    ipc_reply reply{};
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval tv{30, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        send(fd, &req, sizeof req, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof req)) {
        size_t got = 0;
        char* p = reinterpret_cast<char*>(&reply);
        while (got < sizeof reply) {
            ssize_t n = recv(fd, p + got, sizeof reply - got, 0);
            if (n <= 0) break;
            got += static_cast<size_t>(n);
        }
    }
    close(fd);
    return reply;
}

class IpcCloud : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(qmx_curl_init(), 0);
        crypto_init();
    }
    static void TearDownTestSuite() { qmx_curl_release(); }

    void SetUp() override {
        qmx_curl_set_timeouts(5000ms, 5000ms);
        zor_set_retry_interval(150ms);
        std::string error;
        ASSERT_TRUE(sim_.start(&error)) << error;
        ASSERT_TRUE(sim_.apply("category www.example.com 3 4 24", &error)) << error;
        ASSERT_EQ(zor_init(sim_.address().c_str(), "prod-7", "acct-1", "secret", "gw.lan"), 1);
        ASSERT_TRUE(eventually([] { return zor_ready(); }));

        socket_ = dir_.file(".ipc.socket");
        memset(qmxsrv_ctx.ipc_socket, 0, sizeof qmxsrv_ctx.ipc_socket);
        memcpy(qmxsrv_ctx.ipc_socket, socket_.data(), socket_.size());
        qmxsrv_ctx.cloud_enabled = 1;
        ASSERT_EQ(ipc_srv_start(), 1);
    }
    void TearDown() override {
        ipc_srv_stop();
        zor_release();
        sim_.stop();
    }

    zor_test::temp_dir dir_;
    zor_test::log_capture log_;
    cloudsim::simulator sim_;
    std::string socket_;
};

TEST_F(IpcCloud, StatusReportsTheLoginHeld) {
    time_t before = time(nullptr);
    ipc_reply r = call(socket_, IPC_CMD_STATUS, "");
    char cloud = 0;
    char login = 0;
    unsigned long long start = 0;
    unsigned long long expiry = 0;
    char account[64] = {};
    ASSERT_EQ(sscanf(r.msg, "%c %c %llu %llu %63s", &cloud, &login, &start, &expiry, account), 5)
        << r.msg;
    EXPECT_EQ(cloud, '1');
    EXPECT_EQ(login, '1');
    EXPECT_LE(start, static_cast<unsigned long long>(before));
    EXPECT_GT(expiry, start);
    EXPECT_STREQ(account, "acct-1");

    zorctl_result z = run_zorctl({"-s", socket_, "status"});
    EXPECT_EQ(z.status, 0) << z.err;
    EXPECT_EQ(z.out, "cloud:      on\nlogged in:  yes\nlogin time: " + local_date(start) +
                         "\nexpires:    " + local_date(expiry) + "\naccount:    acct-1\n");
    json_ptr j = parse_one_object(run_zorctl({"-s", socket_, "--json", "status"}).out);
    ASSERT_TRUE(j);
    EXPECT_EQ(json_bool(j.get(), "logged_in"), 1);
    EXPECT_EQ(cJSON_GetObjectItem(j.get(), "login_time")->valuedouble, static_cast<double>(start));
    EXPECT_EQ(cJSON_GetObjectItem(j.get(), "expiry_time")->valuedouble, static_cast<double>(expiry));
    EXPECT_EQ(json_str(j.get(), "account"), "acct-1");
}

TEST_F(IpcCloud, QueryByHandReachesTheCloudAndLogsTheAnswer) {
    ipc_reply r = call(socket_, IPC_CMD_QUERY, "www.example.com 5 6", 20);
    EXPECT_STREQ(reinterpret_cast<const char*>(&r), "www.example.com");
    bool seen = false;
    for (const auto& req : sim_.requests())
        if (req.endpoint == "query") seen |= req.detail == R"({"q":[[20,"www.example.com",5,6]]})";
    EXPECT_TRUE(seen);
    bool plain = false;
    for (const auto& line : log_.lines())
        plain |= line.find("[D] Plain: ") != std::string::npos &&
                 line.find("www.example.com") != std::string::npos;
    EXPECT_TRUE(plain);
}

TEST_F(IpcCloud, StopAbandonsAQueryInFlight) {
    std::string error;
    ASSERT_TRUE(sim_.apply("query * delay 20000", &error)) << error;
    std::thread client([this] { call(socket_, IPC_CMD_QUERY, "www.example.com 0 0", 20); });
    ASSERT_TRUE(eventually([this] { return sim_.count("query") > 0; }));
    auto t0 = std::chrono::steady_clock::now();
    ipc_srv_stop();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 2s);
    client.join();
}

}  // namespace
