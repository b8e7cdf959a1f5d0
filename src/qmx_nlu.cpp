#include "qmx_nlu.h"

#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>

#include "log.h"
#include "util/cmd_runner.h"
#include "util/timing.h"
#include "util/unique_fd.h"
#include "zor_ctrl.h"

namespace {

constexpr char kFamilyName[] = "zor_notify";
constexpr size_t kFamilyNameLen = sizeof kFamilyName - 1;  // compared characters
constexpr size_t kGenlOffset = 16;                          // genl header
constexpr size_t kAttrOffset = 20;                          // first attribute
constexpr size_t kEventOffset = 24;                         // nl_event record
constexpr size_t kEventHeader = kEventOffset + sizeof(nl_event);  // 36: start of data
// The kernel module never waits for room in our receive queue: what does not
// fit is lost. The queue has to ride out the moments the receive thread
// waits for a processor in a burst of reports: 1 MiB (the kernel counts it
// twice over) holds some 2,000 events, 40 ms at 50,000 a second.
constexpr int kRecvQueueBytes = 1 << 20;
// Datagrams read per wake-up before the stop signal is looked at again.
constexpr int kRecvBatch = 256;

uint16_t rd16(const uint8_t* p) {
    uint16_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

uint32_t rd32(const uint8_t* p) {
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

void wr16(uint8_t* p, uint16_t v) { memcpy(p, &v, sizeof v); }
void wr32(uint8_t* p, uint32_t v) { memcpy(p, &v, sizeof v); }

size_t align4(size_t n) { return (n + 3) & ~size_t{3}; }

// Size of a prepared message for `payload` bytes: the payload's message
// space, (payload + 19) rounded down to a multiple of 4.
size_t message_space(size_t payload) { return (payload + 19) & ~size_t{3}; }

sockaddr_nl netlink_addr(uint32_t port) {
    sockaddr_nl a{};
    a.nl_family = AF_NETLINK;
    a.nl_pid = port;
    a.nl_groups = 0;
    return a;
}

// strerror_r returns the text (GNU, glibc with _GNU_SOURCE) or 0 with the
// text in buf (POSIX, musl): the overload taken fits the C library's.
[[maybe_unused]] const char* strerror_result(const char* text, const char*) {
    return text;
}
[[maybe_unused]] const char* strerror_result(int rc, const char* buf) {
    return rc == 0 ? buf : "Unknown error";
}

std::string errno_text(int err) {
    char buf[128] = "";
    return strerror_result(strerror_r(err, buf, sizeof buf), buf);
}

}  // namespace

struct nlu_ctx {
    unique_fd fd;                    // -1 for a detached channel
    unique_fd stop_fd;               // eventfd the receive thread polls
    uint32_t pid = 0;                // own port id; immutable
    std::atomic<uint32_t> fid{0};    // family id, 0 while unknown
    nlu_event_fn on_event = nullptr; // immutable
    std::mutex lock;                 // serialises every send on the socket
    std::mutex stop_lock;
    std::condition_variable stop_cond;
    bool stopping = false;  // covered by stop_lock
    std::thread recv_thread;
    std::thread family_thread;
};

namespace {

// Sleeps up to `d`; true when the channel is stopping.
bool wait_stop(nlu_ctx* ctx, std::chrono::milliseconds d) {
    std::unique_lock<std::mutex> lk(ctx->stop_lock);
    return ctx->stop_cond.wait_for(lk, d, [&] { return ctx->stopping; });
}

bool is_stopping(nlu_ctx* ctx) {
    std::lock_guard<std::mutex> g(ctx->stop_lock);
    return ctx->stopping;
}

// Sends the whole family request to the controller under the send lock.
bool send_family_request(nlu_ctx* ctx, const std::vector<uint8_t>& req) {
    sockaddr_nl kernel = netlink_addr(0);
    std::lock_guard<std::mutex> g(ctx->lock);
    size_t off = 0;
    while (off < req.size()) {
        ssize_t n = sendto(ctx->fd.get(), req.data() + off, req.size() - off, 0,
                           reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel);
        if (n >= 0) {
            off += static_cast<size_t>(n);
            continue;
        }
        int err = errno;
        if ((err == EAGAIN || err == EINTR) && !is_stopping(ctx)) continue;
        LOG_D("family request not sent: %s", errno_text(err).c_str());
        return false;
    }
    return true;
}

void family_main(nlu_ctx* ctx, zor_timing timing) {
    LOG_I("start get netlink family id");
    const std::vector<uint8_t> req = nlu_family_request();
    for (;;) {
        bool sent = send_family_request(ctx, req);
        if (!sent) ctx->fid.store(0);
        // The send lock is already released here, so nlu_send is never held
        // up by a failing resolver.
        auto pause = sent && ctx->fid.load() != 0 ? timing.family_refresh : timing.family_retry;
        if (wait_stop(ctx, pause)) return;
    }
}

void recv_main(nlu_ctx* ctx) {
    LOG_I("start receive netlink message");
    alignas(8) uint8_t buf[NLU_RECV_SIZE];
    pollfd fds[2] = {{ctx->fd.get(), POLLIN, 0}, {ctx->stop_fd.get(), POLLIN, 0}};
    for (;;) {
        int r = poll(fds, 2, -1);
        if (r < 0) {
            if (errno == EINTR) continue;
            LOG_E("netlink poll: %s", errno_text(errno).c_str());
            if (wait_stop(ctx, std::chrono::milliseconds(100))) return;
            continue;
        }
        if (fds[1].revents != 0) return;
        if (fds[0].revents == 0) continue;
        // Also after POLLERR: reading clears a pending socket error (overrun).
        // Everything queued is read before the next poll, a bounded batch at
        // a time: one system call per datagram instead of two.
        for (int i = 0; i < kRecvBatch; ++i) {
            ssize_t n = recv(ctx->fd.get(), buf, sizeof buf, MSG_DONTWAIT);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) break;
            nlu_handle_datagram(ctx, buf, static_cast<size_t>(n));
        }
    }
}

// A controller reply: "zor_notify" in the first attribute, the family id in
// the second. `len` is nlmsg_len, already checked against what was received.
void handle_controller_reply(nlu_ctx* ctx, const uint8_t* buf, size_t len) {
    if (len < kAttrOffset + 4) return;
    size_t name_attr_len = rd16(buf + kAttrOffset);
    if (name_attr_len < 4 + kFamilyNameLen || kAttrOffset + name_attr_len > len) return;
    if (strncasecmp(reinterpret_cast<const char*>(buf + kAttrOffset + 4), kFamilyName,
                    kFamilyNameLen) != 0) {
        return;
    }
    size_t id_attr = kAttrOffset + align4(name_attr_len);
    if (id_attr + 4 > len) return;
    if (rd16(buf + id_attr + 2) != CTRL_ATTR_FAMILY_ID) {
        ctx->fid.store(0);
        return;
    }
    size_t id_attr_len = rd16(buf + id_attr);
    if (id_attr_len < 6 || id_attr + id_attr_len > len) return;
    ctx->fid.store(rd16(buf + id_attr + 4));
    zor_ctrl_server_port(static_cast<int>(ctx->pid));
}

// An event of the family: dispatched once its data lies inside the message.
void handle_event(nlu_ctx* ctx, uint16_t type, uint8_t cmd, const uint8_t* buf, size_t len) {
    uint32_t fid = ctx->fid.load();
    if (fid == 0 || type != fid || cmd != 1 || ctx->on_event == nullptr) return;
    if (len < kEventHeader) return;
    uint32_t data_len = rd32(buf + kEventOffset + offsetof(nl_event, data_len));
    if (data_len > len - kEventHeader) return;
    // The callback gets an aligned copy of the record; the caller's buffer
    // need not be aligned.
    alignas(nl_event) uint8_t record[NLU_RECV_SIZE];
    size_t record_len = sizeof(nl_event) + data_len;
    if (record_len > sizeof record) return;
    memcpy(record, buf + kEventOffset, record_len);
    ctx->on_event(reinterpret_cast<const nl_event*>(record));
}

// Binds `port`; when another socket holds it (any local account can bind a
// predictable process id first), binds a port the kernel picks instead. The
// port actually bound goes to *bound: it is the one the module is told, so
// reports reach this socket and never a squatter's. False when neither bind
// works.
bool bind_port(int fd, uint32_t port, uint32_t* bound) {
    sockaddr_nl self = netlink_addr(port);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&self), sizeof self) == 0) {
        *bound = port;
        return true;
    }
    LOG_E("bind netlink port %u: %s; binding a free one", port, errno_text(errno).c_str());
    self = netlink_addr(0);
    socklen_t len = sizeof self;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&self), sizeof self) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&self), &len) != 0 || self.nl_pid == 0) {
        LOG_E("bind netlink port: %s", errno_text(errno).c_str());
        return false;
    }
    *bound = self.nl_pid;
    LOG_E("netlink port %u bound instead of %u", *bound, port);
    return true;
}

