// The command server over a real Unix socket, with raw request records.
#include "ipc/ipc_server.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <thread>

#include "ipc_client.h"
#include "qmx_db.h"
#include "qmxsrv_ctx.h"
#include "stats.h"
#include "test_util.h"

namespace {

using namespace std::chrono_literals;
using namespace zor_test;

const std::string kClean = "pc rule clean";

using IpcServer = ipc_server_fixture;

// The reply record lives as long as the command thread: each command writes
// only its own part, so every step is checked against the record before it.
TEST_F(IpcServer, EachCommandWritesOnlyItsPartOfTheReply) {
    const std::string missing = dir_.file("x"), no_file = "The file " + missing + " does not exist.";
    struct step {
        int32_t cmd;
        std::string buf;
        int32_t type;
        std::optional<int32_t> result;    // written result
        std::optional<std::string> msg;   // written msg
        std::optional<std::string> name;  // a query's name, written over the record's start
        std::string log;
    } steps[] = {
        {77, "", 0, {}, {}, {}, "[D] unsupport command!"},  // the first reply is all zeros
        {IPC_CMD_PC_SET_RULE, missing, 0, 1, no_file, {}, "[D] " + no_file},
        {IPC_CMD_STATUS, "", 0, {}, "0 0 0 0 ", {}, ""},  // result not written
        {IPC_CMD_CLOUD_ENABLE, "", 0, 0, {}, {}, "[D] Receive command: enable cloud service"},
        {IPC_CMD_PC_SET_RULE, "", 0, 1, {}, {}, "[D] IPC_CMD_PC_SET_RULE: no path"},
        {IPC_CMD_STATUS, "", 0, {}, "1 0 0 0 ", {}, ""},
        // No category file configured: nothing to load, the text is emptied.
        {IPC_CMD_RELOAD, "", 0, 0, "", {}, "[D] Receive command: reload"},
        {IPC_CMD_PC_CLEAR_RULE, "", 0, {}, {}, {}, ""},
        {IPC_CMD_SHOW_DB, "", 0, 0, {}, {}, "[D] Receive command: show database"},
        // An unterminated path is cut at the buffer's last byte, its message at the record's.
        {IPC_CMD_PC_SET_RULE, std::string(256, 'a'), 0, 1, ("The file " + std::string(255, 'a')).substr(0, 255), {}, ""},
        {IPC_CMD_DB_ADD, R"({"r":{"cached.example":[20,1,0,2,3,4]}})", 0, 0, {}, {}, ""},
        {IPC_CMD_QUERY, "  lonely.example x", 20, {}, {}, "lonely.example", ""},  // no numbers: nothing sent
        {IPC_CMD_QUERY, "example.com 1 2", 20, {}, {}, "example.com", "[D] cmd: 100, type: 20, buf: example.com 1 2"},
        {IPC_CMD_QUERY, std::string(256, 'n'), 21, {}, {}, std::string(255, 'n'), ""},
        {IPC_CMD_CLOUD_DISABLE, "", 0, 0, {}, {}, "[D] Receive command: disable cloud service"},
        {IPC_CMD_EXIT, "", 0, 0, {}, {}, "[D] Receive command: exit"},
    };
    ASSERT_EQ(db_init(), 0);
    db_put(db_get_or_add(20, "cached.example", 1));
    qmxsrv_ctx.cloud_enabled = 0;
    ipc_reply prev{};
    for (const step& s : steps) {
        SCOPED_TRACE(std::to_string(s.cmd) + " " + s.buf.substr(0, 20));
        ipc_reply r = call(s.cmd, s.buf, s.type);
        const char* raw = reinterpret_cast<const char*>(&r);
        if (s.name) {
            EXPECT_STREQ(raw, s.name->c_str());
            size_t n = s.name->size() + 1;
            EXPECT_EQ(memcmp(raw + n, reinterpret_cast<const char*>(&prev) + n, sizeof r - n), 0);
        } else {
            EXPECT_EQ(r.result, s.result.value_or(prev.result));
            if (s.msg) {
                EXPECT_EQ(std::string(r.msg, strnlen(r.msg, sizeof r.msg)), *s.msg);
            } else {
                EXPECT_EQ(memcmp(r.msg, prev.msg, sizeof r.msg), 0);
            }
        }
        EXPECT_TRUE(s.log.empty() || log_.contains(s.log)) << s.log;
        prev = r;
    }
    db_release();
    EXPECT_EQ(qmxsrv_ctx.running.load(), 0);
    EXPECT_EQ(qmxsrv_ctx_pc_rule(), "");
    EXPECT_EQ(rec_.lines(), (std::vector<std::string>{
                                kClean, "db key2group update 1 20 cached.example 7200 3 4"}));
    size_t sends = 0;
    for (const std::string& l : log_.lines()) sends += l.find("Send:") != std::string::npos;
    EXPECT_EQ(sends, 1u);
    EXPECT_TRUE(log_.contains(R"([D] Send: {"q":[[20,"example.com",1,2]]})"));
}

TEST_F(IpcServer, ShortAndEmptyRequestsNeverStopTheServer) {
    const unsigned char short_req[3] = {10, 0, 0};
    EXPECT_EQ(ipc_call_raw(sock_, short_req, sizeof short_req).size(), sizeof(ipc_reply));
    {
        ipc_socket silent(sock_);  // a zero-length read: closed without a reply
        ASSERT_TRUE(silent.ok());
        shutdown(silent.fd(), SHUT_WR);
        EXPECT_EQ(silent.read_to_end(), "");
    }
    qmxsrv_ctx.cloud_enabled = 0;
    EXPECT_EQ(call(IPC_CMD_CLOUD_ENABLE).result, 0);
    EXPECT_EQ(qmxsrv_ctx.cloud_enabled.load(), 1);
}

// A connected client that sends nothing is dropped once the request wait has
// passed (here 100 ms instead of the product's 5 s), and the next is served.
TEST_F(IpcServer, SilentClientIsDroppedAfterTheRequestWait) {
    ipc_srv_stop();
    zor_test::scoped_timing timing({.ipc_request = 100ms});
    ASSERT_EQ(ipc_srv_start(), 1);
    ipc_socket silent(sock_);
    ASSERT_TRUE(silent.ok());
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(silent.read_to_end(), "");
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 2s);
    EXPECT_TRUE(log_.contains("[D] No request within 100 ms, connection closed"));
    EXPECT_EQ(call(IPC_CMD_CLOUD_ENABLE).result, 0);
}

