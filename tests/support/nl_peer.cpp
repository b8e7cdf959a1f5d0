#include "nl_peer.h"

#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace nl_peer {

namespace {

// Appends an attribute, padded to four bytes.
void put_attr(bytes& b, uint16_t type, const void* data, size_t len) {
    const size_t at = b.size();
    b.resize(at + ((4 + len + 3) & ~size_t{3}), 0);
    put16(b, at, static_cast<uint16_t>(4 + len));
    put16(b, at + 2, type);
    memcpy(&b[at + 4], data, len);
}

// nlmsghdr with `type`, then the genl header with `cmd`.
bytes genl_msg(uint16_t type, uint8_t cmd) {
    bytes b(20, 0);
    put16(b, 4, type);
    b[16] = cmd;
    return b;
}

}  // namespace

void put16(bytes& b, size_t at, uint16_t v) { memcpy(&b[at], &v, 2); }
void put32(bytes& b, size_t at, uint32_t v) { memcpy(&b[at], &v, 4); }
uint32_t get32(const bytes& b, size_t at) {
    uint32_t v;
    memcpy(&v, &b[at], 4);
    return v;
}
void seal(bytes& b) { put32(b, 0, static_cast<uint32_t>(b.size())); }

bytes announce(const std::string& name, uint16_t id, uint16_t id_type) {
    bytes b = genl_msg(16, 1);
    const uint32_t version = 1;
    put_attr(b, 2, name.c_str(), name.size() + 1);
    put_attr(b, id_type, &id, sizeof id);
    put_attr(b, 3, &version, sizeof version);
    seal(b);
    return b;
}

bytes event(uint16_t fid, uint32_t flags, uint32_t type, const std::string& text, uint32_t field,
            uint32_t data_len, uint8_t genl_cmd) {
    bytes rec(12 + field, 0);
    const uint32_t words[3] = {flags, type, data_len};
    memcpy(rec.data(), words, 12);
    memcpy(rec.data() + 12, text.data(), std::min<size_t>(text.size(), field));
    bytes b = genl_msg(fid, genl_cmd);
    put_attr(b, 1, rec.data(), rec.size());
    seal(b);
    return b;
}

bytes domain_event(uint16_t fid, const std::string& text, uint32_t flags) { return event(fid, flags, 20, text, 256, 256); }

bytes address_event(uint16_t fid, const std::string& text, uint32_t type, uint32_t flags) {
    return event(fid, flags, type, text, 40, 40);
}

socket_peer::socket_peer() : fd_(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC)) {
    sockaddr_nl self{AF_NETLINK, 0, 0, 0};
    socklen_t len = sizeof self;
    if (fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr*>(&self), len) == 0 &&
        getsockname(fd_, reinterpret_cast<sockaddr*>(&self), &len) == 0)
        port_ = self.nl_pid;
}

socket_peer::~socket_peer() {
    if (fd_ >= 0) close(fd_);
}

int socket_peer::send_to(uint32_t port, const bytes& b) const {
    const sockaddr_nl to{AF_NETLINK, 0, port, 0};
    return sendto(fd_, b.data(), b.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) < 0 ? errno : 0;
}

bytes socket_peer::receive(std::chrono::milliseconds timeout) const {
    pollfd p{fd_, POLLIN, 0};
    bytes b(4096);
    const ssize_t n = poll(&p, 1, static_cast<int>(timeout.count())) == 1 ? recv(fd_, b.data(), b.size(), 0) : 0;
    b.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return b;
}

}  // namespace nl_peer
