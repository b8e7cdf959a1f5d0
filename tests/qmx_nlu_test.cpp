// Generic netlink channel: the family request, controller replies, event
// dispatch and the bounds checks on every datagram; then the real socket.
#include "qmx_nlu.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "cmd_recorder.h"
#include "nl_peer.h"

namespace {

using namespace nl_peer;
using namespace std::chrono_literals;

// Events the callback saw.
struct seen_event {
    uint32_t flags, type, len;
    std::string text;
};
std::mutex seen_lock;
std::vector<seen_event> seen;

void record_event(const nl_event* ev) {
    std::lock_guard<std::mutex> g(seen_lock);
    seen.push_back({ev->flags, ev->data_type, ev->data_len,
                    std::string(ev->data(), strnlen(ev->data(), ev->data_len))});
}

std::vector<seen_event> take_seen() {
    std::lock_guard<std::mutex> g(seen_lock);
    return std::exchange(seen, {});
}

struct channel_deleter {
    void operator()(nlu_ctx* c) const { nlu_close(c); }
};
using channel = std::unique_ptr<nlu_ctx, channel_deleter>;

void feed(nlu_ctx* ctx, const bytes& b) { nlu_handle_datagram(ctx, b.data(), b.size()); }

class NluDatagram : public ::testing::Test {
protected:
    void SetUp() override { take_seen(); }
    channel ch{nlu_open_detached(4321, record_event)};
    cmd_recorder rec;
};

TEST(NluRequest, FamilyRequestIsByteExact) {
    const bytes expected = {36, 0, 0, 0,  16, 0,  1,   0,   0,   0,   0,   0,
                            0,  0, 0, 0,  3,  1,  0,   0,   16,  0,   2,   0,
                            'z', 'o', 'r', '_', 'n', 'o', 't', 'i', 'f', 'y', 0, 0};
    EXPECT_EQ(nlu_family_request(), expected);
}

TEST_F(NluDatagram, ControllerReplyStoresFamilyAndAnnouncesPort) {
    EXPECT_EQ(nlu_family_id(ch.get()), 0u);
    feed(ch.get(), announce("zor_notify", 40));
    EXPECT_EQ(nlu_family_id(ch.get()), 40u);
    EXPECT_EQ(rec.lines(), std::vector<std::string>{
                               "[ -f /proc/zor/ctrl ] && echo \"env server_port 4321\" > "
                               "/proc/zor/ctrl"});
    // Every later reply refreshes the id and announces the port again.
    feed(ch.get(), announce("ZOR_Notify", 41));
    EXPECT_EQ(nlu_family_id(ch.get()), 41u);
    EXPECT_EQ(rec.lines().size(), 2u);
}

TEST_F(NluDatagram, RepliesForOtherFamiliesLeaveTheIdAlone) {
    feed(ch.get(), announce("zor_notify", 40));
    rec.clear();
    for (const char* name : {"zor_notif", "nlctrl", "", "zor-notify", "xzor_notify"}) {
        feed(ch.get(), announce(name, 77));
        EXPECT_EQ(nlu_family_id(ch.get()), 40u) << name;
    }
    EXPECT_TRUE(rec.lines().empty());
    // Only the first ten characters are compared.
    feed(ch.get(), announce("zor_notify_v2", 78));
    EXPECT_EQ(nlu_family_id(ch.get()), 78u);
}

TEST_F(NluDatagram, SecondAttributeOtherThanFamilyIdForgetsTheFamily) {
    feed(ch.get(), announce("zor_notify", 40));
    rec.clear();
    feed(ch.get(), announce("zor_notify", 40, 3));
    EXPECT_EQ(nlu_family_id(ch.get()), 0u);
    EXPECT_TRUE(rec.lines().empty());
    feed(ch.get(), domain_event(40, "lost.example"));
    EXPECT_TRUE(take_seen().empty());
    feed(ch.get(), announce("zor_notify", 40));
    feed(ch.get(), domain_event(40, "back.example"));
    auto got = take_seen();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].text, "back.example");
}

TEST_F(NluDatagram, EventsReachTheCallbackOnlyForTheKnownFamily) {
    feed(ch.get(), domain_event(40, "early.example"));  // family still unknown
    feed(ch.get(), announce("zor_notify", 40));
    feed(ch.get(), domain_event(41, "other.example"));             // another family
    feed(ch.get(), event(40, 0, 20, "cmd2.example", 256, 256, 2));  // genl cmd 2
    feed(ch.get(), domain_event(40, "www.example.com", 0x80000001u));
    feed(ch.get(), event(40, 0, 22, "192.168.7.9", 40, 40));
    auto got = take_seen();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].flags, 0x80000001u);
    EXPECT_EQ(got[0].type, 20u);
    EXPECT_EQ(got[0].len, 256u);
    EXPECT_EQ(got[0].text, "www.example.com");
    EXPECT_EQ(got[1].type, 22u);
    EXPECT_EQ(got[1].len, 40u);
    EXPECT_EQ(got[1].text, "192.168.7.9");
}