TEST_F(IpcServer, StopInterruptsAWaitForARequestAndRemovesTheSocket) {
    ipc_socket idle(sock_);
    ASSERT_TRUE(idle.ok());
    std::this_thread::sleep_for(50ms);  // the thread now waits on this client
    auto t0 = std::chrono::steady_clock::now();
    ipc_srv_stop();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 2s);
    EXPECT_FALSE(file_exists(sock_));
    EXPECT_TRUE(log_.contains("[D] Remove socket: " + sock_));
    ipc_srv_stop();  // safe twice
}

TEST_F(IpcServer, StartRebindsOverALeftOverFileAndRefusesBadPaths) {
    ipc_srv_stop();
    ASSERT_TRUE(write_file(sock_, "left over"));
    ASSERT_EQ(ipc_srv_start(), 1);
    EXPECT_EQ(call(IPC_CMD_CLOUD_ENABLE).result, 0);
    ipc_srv_stop();

    ipc_set_socket("");
    EXPECT_EQ(ipc_srv_start(), 0);
    EXPECT_TRUE(log_.contains("[E] IPC socket does not be set."));
    std::string path107 = dir_.path() + "/";  // the address holds 107 bytes and a terminator
    path107.append(107 - path107.size(), 's');
    ipc_set_socket(path107);
    EXPECT_EQ(ipc_srv_start(), 1);
    ipc_srv_stop();
    ipc_set_socket(path107 + "s");
    EXPECT_EQ(ipc_srv_start(), 0);
    EXPECT_TRUE(log_.contains("too long"));
    EXPECT_FALSE(file_exists(path107 + "s"));
    ipc_set_socket(sock_);
}

