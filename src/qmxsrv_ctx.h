// The process-wide service context: what the configuration file says, plus
// the run-state words that several threads consult. Loaded once on the
// initial thread before any other thread exists; afterwards the string
// fields are read-only. The four state words are atomics written by the IPC
// and cloud threads and read by the main loop and the workers without a lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

struct qmxsrv_ctx_t {
    std::atomic<int32_t> auth_invalid{0};   // set when the cloud refuses the account
    std::atomic<int32_t> running{0};        // 1 after load; IPC "exit" clears it
    std::atomic<int32_t> cloud_enabled{0};  // cloud queries are sent while non-zero
    std::atomic<int32_t> pctrl_enabled{0};  // parental control switched on over IPC
    // 1 (INI key ctrl_shell = 1): kernel commands run as shell lines through
    // the command runner; otherwise they are written straight into the
    // control file (zor_ctrl.h). Set by the load; tests switch it.
    std::atomic<int32_t> ctrl_shell{0};

    std::mutex pc_rule_lock;
    char pc_rule[256] = {};     // rule file set over IPC; covered by pc_rule_lock
    char ipc_socket[256] = {};  // "<writable_root>/.ipc.socket", cut to 255 characters
    int32_t pid = 0;            // the service's process id (netlink port id)

    // Null (nullopt) while not configured; owned by the context.
    std::optional<std::string> root;
    std::optional<std::string> writable_root;
    std::optional<std::string> server;
    std::optional<std::string> product;
    std::optional<std::string> auth_id;
    std::optional<std::string> auth_pwd;
    std::optional<std::string> host;
    std::optional<std::string> xdb;
    // Hardening keys, all optional.
    std::optional<std::string> ipc_group;  // group served by the command socket too
    std::optional<std::string> ca_file;    // PEM bundle trusted for the cloud instead of the system's
    int32_t tls_verify = 1;                // 0: the cloud's certificate is not checked
    uint32_t log_level = 0;  // 0..6
    int32_t log_syslog = 0;  // 1 (INI key syslog = 1): log lines go to syslog(3) too
    int32_t db_capacity = 0; // always 2000 once loaded
};

extern qmxsrv_ctx_t qmxsrv_ctx;
// The key "http_mode": read and kept, consulted by nothing.
extern int32_t http_mode;

// Loads the configuration file at `path` into qmxsrv_ctx (zeroing it first)
// and creates writable_root when missing. Returns 1 on success, 0 on failure
// (every string already copied is released).
[[nodiscard]] int qmxsrv_ctx_load(const char* path);
// Releases the context's strings. Safe twice and before a load.
void qmxsrv_ctx_release();

// pc_rule accessors (IPC thread writes, scheduler reads).
std::string qmxsrv_ctx_pc_rule();
// Stores at most 255 characters of `path`; null or "" clears it.
void qmxsrv_ctx_set_pc_rule(const char* path);
