// Test helper: plays the kernel module's side of the generic netlink
// channel. Builds the datagrams the module sends (the controller's family
// announcement and event records) and unicasts them from a socket of its own
// to the service's port, which needs CAP_NET_ADMIN.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace nl_peer {

using bytes = std::vector<uint8_t>;

// The controller's reply: family name attribute, then an attribute of type
// `id_type` (normally 1, the family id) holding `id`, then a version.
bytes announce(const std::string& name, uint16_t id, uint16_t id_type = 1);
// An event: the record (flags, type, data_len) in one attribute with `text`
// in a zero-filled field of `field` bytes; `data_len` is what the record
// claims.
bytes event(uint16_t fid, uint32_t flags, uint32_t type, const std::string& text, uint32_t field,
            uint32_t data_len, uint8_t genl_cmd = 1);
// A well-formed domain (20, 256) or address (21/22, 40) event.
bytes domain_event(uint16_t fid, const std::string& text, uint32_t flags = 0);
bytes address_event(uint16_t fid, const std::string& text, uint32_t type = 21, uint32_t flags = 0);

void put16(bytes& b, size_t at, uint16_t v);
void put32(bytes& b, size_t at, uint32_t v);
uint32_t get32(const bytes& b, size_t at);
// Writes the true length into nlmsg_len.
void seal(bytes& b);

// A generic netlink socket on an automatic port.
class socket_peer {
public:
    socket_peer();
    ~socket_peer();
    socket_peer(const socket_peer&) = delete;
    socket_peer& operator=(const socket_peer&) = delete;

    bool ok() const { return fd_ >= 0 && port_ != 0; }
    uint32_t port() const { return port_; }
    // 0, or the errno of the send (EPERM without CAP_NET_ADMIN).
    int send_to(uint32_t port, const bytes& b) const;
    // One datagram, or empty on time-out.
    bytes receive(std::chrono::milliseconds timeout) const;

private:
    int fd_ = -1;
    uint32_t port_ = 0;
};

}  // namespace nl_peer
