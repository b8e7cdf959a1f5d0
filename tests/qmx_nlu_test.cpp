// Generic netlink channel: the family request, controller replies, event
// dispatch and the bounds checks on every datagram; then the real socket.
#include "qmx_nlu.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <mutex>
#include <optional>

#include "ctrl_capture.h"
#include "nl_peer.h"
#include "test_util.h"

namespace {

using namespace nl_peer;
using namespace std::chrono_literals;

// The events the callback saw, as "flags type len text".
std::mutex seen_lock;
std::vector<std::string> seen;

void record_event(const nl_event* ev) {
    std::lock_guard<std::mutex> g(seen_lock);
    seen.push_back(std::to_string(ev->flags) + " " + std::to_string(ev->data_type) + " " +
                   std::to_string(ev->data_len) + " " + std::string(ev->data(), strnlen(ev->data(), ev->data_len)));
}

std::vector<std::string> take_seen() {
    std::lock_guard<std::mutex> g(seen_lock);
    return std::exchange(seen, {});
}

using channel = std::unique_ptr<nlu_ctx, decltype(&nlu_close)>;

class NluDatagram : public ::testing::Test {
protected:
    void SetUp() override { take_seen(); }
    void feed(const bytes& b) const { nlu_handle_datagram(ch.get(), b.data(), b.size()); }
    channel ch{nlu_open_detached(4321, record_event), nlu_close};
    ctrl_capture rec;
};

// Netlink numbers are in the host's byte order: written here as numbers, so
// the test holds on big-endian CPUs too.
TEST(NluRequest, FamilyRequestIsByteExact) {
    bytes want(36, 0);
    put32(want, 0, 36);  // nlmsg_len
    put16(want, 4, 16);  // nlmsg_type: the generic netlink controller
    put16(want, 6, 1);   // NLM_F_REQUEST; seq and pid 0
    want[16] = 3;        // CTRL_CMD_GETFAMILY
    want[17] = 1;        // version
    put16(want, 20, 16);  // attribute length
    put16(want, 22, 2);   // CTRL_ATTR_FAMILY_NAME
    memcpy(&want[24], "zor_notify", 10);
    EXPECT_EQ(nlu_family_request(), want);
}

// Each reply for the family (first ten characters, any case) stores its id
// and announces the port; other names change nothing; a second attribute
// other than the family id forgets the family. Events pass only for the
// known family and genl command 1.
TEST_F(NluDatagram, ControllerRepliesAndEventsFollowTheKnownFamily) {
    const std::string announced = "env server_port 4321";
    const struct {
        bytes datagram;
        uint32_t family;
        size_t announcements;
    } steps[] = {
        {domain_event(40, "early.example"), 0, 0}, {announce("zor_notify", 40), 40, 1}, {announce("ZOR_Notify", 41), 41, 2},
        {announce("zor_notif", 77), 41, 2},        {announce("nlctrl", 77), 41, 2},     {announce("zor_notify_v2", 40), 40, 3},
        {domain_event(41, "other.example"), 40, 3}, {event(40, 0, 20, "cmd2.example", 256, 256, 2), 40, 3},
        {domain_event(40, "www.example.com", 0x80000001u), 40, 3}, {address_event(40, "192.168.7.9", 22), 40, 3},
        {announce("zor_notify", 40, 3), 0, 3},     {domain_event(40, "lost.example"), 0, 3},
    };
    for (const auto& s : steps) {
        feed(s.datagram);
        EXPECT_EQ(nlu_family_id(ch.get()), s.family) << &s - steps;
        EXPECT_EQ(rec.lines(), std::vector<std::string>(s.announcements, announced)) << &s - steps;
    }
    EXPECT_EQ(take_seen(), (std::vector<std::string>{"2147483649 20 256 www.example.com", "0 22 40 192.168.7.9"}));
}

TEST_F(NluDatagram, MalformedDatagramsAreDropped) {
    feed(announce("zor_notify", 40));
    rec.clear();
    auto patched = [](bytes b, size_t at, uint32_t v, int width) {
        width == 2 ? put16(b, at, static_cast<uint16_t>(v)) : put32(b, at, v);
        return b;
    };
    for (const bytes& b : {
             patched(domain_event(40, "err.example"), 4, 2, 2),      // NLMSG_ERROR
             patched(domain_event(40, "tiny.example"), 0, 12, 4),    // nlmsg_len below a header
             patched(domain_event(40, "long.example"), 0, 400, 4),   // nlmsg_len past the datagram
             patched(domain_event(40, "over.example"), 32, 257, 4),  // data_len past the datagram
             patched(domain_event(40, "short.example"), 0, 291, 4),  // ends inside the data field
             patched(announce("zor_notify", 99), 20, 400, 2),        // name attribute overruns
             patched(announce("zor_notify", 99), 36, 5, 2),          // id attribute too short
             bytes(15, 0),                                           // shorter than a header
         })
        feed(b);
    EXPECT_TRUE(take_seen().empty());
    EXPECT_EQ(nlu_family_id(ch.get()), 40u);
    EXPECT_TRUE(rec.lines().empty());
}

class NluSocket : public ::testing::Test {
protected:
    void SetUp() override {
        take_seen();
        ch.reset(nlu_open(port, record_event));
        ASSERT_NE(ch, nullptr) << "no generic netlink socket";
        kernel.emplace();  // after the channel: its automatic port must not take ours
        ASSERT_TRUE(kernel->ok());
        const int err = kernel->send_to(port, announce("zor_notify", 40));
        if (err == EPERM || err == EACCES)
            GTEST_SKIP() << "unicast between netlink sockets needs CAP_NET_ADMIN: " << strerror(err);
        ASSERT_EQ(err, 0) << strerror(err);
        ASSERT_TRUE(zor_test::eventually([&] { return nlu_family_id(ch.get()) == 40; }));
    }
    const uint32_t port = static_cast<uint32_t>(getpid());
    ctrl_capture rec;
    channel ch{nullptr, nlu_close};
    std::optional<socket_peer> kernel;
};

// Events arrive, sends are built (and refused once the family is forgotten),
// and closing wakes the receiver from its poll and the resolver from its sleep.
TEST_F(NluSocket, EventsSendsAndPromptClose) {
    EXPECT_TRUE(rec.wait_for("env server_port " + std::to_string(port), 1));
    ASSERT_EQ(kernel->send_to(port, domain_event(40, "www.example.org", 1)), 0);
    std::vector<std::string> got;
    ASSERT_TRUE(zor_test::eventually([&] { return !(got = take_seen()).empty(); }));
    EXPECT_EQ(got, std::vector<std::string>{"1 20 256 www.example.org"});

    const char text[] = "hello";
    ASSERT_EQ(nlu_send(ch.get(), kernel->port(), text, 5), 36);
    const bytes sent = kernel->receive(2s);
    ASSERT_EQ(sent.size(), 36u);
    EXPECT_EQ(get32(sent, 0), 36u);  // (5 + 12 + 19) rounded down to 4
    EXPECT_EQ(get32(sent, 12), port);
    EXPECT_EQ(get32(sent, 20), 1u);
    EXPECT_EQ(get32(sent, 24), 5u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&sent[28]), 5), "hello");
    EXPECT_EQ(nlu_send(ch.get(), kernel->port(), text, NLU_MAX_SEND + 1), -1);
    ASSERT_EQ(kernel->send_to(port, announce("zor_notify", 40, 3)), 0);  // forgets the family
    ASSERT_TRUE(zor_test::eventually([&] { return nlu_family_id(ch.get()) == 0; }));
    EXPECT_EQ(nlu_send(ch.get(), kernel->port(), text, 5), -1);

    const auto start = std::chrono::steady_clock::now();
    ch.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
}