// Counter records as they travel: each holds whole "NAME VALUE" lines and a
// terminator inside its text, and its result counts down to 0 on the last.
// Returns the lines of all of them, or a failure.
testing::AssertionResult record_lines(const std::vector<ipc_reply>& records, std::string* text) {
    if (records.empty() || records.size() > IPC_STATS_MAX_RECORDS) return testing::AssertionFailure() << records.size() << " records";
    text->clear();
    for (size_t i = 0; i < records.size(); ++i) {
        const ipc_reply& r = records[i];
        const size_t len = strnlen(r.msg, sizeof r.msg);
        if (len == sizeof r.msg) return testing::AssertionFailure() << "record " << i << " unterminated";
        if (len == 0 || r.msg[len - 1] != '\n') return testing::AssertionFailure() << "record " << i << " cuts a line";
        if (r.result != static_cast<int32_t>(records.size() - 1 - i))
            return testing::AssertionFailure() << "record " << i << " says " << r.result << " follow";
        text->append(r.msg, len);
    }
    return testing::AssertionSuccess();
}

// The value of `name` in record lines, or -1.
long long value_in(const std::string& text, const std::string& name) {
    const size_t at = ("\n" + text).find("\n" + name + " ");
    return at == std::string::npos ? -1 : std::stoll(text.substr(at + name.size() + 1));
}

std::vector<ipc_reply> stats_call(const std::string& path) {
    const ipc_request req = make_request(IPC_CMD_STATS);
    const std::string raw = ipc_call_raw(path, &req, sizeof req);
    std::vector<ipc_reply> records(raw.size() / sizeof(ipc_reply));
    EXPECT_EQ(raw.size() % sizeof(ipc_reply), 0u);
    memcpy(static_cast<void*>(records.data()), raw.data(), records.size() * sizeof(ipc_reply));
    return records;
}

// Over the socket: counters the modules bump and the cache's entry count
// show in the records; the kept reply record is left as it was.
TEST_F(IpcServer, StatsCommandSendsEveryCounterInRecords) {
    ASSERT_EQ(db_init(), 0);
    std::string before, after;
    ASSERT_TRUE(record_lines(stats_call(sock_), &before));
    const ipc_reply kept = call(IPC_CMD_STATUS);
    for (const char* key : {"a.example", "b.example", "c.example", "a.example"}) db_put(db_get_or_add(20, key, 1));
    stat_add(g_stats.verdicts_cache, 5);
    ASSERT_TRUE(record_lines(stats_call(sock_), &after));
    db_release();
    EXPECT_EQ(value_in(after, "cache_added") - value_in(before, "cache_added"), 3);
    EXPECT_EQ(value_in(after, "cache_entries"), 3);
    EXPECT_EQ(value_in(after, "verdicts_cache") - value_in(before, "verdicts_cache"), 5);
    for (const stat_info& info : stats_table()) EXPECT_GE(value_in(after, info.name), 0) << info.name;
    const ipc_reply again = call(77);  // writes nothing: shows the kept record
    EXPECT_EQ(memcmp(&again, &kept, sizeof kept), 0);
    EXPECT_TRUE(log_.contains("[D] Receive command: stats"));
}

// Packing at the bounds: the real table with the widest values fits, and a
// list too long for the records is cut at the record bound, its last record
// still flagged.
TEST_F(IpcServer, StatsRecordsHoldWholeLinesUpToTheirBound) {
    std::vector<stat_value> widest;
    for (const stat_info& info : stats_table()) widest.push_back({&info, UINT64_MAX});
    std::string text;
    ASSERT_TRUE(record_lines(ipc_stats_records(widest), &text));
    for (const stat_info& info : stats_table())
        EXPECT_NE(text.find(std::string(info.name) + " 18446744073709551615\n"), std::string::npos) << info.name;

    static const stat_info longest{"a_counter_name_of_forty_characters_xxxxx", stat_kind::counter, "x", 1, "x"};
    ASSERT_EQ(strlen(longest.name), STAT_NAME_MAX);
    const std::vector<stat_value> many(500, stat_value{&longest, UINT64_MAX});
    const std::vector<ipc_reply> cut = ipc_stats_records(many);
    ASSERT_TRUE(record_lines(cut, &text));
    EXPECT_EQ(cut.size(), IPC_STATS_MAX_RECORDS);
    EXPECT_EQ(ipc_stats_records({}).size(), 1u);  // nothing to say still ends the reply
}

// What became of a request sent from another account.
enum class fate { served = 0, no_entry = 1, closed_unanswered = 2, other = 3 };