nlu_ctx* start_threads(nlu_ctx* ctx) {
    try {
        ctx->recv_thread = std::thread(recv_main, ctx);
        ctx->family_thread = std::thread(family_main, ctx, timing_get());
    } catch (const std::system_error& e) {
        LOG_E("netlink thread not started: %s", e.what());
        nlu_close(ctx);
        return nullptr;
    }
    return ctx;
}

}  // namespace

std::vector<uint8_t> nlu_family_request() {
    const size_t attr_len = kFamilyNameLen + 6;  // one more than header + name + NUL
    const size_t total = kAttrOffset + align4(attr_len);
    std::vector<uint8_t> msg(total, 0);
    wr32(msg.data() + 0, static_cast<uint32_t>(total));
    wr16(msg.data() + 4, GENL_ID_CTRL);
    wr16(msg.data() + 6, NLM_F_REQUEST);
    msg[kGenlOffset] = CTRL_CMD_GETFAMILY;
    msg[kGenlOffset + 1] = 1;
    wr16(msg.data() + kAttrOffset, static_cast<uint16_t>(attr_len));
    wr16(msg.data() + kAttrOffset + 2, CTRL_ATTR_FAMILY_NAME);
    memcpy(msg.data() + kAttrOffset + 4, kFamilyName, kFamilyNameLen + 1);
    return msg;
}

