// zorctl run as a separate process against the command server of this
// process: what it sends, what it prints and how it exits.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "ipc_client.h"
#include "qmxsrv_ctx.h"
#include "test_util.h"
#include "zorctl_run.h"

namespace {

using zor_test::write_file;

class Zorctl : public zor_test::ipc_server_fixture {
protected:
    zorctl_result ctl(std::vector<std::string> args) {
        args.insert(args.begin(), {"-s", sock_});
        return run_zorctl(args, dir_.path());
    }
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

TEST_F(Zorctl, BadCommandLinesAreRefusedBeforeSending) {
    const struct {
        std::vector<std::string> args;
        const char* message;
    } cases[] = {
        {{}, "give -s SOCKET or -i INI"},
        {{"-s", "/x"}, "no command given"},
        {{"-s", "/x", "-q", "status"}, "unknown option -q"},
        {{"-s", "/x", "reboot"}, "unknown command: reboot"},
        {{"-s", "/x", "pc", "rule", "/" + std::string(300, 'p')}, "longer than 255 bytes"},
        {{"-s", "/x", "query", "a", "99999999999", "1", "2"}, "32-bit integers"},
        {{"-s", "/x", "db", "add", "{broken"}, "one JSON object"},
        {{"-s", "/" + std::string(107, 's'), "status"}, "socket path longer than 107 bytes"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        zorctl_result r = run_zorctl(c.args);
        EXPECT_EQ(r.status, 2);
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    }
    EXPECT_FALSE(log_.contains("Receive command"));
}

TEST_F(Zorctl, MissingOrMuteServiceExitsThreeOrFour) {
    std::string none = dir_.file("none.socket");
    zorctl_result r = run_zorctl({"-s", none, "status"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err, "zorctl: no service socket at " + none + " (is zor_service running?)\n");

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
    EXPECT_EQ(r.err, "zorctl: the service closed the connection without a reply (it refuses accounts other than "
                     "root, its own and the members of its ipc_group)\n");
}

}  // namespace