// Connects to `path` as uid/gid (no supplementary groups) from a forked
// child and sends `cmd`; how that went.
fate request_as(const std::string& path, uid_t uid, gid_t gid, int32_t cmd) {
    const ipc_request req = make_request(cmd);
    pid_t pid = fork();
    if (pid == 0) {
        // Only system calls from here: the parent runs threads.
        if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0) _exit(3);
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        memcpy(a.sun_path, path.c_str(), path.size());
        if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) _exit(errno == EACCES ? 1 : 3);
        timeval tv{5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        (void)send(fd, &req, sizeof req, MSG_NOSIGNAL);
        char reply[sizeof(ipc_reply) + 1];
        ssize_t got = 0, n;
        while ((n = recv(fd, reply + got, sizeof reply - got, 0)) > 0) got += n;
        // Closed before the request was read: a reset rather than an end.
        if (n < 0 && errno == ECONNRESET && got == 0) _exit(2);
        _exit(n < 0 ? 3 : got == sizeof(ipc_reply) ? 0 : got == 0 ? 2 : 3);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return fate::other;
    return static_cast<fate>(WEXITSTATUS(status));
}

// Root, the service's own uid and the configured group are served; anyone
// else is stopped by the socket file's mode, or, should that ever let them
// through, closed unanswered by the credential check with a log line, and
// their command has no effect. The file's mode does not depend on the umask.
TEST_F(IpcServer, OnlyRootTheServiceAndItsGroupAreServed) {
    if (geteuid() != 0) GTEST_SKIP() << "switching accounts needs root";
    const group* nogroup = getgrgid(65534);
    if (!nogroup) GTEST_SKIP() << "no group 65534 here";
    const std::string group_name = nogroup->gr_name;
    ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
    struct row {
        const char* what;
        bool with_group;
        bool loosened;  // the socket file made 0666 behind the service's back
        uid_t uid;
        fate expected;
    } rows[] = {
        {"stranger", false, false, 65534, fate::no_entry},
        {"stranger past a loosened file", false, true, 65534, fate::closed_unanswered},
        {"member of ipc_group", true, false, 65534, fate::served},
        {"non-member with ipc_group", true, false, 65533, fate::no_entry},
        {"non-member past a loosened file", true, true, 65533, fate::closed_unanswered},
        {"root", false, false, 0, fate::served},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.what);
        ipc_srv_stop();
        qmxsrv_ctx.ipc_group = r.with_group ? std::optional<std::string>(group_name) : std::nullopt;
        const mode_t old_mask = umask(0);
        ASSERT_EQ(ipc_srv_start(), 1);
        umask(old_mask);
        struct stat st{};
        ASSERT_EQ(lstat(sock_.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, r.with_group ? 0660u : 0600u);
        EXPECT_EQ(st.st_gid, r.with_group ? 65534u : 0u);
        if (r.loosened) {
            ASSERT_EQ(chmod(sock_.c_str(), 0666), 0);
        }
        const std::string refusal = "[E] Refused command connection from uid " + std::to_string(r.uid) + " ";
        auto refusals = [&] {
            size_t n = 0;
            for (const std::string& l : log_.lines()) n += l.find(refusal) != std::string::npos;
            return n;
        };
        const size_t before = refusals();
        qmxsrv_ctx.running = 1;
        EXPECT_EQ(request_as(sock_, r.uid, r.uid, IPC_CMD_EXIT), r.expected);
        EXPECT_EQ(qmxsrv_ctx.running.load(), r.expected == fate::served ? 0 : 1);
        EXPECT_EQ(refusals() - before, r.expected == fate::closed_unanswered ? 1u : 0u);
    }
    qmxsrv_ctx.ipc_group.reset();
    qmxsrv_ctx.running = 1;
}

// An ipc_group that names no group admits nobody more, and says so.
TEST_F(IpcServer, UnknownGroupLeavesTheSocketPrivate) {
    ipc_srv_stop();
    qmxsrv_ctx.ipc_group = "no-such-group-here";
    ASSERT_EQ(ipc_srv_start(), 1);
    qmxsrv_ctx.ipc_group.reset();
    struct stat st{};
    ASSERT_EQ(lstat(sock_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_TRUE(log_.contains("[E] ipc_group no-such-group-here: no such group"));
}

}  // namespace
