// The kernel simulator must produce exactly the datagrams the service's
// receive path reads, get wrong exactly the fields it is told to, and reach
// a real generic netlink socket.
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "kernsim_script.h"
#include "kernsim_send.h"

namespace {

template <typename T>
T read_at(const std::vector<uint8_t>& b, size_t at) {
    T v{};
    if (at + sizeof v <= b.size())
        std::memcpy(&v, &b[at], sizeof v);
    else
        ADD_FAILURE() << "read past the end of a " << b.size() << "-byte datagram at " << at;
    return v;
}
uint16_t u16_at(const std::vector<uint8_t>& b, size_t at) { return read_at<uint16_t>(b, at); }
uint32_t u32_at(const std::vector<uint8_t>& b, size_t at) { return read_at<uint32_t>(b, at); }

ks_command parse(const std::string& line) {
    std::vector<std::string> words;
    std::string err;
    EXPECT_TRUE(ks_split_line(line, words, err)) << err;
    auto c = ks_parse_command(words, err);
    EXPECT_TRUE(c.has_value()) << line << ": " << err;
    return c.value_or(ks_command{});
}

std::vector<uint8_t> build(const std::string& line, uint16_t fid = 40, unsigned index = 0) {
    return ks_materialize(parse(line), fid, index, 1);
}

}  // namespace

TEST(KernsimAnnounce, ReadsBackAtTheOffsetsTheServiceUses) {
    auto b = build("announce", 77);
    ASSERT_GE(b.size(), 36u);
    EXPECT_EQ(u32_at(b, 0), b.size());
    EXPECT_EQ(u16_at(b, 4), KS_GENL_ID_CTRL);
    EXPECT_EQ(b[16], KS_CTRL_CMD_NEWFAMILY);
    EXPECT_EQ(u16_at(b, 22), KS_CTRL_ATTR_FAMILY_NAME);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&b[24])), "zor_notify");
    size_t second = 20 + ((u16_at(b, 20) + 3u) & ~3u);
    EXPECT_EQ(second, 36u);
    EXPECT_EQ(u16_at(b, second + 2), KS_CTRL_ATTR_FAMILY_ID);
    EXPECT_EQ(u16_at(b, second + 4), 77);
}

TEST(KernsimAnnounce, OptionsChangeTheFieldsTheyName) {
    auto b = build("announce fid=0x1234 attr=2 name=Zor_Notify_x");
    size_t second = 20 + ((u16_at(b, 20) + 3u) & ~3u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&b[24])), "Zor_Notify_x");
    EXPECT_EQ(u16_at(b, second + 2), 2);
    EXPECT_EQ(u16_at(b, second + 4), 0x1234);
}

TEST(KernsimEvent, DomainAndAddressRecordsHaveTheirFieldSizes) {
    struct row {
        const char* line;
        uint32_t type, len;
        const char* text;
        uint32_t flags;
    } rows[] = {
        {"domain www.example.com", 20, 256, "www.example.com", 0},
        {"domain a.b flags=1", 20, 256, "a.b", 1},
        {"addr 192.0.2.7", 21, 40, "192.0.2.7", 0},
        {"addr 192.0.2.8 type=22 flags=0x80000001", 22, 40, "192.0.2.8", 0x80000001},
        {"event type=5 len=12 text=abc", 5, 12, "abc", 0},
        {"wake", 0, 0, "", 1},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.line);
        auto b = build(r.line, 41);
        ASSERT_EQ(b.size(), 36u + ((r.len + 3) & ~3u));
        EXPECT_EQ(u32_at(b, 0), b.size());
        EXPECT_EQ(u16_at(b, 4), 41);
        EXPECT_EQ(b[16], 1);
        EXPECT_EQ(u32_at(b, 24), r.flags);
        EXPECT_EQ(u32_at(b, 28), r.type);
        EXPECT_EQ(u32_at(b, 32), r.len);
        if (r.len) {
            EXPECT_EQ(std::string(reinterpret_cast<const char*>(&b[36])), r.text);
            EXPECT_EQ(b.back(), 0);
        }
    }
}

