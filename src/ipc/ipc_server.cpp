#include "ipc/ipc_server.h"

#include <cjson/cJSON.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>

#include "cloud_link.h"
#include "log.h"
#include "pctrl/pctrl_scheduler.h"
#include "qmx_db.h"
#include "qmxsrv_ctx.h"
#include "reload.h"
#include "util/c_ptr.h"
#include "util/group_id.h"
#include "util/timing.h"
#include "util/unique_fd.h"

namespace {

constexpr size_t kReceiveArea = 512;

// Server state; covered by control_lock. The command thread gets the two
// descriptors by value and they stay open until it has been joined.
std::mutex control_lock;
unique_fd listen_fd;
unique_fd stop_fd;  // eventfd: readable once stop is asked
std::thread ipc_thread_handle;
std::string bound_path;
// Set by stop so that a cloud query in flight is abandoned, not waited for.
std::atomic<bool> query_abort{false};

enum class wait_result { ready, stop, timeout, error };

wait_result wait_readable(int fd, int stop, int timeout_ms) {
    pollfd fds[2] = {{fd, POLLIN, 0}, {stop, POLLIN, 0}};
    for (;;) {
        int rc = poll(fds, 2, timeout_ms);
        if (rc < 0 && errno == EINTR) continue;
        if (rc < 0) return wait_result::error;
        if (rc == 0) return wait_result::timeout;
        if (fds[1].revents != 0) return wait_result::stop;
        return wait_result::ready;
    }
}

bool file_exists(const char* path) {
    struct stat st;
    return lstat(path, &st) == 0;
}

// --- commands -------------------------------------------------------------

// Formats the reply text, cut to the record's 256 bytes.
void set_msg(ipc_reply& reply, const char* fmt, ...) ZOR_PRINTF(2, 3);
void set_msg(ipc_reply& reply, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(reply.msg, sizeof reply.msg, fmt, ap);
    va_end(ap);
}

void set_rule(ipc_request& req, ipc_reply& reply) {
    LOG_D("Receive command: parental control set rule");
    req.buf[sizeof req.buf - 1] = '\0';
    if (req.buf[0] == '\0') {
        LOG_D("IPC_CMD_PC_SET_RULE: no path");
        reply.result = 1;
        return;
    }
    struct stat st;
    if (stat(req.buf, &st) != 0) {
        LOG_D("The file %s does not exist.", req.buf);
        reply.result = 1;
        set_msg(reply, "The file %s does not exist.", req.buf);
        return;
    }
    qmxsrv_ctx_set_pc_rule(req.buf);
    pctrl_apply_rules();
    LOG_D("set rule: %s", qmxsrv_ctx_pc_rule().c_str());
    reply.result = 0;
}

void status(ipc_reply& reply) {
    int32_t start = 0;
    int32_t expiry = 0;
    std::string account;
    bool held = cloud_session_info(&start, &expiry, &account) == 1;
    if (!held) {
        start = expiry = 0;
        account.clear();
    }
    set_msg(reply, "%c %c %llu %llu %s", qmxsrv_ctx.cloud_enabled.load() != 0 ? '1' : '0',
            held ? '1' : '0', static_cast<unsigned long long>(start),
            static_cast<unsigned long long>(expiry), account.c_str());
}

// Reads one decimal int as "%d" would: blanks, a sign, digits. Values past
// the int range are held at its ends.
bool scan_int(const char** p, int* out) {
    const char* s = *p;
    while (isspace(static_cast<unsigned char>(*s))) ++s;
    if (!isdigit(static_cast<unsigned char>(*s)) &&
        !((*s == '-' || *s == '+') && isdigit(static_cast<unsigned char>(s[1]))))
        return false;
    char* end = nullptr;
    errno = 0;
    long long v = strtoll(s, &end, 10);
    if (v > INT_MAX) v = INT_MAX;
    if (v < INT_MIN) v = INT_MIN;
    *out = static_cast<int>(v);
    *p = end;
    return true;
}

// Scans "%s %d %d" from `buf`, writing the name and its terminator at the
// start of `dest`. Returns the count of values read.
int scan_query(const char* buf, unsigned char* dest, size_t dest_size, int* a, int* b) {
    const char* p = buf;
    while (isspace(static_cast<unsigned char>(*p))) ++p;
    if (*p == '\0') return 0;
    size_t n = 0;
    while (p[n] != '\0' && !isspace(static_cast<unsigned char>(p[n])) && n + 1 < dest_size) ++n;
    memcpy(dest, p, n);
    dest[n] = '\0';
    p += n;
    if (!scan_int(&p, a)) return 1;
    if (!scan_int(&p, b)) return 2;
    return 3;
}

void query(ipc_request& req, ipc_reply& reply) {
    LOG_D("cmd: %d, type: %d, buf: %s", IPC_CMD_QUERY, req.type, req.buf);
    // The name is echoed over the reply record itself: this reply carries no
    // status of its own.
    auto* raw = reinterpret_cast<unsigned char*>(&reply);
    int a = 0;
    int b = 0;
    if (scan_query(req.buf, raw, sizeof reply, &a, &b) != 3) return;
    const char* name = reinterpret_cast<const char*>(raw);

    json_ptr root(cJSON_CreateObject());
    cJSON* outer = cJSON_CreateArray();
    cJSON* entry = cJSON_CreateArray();
    if (!root || outer == nullptr || entry == nullptr) {
        cJSON_Delete(outer);
        cJSON_Delete(entry);
        return;
    }
    cJSON_AddItemToArray(entry, cJSON_CreateNumber(req.type));
    cJSON_AddItemToArray(entry, cJSON_CreateString(name));
    cJSON_AddItemToArray(entry, cJSON_CreateNumber(a));
    cJSON_AddItemToArray(entry, cJSON_CreateNumber(b));
    cJSON_AddItemToArray(outer, entry);
    cJSON_AddItemToObject(root.get(), "q", outer);
    json_text text(cJSON_PrintUnformatted(root.get()));
    if (!text) return;
    LOG_D("Send: %s", text.get());
    std::optional<std::string> plain = cloud_query(text.get(), &query_abort);
    if (plain && !plain->empty()) LOG_D("Plain: %s", plain->c_str());
}

void show_db(ipc_reply& reply) {
    LOG_D("Receive command: show database");
    std::optional<std::string> listing = db_show();
    if (listing) LOG_D("\n%s\n", listing->c_str());
    reply.result = 0;
}

void reload(ipc_reply& reply) {
    LOG_D("Receive command: reload");
    std::string message;
    reply.result = static_cast<int32_t>(service_reload("command", &message));
    set_msg(reply, "%s", message.c_str());
}

}  // namespace

