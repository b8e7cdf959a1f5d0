// Requests on the command socket come from any local process that can open
// it: a connection carries one 264-byte record (a short one reads as zeros
// after what was sent) and gets the 260-byte reply record the command thread
// keeps. Any sequence of records is dispatched without harm: the state words
// follow the commands, a reply text always ends inside its record, and the
// only kernel lines are rule and verdict lines that are safe for the shell.
//
// Input: request records, 264 bytes each (the last may be short), dispatched
// in order against one reply record, as one command thread would.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "ipc/ipc_server.h"
#include "pctrl/pctrl_scheduler.h"
#include "qmx_db.h"
#include "qmxsrv_ctx.h"

namespace {

constexpr size_t kMaxRequests = 8;
// Rule files the requests may name. Other paths are not handed to the
// service: a fuzzer must not make it read devices or files of the machine.
constexpr std::string_view kRuleDir = "/tmp/zor-fuzz-ipc/";

void write_file(const std::string& path, std::string_view text) {
    FILE* f = fopen(path.c_str(), "w");
    if (!f) fuzz::fail("cannot write", path);
    fwrite(text.data(), 1, text.size(), f);
    fclose(f);
}

void make_rule_dir() {
    const std::string dir(kRuleDir);
    mkdir(dir.c_str(), 0700);
    // A shared /tmp: write only into a directory of our own, never through a link.
    struct stat st {};
    if (lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != getuid())
        fuzz::fail("rule directory is not a directory of this user", dir);
    write_file(dir + "rules.json",
               R"({"1":{"mac":"00:11:22:33:44:55","dn":"games.example"},)"
               R"("2":{"mac":"001122334466","cn":"video","schedule":{"type":1,"weekly":[0,1,2,3,4,5,6],)"
               R"("from":"00:00","to":"23:59"}}})");
    write_file(dir + "bad.json", "{\"1\":");
    write_file(dir + "empty.json", "");
}

bool path_allowed(const char* path) {
    const std::string_view p(path);
    return p.substr(0, kRuleDir.size()) == kRuleDir && p.find("..") == std::string_view::npos;
}

void reset_state() {
    if (qmxsrv_ctx.pctrl_enabled.exchange(0) != 0) pctrl_sched_stop();
    qmxsrv_ctx.running = 1;
    qmxsrv_ctx.cloud_enabled = 1;
    qmxsrv_ctx_set_pc_rule(nullptr);
}

void check_after(const ipc_request& req, const ipc_reply& reply) {
    fuzz::check(memchr(reply.msg, '\0', sizeof reply.msg) != nullptr, "reply text runs past its record");
    switch (req.cmd) {
        case IPC_CMD_EXIT:
            fuzz::check(qmxsrv_ctx.running == 0 && reply.result == 0, "exit");
            break;
        case IPC_CMD_CLOUD_ENABLE:
        case IPC_CMD_CLOUD_DISABLE:
            fuzz::check(qmxsrv_ctx.cloud_enabled == (req.cmd == IPC_CMD_CLOUD_ENABLE) && reply.result == 0,
                        "cloud switch");
            break;
        case IPC_CMD_PC_ENABLE:
        case IPC_CMD_PC_DISABLE:
            fuzz::check(qmxsrv_ctx.pctrl_enabled == (req.cmd == IPC_CMD_PC_ENABLE) && reply.result == 0,
                        "parental control switch");
            break;
        case IPC_CMD_STATUS: {
            // No cloud session exists here.
            char want[16];
            snprintf(want, sizeof want, "%c 0 0 0 ", qmxsrv_ctx.cloud_enabled != 0 ? '1' : '0');
            fuzz::check(strcmp(reply.msg, want) == 0, "status text", reply.msg);
            break;
        }
        default:
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::setup();
    make_rule_dir();
    db_init();
    atexit([] {
        reset_state();
        db_release();
    });
    db_get_or_add(20, "example.com", 0);
    db_get_or_add(21, "192.0.2.1", 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxRequests * sizeof(ipc_request)) return 0;
    reset_state();
    fuzz::take_lines();
    ipc_reply reply{};  // zeroed once, kept between requests
    for (size_t at = 0; at < size; at += sizeof(ipc_request)) {
        ipc_request req;
        memset(&req, 0, sizeof req);
        memcpy(&req, data + at, std::min(sizeof req, size - at));
        req.buf[sizeof req.buf - 1] = '\0';
        if (req.cmd == IPC_CMD_PC_SET_RULE && !path_allowed(req.buf)) continue;
        ipc_dispatch(req, reply);
        check_after(req, reply);
    }
    reset_state();
    for (const std::string& line : fuzz::take_lines()) {
        const bool expected = line.find("echo \"pc rule ") != std::string::npos ||
                              line.find("echo \"db key2group update 1 ") != std::string::npos;
        fuzz::check(expected, "a command no request asks for", line);
    }
    return 0;
}
