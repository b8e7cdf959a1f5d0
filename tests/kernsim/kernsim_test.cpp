// The kernel simulator must produce exactly the datagrams the service's
// receive path reads, get wrong exactly the fields it is told to, and reach
// a real generic netlink socket (nl_peer's, on an automatic port).
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "kernsim_script.h"
#include "kernsim_send.h"
#include "nl_peer.h"

namespace {

using bytes = std::vector<uint8_t>;

// The `width`-byte field at `at`, in host order.
uint32_t get(const bytes& b, size_t at, size_t width) {
    uint32_t v = 0;
    uint16_t half = 0;
    if (at + width > b.size()) ADD_FAILURE() << "read past the end of " << b.size() << " bytes at " << at;
    else if (width == 1) v = b[at];
    else if (width == 2) v = (std::memcpy(&half, &b[at], 2), half);
    else std::memcpy(&v, &b[at], 4);
    return v;
}
// The text in the zero-filled field of `field` bytes at `at`.
std::string text_at(const bytes& b, size_t at, size_t field) {
    const char* p = at < b.size() ? reinterpret_cast<const char*>(&b[at]) : "";
    return std::string(p, strnlen(p, std::min(field, b.size() - std::min(at, b.size()))));
}

ks_command parse(const std::string& line) {
    std::vector<std::string> words;
    std::string err;
    EXPECT_TRUE(ks_split_line(line, words, err)) << err;
    auto c = ks_parse_command(words, err);
    EXPECT_TRUE(c.has_value()) << line << ": " << err;
    return c.value_or(ks_command{});
}
bytes build(const std::string& line, uint16_t fid = 40, unsigned index = 0) {
    return ks_materialize(parse(line), fid, index, 1);
}
// Offset of the controller reply's second attribute, after the name.
size_t second_attr(const bytes& b) { return 20 + ((get(b, 20, 2) + 3u) & ~3u); }

TEST(KernsimDatagram, AnnounceReadsBackAtTheOffsetsTheServiceUses) {
    const struct {
        const char* line;
        const char* name;
        uint32_t attr, fid;
    } rows[] = {{"announce", "zor_notify", KS_CTRL_ATTR_FAMILY_ID, 77},
                {"announce fid=0x1234 attr=2 name=Zor_Notify_x", "Zor_Notify_x", 2, 0x1234}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.line);
        auto b = build(r.line, 77);
        ASSERT_GE(b.size(), 36u);
        EXPECT_EQ(get(b, 0, 4), b.size());
        EXPECT_EQ(get(b, 4, 2), KS_GENL_ID_CTRL);
        EXPECT_EQ(b[16], KS_CTRL_CMD_NEWFAMILY);
        EXPECT_EQ(get(b, 22, 2), KS_CTRL_ATTR_FAMILY_NAME);
        EXPECT_EQ(text_at(b, 24, 32), r.name);
        EXPECT_EQ(get(b, second_attr(b) + 2, 2), r.attr);
        EXPECT_EQ(get(b, second_attr(b) + 4, 2), r.fid);
    }
    EXPECT_EQ(second_attr(build("announce")), 36u);
}

// Header, record (flags, type, data_len) and the text in a zero-filled
// field; a text filling the field has no terminator.
TEST(KernsimDatagram, EventRecordsHaveTheirFieldSizes) {
    const struct {
        std::string line;
        uint32_t type, len;
        std::string text;
        uint32_t flags;
    } rows[] = {
        {"domain www.example.com", 20, 256, "www.example.com", 0},
        {"domain a.b flags=1", 20, 256, "a.b", 1},
        {"addr 192.0.2.7", 21, 40, "192.0.2.7", 0},
        {"addr 192.0.2.8 type=22 flags=0x80000001", 22, 40, "192.0.2.8", 0x80000001},
        {"addr " + std::string(50, 'x'), 21, 40, std::string(40, 'x'), 0},
        {"event type=5 len=12 text=abc", 5, 12, "abc", 0},
        {"wake", 0, 0, "", 1},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.line);
        auto b = build(r.line, 41);
        ASSERT_EQ(b.size(), 36u + ((r.len + 3) & ~3u));
        EXPECT_EQ(get(b, 0, 4), b.size());
        EXPECT_EQ(get(b, 4, 2), 41u);
        EXPECT_EQ(b[16], 1);
        EXPECT_EQ(get(b, 24, 4), r.flags);
        EXPECT_EQ(get(b, 28, 4), r.type);
        EXPECT_EQ(get(b, 32, 4), r.len);
        EXPECT_EQ(text_at(b, 36, r.len), r.text);
        if (r.text.size() < r.len) {
            EXPECT_EQ(b.back(), 0);
        }
    }
}

TEST(KernsimDatagram, MalformedOptionsBreakOnlyWhatTheyName) {
    const struct {
        const char* line;
        size_t size;
        std::vector<std::array<uint32_t, 3>> fields;  // offset, width, value
    } rows[] = {
        {"domain a.com cut=10", 10, {{0, 4, 10}}},
        {"domain a.com cut=100", 100, {{0, 4, 100}, {32, 4, 256}}},  // the record claims its whole field
        {"domain a.com nlmsg_len=2000", 292, {{0, 4, 2000}}},
        {"domain a.com cut=50 nlmsg_len=16", 50, {{0, 4, 16}}},
        {"domain a.com fid=99", 292, {{4, 2, 99}}},
        {"domain a.com nltype=2 cmd=3", 292, {{4, 2, 2}, {16, 1, 3}}},
        {"domain a.com data_len=4000", 292, {{32, 4, 4000}}},
    };
    for (const auto& r : rows) {
        auto b = build(r.line, 40);
        EXPECT_EQ(b.size(), r.size) << r.line;
        for (const auto& [at, width, value] : r.fields)
            EXPECT_EQ(get(b, at, width), value) << r.line << " at " << at;
    }
}

