// zorctl run as a separate process against the command server of this
// process: what it sends, what it prints and how it exits.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cmd_recorder.h"
#include "ipc/ipc_server.h"
#include "pctrl/pctrl_scheduler.h"
#include "qmxsrv_ctx.h"
#include "test_util.h"
#include "zorctl_run.h"

namespace {

using zor_test::log_capture;
using zor_test::temp_dir;

const std::string kClean = R"([ -f /proc/zor/ctrl ] && echo "pc rule clean" > /proc/zor/ctrl)";

class Zorctl : public ::testing::Test {
protected:
    void SetUp() override {
        socket_ = dir_.file(".ipc.socket");
        memset(qmxsrv_ctx.ipc_socket, 0, sizeof qmxsrv_ctx.ipc_socket);
        memcpy(qmxsrv_ctx.ipc_socket, socket_.data(), socket_.size());
        qmxsrv_ctx.running = 1;
        qmxsrv_ctx.cloud_enabled = 1;
        qmxsrv_ctx.pctrl_enabled = 0;
        qmxsrv_ctx_set_pc_rule(nullptr);
        ASSERT_EQ(ipc_srv_start(), 1);
    }
    void TearDown() override {
        ipc_srv_stop();
        pctrl_sched_stop();
        qmxsrv_ctx.pctrl_enabled = 0;
        qmxsrv_ctx_set_pc_rule(nullptr);
    }

    zorctl_result ctl(std::vector<std::string> args, const std::string& cwd = "") {
        args.insert(args.begin(), {"-s", socket_});
        return run_zorctl(args, cwd);
    }

