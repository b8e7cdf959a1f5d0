#include "zor_ctrl.h"

#include <fcntl.h>
#include <inttypes.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <mutex>

#include "log.h"
#include "qmxsrv_ctx.h"
#include "stats.h"
#include "util/clock.h"
#include "util/cmd_runner.h"
#include "util/unique_fd.h"

namespace {

constexpr size_t kShellLineSize = 256;    // a shell line and its terminator
constexpr size_t kShellPcAddSize = 400;   // the same for rule adds
constexpr size_t kTextBuildSize = 512;    // texts are built here, then bounded by their channel

std::mutex g_file_lock;
std::string g_file = ZOR_CTRL_FILE;  // covered by g_file_lock

bool use_shell() { return qmxsrv_ctx.ctrl_shell.load(std::memory_order_relaxed) == 1; }

// A command ready to go: the text the module should receive and, in the
// shell channel, the line that sends it. `what` is what the logs show.
struct command {
    std::string text;
    std::string line;  // shell channel only
    const std::string& what() const { return line.empty() ? text : line; }
};

template <typename... Args>
std::string format(const char* fmt, Args... args) {
    char buf[kTextBuildSize] = {};
    snprintf(buf, sizeof buf, fmt, args...);
    return buf;
}

// Checks every word that comes from outside; false (logged, counted) when
// one of them breaks the text rule.
bool words_ok(const char* what, std::initializer_list<const char*> words) {
    for (const char* w : words) {
        if (w == nullptr) return false;
        if (!zor_ctrl_word_ok(w)) {
            LOG_D("%s: a word with a space, a control byte or a backslash is not sent", what);
            stat_add(g_stats.commands_refused);
            return false;
        }
    }
    return true;
}

// Bounds `text` for the chosen channel; false (logged, counted) when it
// does not fit. In the shell channel the line is built here.
bool prepare(command& cmd, size_t shell_size) {
    bool fits;
    if (use_shell()) {
        cmd.line = zor_ctrl_shell_line(cmd.text);
        fits = cmd.line.size() < shell_size;
    } else {
        fits = cmd.text.size() + 1 <= ZOR_CTRL_WRITE_MAX;
    }
    if (!fits) {
        LOG_D("command longer than its buffer, not sent");
        stat_add(g_stats.commands_too_long);
    }
    return fits;
}

// The direct channel: one write of text and newline, so the module gets the
// command whole or not at all.
int write_direct(const std::string& text) {
    const std::string path = zor_ctrl_file();
    unique_fd fd(open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY));
    if (!fd.valid()) {
        if (errno == ENOENT) {
            stat_add(g_stats.commands_no_module);
            return 1;
        }
        LOG_D("control file: open failed (errno %d)", errno);
        stat_add(g_stats.commands_failed);
        return -1;
    }
    char buf[ZOR_CTRL_WRITE_MAX];
    const size_t len = text.size() + 1;  // bounded by prepare()
    text.copy(buf, text.size());
    buf[text.size()] = '\n';
    ssize_t n;
    do {
        n = write(fd.get(), buf, len);
    } while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(len)) {
        LOG_D("control file: %s (wrote %zd of %zu bytes, errno %d)", n < 0 ? "write failed" : "short write", n,
              len, n < 0 ? errno : 0);
        stat_add(g_stats.commands_failed);
        return -1;
    }
    stat_add(g_stats.commands_sent);
    return 0;
}

int send(const command& cmd) {
    if (cmd.line.empty()) return write_direct(cmd.text);
    stat_add(g_stats.commands_sent);
    return cmd_run(cmd.line);
}

}  // namespace

bool zor_ctrl_word_ok(std::string_view text) {
    if (text.empty()) return false;
    for (unsigned char c : text) {
        if (c < 0x21 || c == 0x7F || c == '\\') return false;
    }
    return true;
}

std::string zor_ctrl_shell_line(std::string_view text) {
    const std::string path = zor_ctrl_file();
    return "[ -f " + path + " ] && echo \"" + shell_escape_dq(text) + "\" > " + path;
}

int zor_notify_u2k(int type, const char* key) {
    if (!words_ok("u2k", {key})) return -1;
    command cmd{format("db key2group u2k %d %s", type, key)};
    if (!prepare(cmd, kShellLineSize)) return -1;
    LOG_D("[%" PRId64 "] %s", clock_now(), cmd.what().c_str());
    return send(cmd);
}

int zor_notify_db_group(int source, int type, const char* key, int ttl, int group, int sub_group) {
    if (group < 0 || sub_group < 0) return -1;
    if (!words_ok("update", {key})) return -1;
    command cmd{format("db key2group update %d %d %s %d %d %d", source, type, key, ttl, group, sub_group)};
    if (!prepare(cmd, kShellLineSize)) return -1;
    LOG_D("[%" PRId64 "] zor_notify_db_group %s", clock_now(), cmd.what().c_str());
    return send(cmd);
}

int zor_ctrl_pc_clean() {
    command cmd{"pc rule clean"};
    if (!prepare(cmd, kShellLineSize)) return -1;
    LOG_I("pctrl command: %s", cmd.what().c_str());
    return send(cmd);
}

int zor_ctrl_pc_add(int kind, const char* mac, const char* content, unsigned long from, unsigned long to) {
    if (!words_ok("pc rule add", {mac, content})) return -1;
    command cmd{format("pc rule add %d %s %s %lu %lu", kind, mac, content, from, to)};
    if (!prepare(cmd, kShellPcAddSize)) return -1;
    LOG_I("pctrl command: %s", cmd.what().c_str());
    return send(cmd);
}

int zor_ctrl_server_port(int pid) {
    command cmd{format("env server_port %d", pid)};
    if (!prepare(cmd, kShellLineSize)) return -1;
    return send(cmd);
}

zor_ctrl_counts zor_ctrl_counters() {
    zor_ctrl_counts c;
    c.sent = g_stats.commands_sent.load();
    c.absent = g_stats.commands_no_module.load();
    c.refused = g_stats.commands_refused.load();
    c.too_long = g_stats.commands_too_long.load();
    c.failed = g_stats.commands_failed.load();
    return c;
}

void zor_ctrl_set_file(const std::string& path) {
    std::lock_guard<std::mutex> g(g_file_lock);
    g_file = path.empty() ? ZOR_CTRL_FILE : path;
}

std::string zor_ctrl_file() {
    std::lock_guard<std::mutex> g(g_file_lock);
    return g_file;
}