TEST(KernsimEvent, TextFillingTheFieldHasNoTerminator) {
    auto b = build("addr " + std::string(50, 'x'));
    ASSERT_EQ(b.size(), 76u);
    for (size_t i = 36; i < 76; ++i) ASSERT_EQ(b[i], 'x') << i;
}

TEST(KernsimEvent, MalformedOptionsBreakOnlyWhatTheyName) {
    auto cut = build("domain a.com cut=10");
    ASSERT_EQ(cut.size(), 10u);
    EXPECT_EQ(u32_at(cut, 0), 10u);

    auto cut_record = build("domain a.com cut=100");
    ASSERT_EQ(cut_record.size(), 100u);
    EXPECT_EQ(u32_at(cut_record, 0), 100u);
    EXPECT_EQ(u32_at(cut_record, 32), 256u) << "the record still claims its full field";

    auto lie = build("domain a.com nlmsg_len=2000");
    EXPECT_EQ(lie.size(), 292u);
    EXPECT_EQ(u32_at(lie, 0), 2000u);

    auto both = build("domain a.com cut=50 nlmsg_len=16");
    EXPECT_EQ(both.size(), 50u);
    EXPECT_EQ(u32_at(both, 0), 16u);

    auto foreign = build("domain a.com fid=99", 40);
    EXPECT_EQ(u16_at(foreign, 4), 99);
    auto typed = build("domain a.com nltype=2 cmd=3", 40);
    EXPECT_EQ(u16_at(typed, 4), 2);
    EXPECT_EQ(typed[16], 3);

    auto dlen = build("domain a.com data_len=4000");
    EXPECT_EQ(dlen.size(), 292u);
    EXPECT_EQ(u32_at(dlen, 32), 4000u);
}

TEST(KernsimScript, QuotesKeepHostileKeysWhole) {
    auto c = parse(R"(domain "a.com\"; touch /tmp/pwned; \"" flags=1)");
    EXPECT_EQ(c.event.text, "a.com\"; touch /tmp/pwned; \"");
    EXPECT_EQ(c.event.flags, 1u);
    EXPECT_EQ(parse("domain 'it''s $x'").event.text, "its $x");
    EXPECT_EQ(parse(R"(domain "a\x01b\tc\\")").event.text, std::string("a\x01" "b\tc\\"));
    EXPECT_EQ(parse("domain a.com   # a comment").event.text, "a.com");
}

TEST(KernsimScript, BadLinesAreRefusedWithAReason) {
    struct row {
        const char* line;
        const char* why;
    } rows[] = {
        {"launch", "unknown command"},
        {"domain", "key text is missing"},
        {"domain a flags=-1", "bad flags"},
        {"domain a flags=12x", "bad flags"},
        {"domain a fid=70000", "bad fid"},
        {"domain a colour=red", "unknown option"},
        {"domain a stray", "unexpected"},
        {"announce attr=x", "bad attr"},
        {"raw 123", "even number"},
        {"raw zz", "not a hex digit"},
        {"sleep", "milliseconds"},
        {"event len=5000", "above 4096"},
        {"domain \"open", "unterminated double quote"},
        {"domain 'open", "unterminated single quote"},
        {"domain \"\\q\"", "unknown escape"},
        {"domain \"\\x4\"", "bad \\x escape"},
    };
    for (const row& r : rows) {
        std::vector<std::string> words;
        std::string err;
        bool ok = ks_split_line(r.line, words, err) && ks_parse_command(words, err).has_value();
        EXPECT_FALSE(ok) << r.line;
        EXPECT_NE(err.find(r.why), std::string::npos) << r.line << " gave: " << err;
    }
}

TEST(KernsimScript, ScriptErrorsNameTheLine) {
    std::istringstream in("announce\n\n# note\ndomain a.com\nsleep soon\n");
    std::vector<ks_command> out;
    std::string err;
    EXPECT_FALSE(ks_parse_script(in, "flood.ks", out, err));
    EXPECT_EQ(err.rfind("flood.ks:5: ", 0), 0u) << err;
}

