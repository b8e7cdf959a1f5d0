#include "zor_ctrl.h"

#include <cstdio>
#include <ctime>
#include <string_view>

#include "log.h"
#include "util/cmd_runner.h"

namespace {

constexpr size_t kDbLineSize = 256;
constexpr size_t kPcAddLineSize = 400;

// A line formatted into a zero-filled buffer of N bytes, cut like snprintf.
struct bounded_line {
    std::string text;
    bool cut = false;
};

// The shell line that echoes `text` (already escaped for double quotes) into
// the control file when the file exists, bounded at N bytes.
template <size_t N>
bounded_line echo_line(const std::string& text) {
    std::string line = std::string("[ -f ") + ZOR_CTRL_FILE + " ] && echo \"" + text + "\" > " + ZOR_CTRL_FILE;
    if (line.size() < N) return {std::move(line), false};
    line.resize(N - 1);
    return {std::move(line), true};
}

template <size_t N, typename... Args>
std::string format(const char* fmt, Args... args) {
    char buf[N] = {};
    snprintf(buf, sizeof buf, fmt, args...);
    return buf;
}

// A cut line has lost its closing quote or part of its redirection; what is
// left could only fail in the shell or create a stray file named after a
// prefix of the control file's path, and never reaches the kernel. It is
// logged like any other line but not run.
int run_line(const bounded_line& line) {
    if (line.cut) {
        LOG_D("command longer than its buffer, not run");
        return -1;
    }
    return cmd_run(line.text);
}

// A backslash reaches echo unchanged inside the double quotes, and some
// shells' echo reads "\n" or "\c" there: the kernel would get another text,
// or a second command line. Such texts are never sent, like control bytes.
bool has_echo_escape(std::string_view text) { return text.find('\\') != std::string_view::npos; }

bool key_is_safe(const char* what, const char* key) {
    if (key == nullptr) return false;
    if (has_control_bytes(key)) {
        LOG_D("%s: key with control bytes dropped", what);
        return false;
    }
    if (has_echo_escape(key)) {
        LOG_D("%s: key with a backslash dropped", what);
        return false;
    }
    return true;
}

unsigned now_seconds() { return static_cast<unsigned>(time(nullptr)); }

}  // namespace

int zor_notify_u2k(int type, const char* key) {
    if (!key_is_safe("u2k", key)) return -1;
    bounded_line cmd = echo_line<kDbLineSize>("db key2group u2k " + std::to_string(type) + " " + shell_escape_dq(key));
    LOG_D("[%u] %s", now_seconds(), cmd.text.c_str());
    return run_line(cmd);
}

int zor_notify_db_group(int source, int type, const char* key, int ttl, int group, int sub_group) {
    if (group < 0 || sub_group < 0) return -1;
    if (!key_is_safe("update", key)) return -1;
    bounded_line cmd = echo_line<kDbLineSize>(format<kDbLineSize>("db key2group update %d %d %s %d %d %d", source,
                                                                  type, shell_escape_dq(key).c_str(), ttl, group,
                                                                  sub_group));
    LOG_D("[%u] zor_notify_db_group %s", now_seconds(), cmd.text.c_str());
    return run_line(cmd);
}

const std::string& zor_ctrl_pc_clean_line() {
    static const std::string line = echo_line<kDbLineSize>("pc rule clean").text;
    return line;
}

std::optional<std::string> zor_ctrl_pc_add_line(int kind, const char* mac, const char* content,
                                                unsigned long from, unsigned long to) {
    if (mac == nullptr || content == nullptr) return std::nullopt;
    if (has_control_bytes(mac) || has_control_bytes(content)) return std::nullopt;
    if (has_echo_escape(mac) || has_echo_escape(content)) return std::nullopt;
    bounded_line line = echo_line<kPcAddLineSize>(format<kPcAddLineSize>(
        "pc rule add %d %s %s %lu %lu", kind, shell_escape_dq(mac).c_str(), shell_escape_dq(content).c_str(), from, to));
    if (line.cut) return std::nullopt;
    return line.text;
}

std::string zor_ctrl_server_port_line(int pid) {
    return echo_line<kDbLineSize>("env server_port " + std::to_string(pid)).text;
}
