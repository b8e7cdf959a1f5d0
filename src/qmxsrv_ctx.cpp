#include "qmxsrv_ctx.h"

#include <cstdio>
#include <cstring>

#include "ini.h"
#include "log.h"
#include "util/dir_chain.h"
#include "util/group_id.h"

qmxsrv_ctx_t qmxsrv_ctx;
int32_t http_mode = 0;

namespace {

constexpr const char* kSection = "zor";

void clear_strings() {
    qmxsrv_ctx_t& c = qmxsrv_ctx;
    for (auto* field : {&c.root, &c.writable_root, &c.server, &c.product, &c.auth_id, &c.auth_pwd,
                        &c.host, &c.xdb, &c.ipc_group, &c.ca_file}) {
        field->reset();
    }
}

void ctx_reset() {
    qmxsrv_ctx_t& c = qmxsrv_ctx;
    c.auth_invalid = 0;
    c.running = 0;
    c.cloud_enabled = 0;
    c.pctrl_enabled = 0;
    c.ctrl_shell = 0;
    qmxsrv_ctx_set_pc_rule(nullptr);
    memset(c.ipc_socket, 0, sizeof c.ipc_socket);
    c.pid = 0;
    clear_strings();
    c.log_level = 0;
    c.log_syslog = 0;
    c.db_capacity = 0;
    c.tls_verify = 1;
}

std::optional<std::string> read_key(const ini_t* ini, const char* key) {
    const char* v = ini_get_string(ini, kSection, key, nullptr);
    return v ? std::optional<std::string>(v) : std::nullopt;
}

// The four account keys, each required, read and tested in this order.
bool read_account(const ini_t* ini) {
    qmxsrv_ctx_t& c = qmxsrv_ctx;
    std::optional<std::string>* fields[] = {&c.auth_id, &c.auth_pwd, &c.host, &c.product};
    const char* keys[] = {"auth_id", "auth_pwd", "host", "product"};
    for (size_t i = 0; i < std::size(keys); ++i) {
        *fields[i] = read_key(ini, keys[i]);
        if (!*fields[i]) return false;
    }
    return true;
}

// root, writable_root and server: all read before any is tested.
bool read_paths(const ini_t* ini) {
    qmxsrv_ctx_t& c = qmxsrv_ctx;
    auto root = read_key(ini, "root");
    auto writable_root = read_key(ini, "writable_root");
    auto server = read_key(ini, "server");
    if (!root || !writable_root || !server) return false;
    c.root = std::move(root);
    c.writable_root = std::move(writable_root);
    c.server = std::move(server);
    snprintf(c.ipc_socket, sizeof c.ipc_socket, "%s/.ipc.socket", c.writable_root->c_str());
    return true;
}

// Values of 7 and above (and every negative one, compared unsigned) become 3,
// so the configuration can never switch on debug lines.
uint32_t read_log_level(const ini_t* ini) {
    unsigned long level = static_cast<unsigned long>(ini_get_int(ini, kSection, "log_level", 3));
    if (level >= 7) level = 3;
    printf("log_level = %d\n", static_cast<int>(level));
    // Flushed now: a daemon's fork must not print it a second time.
    fflush(stdout);
    return static_cast<uint32_t>(level);
}

}  // namespace

int qmxsrv_ctx_load(const char* path) {
    if (!path) return 0;
    ctx_reset();
    qmxsrv_ctx.running = 1;
    qmxsrv_ctx.cloud_enabled = 1;

    ini_ptr ini(ini_load(path));
    if (!ini) return 0;
    if (!read_account(ini.get()) || !read_paths(ini.get())) {
        ini.reset();
        qmxsrv_ctx_release();
        return 0;
    }
    qmxsrv_ctx.xdb = read_key(ini.get(), "xdb");
    qmxsrv_ctx.ipc_group = read_key(ini.get(), "ipc_group");
    qmxsrv_ctx.ca_file = read_key(ini.get(), "ca_file");
    // Only the value 0 itself turns checking off: a typo keeps it on.
    const char* verify = ini_get_string(ini.get(), kSection, "tls_verify", nullptr);
    qmxsrv_ctx.tls_verify = verify && strcmp(verify, "0") == 0 ? 0 : 1;
    qmxsrv_ctx.log_level = read_log_level(ini.get());
    qmxsrv_ctx.db_capacity = 2000;
    http_mode = static_cast<int32_t>(ini_get_int(ini.get(), kSection, "http_mode", 0));
    qmxsrv_ctx.ctrl_shell = ini_get_int(ini.get(), kSection, "ctrl_shell", 0) == 1 ? 1 : 0;
    qmxsrv_ctx.log_syslog = ini_get_int(ini.get(), kSection, "syslog", 0) == 1 ? 1 : 0;
    ini.reset();

    // Made for the ipc_group too, when one is configured: the command socket
    // inside is then reachable by that group's members.
    dir_make_chain(qmxsrv_ctx.writable_root->c_str(),
                   group_id(qmxsrv_ctx.ipc_group ? qmxsrv_ctx.ipc_group->c_str() : nullptr));
    return 1;
}

void qmxsrv_ctx_release() {
    LOG_D("qmxsrv_ctx_release");
    clear_strings();
}

std::string qmxsrv_ctx_pc_rule() {
    std::lock_guard<std::mutex> g(qmxsrv_ctx.pc_rule_lock);
    return qmxsrv_ctx.pc_rule;
}

void qmxsrv_ctx_set_pc_rule(const char* path) {
    std::lock_guard<std::mutex> g(qmxsrv_ctx.pc_rule_lock);
    snprintf(qmxsrv_ctx.pc_rule, sizeof qmxsrv_ctx.pc_rule, "%s", path ? path : "");
}