std::vector<ipc_reply> ipc_stats_records(const std::vector<stat_value>& values) {
    std::vector<ipc_reply> records;
    ipc_reply* open = nullptr;
    size_t used = 0;
    for (const stat_value& v : values) {
        char line[STAT_NAME_MAX + 32];
        const int n = snprintf(line, sizeof line, "%s %llu\n", v.info->name,
                               static_cast<unsigned long long>(v.value));
        if (n <= 0 || static_cast<size_t>(n) >= sizeof line) continue;  // a name beyond the bound
        const size_t len = static_cast<size_t>(n);
        if (open == nullptr || used + len >= sizeof open->msg) {
            if (records.size() == IPC_STATS_MAX_RECORDS) break;
            open = &records.emplace_back();
            *open = ipc_reply{};
            used = 0;
        }
        memcpy(open->msg + used, line, len + 1);
        used += len;
    }
    if (records.empty()) records.emplace_back();
    for (size_t i = 0; i < records.size(); ++i) records[i].result = static_cast<int32_t>(records.size() - 1 - i);
    return records;
}

void ipc_dispatch(ipc_request& req, ipc_reply& reply) {
    // Every text argument ends inside the record, whatever the client sent.
    req.buf[sizeof req.buf - 1] = '\0';
    switch (req.cmd) {
        case IPC_CMD_EXIT:
            LOG_D("Receive command: exit");
            qmxsrv_ctx.running = 0;
            reply.result = 0;
            break;
        case IPC_CMD_CLOUD_ENABLE:
            LOG_D("Receive command: enable cloud service");
            qmxsrv_ctx.cloud_enabled = 1;
            reply.result = 0;
            break;
        case IPC_CMD_CLOUD_DISABLE:
            LOG_D("Receive command: disable cloud service");
            qmxsrv_ctx.cloud_enabled = 0;
            reply.result = 0;
            break;
        case IPC_CMD_PC_ENABLE: {
            LOG_D("Receive command: enable parental control");
            int32_t off = 0;
            if (qmxsrv_ctx.pctrl_enabled.compare_exchange_strong(off, 1)) pctrl_sched_start();
            reply.result = 0;
            break;
        }
        case IPC_CMD_PC_DISABLE:
            LOG_D("Receive command: disable parental control");
            if (qmxsrv_ctx.pctrl_enabled.exchange(0) != 0) pctrl_sched_stop();
            reply.result = 0;
            break;
        case IPC_CMD_PC_SET_RULE:
            set_rule(req, reply);
            break;
        case IPC_CMD_PC_CLEAR_RULE:
            qmxsrv_ctx_set_pc_rule(nullptr);
            pctrl_clean_rules();
            break;
        case IPC_CMD_STATUS:
            status(reply);
            break;
        case IPC_CMD_QUERY:
            query(req, reply);
            break;
        case IPC_CMD_SHOW_DB:
            show_db(reply);
            break;
        case IPC_CMD_DB_ADD:
            db_add_reply(req.buf);
            reply.result = 0;
            break;
        case IPC_CMD_RELOAD:
            reload(reply);
            break;
        case IPC_CMD_STATS:
            LOG_D("Receive command: stats");  // the records are sent by serve()
            break;
        default:
            LOG_D("unsupport command!");
            break;
    }
}

