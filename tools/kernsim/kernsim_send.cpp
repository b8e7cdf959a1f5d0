#include "kernsim_send.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

ks_sender::~ks_sender() {
    if (fd_ >= 0) close(fd_);
}

bool ks_sender::open(std::string& err) {
    fd_ = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC);
    if (fd_ < 0) {
        err = std::string("generic netlink socket: ") + std::strerror(errno);
        return false;
    }
    sockaddr_nl self{};
    self.nl_family = AF_NETLINK;  // port 0: the kernel picks a free one
    if (bind(fd_, reinterpret_cast<sockaddr*>(&self), sizeof self) != 0) {
        err = std::string("bind: ") + std::strerror(errno);
        return false;
    }
    return true;
}

bool ks_sender::send(uint32_t port, const std::vector<uint8_t>& msg,
                     std::chrono::steady_clock::time_point deadline, std::string& err, long* lost) {
    sockaddr_nl to{};
    to.nl_family = AF_NETLINK;
    to.nl_pid = port;
    const int flags = lost ? MSG_DONTWAIT : 0;
    for (;;) {
        ssize_t n = sendto(fd_, msg.data(), msg.size(), flags, reinterpret_cast<sockaddr*>(&to), sizeof to);
        if (n == static_cast<ssize_t>(msg.size())) return true;
        if (n >= 0) {
            err = "short send";
            return false;
        }
        if (errno == EINTR) continue;
        if (lost && (errno == EAGAIN || errno == ENOBUFS)) {
            ++*lost;
            return true;
        }
        if (errno == ECONNREFUSED && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            continue;
        }
        if (errno == ECONNREFUSED)
            err = "no socket on port " + std::to_string(port) + " (is the service running?)";
        else if (errno == EPERM)
            err = "sending to port " + std::to_string(port) + " is not permitted (root is needed)";
        else
            err = std::string("send: ") + std::strerror(errno);
        return false;
    }
}

long ks_run(const std::vector<ks_command>& commands, const ks_run_opts& opts, ks_sender& sender,
            std::string& err) {
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + opts.wait;
    const auto gap = opts.rate > 0 ? std::chrono::duration_cast<clock::duration>(
                                         std::chrono::duration<double>(1.0 / opts.rate))
                                   : clock::duration::zero();
    auto next = clock::now();
    long sent = 0;
    uint32_t seq = 1;
    uint16_t family_id = opts.family_id;
    for (unsigned round = 0; round < opts.count; ++round) {
        for (const ks_command& c : commands) {
            if (c.op == ks_op::sleep) {
                std::this_thread::sleep_for(std::chrono::milliseconds(c.sleep_ms));
                next = clock::now();
                continue;
            }
            // An announcement of a chosen id is what later events carry.
            if (c.op == ks_op::announce && c.fid_given) family_id = c.announce.family_id;
            std::vector<uint8_t> msg = ks_materialize(c, family_id, round, seq++);
            if (gap > clock::duration::zero()) {
                std::this_thread::sleep_until(next);
                next += gap;
            }
            // Only the first datagram waits for the port to appear.
            if (!sender.send(opts.port, msg, sent == 0 ? deadline : clock::now(), err, opts.lost))
                return -1;
            ++sent;
            if (opts.on_sent) opts.on_sent(msg);
        }
    }
    return sent;
}
