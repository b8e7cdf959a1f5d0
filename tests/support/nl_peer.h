// Test helper: plays the kernel module's side of the generic netlink
// channel. Builds the datagrams the module sends (the controller's family
// announcement and event records) and unicasts them from a socket of its own
// to the service's port, which needs CAP_NET_ADMIN.
#pragma once

#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace nl_peer {

using bytes = std::vector<uint8_t>;

inline void put16(bytes& b, size_t at, uint16_t v) { memcpy(&b[at], &v, 2); }
inline void put32(bytes& b, size_t at, uint32_t v) { memcpy(&b[at], &v, 4); }
inline uint32_t get32(const bytes& b, size_t at) {
    uint32_t v = 0;
    if (at + 4 <= b.size()) memcpy(&v, &b[at], 4);
    return v;
}

// nlmsghdr (its length filled in by put_attr) with `type`, then the genl
// header with `cmd`.
inline bytes genl_msg(uint16_t type, uint8_t cmd) {
    bytes b(20, 0);
    put16(b, 4, type);
    b[16] = cmd;
    put32(b, 0, 20);
    return b;
}

// Appends an attribute, padded to four bytes, and updates nlmsg_len.
inline bytes& put_attr(bytes& b, uint16_t type, const void* data, size_t len) {
    const uint16_t head[2] = {static_cast<uint16_t>(4 + len), type};
    const auto *h = reinterpret_cast<const uint8_t*>(head), *d = static_cast<const uint8_t*>(data);
    b.insert(b.end(), h, h + 4);
    b.insert(b.end(), d, d + len);
    b.resize((b.size() + 3) & ~size_t{3}, 0);
    put32(b, 0, static_cast<uint32_t>(b.size()));
    return b;
}

// The controller's reply: family name attribute, then an attribute of type
// `id_type` (normally 1, the family id) holding `id`, then a version.
inline bytes announce(const std::string& name, uint16_t id, uint16_t id_type = 1) {
    const uint32_t version = 1;
    bytes b = genl_msg(16, 1);
    put_attr(b, 2, name.c_str(), name.size() + 1);
    put_attr(b, id_type, &id, sizeof id);
    return put_attr(b, 3, &version, sizeof version);
}

// An event: the record (flags, type, data_len) in one attribute with `text`
// in a zero-filled field of `field` bytes; `data_len` is what the record
// claims.
inline bytes event(uint16_t fid, uint32_t flags, uint32_t type, const std::string& text, uint32_t field,
                   uint32_t data_len, uint8_t genl_cmd = 1) {
    bytes rec(12 + field, 0), b = genl_msg(fid, genl_cmd);
    const uint32_t words[3] = {flags, type, data_len};
    memcpy(rec.data(), words, 12);
    memcpy(rec.data() + 12, text.data(), std::min<size_t>(text.size(), field));
    return put_attr(b, 1, rec.data(), rec.size());
}

// A well-formed domain (20, 256) or address (21/22, 40) event.
inline bytes domain_event(uint16_t fid, const std::string& text, uint32_t flags = 0) {
    return event(fid, flags, 20, text, 256, 256);
}
inline bytes address_event(uint16_t fid, const std::string& text, uint32_t type = 21) {
    return event(fid, 0, type, text, 40, 40);
}

// A generic netlink socket on an automatic port.
class socket_peer {
public:
    socket_peer() : fd_(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC)) {
        sockaddr_nl self{AF_NETLINK, 0, 0, 0};
        socklen_t len = sizeof self;
        if (fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr*>(&self), len) == 0 &&
            getsockname(fd_, reinterpret_cast<sockaddr*>(&self), &len) == 0)
            port_ = self.nl_pid;
    }
    ~socket_peer() {
        if (fd_ >= 0) close(fd_);
    }
    socket_peer(const socket_peer&) = delete;
    socket_peer& operator=(const socket_peer&) = delete;

    bool ok() const { return fd_ >= 0 && port_ != 0; }
    uint32_t port() const { return port_; }
    // 0, or the errno of the send (EPERM without CAP_NET_ADMIN).
    int send_to(uint32_t port, const bytes& b) const {
        const sockaddr_nl to{AF_NETLINK, 0, port, 0};
        return sendto(fd_, b.data(), b.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) < 0 ? errno : 0;
    }
    // One datagram, or empty on time-out.
    bytes receive(std::chrono::milliseconds timeout) const {
        pollfd p{fd_, POLLIN, 0};
        bytes b(4096);
        const ssize_t n = poll(&p, 1, static_cast<int>(timeout.count())) == 1 ? recv(fd_, b.data(), b.size(), 0) : 0;
        b.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return b;
    }

private:
    int fd_ = -1;
    uint32_t port_ = 0;
};

}  // namespace nl_peer
