// zorctl run as a separate process against the command server of this
// process: what it sends, what it prints and how it exits.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
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

extern char** environ;

namespace {

using zor_test::log_capture;
using zor_test::temp_dir;

struct run_result {
    int status = -1;  // exit status, -1 when it did not exit normally
    std::string out;
    std::string err;
};

// Reads both pipes to their end.
void drain(int out_fd, int err_fd, run_result* r) {
    pollfd fds[2] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}};
    int open_count = 2;
    char buf[4096];
    while (open_count > 0) {
        if (poll(fds, 2, 30000) <= 0) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                (i == 0 ? r->out : r->err).append(buf, static_cast<size_t>(n));
            } else {
                fds[i].fd = -1;
                --open_count;
            }
        }
    }
}

// Runs zorctl with `args`, in `cwd` when given.
run_result zorctl(const std::vector<std::string>& args, const std::string& cwd = "") {
    int out[2];
    int err[2];
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(err, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    if (!cwd.empty()) posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
    std::vector<char*> argv;
    std::string prog = ZORCTL_PATH;
    argv.push_back(prog.data());
    std::vector<std::string> copy = args;
    for (auto& a : copy) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    int rc = posix_spawn(&pid, prog.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    run_result r;
    if (rc == 0) {
        drain(out[0], err[0], &r);
        int status = 0;
        waitpid(pid, &status, 0);
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    close(out[0]);
    close(err[0]);
    return r;
}

struct json_deleter {
    void operator()(cJSON* j) const { cJSON_Delete(j); }
};
using json_ptr = std::unique_ptr<cJSON, json_deleter>;

// The one JSON object zorctl printed (null when there is not exactly one).
json_ptr parse_one(const std::string& out) {
    const char* end = nullptr;
    json_ptr j(cJSON_ParseWithOpts(out.c_str(), &end, 0));
    if (!j || !cJSON_IsObject(j.get())) return nullptr;
    while (*end == '\n') ++end;
    return *end == '\0' ? std::move(j) : nullptr;
}

std::string str_member(const cJSON* j, const char* key) {
    const cJSON* m = cJSON_GetObjectItemCaseSensitive(j, key);
    return cJSON_IsString(m) ? m->valuestring : "<absent>";
}
int bool_member(const cJSON* j, const char* key) {
    const cJSON* m = cJSON_GetObjectItemCaseSensitive(j, key);
    return cJSON_IsBool(m) ? cJSON_IsTrue(m) : -1;
}

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

    run_result ctl(std::vector<std::string> args, const std::string& cwd = "") {
        args.insert(args.begin(), {"-s", socket_});
        return zorctl(args, cwd);
    }

    temp_dir dir_;
    log_capture log_;
    cmd_recorder rec_;
    std::string socket_;
};

TEST_F(Zorctl, StatusWithoutLogin) {
    run_result r = ctl({"status"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "cloud:      on\nlogged in:  no\nlogin time: -\nexpires:    -\naccount:    -\n");

    r = ctl({"--json", "status"});
    EXPECT_EQ(r.status, 0);
    json_ptr j = parse_one(r.out);
    ASSERT_TRUE(j) << r.out;
    EXPECT_EQ(str_member(j.get(), "command"), "status");
    EXPECT_EQ(bool_member(j.get(), "ok"), 1);
    EXPECT_EQ(bool_member(j.get(), "cloud"), 1);
    EXPECT_EQ(bool_member(j.get(), "logged_in"), 0);
    EXPECT_EQ(cJSON_GetObjectItem(j.get(), "login_time")->valuedouble, 0);
    EXPECT_EQ(cJSON_GetObjectItem(j.get(), "expiry_time")->valuedouble, 0);
    EXPECT_EQ(str_member(j.get(), "account"), "");
}

TEST_F(Zorctl, SwitchesReachTheService) {
    run_result r = ctl({"cloud", "off"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "Cloud category lookups are off.\n");
    EXPECT_EQ(qmxsrv_ctx.cloud_enabled.load(), 0);
    json_ptr j = parse_one(ctl({"status", "--json"}).out);  // --json after the command
    ASSERT_TRUE(j);
    EXPECT_EQ(bool_member(j.get(), "cloud"), 0);

    EXPECT_EQ(ctl({"cloud", "on"}).status, 0);
    EXPECT_EQ(qmxsrv_ctx.cloud_enabled.load(), 1);
    j = parse_one(ctl({"--json", "pc", "on"}).out);
    ASSERT_TRUE(j);
    EXPECT_EQ(bool_member(j.get(), "parental_control"), 1);
    EXPECT_EQ(qmxsrv_ctx.pctrl_enabled.load(), 1);
    EXPECT_EQ(ctl({"pc", "off"}).status, 0);
    EXPECT_EQ(qmxsrv_ctx.pctrl_enabled.load(), 0);
    EXPECT_EQ(ctl({"exit"}).status, 0);
    EXPECT_EQ(qmxsrv_ctx.running.load(), 0);
}

TEST_F(Zorctl, RuleFileIsSentAbsoluteAndApplied) {
    ASSERT_TRUE(zor_test::write_file(dir_.file("rules.json"),
                                     R"({"2": {"mac": "aabbccddeeff", "dn": "x.example"}})"));
    run_result r = ctl({"pc", "rule", "rules.json"}, dir_.path());
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
    run_result r = ctl({"pc", "rule", missing});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "zorctl: The file " + missing + " does not exist.\n");
    EXPECT_EQ(r.out, "");

    r = ctl({"--json", "pc", "rule", missing});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "");
    json_ptr j = parse_one(r.out);
    ASSERT_TRUE(j) << r.out;
    EXPECT_EQ(bool_member(j.get(), "ok"), 0);
    EXPECT_EQ(str_member(j.get(), "error"), "The file " + missing + " does not exist.");
    EXPECT_EQ(str_member(j.get(), "file"), missing);
}

TEST_F(Zorctl, QueryIsHandedToTheCloudClient) {
    run_result r = ctl({"query", "example.net", "20", "7", "-3"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Query for example.net handed to the cloud service"), std::string::npos);
    EXPECT_TRUE(log_.contains(R"(Send: {"q":[[20,"example.net",7,-3]]})"));
    json_ptr j = parse_one(ctl({"--json", "query", "a.example", "21", "0", "0"}).out);
    ASSERT_TRUE(j);
    EXPECT_EQ(str_member(j.get(), "name"), "a.example");
}

TEST_F(Zorctl, CacheCommands) {
    run_result r = ctl({"db", "show"});
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
        run_result r = zorctl(c.args);
        EXPECT_EQ(r.status, 2);
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    }
    run_result r = zorctl({"--json", "-s", "/x", "reboot"});
    EXPECT_EQ(r.status, 2);
    json_ptr j = parse_one(r.out);
    ASSERT_TRUE(j) << r.out;
    EXPECT_EQ(bool_member(j.get(), "ok"), 0);
    EXPECT_EQ(str_member(j.get(), "error"), "unknown command: reboot");
    EXPECT_FALSE(log_.contains("Receive command"));
}

TEST_F(Zorctl, MissingSocketAndRefusedConnection) {
    std::string none = dir_.file("none.socket");
    run_result r = zorctl({"-s", none, "status"});
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
    r = zorctl({"-s", stale, "--json", "status"});
    EXPECT_EQ(r.status, 3);
    json_ptr j = parse_one(r.out);
    ASSERT_TRUE(j) << r.out;
    EXPECT_NE(str_member(j.get(), "error").find("connection refused at " + stale), std::string::npos);
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
    run_result r = zorctl({"-s", path, "cloud", "on"});
    mute.join();
    close(fd);
    EXPECT_EQ(r.status, 4);
    EXPECT_NE(r.err.find("closed the connection without a reply"), std::string::npos) << r.err;
}

TEST_F(Zorctl, IniNamesTheSocket) {
    std::string ini = dir_.file("zor.ini");
    ASSERT_TRUE(zor_test::write_file(ini, "[zor]\nwritable_root = " + dir_.path() + "\n"));
    run_result r = zorctl({"-i", ini, "cloud", "off"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(qmxsrv_ctx.cloud_enabled.load(), 0);

    ASSERT_TRUE(zor_test::write_file(ini, "[zor]\nroot = /\n"));
    r = zorctl({"-i", ini, "status"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("no writable_root"), std::string::npos);
    r = zorctl({"-i", dir_.file("absent.ini"), "status"});
    EXPECT_EQ(r.status, 2);
}

}  // namespace