void nlu_handle_datagram(nlu_ctx* ctx, const uint8_t* buf, size_t len) {
    if (!ctx || !buf || len < sizeof(nlmsghdr)) return;
    uint32_t msg_len = rd32(buf + 0);
    uint16_t type = rd16(buf + 4);
    uint8_t cmd = len > kGenlOffset ? buf[kGenlOffset] : 0;
    LOG_D("ctx->fid=%u, nl:%hu/%u/%u, genl:%hhu", ctx->fid.load(), type, rd32(buf + 8),
          rd32(buf + 12), cmd);
    if (type == NLMSG_ERROR || msg_len < sizeof(nlmsghdr) || len < msg_len) return;
    if (msg_len < kAttrOffset) return;  // no generic netlink header
    if (type == GENL_ID_CTRL && cmd == CTRL_CMD_NEWFAMILY) {
        handle_controller_reply(ctx, buf, msg_len);
        return;
    }
    handle_event(ctx, type, cmd, buf, msg_len);
}

nlu_ctx* nlu_open_detached(uint32_t port, nlu_event_fn on_event) {
    nlu_ctx* ctx = new (std::nothrow) nlu_ctx;
    if (!ctx) return nullptr;
    ctx->pid = port;
    ctx->on_event = on_event;
    return ctx;
}

nlu_ctx* nlu_open(uint32_t port, nlu_event_fn on_event) {
    int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC);
    if (fd < 0) return nullptr;
    nlu_ctx* ctx = nlu_open_detached(port, on_event);
    if (!ctx) {
        close(fd);
        return nullptr;
    }
    ctx->fd.reset(fd);
    if (!bind_port(fd, port, &ctx->pid)) {
        nlu_close(ctx);
        return nullptr;
    }
    // Forced where the service may (it runs as root), else as large as the
    // system allows.
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kRecvQueueBytes, sizeof kRecvQueueBytes) != 0)
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kRecvQueueBytes, sizeof kRecvQueueBytes);
    LOG_D("open socket %d", fd);
    int stop = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (stop < 0) {
        LOG_E("netlink stop signal: %s", errno_text(errno).c_str());
        nlu_close(ctx);
        return nullptr;
    }
    ctx->stop_fd.reset(stop);
    return start_threads(ctx);
}

void nlu_close(nlu_ctx* ctx) {
    if (!ctx) return;
    {
        std::lock_guard<std::mutex> g(ctx->stop_lock);
        ctx->stopping = true;
    }
    ctx->stop_cond.notify_all();
    if (ctx->stop_fd.get() >= 0) {
        uint64_t one = 1;
        ssize_t n = write(ctx->stop_fd.get(), &one, sizeof one);
        (void)n;  // a full counter already wakes the poll
    }
    if (ctx->recv_thread.joinable()) ctx->recv_thread.join();
    if (ctx->family_thread.joinable()) ctx->family_thread.join();
    delete ctx;  // closes the socket and the stop signal
}

int nlu_send(nlu_ctx* ctx, uint32_t port, const void* data, uint32_t len) {
    if (!ctx || ctx->fd.get() < 0 || ctx->fid.load() == 0) return -1;
    if (len > NLU_MAX_SEND || (data == nullptr && len != 0)) return -1;
    const size_t size = message_space(len + sizeof(nl_event));
    std::vector<uint8_t> msg(size, 0);
    wr32(msg.data() + 0, static_cast<uint32_t>(size));
    wr32(msg.data() + 12, ctx->pid);
    wr32(msg.data() + kAttrOffset, 1);
    wr32(msg.data() + kEventOffset, len);
    if (len) memcpy(msg.data() + kEventOffset + 4, data, len);
    sockaddr_nl dst = netlink_addr(port);
    iovec iov{msg.data(), msg.size()};
    msghdr mh{};
    mh.msg_name = &dst;
    mh.msg_namelen = sizeof dst;
    mh.msg_iov = &iov;
    mh.msg_iovlen = 1;
    std::lock_guard<std::mutex> g(ctx->lock);
    return static_cast<int>(sendmsg(ctx->fd.get(), &mh, MSG_DONTWAIT));
}

uint32_t nlu_family_id(const nlu_ctx* ctx) { return ctx ? ctx->fid.load() : 0; }

uint32_t nlu_port(const nlu_ctx* ctx) { return ctx ? ctx->pid : 0; }
