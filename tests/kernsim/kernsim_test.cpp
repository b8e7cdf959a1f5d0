// The kernel simulator's main use beyond what the end-to-end tests drive: a
// script file run several times, with a family announcement, numbered texts
// and a length field told to lie, reaching a real generic netlink socket
// (nl_peer's, on an automatic port) with the fields the service reads.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>

#include "kernsim_msg.h"
#include "nl_peer.h"

namespace {

uint16_t u16(const nl_peer::bytes& b, size_t at) {
    uint16_t v = 0;
    if (at + 2 <= b.size()) std::memcpy(&v, &b[at], 2);
    return v;
}

TEST(Kernsim, ScriptFromAFileReachesThePeerWithTheNamedFields) {
    nl_peer::socket_peer peer;
    if (!peer.ok()) GTEST_SKIP() << "generic netlink sockets are not permitted here";
    char path[] = "/tmp/kernsim_test_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(path) << "# two rounds\nannounce fid=50\naddr 198.51.100.{n} flags=1\n"
                           "domain a.example nlmsg_len=2000\n";
    const std::string cmd = std::string(KERNSIM_BIN) + " -p " + std::to_string(peer.port()) + " -n 2 -s " + path +
                            " 2>&1 >/dev/null";
    FILE* p = popen(cmd.c_str(), "r");
    std::string err;
    char buf[256];
    while (p && fgets(buf, sizeof buf, p)) err += buf;
    const int status = p ? pclose(p) : -1;
    unlink(path);
    if (err.find("not permitted") != std::string::npos) GTEST_SKIP() << err;
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << err;
    for (int i = 0; i < 2; ++i) {
        SCOPED_TRACE(i);
        const nl_peer::bytes a = peer.receive(std::chrono::seconds(2)), e = peer.receive(std::chrono::seconds(2)),
                             d = peer.receive(std::chrono::seconds(2));
        ASSERT_GE(a.size(), 44u);
        EXPECT_EQ(u16(a, 4), KS_GENL_ID_CTRL);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(&a[24])), "zor_notify");
        EXPECT_EQ(u16(a, 38), KS_CTRL_ATTR_FAMILY_ID);
        EXPECT_EQ(u16(a, 40), 50u);
        ASSERT_EQ(e.size(), 76u);
        EXPECT_EQ(u16(e, 4), 50u);
        const uint32_t record[3] = {nl_peer::get32(e, 24), nl_peer::get32(e, 28), nl_peer::get32(e, 32)};
        EXPECT_EQ(std::vector<uint32_t>(record, record + 3), (std::vector<uint32_t>{1, 21, 40}));
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(&e[36])), "198.51.100." + std::to_string(i));
        ASSERT_EQ(d.size(), 292u);
        EXPECT_EQ(nl_peer::get32(d, 0), 2000u);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(&d[36])), "a.example");
    }
}

}  // namespace