namespace {

// --- the command thread ---------------------------------------------------

// Serves one connection, waiting up to `request_ms` for its request. Returns
// false when stop was asked meanwhile.
bool serve(int conn, int stop, int request_ms, ipc_reply& reply) {
    switch (wait_readable(conn, stop, request_ms)) {
        case wait_result::stop: return false;
        case wait_result::timeout:
            LOG_D("No request within %d ms, connection closed", request_ms);
            return true;
        case wait_result::error:
        case wait_result::ready: break;
    }
    // A short request is not completed: its missing bytes read as zero.
    char area[kReceiveArea] = {};
    ssize_t n;
    do {
        n = recv(conn, area, sizeof(ipc_request), 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        LOG_E("receive failed: %d", static_cast<int>(n));
        return true;
    }
    if (n == 0) return true;  // the client went away without a request
    ipc_request req;
    memcpy(&req, area, sizeof req);
    ipc_dispatch(req, reply);
    // A client that stopped reading must not hold the thread. The socket
    // buffer takes all the counter records at once.
    if (req.cmd != IPC_CMD_STATS) {
        (void)send(conn, &reply, sizeof reply, MSG_NOSIGNAL | MSG_DONTWAIT);
        return true;
    }
    for (const ipc_reply& record : ipc_stats_records(stats_snapshot()))
        if (send(conn, &record, sizeof record, MSG_NOSIGNAL | MSG_DONTWAIT) != sizeof record) break;
    return true;
}

// True when `gid` is the peer's group or one of its supplementary groups.
bool peer_in_group(int conn, const ucred& cred, gid_t gid) {
    if (cred.gid == gid) return true;
#ifdef SO_PEERGROUPS
    gid_t groups[256];
    socklen_t len = sizeof groups;
    if (getsockopt(conn, SOL_SOCKET, SO_PEERGROUPS, groups, &len) == 0) {
        for (size_t i = 0; i < len / sizeof(gid_t); ++i)
            if (groups[i] == gid) return true;
    }
#endif
    return false;
}

// Root, the service's own uid and members of the configured group are
// served; anyone else is logged and closed without a reply.
bool peer_allowed(int conn, std::optional<gid_t> group) {
    ucred cred{};
    socklen_t len = sizeof cred;
    if (getsockopt(conn, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || len != sizeof cred) {
        LOG_E("Refused command connection: peer credentials unknown");
        return false;
    }
    if (cred.uid == 0 || cred.uid == geteuid() || (group && peer_in_group(conn, cred, *group))) return true;
    LOG_E("Refused command connection from uid %u gid %u pid %d", static_cast<unsigned>(cred.uid),
          static_cast<unsigned>(cred.gid), static_cast<int>(cred.pid));
    return false;
}

bool accept_error_is_transient(int err) {
    return err == EINTR || err == EAGAIN || err == EWOULDBLOCK || err == ECONNABORTED ||
           err == EPROTO;
}

void ipc_thread(int listen, int stop, std::optional<gid_t> group, int request_ms) {
    LOG_D("Start command handler ...\r\n");
    ipc_reply reply{};
    for (;;) {
        wait_result w = wait_readable(listen, stop, -1);
        if (w == wait_result::stop) break;
        if (w == wait_result::error) {
            LOG_E("accept failed: %d", -1);
            break;
        }
        int conn = accept4(listen, nullptr, nullptr, SOCK_CLOEXEC);
        if (conn < 0) {
            if (accept_error_is_transient(errno)) continue;
            LOG_E("accept failed: %d", conn);
            break;
        }
        unique_fd connection(conn);
        if (!peer_allowed(conn, group)) continue;
        if (!serve(conn, stop, request_ms, reply)) break;
    }
}

void stop_locked() {
    if (ipc_thread_handle.joinable()) {
        query_abort = true;
        uint64_t one = 1;
        ssize_t rc = write(stop_fd.get(), &one, sizeof one);
        (void)rc;  // an eventfd counter write only fails once it is near overflow
        ipc_thread_handle.join();
    }
    if (listen_fd.valid()) {
        listen_fd.reset();
        if (!bound_path.empty() && file_exists(bound_path.c_str())) {
            LOG_D("Remove socket: %s", bound_path.c_str());
            unlink(bound_path.c_str());
        }
    }
    bound_path.clear();
    stop_fd.reset();
}

// The socket file's owner, group and mode: root's and the service's own
// (0600), or also the configured group's (0660). Set between bind and
// listen, so nobody else ever connects.
bool restrict_socket_file(const char* path, std::optional<gid_t> group) {
    if (group && chown(path, static_cast<uid_t>(-1), *group) != 0) {
        LOG_E("socket group not set: errno %d", errno);
        return false;
    }
    if (chmod(path, group ? 0660 : 0600) != 0) {
        LOG_E("socket mode not set: errno %d", errno);
        return false;
    }
    return true;
}

// The gid of the configured ipc_group; nullopt when none is configured or
// the group is unknown (logged: then only root and the service are served).
std::optional<gid_t> configured_group() {
    if (!qmxsrv_ctx.ipc_group || qmxsrv_ctx.ipc_group->empty()) return std::nullopt;
    std::optional<gid_t> gid = group_id(qmxsrv_ctx.ipc_group->c_str());
    if (!gid) {
        LOG_E("ipc_group %s: no such group; the command socket serves root and the service only",
              qmxsrv_ctx.ipc_group->c_str());
    }
    return gid;
}

// Binds and listens on `path`; returns the descriptor or -1 (logged).
int open_listener(const char* path, size_t len, std::optional<gid_t> group) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        LOG_E("create socket failed: %d", fd);
        return -1;
    }
    unique_fd sock(fd);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path, len);
    int rc = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    if (rc != 0) {
        LOG_E("binding failed: %d", rc);
        return -1;
    }
    if (!restrict_socket_file(path, group)) {
        unlink(path);
        return -1;
    }
    rc = listen(fd, 1);
    if (rc != 0) {
        LOG_E("listening failed: %d", rc);
        unlink(path);
        return -1;
    }
    return sock.release();
}

}  // namespace

