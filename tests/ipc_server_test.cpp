// IPC command server over a real Unix socket, with raw request records.
#include "ipc/ipc_server.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "cmd_recorder.h"
#include "pctrl/pctrl_scheduler.h"
#include "qmx_db.h"
#include "qmxsrv_ctx.h"
#include "test_util.h"

namespace {

using namespace std::chrono_literals;
using zor_test::log_capture;
using zor_test::temp_dir;

const std::string kClean = R"([ -f /proc/zor/ctrl ] && echo "pc rule clean" > /proc/zor/ctrl)";

// A connected client socket with receive and send time-outs.
class client {
public:
    explicit client(const std::string& path) {
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        timeval tv{5, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
        connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    }
    ~client() { close(fd_); }
    client(const client&) = delete;
    client& operator=(const client&) = delete;

    bool connected() const { return connected_; }
    bool send_bytes(const void* data, size_t n) {
        return send(fd_, data, n, MSG_NOSIGNAL) == static_cast<ssize_t>(n);
    }
    void end_writing() { shutdown(fd_, SHUT_WR); }
    // Everything until the server closes (or the time-out); nullopt on a
    // receive error.
    std::optional<std::string> read_to_end() {
        std::string out;
        char buf[512];
        for (;;) {
            ssize_t n = recv(fd_, buf, sizeof buf, 0);
            if (n < 0) return std::nullopt;
            if (n == 0) return out;
            out.append(buf, static_cast<size_t>(n));
        }
    }

private:
    int fd_ = -1;
    bool connected_ = false;
};

ipc_request make_request(int32_t cmd, const std::string& buf = "", int32_t type = 0) {
    ipc_request req{};
    req.cmd = cmd;
    req.type = type;
    memcpy(req.buf, buf.data(), std::min(buf.size(), sizeof req.buf));
    return req;
}

class IpcServer : public ::testing::Test {
protected:
    void SetUp() override {
        socket_path_ = dir_.file(".ipc.socket");
        set_socket(socket_path_);
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

    static void set_socket(const std::string& path) {
        memset(qmxsrv_ctx.ipc_socket, 0, sizeof qmxsrv_ctx.ipc_socket);
        memcpy(qmxsrv_ctx.ipc_socket, path.data(), std::min(path.size(), sizeof qmxsrv_ctx.ipc_socket - 1));
    }

    // Sends one whole request and returns the 260-byte reply.
    ipc_reply call(const ipc_request& req) {
        std::string raw = call_raw(&req, sizeof req);
        ipc_reply reply{};
        EXPECT_EQ(raw.size(), sizeof reply);
        memcpy(&reply, raw.data(), std::min(raw.size(), sizeof reply));
        return reply;
    }
    ipc_reply call(int32_t cmd, const std::string& buf = "", int32_t type = 0) {
        return call(make_request(cmd, buf, type));
    }
    // Sends `n` raw bytes; returns what came back.
    std::string call_raw(const void* data, size_t n) {
        client c(socket_path_);
        EXPECT_TRUE(c.connected());
        EXPECT_TRUE(c.send_bytes(data, n));
        return c.read_to_end().value_or("<receive error>");
    }

    temp_dir dir_;
    log_capture log_;
    cmd_recorder rec_;
    std::string socket_path_;
};

TEST_F(IpcServer, SwitchCommandsSetTheContextWords) {
    EXPECT_EQ(call(IPC_CMD_CLOUD_DISABLE).result, 0);
    EXPECT_EQ(qmxsrv_ctx.cloud_enabled.load(), 0);
    EXPECT_EQ(call(IPC_CMD_CLOUD_ENABLE).result, 0);
    EXPECT_EQ(qmxsrv_ctx.cloud_enabled.load(), 1);
    EXPECT_EQ(call(IPC_CMD_EXIT).result, 0);
    EXPECT_EQ(qmxsrv_ctx.running.load(), 0);
    EXPECT_TRUE(log_.contains("[D] Receive command: disable cloud service"));
    EXPECT_TRUE(log_.contains("[D] Receive command: enable cloud service"));
    EXPECT_TRUE(log_.contains("[D] Receive command: exit"));
}

TEST_F(IpcServer, SetRuleWithoutPathFailsAndKeepsMsg) {
    std::string missing = dir_.file("x");
    ipc_reply r = call(IPC_CMD_PC_SET_RULE, missing);
    EXPECT_EQ(r.result, 1);
    EXPECT_STREQ(r.msg, ("The file " + missing + " does not exist.").c_str());
    EXPECT_TRUE(log_.contains("[D] The file " + missing + " does not exist."));

    call(IPC_CMD_CLOUD_ENABLE);  // result back to 0, msg untouched
    r = call(IPC_CMD_PC_SET_RULE, "");
    EXPECT_EQ(r.result, 1);
    EXPECT_STREQ(r.msg, ("The file " + missing + " does not exist.").c_str());
    EXPECT_TRUE(log_.contains("[D] IPC_CMD_PC_SET_RULE: no path"));
    EXPECT_EQ(qmxsrv_ctx_pc_rule(), "");
    EXPECT_TRUE(rec_.lines().empty());
}

TEST_F(IpcServer, SetRuleStoresPathAndAppliesAtOnce) {
    std::string path = dir_.file("rules.json");
    ASSERT_TRUE(zor_test::write_file(path, R"({"4": {"mac": "aabbccddeeff", "cn": "12"}})"));
    ipc_reply r = call(IPC_CMD_PC_SET_RULE, path);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(qmxsrv_ctx_pc_rule(), path);
    EXPECT_TRUE(log_.contains("[D] set rule: " + path));
    auto lines = rec_.lines();
    ASSERT_EQ(lines.size(), 2u);  // applied although parental control is off
    EXPECT_EQ(lines[0], kClean);
    EXPECT_NE(lines[1].find("pc rule add 1 aabbccddeeff 12 0 0"), std::string::npos);
}

TEST_F(IpcServer, UnterminatedPathIsCutAtItsLastByte) {
    ipc_request req = make_request(IPC_CMD_PC_SET_RULE);
    memset(req.buf, 'a', sizeof req.buf);
    ipc_reply r = call(req);
    EXPECT_EQ(r.result, 1);
    EXPECT_EQ(strnlen(r.msg, sizeof r.msg), sizeof r.msg - 1);  // cut to the record
    EXPECT_EQ(std::string(r.msg, 9), "The file ");
}

TEST_F(IpcServer, ClearRuleForgetsFileCleansKernelAndLeavesReply) {
    std::string path = dir_.file("rules.json");
    ASSERT_TRUE(zor_test::write_file(path, "{}"));
    qmxsrv_ctx_set_pc_rule(path.c_str());
    ipc_reply before = call(IPC_CMD_PC_SET_RULE, dir_.file("nope"));
    ASSERT_EQ(before.result, 1);
    ipc_reply after = call(IPC_CMD_PC_CLEAR_RULE);
    EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
    EXPECT_EQ(qmxsrv_ctx_pc_rule(), "");
    EXPECT_EQ(rec_.lines(), std::vector<std::string>{kClean});
}

TEST_F(IpcServer, EnableTwiceStartsSchedulerOnceAndDisableWhenOffDoesNothing) {
    std::string path = dir_.file("rules.json");
    ASSERT_TRUE(zor_test::write_file(path, R"({"1": {"mac": "aabbccddeeff", "cn": "1"}})"));
    qmxsrv_ctx_set_pc_rule(path.c_str());
    EXPECT_EQ(call(IPC_CMD_PC_ENABLE).result, 0);
    EXPECT_EQ(call(IPC_CMD_PC_ENABLE).result, 0);
    EXPECT_EQ(qmxsrv_ctx.pctrl_enabled.load(), 1);
    ASSERT_TRUE(rec_.wait_for("pc rule add", 1));
    EXPECT_EQ(call(IPC_CMD_PC_DISABLE).result, 0);  // stops and joins the scheduler
    EXPECT_EQ(qmxsrv_ctx.pctrl_enabled.load(), 0);
    EXPECT_EQ(call(IPC_CMD_PC_DISABLE).result, 0);
    // One apply at start, one clean at the one stop.
    EXPECT_EQ(rec_.count_with("pc rule clean"), 2u);
    EXPECT_EQ(rec_.count_with("pc rule add"), 1u);
    EXPECT_EQ(rec_.lines().back(), kClean);
    size_t starts = 0;
    for (const auto& line : log_.lines())
        starts += line.find("Start parental control scheduler") != std::string::npos;
    EXPECT_EQ(starts, 1u);
}

TEST_F(IpcServer, StatusWithoutLoginReportsCloudAndZeros) {
    ASSERT_EQ(call(IPC_CMD_PC_SET_RULE, "").result, 1);
    ipc_reply r = call(IPC_CMD_STATUS);
    EXPECT_STREQ(r.msg, "1 0 0 0 ");
    EXPECT_EQ(r.result, 1);  // not written by this command
    call(IPC_CMD_CLOUD_DISABLE);
    EXPECT_STREQ(call(IPC_CMD_STATUS).msg, "0 0 0 0 ");
}

TEST_F(IpcServer, UnknownCommandAnswersThePreviousReply) {
    ipc_reply before = call(IPC_CMD_PC_SET_RULE, "/no/such/file");
    ipc_reply after = call(5);
    EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
    EXPECT_TRUE(log_.contains("[D] unsupport command!"));
}

TEST_F(IpcServer, FirstReplyOfAnUnwritingCommandIsZeroed) {
    std::string raw;
    ipc_request req = make_request(77);
    raw = call_raw(&req, sizeof req);
    EXPECT_EQ(raw, std::string(sizeof(ipc_reply), '\0'));
}

TEST_F(IpcServer, QueryEchoesTheNameOverTheReply) {
    ipc_reply before = call(IPC_CMD_PC_SET_RULE, "/no/such/file");
    ipc_reply r = call(IPC_CMD_QUERY, "example.com 1 2", 20);
    const char* raw = reinterpret_cast<const char*>(&r);
    EXPECT_STREQ(raw, "example.com");
    // Beyond the name and its terminator the record is as it was.
    EXPECT_EQ(memcmp(raw + 12, reinterpret_cast<const char*>(&before) + 12, sizeof r - 12), 0);
    EXPECT_TRUE(log_.contains("[D] cmd: 100, type: 20, buf: example.com 1 2"));
    EXPECT_TRUE(log_.contains(R"([D] Send: {"q":[[20,"example.com",1,2]]})"));
}

TEST_F(IpcServer, QueryWithoutNumbersSendsNothing) {
    ipc_reply r = call(IPC_CMD_QUERY, "  lonely.example x", 20);
    EXPECT_STREQ(reinterpret_cast<const char*>(&r), "lonely.example");
    r = call(IPC_CMD_QUERY, "", 20);
    EXPECT_STREQ(reinterpret_cast<const char*>(&r), "lonely.example");  // nothing scanned
    EXPECT_FALSE(log_.contains("Send:"));
}

TEST_F(IpcServer, QueryNameFillsTheWholeBuffer) {
    ipc_request req = make_request(IPC_CMD_QUERY, "", 21);
    memset(req.buf, 'n', sizeof req.buf);  // no terminator and no numbers
    std::string raw = call_raw(&req, sizeof req);
    ASSERT_EQ(raw.size(), sizeof(ipc_reply));
    EXPECT_EQ(raw.substr(0, 256), std::string(255, 'n') + '\0');
}

TEST_F(IpcServer, DbCommandsReachTheCache) {
    ASSERT_EQ(db_init(), 0);
    db_put(db_get_or_add(20, "cached.example", 1));
    ASSERT_EQ(call(IPC_CMD_PC_SET_RULE, "").result, 1);
    ipc_reply r = call(IPC_CMD_DB_ADD, R"({"r":{"cached.example":[20,1,0,2,3,4]}})");
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(rec_.count_with("db key2group update 1 20 cached.example 7200 3 4"), 1u);
    ASSERT_EQ(call(IPC_CMD_PC_SET_RULE, "").result, 1);
    r = call(IPC_CMD_SHOW_DB);
    EXPECT_EQ(r.result, 0);
    EXPECT_TRUE(log_.contains("[D] Receive command: show database"));
    EXPECT_TRUE(log_.contains("[20]cached.example"));
    db_release();
    EXPECT_EQ(call(IPC_CMD_DB_ADD, "not json").result, 0);  // whatever the outcome
}

TEST_F(IpcServer, ShortGarbageAndEmptyRequestsNeverStopTheServer) {
    const unsigned char short_req[3] = {10, 0, 0};
    EXPECT_EQ(call_raw(short_req, sizeof short_req).size(), sizeof(ipc_reply));  // cmd 10
    {
        client silent(socket_path_);  // zero-length read: closed without reply
        ASSERT_TRUE(silent.connected());
        silent.end_writing();
        EXPECT_EQ(silent.read_to_end(), std::string());
    }
    std::string noise(264, '\0');
    for (int round = 0; round < 50; ++round) {
        for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<char>((i * 131 + round * 17) ^ 0x5a);
        // Keep away from the commands that would stop or reconfigure us.
        int32_t cmd = 1000 + round;
        memcpy(noise.data(), &cmd, sizeof cmd);
        EXPECT_EQ(call_raw(noise.data(), noise.size()).size(), sizeof(ipc_reply));
    }
    std::string oversize(600, 'z');  // only 264 bytes are taken
    call_raw(oversize.data(), oversize.size());
    qmxsrv_ctx.cloud_enabled = 0;
    EXPECT_EQ(call(IPC_CMD_CLOUD_ENABLE).result, 0);
    EXPECT_EQ(qmxsrv_ctx.cloud_enabled.load(), 1);
}

TEST_F(IpcServer, StopInterruptsAWaitForARequestAndRemovesTheSocket) {
    client idle(socket_path_);
    ASSERT_TRUE(idle.connected());
    std::this_thread::sleep_for(50ms);  // the thread now waits on this client
    auto t0 = std::chrono::steady_clock::now();
    ipc_srv_stop();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 2s);
    EXPECT_FALSE(zor_test::file_exists(socket_path_));
    EXPECT_TRUE(log_.contains("[D] Remove socket: " + socket_path_));
    ipc_srv_stop();
    client refused(socket_path_);
    EXPECT_FALSE(refused.connected());
}

TEST_F(IpcServer, StaleSocketFileIsRemovedAndBoundAgain) {
    ipc_srv_stop();
    ASSERT_TRUE(zor_test::write_file(socket_path_, "left over"));
    ASSERT_EQ(ipc_srv_start(), 1);
    struct stat st;
    ASSERT_EQ(stat(socket_path_.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(call(IPC_CMD_CLOUD_ENABLE).result, 0);
    // Starting again while running restarts on the same path.
    ASSERT_EQ(ipc_srv_start(), 1);
    EXPECT_EQ(call(IPC_CMD_CLOUD_ENABLE).result, 0);
}

TEST_F(IpcServer, StartRefusesMissingOrLongPathOrUnbindableSocket) {
    ipc_srv_stop();
    set_socket("");
    EXPECT_EQ(ipc_srv_start(), 0);
    EXPECT_TRUE(log_.contains("[E] IPC socket does not be set."));

    // The address holds 107 bytes and a terminator.
    std::string path107 = dir_.path() + "/";
    path107.append(107 - path107.size(), 's');
    set_socket(path107);
    EXPECT_EQ(ipc_srv_start(), 1);
    ipc_srv_stop();
    set_socket(path107 + "s");
    EXPECT_EQ(ipc_srv_start(), 0);
    EXPECT_TRUE(log_.contains("too long"));
    EXPECT_FALSE(zor_test::file_exists(path107 + "s"));

    set_socket(dir_.file("no/such/dir/.ipc.socket"));
    EXPECT_EQ(ipc_srv_start(), 0);
    EXPECT_TRUE(log_.contains("[E] binding failed: -1"));
    set_socket(socket_path_);
}

}  // namespace