// Another socket holding the process id as its port (any account can bind
// it first) gets nothing: the channel binds a free port, announces that one
// and receives the events sent to it.
TEST(NluSquatted, ATakenPortIsReplacedAndTheBoundOneAnnounced) {
    take_seen();
    socket_peer kernel;
    ASSERT_TRUE(kernel.ok());
    const uint32_t wanted = kernel.port();  // held by the squatter: `kernel` itself
    ctrl_capture rec;
    channel ch{nlu_open(wanted, record_event), nlu_close};
    ASSERT_NE(ch, nullptr);
    const uint32_t bound = nlu_port(ch.get());
    EXPECT_NE(bound, wanted);
    EXPECT_NE(bound, 0u);
    const int err = kernel.send_to(bound, announce("zor_notify", 41));
    if (err == EPERM || err == EACCES) GTEST_SKIP() << "unicast between netlink sockets needs CAP_NET_ADMIN";
    ASSERT_EQ(err, 0) << strerror(err);
    // The kernel picks ports from the top of the 32-bit range: announced as
    // the 32-bit signed number the command carries.
    EXPECT_TRUE(rec.wait_for("env server_port " + std::to_string(static_cast<int32_t>(bound)), 1))
        << (rec.lines().empty() ? "" : rec.lines().back());
    const std::vector<std::string> lines = rec.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "env server_port " + std::to_string(static_cast<int32_t>(wanted))), 0);
    ASSERT_EQ(kernel.send_to(bound, domain_event(41, "to.the.service")), 0);
    std::vector<std::string> got;
    ASSERT_TRUE(zor_test::eventually([&] { return !(got = take_seen()).empty(); }));
    EXPECT_EQ(got, std::vector<std::string>{"0 20 256 to.the.service"});
}

}  // namespace
