#include "ipc_client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "pctrl/pctrl_scheduler.h"
#include "qmxsrv_ctx.h"

namespace zor_test {

ipc_socket::ipc_socket(const std::string& path, bool listen) {
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval tv{5, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    auto* a = reinterpret_cast<sockaddr*>(&addr);
    ok_ = listen ? bind(fd_, a, sizeof addr) == 0 && ::listen(fd_, 1) == 0 : connect(fd_, a, sizeof addr) == 0;
}

ipc_socket::~ipc_socket() {
    if (fd_ >= 0) close(fd_);
}

bool ipc_socket::send_all(const void* data, size_t n) const {
    return send(fd_, data, n, MSG_NOSIGNAL) == static_cast<ssize_t>(n);
}

std::string ipc_socket::read_to_end() const {
    std::string out;
    char buf[512];
    for (ssize_t n; (n = recv(fd_, buf, sizeof buf, 0)) != 0;) {
        if (n < 0) return "<receive error>";
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

ipc_request make_request(int32_t cmd, const std::string& buf, int32_t type) {
    ipc_request req{};
    req.cmd = cmd;
    req.type = type;
    memcpy(req.buf, buf.data(), std::min(buf.size(), sizeof req.buf));
    return req;
}

std::string ipc_call_raw(const std::string& path, const void* data, size_t n) {
    ipc_socket c(path);
    if (!c.ok() || !c.send_all(data, n)) return "<not sent>";
    return c.read_to_end();
}

ipc_reply ipc_call(const std::string& path, int32_t cmd, const std::string& buf, int32_t type) {
    ipc_request req = make_request(cmd, buf, type);
    std::string raw = ipc_call_raw(path, &req, sizeof req);
    ipc_reply reply{};
    if (raw.size() == sizeof reply)
        memcpy(&reply, raw.data(), sizeof reply);
    else
        ADD_FAILURE() << "a reply of " << raw.size() << " bytes";
    return reply;
}

void ipc_set_socket(const std::string& path) {
    memset(qmxsrv_ctx.ipc_socket, 0, sizeof qmxsrv_ctx.ipc_socket);
    memcpy(qmxsrv_ctx.ipc_socket, path.data(), std::min(path.size(), sizeof qmxsrv_ctx.ipc_socket - 1));
}

void ipc_server_fixture::SetUp() {
    ipc_set_socket(sock_);
    qmxsrv_ctx.running = 1;
    qmxsrv_ctx.cloud_enabled = 1;
    qmxsrv_ctx.pctrl_enabled = 0;
    qmxsrv_ctx_set_pc_rule(nullptr);
    ASSERT_EQ(ipc_srv_start(), 1);
}

void ipc_server_fixture::TearDown() {
    ipc_srv_stop();
    pctrl_sched_stop();
    qmxsrv_ctx.pctrl_enabled = 0;
    qmxsrv_ctx_set_pc_rule(nullptr);
}

}  // namespace zor_test