    temp_dir dir_;
    log_capture log_;
    cmd_recorder rec_;
    std::string socket_;
};

TEST_F(Zorctl, StatusWithoutLogin) {
    zorctl_result r = ctl({"status"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "cloud:      on\nlogged in:  no\nlogin time: -\nexpires:    -\naccount:    -\n");

    r = ctl({"--json", "status"});
    EXPECT_EQ(r.status, 0);
    json_ptr j = parse_one_object(r.out);
    ASSERT_TRUE(j) << r.out;
    EXPECT_EQ(json_str(j.get(), "command"), "status");
    EXPECT_EQ(json_bool(j.get(), "ok"), 1);
    EXPECT_EQ(json_bool(j.get(), "cloud"), 1);
    EXPECT_EQ(json_bool(j.get(), "logged_in"), 0);
    EXPECT_EQ(cJSON_GetObjectItem(j.get(), "login_time")->valuedouble, 0);
    EXPECT_EQ(cJSON_GetObjectItem(j.get(), "expiry_time")->valuedouble, 0);
    EXPECT_EQ(json_str(j.get(), "account"), "");
}

TEST_F(Zorctl, SwitchesReachTheService) {
    zorctl_result r = ctl({"cloud", "off"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "Cloud category lookups are off.\n");
    EXPECT_EQ(qmxsrv_ctx.cloud_enabled.load(), 0);
    json_ptr j = parse_one_object(ctl({"status", "--json"}).out);  // --json after the command
    ASSERT_TRUE(j);
    EXPECT_EQ(json_bool(j.get(), "cloud"), 0);

    EXPECT_EQ(ctl({"cloud", "on"}).status, 0);
    EXPECT_EQ(qmxsrv_ctx.cloud_enabled.load(), 1);
    j = parse_one_object(ctl({"--json", "pc", "on"}).out);
    ASSERT_TRUE(j);
    EXPECT_EQ(json_bool(j.get(), "parental_control"), 1);
    EXPECT_EQ(qmxsrv_ctx.pctrl_enabled.load(), 1);
    EXPECT_EQ(ctl({"pc", "off"}).status, 0);
    EXPECT_EQ(qmxsrv_ctx.pctrl_enabled.load(), 0);
    EXPECT_EQ(ctl({"exit"}).status, 0);
    EXPECT_EQ(qmxsrv_ctx.running.load(), 0);
}

TEST_F(Zorctl, RuleFileIsSentAbsoluteAndApplied) {
    ASSERT_TRUE(zor_test::write_file(dir_.file("rules.json"),
                                     R"({"2": {"mac": "aabbccddeeff", "dn": "x.example"}})"));
    zorctl_result r = ctl({"pc", "rule", "rules.json"}, dir_.path());
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Rule file " + dir_.file("rules.json") + " set and applied."),
              std::string::npos);
    EXPECT_EQ(qmxsrv_ctx_pc_rule(), dir_.file("rules.json"));
    EXPECT_EQ(rec_.count_with("pc rule add 2 aabbccddeeff x.example 0 0"), 1u);

    r = ctl({"pc", "clear"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(qmxsrv_ctx_pc_rule(), "");
    EXPECT_EQ(rec_.lines().back(), kClean);
}

TEST_F(Zorctl, MissingRuleFileFails) {
    std::string missing = dir_.file("gone.json");
    zorctl_result r = ctl({"pc", "rule", missing});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "zorctl: The file " + missing + " does not exist.\n");
    EXPECT_EQ(r.out, "");

    r = ctl({"--json", "pc", "rule", missing});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "");
    json_ptr j = parse_one_object(r.out);
    ASSERT_TRUE(j) << r.out;
    EXPECT_EQ(json_bool(j.get(), "ok"), 0);
    EXPECT_EQ(json_str(j.get(), "error"), "The file " + missing + " does not exist.");
    EXPECT_EQ(json_str(j.get(), "file"), missing);
}

TEST_F(Zorctl, QueryIsHandedToTheCloudClient) {
    zorctl_result r = ctl({"query", "example.net", "20", "7", "-3"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Query for example.net handed to the cloud service"), std::string::npos);
    EXPECT_TRUE(log_.contains(R"(Send: {"q":[[20,"example.net",7,-3]]})"));
    json_ptr j = parse_one_object(ctl({"--json", "query", "a.example", "21", "0", "0"}).out);
    ASSERT_TRUE(j);
    EXPECT_EQ(json_str(j.get(), "name"), "a.example");
}

TEST_F(Zorctl, CacheCommands) {
    zorctl_result r = ctl({"db", "show"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("written to the service log"), std::string::npos);
    EXPECT_EQ(ctl({"db", "add", R"({"r":{}})"}).status, 0);
    EXPECT_TRUE(log_.contains("[D] Receive command: show database"));
}

struct usage_case {
    std::vector<std::string> args;
    const char* message;
};

TEST_F(Zorctl, BadCommandLinesAreRefusedBeforeSending) {
    const usage_case cases[] = {
        {{}, "give -s SOCKET or -i INI"},
        {{"-s", "/x", "-i", "/y", "status"}, "not both"},
        {{"-s", "/x"}, "no command given"},
        {{"-s", "/x", "-t", "0", "status"}, "-t takes"},
        {{"-s", "/x", "-q", "status"}, "unknown option -q"},
        {{"-s", "/x", "reboot"}, "unknown command: reboot"},
        {{"-s", "/x", "cloud", "maybe"}, "unknown command: cloud"},
        {{"-s", "/x", "status", "now"}, "usage: status"},
        {{"-s", "/x", "pc", "rule"}, "usage: pc rule FILE"},
        {{"-s", "/x", "pc", "rule", "/" + std::string(300, 'p')}, "longer than 255 bytes"},
        {{"-s", "/x", "query", "a", "20", "1"}, "usage: query NAME TYPE A B"},
        {{"-s", "/x", "query", "a", "20", "1", "x"}, "32-bit integers"},
        {{"-s", "/x", "query", "a", "99999999999", "1", "2"}, "32-bit integers"},
        {{"-s", "/x", "db", "add", "[1,2]"}, "one JSON object"},
        {{"-s", "/x", "db", "add", "{broken"}, "one JSON object"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        zorctl_result r = run_zorctl(c.args);
        EXPECT_EQ(r.status, 2);
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    }
    zorctl_result r = run_zorctl({"--json", "-s", "/x", "reboot"});
    EXPECT_EQ(r.status, 2);
    json_ptr j = parse_one_object(r.out);
    ASSERT_TRUE(j) << r.out;
    EXPECT_EQ(json_bool(j.get(), "ok"), 0);
    EXPECT_EQ(json_str(j.get(), "error"), "unknown command: reboot");
    EXPECT_FALSE(log_.contains("Receive command"));
}

TEST_F(Zorctl, MissingSocketAndRefusedConnection) {
    std::string none = dir_.file("none.socket");
    zorctl_result r = run_zorctl({"-s", none, "status"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err, "zorctl: no service socket at " + none + " (is zor_service running?)\n");

    // A socket file whose service is gone: bound once, never listening.
    std::string stale = dir_.file("stale.socket");
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", stale.c_str());
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    close(fd);
    r = run_zorctl({"-s", stale, "--json", "status"});
    EXPECT_EQ(r.status, 3);
    json_ptr j = parse_one_object(r.out);
    ASSERT_TRUE(j) << r.out;
    EXPECT_NE(json_str(j.get(), "error").find("connection refused at " + stale), std::string::npos);
}

TEST_F(Zorctl, ConnectionClosedWithoutReply) {
    std::string path = dir_.file("mute.socket");
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(fd, 1), 0);
    std::thread mute([fd] {
        int c = accept(fd, nullptr, nullptr);
        char buf[264];
        if (c >= 0) {
            (void)!recv(c, buf, sizeof buf, 0);
            close(c);
        }
    });
    zorctl_result r = run_zorctl({"-s", path, "cloud", "on"});
    mute.join();
    close(fd);
    EXPECT_EQ(r.status, 4);
    EXPECT_NE(r.err.find("closed the connection without a reply"), std::string::npos) << r.err;
}

TEST_F(Zorctl, IniNamesTheSocket) {
    std::string ini = dir_.file("zor.ini");
    ASSERT_TRUE(zor_test::write_file(ini, "[zor]\nwritable_root = " + dir_.path() + "\n"));
    zorctl_result r = run_zorctl({"-i", ini, "cloud", "off"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(qmxsrv_ctx.cloud_enabled.load(), 0);

    ASSERT_TRUE(zor_test::write_file(ini, "[zor]\nroot = /\n"));
    r = run_zorctl({"-i", ini, "status"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("no writable_root"), std::string::npos);
    r = run_zorctl({"-i", dir_.file("absent.ini"), "status"});
    EXPECT_EQ(r.status, 2);
}

}  // namespace
