#include "harden_probe.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <regex>
#include <thread>

namespace {

const std::string kGuard = "[ -f /proc/zor/ctrl ] && echo \"";
const std::string kTail = "\" > /proc/zor/ctrl";

bool is_special(char c) { return c == '"' || c == '\\' || c == '$' || c == '`'; }

// Undoes the service's escaping; nullopt (with `why`) when a special
// character stands unescaped or a backslash escapes anything else.
std::optional<std::string> unquote(const std::string& quoted, std::string* why) {
    std::string out;
    for (size_t i = 0; i < quoted.size(); ++i) {
        if (quoted[i] == '\\' && i + 1 < quoted.size() && is_special(quoted[i + 1])) {
            out += quoted[++i];
        } else if (is_special(quoted[i])) {
            *why = std::string("an unescaped ") + quoted[i] + " at " + std::to_string(i);
            return std::nullopt;
        } else {
            out += quoted[i];
        }
    }
    return out;
}

// The control-file texts the service sends; the captured group is the text
// that must have come from outside (a key, or "MAC CONTENT").
const std::regex kU2k("db key2group u2k (?:20|21|22) (.*)");
const std::regex kUpdate("db key2group update [12] (?:20|21|22) (.*) -?[0-9]{1,10} [0-9]{1,10} [0-9]{1,10}");
const std::regex kAdd("pc rule add [12] (.*) [0-9]{1,10} [0-9]{1,10}");

std::string body_fault(const std::string& body, const command_rules& r) {
    if (body == "env server_port " + std::to_string(r.pid) || body == "pc rule clean") return "";
    std::smatch m;
    if (std::regex_match(body, m, kU2k) || std::regex_match(body, m, kUpdate))
        return r.keys.count(m[1]) ? "" : "a key never sent: " + m[1].str();
    if (std::regex_match(body, m, kAdd)) return r.rule_pairs.count(m[1]) ? "" : "a rule never given: " + m[1].str();
    return "not an intended control command";
}

}  // namespace

long rss_anon_kb(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string name; status >> name;) {
        if (name == "RssAnon:") {
            long kb = -1;
            status >> kb;
            return kb;
        }
    }
    return -1;
}

std::string ctrl_line(const std::string& body) {
    std::string esc;
    for (char c : body) {
        if (is_special(c)) esc += '\\';
        esc += c;
    }
    return kGuard + esc + kTail;
}

std::string command_fault(const std::string& line, const command_rules& r) {
    if (line == "lsmod | grep -w ^zor_service" || line == r.insmod_line) return "";
    if (line.size() < kGuard.size() + kTail.size() || line.compare(0, kGuard.size(), kGuard) != 0 ||
        line.compare(line.size() - kTail.size(), kTail.size(), kTail) != 0)
        return "not an intended command";
    std::string why;
    auto body = unquote(line.substr(kGuard.size(), line.size() - kGuard.size() - kTail.size()), &why);
    return body ? body_fault(*body, r) : why;
}

std::optional<std::string> ipc_raw(const std::string& path, const std::string& bytes,
                                   std::chrono::milliseconds wait, bool half_close, size_t chunk) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return std::nullopt;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd);
        return std::nullopt;
    }
    for (size_t off = 0; off < bytes.size();) {
        size_t n = chunk > 0 ? std::min(chunk, bytes.size() - off) : bytes.size() - off;
        ssize_t w = send(fd, bytes.data() + off, n, MSG_NOSIGNAL);
        if (w <= 0) break;  // the service may close early: that is its right
        off += static_cast<size_t>(w);
        if (chunk > 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (half_close) shutdown(fd, SHUT_WR);
    std::string reply;
    const auto deadline = std::chrono::steady_clock::now() + wait;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd p{fd, POLLIN, 0};
        char buf[1024];
        ssize_t n = 0;
        if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) != 1 ||
            (n = recv(fd, buf, sizeof buf, 0)) <= 0)
            break;
        reply.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return reply;
}

std::string ipc_request_bytes(int32_t cmd, int32_t type, const std::string& text) {
    std::string r(264, '\0');
    memcpy(&r[0], &cmd, 4);
    memcpy(&r[4], &type, 4);
    memcpy(&r[8], text.data(), std::min<size_t>(text.size(), 256));
    return r;
}
