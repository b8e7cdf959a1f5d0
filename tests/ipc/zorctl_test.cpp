// zorctl run as a separate process against the command server of this
// process: what it sends, what it prints and how it exits.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "cmd_recorder.h"
#include "ipc_client.h"
#include "pctrl/pctrl_scheduler.h"
#include "qmxsrv_ctx.h"
#include "test_util.h"
#include "zorctl_run.h"

namespace {

using zor_test::write_file;

class Zorctl : public ::testing::Test {
protected:
    void SetUp() override {
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
    zorctl_result ctl(std::vector<std::string> args) {
        args.insert(args.begin(), {"-s", socket_});
        return run_zorctl(args, dir_.path());
    }
    // Runs a --json command line: its exit status and its one JSON object.
    json_ptr json(const std::vector<std::string>& args, int status) {
        zorctl_result r = ctl(args);
        EXPECT_EQ(r.status, status) << r.err;
        EXPECT_EQ(r.err, "");
        json_ptr j = parse_one_object(r.out);
        EXPECT_TRUE(j) << r.out;
        return j ? std::move(j) : json_ptr(cJSON_CreateObject());
    }

    zor_test::temp_dir dir_;
    zor_test::log_capture log_;
    cmd_recorder rec_;
    std::string socket_ = dir_.file(".ipc.socket");
};

TEST_F(Zorctl, EachCommandPrintsItsResultAndReachesTheService) {
    const std::string rules = dir_.file("rules.json"), missing = dir_.file("gone.json");
    ASSERT_TRUE(write_file(rules, R"({"2": {"mac": "aabbccddeeff", "dn": "x.example"}})"));
    struct {
        std::vector<std::string> args;
        int status;
        std::string out, err;
        const std::atomic<int32_t>* word;  // a context word the command sets
        int32_t value;
    } cases[] = {
        {{"status"}, 0, "cloud:      on\nlogged in:  no\nlogin time: -\nexpires:    -\naccount:    -\n", "", nullptr, 0},
        {{"cloud", "off"}, 0, "Cloud category lookups are off.\n", "", &qmxsrv_ctx.cloud_enabled, 0},
        {{"cloud", "on"}, 0, "Cloud category lookups are on.\n", "", &qmxsrv_ctx.cloud_enabled, 1},
        {{"pc", "on"}, 0, "Parental control is on: the rules due today are in force and are renewed at every midnight.\n",
         "", &qmxsrv_ctx.pctrl_enabled, 1},
        {{"pc", "off"}, 0, "Parental control is off.\n", "", &qmxsrv_ctx.pctrl_enabled, 0},
        // A relative rule file is sent as an absolute path.
        {{"pc", "rule", "rules.json"}, 0,
         "Rule file " + rules + " set and applied. Rules it rejects are skipped and named in the service log.\n", "",
         nullptr, 0},
        {{"pc", "clear"}, 0, "Rule file forgotten and the kernel rule table emptied.\n", "", nullptr, 0},
        {{"pc", "rule", missing}, 1, "", "zorctl: The file " + missing + " does not exist.\n", nullptr, 0},
        {{"query", "example.net", "20", "7", "-3"}, 0,
         "Query for example.net handed to the cloud service; its answer goes to the service log, not to this reply.\n",
         "", nullptr, 0},
        {{"db", "show"}, 0, "The verdict cache listing was written to the service log.\n", "", nullptr, 0},
        {{"db", "add", R"({"r":{}})"}, 0,
         "Reply handed to the verdict cache; the service does not say whether it took any verdict from it.\n", "",
         nullptr, 0},
        {{"exit"}, 0, "zor_service is shutting down.\n", "", &qmxsrv_ctx.running, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[0] + (c.args.size() > 1 ? " " + c.args[1] : ""));
        zorctl_result r = ctl(c.args);
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, c.err);
        if (c.word) {
            EXPECT_EQ(c.word->load(), c.value);
        }
    }
    EXPECT_EQ(rec_.count_with("pc rule add 2 aabbccddeeff x.example 0 0"), 1u);
    EXPECT_EQ(qmxsrv_ctx_pc_rule(), "");
    EXPECT_TRUE(log_.contains(R"(Send: {"q":[[20,"example.net",7,-3]]})"));
    EXPECT_TRUE(log_.contains("[D] Receive command: show database"));
}

TEST_F(Zorctl, JsonOutputIsOneObjectPerCommand) {
    qmxsrv_ctx.cloud_enabled = 0;
    json_ptr j = json({"status", "--json"}, 0);  // --json after the command
    EXPECT_EQ(json_str(j.get(), "command"), "status");
    EXPECT_EQ(json_bool(j.get(), "ok"), 1);
    EXPECT_EQ(json_bool(j.get(), "cloud"), 0);
    EXPECT_EQ(json_bool(j.get(), "logged_in"), 0);
    EXPECT_EQ(json_num(j.get(), "login_time"), 0);
    EXPECT_EQ(json_num(j.get(), "expiry_time"), 0);
    EXPECT_EQ(json_str(j.get(), "account"), "");
    EXPECT_EQ(json_bool(json({"--json", "pc", "on"}, 0).get(), "parental_control"), 1);
    EXPECT_EQ(json_str(json({"--json", "query", "a.example", "21", "0", "0"}, 0).get(), "name"), "a.example");
    const std::string missing = dir_.file("gone.json");
    j = json({"--json", "pc", "rule", missing}, 1);
    EXPECT_EQ(json_bool(j.get(), "ok"), 0);
    EXPECT_EQ(json_str(j.get(), "error"), "The file " + missing + " does not exist.");
    EXPECT_EQ(json_str(j.get(), "file"), missing);
    j = json({"--json", "reboot"}, 2);
    EXPECT_EQ(json_bool(j.get(), "ok"), 0);
    EXPECT_EQ(json_str(j.get(), "error"), "unknown command: reboot");
}

TEST_F(Zorctl, BadCommandLinesAreRefusedBeforeSending) {
    const struct {
        std::vector<std::string> args;
        const char* message;
    } cases[] = {
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
        {{"-s", "/" + std::string(107, 's'), "status"}, "socket path longer than 107 bytes"},
        {{"-i", "/no/such.ini", "status"}, ""},  // the exit status only
    };
    ASSERT_TRUE(write_file(dir_.file("zor.ini"), "[zor]\nroot = /\n"));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        zorctl_result r = run_zorctl(c.args);
        EXPECT_EQ(r.status, 2);
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    }
    zorctl_result r = run_zorctl({"-i", dir_.file("zor.ini"), "status"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("no writable_root"), std::string::npos) << r.err;
    EXPECT_FALSE(log_.contains("Receive command"));
    // A good ini names the socket under its writable root.
    ASSERT_TRUE(write_file(dir_.file("zor.ini"), "[zor]\nwritable_root = " + dir_.path() + "\n"));
    EXPECT_EQ(run_zorctl({"-i", dir_.file("zor.ini"), "cloud", "off"}).status, 0);
    EXPECT_EQ(qmxsrv_ctx.cloud_enabled.load(), 0);
}

TEST_F(Zorctl, MissingRefusingOrMuteServiceExitsThreeOrFour) {
    std::string none = dir_.file("none.socket");
    zorctl_result r = run_zorctl({"-s", none, "status"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err, "zorctl: no service socket at " + none + " (is zor_service running?)\n");

    std::string stale = dir_.file("stale.socket");  // its service is gone
    ASSERT_TRUE(zor_test::ipc_socket(stale, true).ok());
    json_ptr j = parse_one_object((r = run_zorctl({"-s", stale, "--json", "status"})).out);
    EXPECT_EQ(r.status, 3);
    ASSERT_TRUE(j) << r.out;
    EXPECT_NE(json_str(j.get(), "error").find("connection refused at " + stale), std::string::npos);

    zor_test::ipc_socket mute(dir_.file("mute.socket"), true);  // reads the request, closes
    ASSERT_TRUE(mute.ok());
    std::thread server([&] {
        int c = accept(mute.fd(), nullptr, nullptr);
        char buf[sizeof(ipc_request)];
        if (c >= 0) {
            (void)!recv(c, buf, sizeof buf, MSG_WAITALL);
            close(c);
        }
    });
    r = run_zorctl({"-s", dir_.file("mute.socket"), "cloud", "on"});
    server.join();
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.err, "zorctl: the service closed the connection without a reply\n");
}

}  // namespace