TEST(KernsimScript, WordsSplitIntoCommandsAtSemicolons) {
    std::vector<ks_command> out;
    std::string err;
    ASSERT_TRUE(ks_parse_words({"announce", ";", "domain", "a;b", "flags=1", ";", ";", "sleep", "5"},
                               out, err))
        << err;
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0].op, ks_op::announce);
    EXPECT_EQ(out[1].event.text, "a;b");
    EXPECT_EQ(out[2].op, ks_op::sleep);
    EXPECT_EQ(out[2].sleep_ms, 5u);
}

TEST(KernsimScript, RepetitionNumberIsSubstituted) {
    EXPECT_EQ(ks_expand("k{n}.example.{n}", 17), "k17.example.17");
    EXPECT_EQ(ks_expand("plain", 3), "plain");
    EXPECT_EQ(ks_expand("{n", 3), "{n");
    auto b = build("domain host{n}.test", 40, 119);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&b[36])), "host119.test");
}

TEST(KernsimScript, RawBytesAreSentAsGiven) {
    EXPECT_EQ(build("raw 0a00 00ff"), (std::vector<uint8_t>{0x0a, 0x00, 0x00, 0xff}));
}

// A generic netlink socket standing in for the service's.
class netlink_peer {
public:
    bool open_on(uint32_t port) {
        fd_ = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC);
        if (fd_ < 0) return false;
        sockaddr_nl a{};
        a.nl_family = AF_NETLINK;
        a.nl_pid = port;
        return bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    }
    ~netlink_peer() {
        if (fd_ >= 0) close(fd_);
    }
    std::vector<uint8_t> receive(int timeout_ms = 2000) {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, timeout_ms) != 1) return {};
        std::vector<uint8_t> b(2048);
        ssize_t n = recv(fd_, b.data(), b.size(), 0);
        b.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return b;
    }

private:
    int fd_ = -1;
};

// Port ids the tests bind: far above any process id.
uint32_t test_port(uint32_t n) { return 0x7ff00000u + (static_cast<uint32_t>(getpid()) << 4) % 0xfffff + n; }

TEST(KernsimSend, DatagramsReachTheDestinationPortInOrder) {
    netlink_peer peer;
    if (!peer.open_on(test_port(1))) GTEST_SKIP() << "generic netlink sockets are not permitted here";
    ks_sender sender;
    std::string err;
    ASSERT_TRUE(sender.open(err)) << err;
    std::vector<ks_command> cmds;
    ASSERT_TRUE(ks_parse_words({"announce", ";", "domain", "k{n}.test"}, cmds, err)) << err;
    ks_run_opts opts;
    opts.port = test_port(1);
    opts.family_id = 45;
    opts.count = 3;
    long sent = ks_run(cmds, opts, sender, err);
    if (sent < 0 && err.find("not permitted") != std::string::npos) GTEST_SKIP() << err;
    ASSERT_EQ(sent, 6) << err;
    for (int i = 0; i < 3; ++i) {
        auto a = peer.receive();
        ASSERT_EQ(a.size(), 68u);
        EXPECT_EQ(u16_at(a, 4), KS_GENL_ID_CTRL);
        auto e = peer.receive();
        ASSERT_EQ(e.size(), 292u);
        EXPECT_EQ(u16_at(e, 4), 45);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(&e[36])), "k" + std::to_string(i) + ".test");
    }
}

TEST(KernsimSend, WaitsForAPortThatAppearsLater) {
    ks_sender sender;
    std::string err;
    if (!sender.open(err)) GTEST_SKIP() << err;
    std::vector<ks_command> cmds;
    ASSERT_TRUE(ks_parse_words({"wake"}, cmds, err));
    ks_run_opts opts;
    opts.port = test_port(2);

    EXPECT_EQ(ks_run(cmds, opts, sender, err), -1);
    if (err.find("not permitted") != std::string::npos) GTEST_SKIP() << err;
    EXPECT_NE(err.find("no socket on port"), std::string::npos) << err;

    netlink_peer peer;
    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        peer.open_on(test_port(2));
    });
    opts.wait = std::chrono::seconds(10);
    long sent = ks_run(cmds, opts, sender, err);
    late.join();
    if (sent < 0 && err.find("not permitted") != std::string::npos) GTEST_SKIP() << err;
    EXPECT_EQ(sent, 1) << err;
    EXPECT_EQ(peer.receive().size(), 36u);
}