TEST_F(NluDatagram, MalformedDatagramsAreDropped) {
    feed(ch.get(), announce("zor_notify", 40));
    rec.clear();
    auto patched = [](bytes b, size_t at, uint32_t v, int width) {
        width == 2 ? put16(b, at, static_cast<uint16_t>(v)) : put32(b, at, v);
        return b;
    };
    const bytes cases[] = {
        patched(domain_event(40, "err.example"), 4, 2, 2),       // NLMSG_ERROR
        patched(domain_event(40, "tiny.example"), 0, 12, 4),     // nlmsg_len below a header
        patched(domain_event(40, "over.example"), 32, 257, 4),   // data_len past the datagram
        patched(domain_event(40, "short.example"), 0, 291, 4),   // ends inside the data field
        patched(announce("zor_notify", 99), 20, 400, 2),         // name attribute overruns
        patched(announce("zor_notify", 99), 36, 5, 2),           // id attribute too short
        bytes(15, 0),                                            // shorter than a header
    };
    for (const bytes& b : cases) feed(ch.get(), b);
    EXPECT_TRUE(take_seen().empty());
    EXPECT_EQ(nlu_family_id(ch.get()), 40u);
    EXPECT_TRUE(rec.lines().empty());
}

// Every cut of a valid datagram, with nlmsg_len left as it was (longer than
// what arrived) or shrunk to the cut: only a message that still holds its
// whole record (or its whole id attribute) does anything.
TEST_F(NluDatagram, EveryTruncationIsHandledWithinBounds) {
    const bytes reply = announce("zor_notify", 40);
    const bytes ev = event(40, 1, 21, "10.1.2.3", 40, 40);
    for (bool shrink : {false, true}) {
        for (size_t cut = 0; cut <= reply.size(); ++cut) {
            ch.reset(nlu_open_detached(4321, record_event));
            bytes b(reply.begin(), reply.begin() + static_cast<long>(cut));
            if (shrink && cut >= 4) put32(b, 0, static_cast<uint32_t>(cut));
            feed(ch.get(), b);
            bool whole = cut == reply.size() || (shrink && cut >= 36 + 6);
            EXPECT_EQ(nlu_family_id(ch.get()), whole ? 40u : 0u) << cut << " " << shrink;
        }
        for (size_t cut = 0; cut <= ev.size(); ++cut) {
            bytes b(ev.begin(), ev.begin() + static_cast<long>(cut));
            if (shrink && cut >= 4) put32(b, 0, static_cast<uint32_t>(cut));
            feed(ch.get(), b);
            bool whole = cut == ev.size() || (shrink && cut >= 36 + 40);
            EXPECT_EQ(take_seen().size(), whole ? 1u : 0u) << cut << " " << shrink;
        }
    }
}

// ---- the real socket ----

template <class Pred>
bool eventually(Pred pred, std::chrono::milliseconds limit = 5s) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

class NluSocket : public ::testing::Test {
protected:
    void SetUp() override {
        take_seen();
        ch.reset(nlu_open(port, record_event));
        ASSERT_NE(ch, nullptr) << "no generic netlink socket";
        kernel.emplace();  // after the channel: its automatic port must not take ours
        ASSERT_TRUE(kernel->ok());
        int err = kernel->send_to(port, announce("zor_notify", 40));
        if (err == EPERM || err == EACCES)
            GTEST_SKIP() << "unicast between netlink sockets needs CAP_NET_ADMIN: " << strerror(err);
        ASSERT_EQ(err, 0) << strerror(err);
        ASSERT_TRUE(eventually([&] { return nlu_family_id(ch.get()) == 40; }));
    }
    const uint32_t port = static_cast<uint32_t>(getpid());
    cmd_recorder rec;
    channel ch;
    std::optional<socket_peer> kernel;
};

TEST_F(NluSocket, AnnouncementAndEventsArriveOverTheSocket) {
    EXPECT_TRUE(rec.wait_for("env server_port " + std::to_string(port) + "\"", 1));
    ASSERT_EQ(kernel->send_to(port, domain_event(41, "foreign.example")), 0);
    ASSERT_EQ(kernel->send_to(port, domain_event(40, "www.example.org", 1)), 0);
    ASSERT_TRUE(eventually([] {
        std::lock_guard<std::mutex> g(seen_lock);
        return !seen.empty();
    }));
    auto got = take_seen();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].text, "www.example.org");
    EXPECT_EQ(got[0].flags, 1u);
    // Closing wakes the receiver from its poll and the resolver from its sleep.
    auto start = std::chrono::steady_clock::now();
    ch.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
}

TEST_F(NluSocket, SendBuildsTheDataMessage) {
    const char text[] = "hello";
    ASSERT_EQ(nlu_send(ch.get(), kernel->port(), text, 5), 36);
    bytes got = kernel->receive(2s);
    ASSERT_EQ(got.size(), 36u);
    EXPECT_EQ(get32(got, 0), 36u);          // (5 + 12 + 19) rounded down to 4
    EXPECT_EQ(get32(got, 12), port);        // own port
    EXPECT_EQ(get32(got, 20), 1u);
    EXPECT_EQ(get32(got, 24), 5u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(&got[28]), 5), "hello");
    EXPECT_EQ(nlu_send(ch.get(), kernel->port(), text, NLU_MAX_SEND + 1), -1);
    EXPECT_EQ(nlu_send(ch.get(), kernel->port(), nullptr, 3), -1);
    // Forgetting the family stops sends.
    ASSERT_EQ(kernel->send_to(port, announce("zor_notify", 40, 3)), 0);
    ASSERT_TRUE(eventually([&] { return nlu_family_id(ch.get()) == 0; }));
    EXPECT_EQ(nlu_send(ch.get(), kernel->port(), text, 5), -1);
}

TEST(NluOpen, NullChannelsAndDetachedChannelsSendNothing) {
    nlu_close(nullptr);
    EXPECT_EQ(nlu_send(nullptr, 1, "x", 1), -1);
    channel ch(nlu_open_detached(7, record_event));
    EXPECT_EQ(nlu_send(ch.get(), 1, "x", 1), -1);  // no socket, no family
}

}  // namespace