int ipc_srv_start() {
    std::lock_guard<std::mutex> control(control_lock);
    if (listen_fd.valid() || ipc_thread_handle.joinable()) stop_locked();

    const char* path = qmxsrv_ctx.ipc_socket;
    size_t len = strnlen(path, sizeof qmxsrv_ctx.ipc_socket);
    if (len == 0) {
        LOG_E("IPC socket does not be set.\r\n");
        return 0;
    }
    if (len >= sizeof(sockaddr_un::sun_path)) {
        LOG_E("IPC socket path of %zu bytes is too long: %s", len, path);
        return 0;
    }
    if (file_exists(path)) {
        LOG_D("Remove socket: %s", path);
        unlink(path);
    }
    const std::optional<gid_t> group = configured_group();
    unique_fd sock(open_listener(path, len, group));
    if (!sock.valid()) return 0;
    unique_fd stop(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!stop.valid()) {
        LOG_E("ipc_thread create failed!!!");
        unlink(path);
        return 0;
    }
    query_abort = false;
    try {
        ipc_thread_handle = std::thread(ipc_thread, sock.get(), stop.get(), group,
                                        static_cast<int>(timing_get().ipc_request.count()));
    } catch (const std::system_error&) {
        LOG_E("ipc_thread create failed!!!");
        unlink(path);
        return 0;
    }
    listen_fd.reset(sock.release());
    stop_fd.reset(stop.release());
    bound_path.assign(path, len);
    return 1;
}

void ipc_srv_stop() {
    LOG_D("ipc_srv_stop");
    std::lock_guard<std::mutex> control(control_lock);
    stop_locked();
}