// Lossy sending never waits for a receiver that does not read: what its
// full queue refuses is counted, and everything else arrives.
TEST(KernsimSend, LossySendCountsWhatAFullQueueRefuses) {
    netlink_peer peer;
    if (!peer.open_on(test_port(3))) GTEST_SKIP() << "generic netlink sockets are not permitted here";
    ks_sender sender;
    std::string err;
    ASSERT_TRUE(sender.open(err)) << err;
    std::vector<ks_command> cmds;
    ASSERT_TRUE(ks_parse_words({"domain", "k{n}.test"}, cmds, err)) << err;
    ks_run_opts opts;
    opts.port = test_port(3);
    opts.count = 20000;  // far more than a default receive buffer holds
    long lost = 0;
    opts.lost = &lost;
    long sent = ks_run(cmds, opts, sender, err);
    if (sent < 0 && err.find("not permitted") != std::string::npos) GTEST_SKIP() << err;
    ASSERT_EQ(sent, 20000) << err;
    EXPECT_GT(lost, 0);
    long received = 0;
    while (!peer.receive(0).empty()) ++received;
    EXPECT_EQ(received + lost, 20000);
}

// Runs the kernsim binary with `args`; returns its exit status and stderr.
std::pair<int, std::string> run_kernsim(const std::string& args) {
    std::string cmd = std::string(KERNSIM_BIN) + " " + args + " 2>&1 >/dev/null";
    FILE* p = popen(cmd.c_str(), "r");
    std::string out;
    char buf[256];
    while (p && fgets(buf, sizeof buf, p)) out += buf;
    int status = p ? pclose(p) : -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

TEST(KernsimCommandLine, UsageErrorsExitWithTwoAndSayWhy) {
    struct row {
        const char* args;
        const char* why;
    } rows[] = {
        {"domain a.com", "-p PORT is required"},
        {"-p 0 domain a.com", "bad port"},
        {"-p 12 -r fast domain a.com", "bad rate"},
        {"-p 12 -f 65536 domain a.com", "bad family id"},
        {"-p 12", "nothing to send"},
        {"-p 12 teleport", "unknown command"},
        {"-p 12 -s /nonexistent/script", "cannot open"},
        {"-p 12 -s /dev/null domain a", "not both"},
    };
    for (const row& r : rows) {
        auto [status, err] = run_kernsim(r.args);
        EXPECT_EQ(status, 2) << r.args;
        EXPECT_NE(err.find(r.why), std::string::npos) << r.args << " said: " << err;
    }
}

TEST(KernsimCommandLine, ScriptFromAFileReachesThePeer) {
    netlink_peer peer;
    if (!peer.open_on(test_port(3))) GTEST_SKIP() << "generic netlink sockets are not permitted here";
    char path[] = "/tmp/kernsim_test_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(path) << "# two events\nannounce fid=50\naddr 198.51.100.{n} flags=1\n";
    auto [status, err] = run_kernsim("-p " + std::to_string(test_port(3)) + " -n 2 -s " + path);
    unlink(path);
    if (status == 1 && err.find("not permitted") != std::string::npos) GTEST_SKIP() << err;
    ASSERT_EQ(status, 0) << err;
    auto a = peer.receive();
    size_t second = 20 + ((u16_at(a, 20) + 3u) & ~3u);
    EXPECT_EQ(u16_at(a, second + 4), 50);
    auto e = peer.receive();
    ASSERT_EQ(e.size(), 76u);
    EXPECT_EQ(u16_at(e, 4), 50) << "events follow the family id last announced";
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&e[36])), "198.51.100.0");
    peer.receive();
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&peer.receive()[36])), "198.51.100.1");
}