// Quotes keep keys of shell syntax and control bytes whole; a script's
// error names its line.
TEST(KernsimScript, QuotesKeepHostileKeysWholeAndErrorsNameTheLine) {
    auto c = parse(R"(domain "a.com\"; touch /tmp/pwned; \"" flags=1)");
    EXPECT_EQ(c.event.text, "a.com\"; touch /tmp/pwned; \"");
    EXPECT_EQ(c.event.flags, 1u);
    EXPECT_EQ(parse("domain 'it''s $x'").event.text, "its $x");
    EXPECT_EQ(parse(R"(domain "a\x01b\tc\\")").event.text, std::string("a\x01" "b\tc\\"));
    EXPECT_EQ(parse("domain a.com   # a comment").event.text, "a.com");
    EXPECT_EQ(build("raw 0a00 00ff"), (bytes{0x0a, 0x00, 0x00, 0xff}));
    std::vector<ks_command> out;
    std::string err;
    std::istringstream in("announce\n\n# note\ndomain a.com\nsleep soon\n");
    EXPECT_FALSE(ks_parse_script(in, "flood.ks", out, err));
    EXPECT_EQ(err.rfind("flood.ks:5: ", 0), 0u) << err;
}

bool not_permitted(const std::string& err) { return err.find("not permitted") != std::string::npos; }

// Lossy sending never waits for a receiver that does not read: what its
// full queue refuses is counted, and everything else arrives.
TEST(KernsimSend, LossySendCountsWhatAFullQueueRefuses) {
    nl_peer::socket_peer peer;
    if (!peer.ok()) GTEST_SKIP() << "generic netlink sockets are not permitted here";
    ks_sender sender;
    std::string err;
    ASSERT_TRUE(sender.open(err)) << err;
    std::vector<ks_command> cmds;
    ASSERT_TRUE(ks_parse_words({"domain", "k{n}.test"}, cmds, err)) << err;
    ks_run_opts opts;
    opts.port = peer.port();
    opts.count = 20000;  // far more than a default receive buffer holds
    long lost = 0;
    opts.lost = &lost;
    long sent = ks_run(cmds, opts, sender, err);
    if (sent < 0 && not_permitted(err)) GTEST_SKIP() << err;
    ASSERT_EQ(sent, 20000) << err;
    EXPECT_GT(lost, 0);
    long received = 0;
    while (!peer.receive(std::chrono::milliseconds(0)).empty()) ++received;
    EXPECT_EQ(received + lost, 20000);
}

// Runs the kernsim binary with `args`; returns its exit status and stderr.
std::pair<int, std::string> run_kernsim(const std::string& args) {
    FILE* p = popen((std::string(KERNSIM_BIN) + " " + args + " 2>&1 >/dev/null").c_str(), "r");
    std::string out;
    char buf[256];
    while (p && fgets(buf, sizeof buf, p)) out += buf;
    int status = p ? pclose(p) : -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

TEST(KernsimCommandLine, UsageErrorsExitWithTwoAndSayWhy) {
    const struct {
        const char* args;
        const char* why;
    } rows[] = {
        {"domain a.com", "-p PORT is required"}, {"-p 0 domain a.com", "bad port"},
        {"-p 12 -r fast domain a.com", "bad rate"}, {"-p 12 -f 65536 domain a.com", "bad family id"},
        {"-p 12", "nothing to send"}, {"-p 12 teleport", "unknown command"},
        {"-p 12 -s /nonexistent/script", "cannot open"}, {"-p 12 -s /dev/null domain a", "not both"},
    };
    for (const auto& r : rows) {
        auto [status, err] = run_kernsim(r.args);
        EXPECT_EQ(status, 2) << r.args;
        EXPECT_NE(err.find(r.why), std::string::npos) << r.args << " said: " << err;
    }
}

// A script run twice reaches the peer in order; events follow the family id
// last announced.
TEST(KernsimCommandLine, ScriptFromAFileReachesThePeer) {
    nl_peer::socket_peer peer;
    if (!peer.ok()) GTEST_SKIP() << "generic netlink sockets are not permitted here";
    char path[] = "/tmp/kernsim_test_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(path) << "# two events\nannounce fid=50\naddr 198.51.100.{n} flags=1\n";
    auto [status, err] = run_kernsim("-p " + std::to_string(peer.port()) + " -n 2 -s " + path);
    unlink(path);
    if (status == 1 && not_permitted(err)) GTEST_SKIP() << err;
    ASSERT_EQ(status, 0) << err;
    for (int i = 0; i < 2; ++i) {
        auto a = peer.receive(std::chrono::seconds(2));
        EXPECT_EQ(get(a, 4, 2), KS_GENL_ID_CTRL);
        EXPECT_EQ(get(a, second_attr(a) + 4, 2), 50u);
        auto e = peer.receive(std::chrono::seconds(2));
        ASSERT_EQ(e.size(), 76u);
        EXPECT_EQ(get(e, 4, 2), 50u);
        EXPECT_EQ(get(e, 24, 4), 1u);
        EXPECT_EQ(text_at(e, 36, 40), "198.51.100." + std::to_string(i));
    }
}

}  // namespace
