// End to end: the real zor_service in the simulated world, fed by kernsim.
// Every assertion is about what a kernel module would have seen (the lines
// written into its control file, the modules loaded) or what the shell ran.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>

#include "sim_world.h"

namespace {

using namespace std::chrono_literals;

const std::string CTRL_GUARD = "[ -f /proc/zor/ctrl ] && echo \"";
const std::string CTRL_TAIL = "\" > /proc/zor/ctrl";

#define SKIP_WITHOUT_WORLD()                                                        \
    do {                                                                            \
        std::string why = sim_world::unsupported_reason();                          \
        if (!why.empty()) GTEST_SKIP() << "no simulated world here: " << why;       \
    } while (0)

bool contains(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

std::string joined(const std::vector<std::string>& lines) {
    std::string s;
    for (const std::string& l : lines) s += "  " + l + "\n";
    return s;
}

bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

}  // namespace

TEST(EndToEnd, LoadsTheModuleWithTheInsmodLine) {
    SKIP_WITHOUT_WORLD();
    struct row {
        std::vector<std::string> args;
        std::string params;
    } rows[] = {
        {{}, "qos=0 pc=0 cloud=0 router_mode=0 "},
        {{"-w", "eth0,eth1", "-q", "1", "-p", "1", "-m", "1", "-f", "4096", "-c", "8000", "-r", "1"},
         "ifwan=eth0,eth1 ifwan_num=2 qos=1 pc=1 cloud=1 flows=4096 caches=8000 router_mode=1 "},
        {{"-w", "eth0", "-c", "100", "-r", "-1"}, "ifwan=eth0 ifwan_num=1 qos=0 pc=0 cloud=0 caches=2000 "},
    };
    for (const row& r : rows) {
        sim_world w;
        std::string err;
        ASSERT_TRUE(w.start({.service_args = r.args}, err)) << err;
        const std::string insmod = "[ ! -f /proc/zor/ctrl ] && insmod " + w.root() + "/zor.ko " + r.params;
        auto cmds = w.commands();
        auto at = std::find(cmds.begin(), cmds.end(), insmod);
        ASSERT_NE(at, cmds.end()) << "expected: " << insmod << "\nran:\n" << joined(cmds);
        EXPECT_TRUE(contains(std::vector<std::string>(cmds.begin(), at), "lsmod | grep -w ^zor_service"))
            << "the loaded-module check comes first";
        EXPECT_TRUE(w.ctrl_file_exists());
        auto modules = w.lines_of("modules");
        ASSERT_EQ(modules.size(), 1u);
        EXPECT_EQ(modules[0], "zor " + r.params.substr(0, r.params.size() - 1));
    }
}

TEST(EndToEnd, DISABLED_AnnouncedFamilyIsAnsweredWithTheServerPort) {
    SKIP_WITHOUT_WORLD();
    sim_world w;
    std::string err;
    ASSERT_TRUE(w.start({}, err)) << err;
    ASSERT_TRUE(w.announce(err)) << err << "\n" << w.service_log();
    EXPECT_TRUE(contains(w.commands(), CTRL_GUARD + "env server_port " + std::to_string(w.pid()) + CTRL_TAIL));
    EXPECT_EQ(w.ctrl_count("env server_port"), 1u);
}

TEST(EndToEnd, DISABLED_EventsAreReportedBackAsBeingResolved) {
    SKIP_WITHOUT_WORLD();
    sim_world w;
    std::string err;
    ASSERT_TRUE(w.start({}, err)) << err;
    // Before the family is known, events are not the service's business.
    ASSERT_EQ(w.kernsim({"domain", "early.example"}), 0);
    ASSERT_TRUE(w.announce(err)) << err;
    ASSERT_EQ(w.kernsim({"domain", "www.example.com", ";", "addr", "192.0.2.1", ";", "addr",
                         "192.0.2.2", "type=22"}),
              0);
    ASSERT_TRUE(w.wait_ctrl_count("db key2group u2k", 3)) << joined(w.ctrl_lines());
    auto u2k = w.ctrl_lines();
    u2k.erase(u2k.begin());  // env server_port
    EXPECT_EQ(u2k, (std::vector<std::string>{"db key2group u2k 20 www.example.com",
                                             "db key2group u2k 21 192.0.2.1",
                                             "db key2group u2k 22 192.0.2.2"}));
}

TEST(EndToEnd, DISABLED_MalformedDatagramsAreDroppedAndTheServiceCarriesOn) {
    SKIP_WITHOUT_WORLD();
    sim_world w;
    std::string err;
    ASSERT_TRUE(w.start({}, err)) << err;
    ASSERT_TRUE(w.announce(err)) << err;
    const std::string script = w.dir() + "/malformed.ks";
    {
        std::ofstream s(script);
        s << "domain short.example cut=10\n"
             "domain liar.example nlmsg_len=4000\n"
             "domain stranger.example fid=99\n"
             "domain wrongcmd.example cmd=3\n"
             "domain cutrecord.example cut=100\n"
             "domain errortype.example nltype=2\n"
             "event type=20 len=100 text=len100.example\n"
             "addr 192.0.2.99 len=256\n"
             "event type=23 len=40 text=192.0.2.23\n"
             "raw 00\n"
             "announce name=other_fam fid=77\n"
             "domain stillforty.example fid=40\n"
             "announce attr=2\n"
             "domain ignored.example\n"
             "announce name=ZOR_NOTIFY\n"
             "domain after.example\n";
    }
    ASSERT_EQ(w.kernsim({"-s", script}), 0);
    ASSERT_TRUE(w.wait_ctrl("db key2group u2k 20 after.example")) << joined(w.ctrl_lines());
    const std::string port = "env server_port " + std::to_string(w.pid());
    EXPECT_EQ(w.ctrl_lines(), (std::vector<std::string>{port, "db key2group u2k 20 stillforty.example",
                                                        port, "db key2group u2k 20 after.example"}));
    EXPECT_FALSE(w.wait_exit(0ms).has_value()) << "the service died: " << w.service_output();
}

TEST(EndToEnd, DISABLED_HostileKeysNeverRunAnythingButTheIntendedCommand) {
    SKIP_WITHOUT_WORLD();
    sim_world w;
    std::string err;
    ASSERT_TRUE(w.start({}, err)) << err;
    ASSERT_TRUE(w.announce(err)) << err;
    const std::string d = w.dir();
    const std::vector<std::string> keys = {
        "a.com\"; touch " + d + "/pwned1; \"",
        "$(touch " + d + "/pwned2)",
        "`touch " + d + "/pwned3`",
        "x\\\"; touch " + d + "/pwned4 #",
        "${IFS}$$'\\",
    };
    std::vector<std::string> args;
    for (const std::string& k : keys) args.insert(args.end(), {"domain", k, ";"});
    args.insert(args.end(), {"domain", std::string("ctl\x01") + "key", ";", "domain", "fence.example"});
    ASSERT_EQ(w.kernsim(args), 0);
    ASSERT_TRUE(w.wait_ctrl("db key2group u2k 20 fence.example")) << joined(w.ctrl_lines());

    std::vector<std::string> expected = {"env server_port " + std::to_string(w.pid())};
    for (const std::string& k : keys) expected.push_back("db key2group u2k 20 " + k);
    expected.push_back("db key2group u2k 20 fence.example");
    EXPECT_EQ(w.ctrl_lines(), expected) << "a key with a control byte never reaches the kernel";
    for (int i = 1; i <= 4; ++i) EXPECT_FALSE(exists(d + "/pwned" + std::to_string(i))) << i;
    for (const std::string& c : w.commands()) {
        bool module_line = c.rfind("lsmod | grep -w ^", 0) == 0 || c.rfind("[ ! -f /proc/zor/ctrl ] && insmod ", 0) == 0;
        bool ctrl_line = c.rfind(CTRL_GUARD, 0) == 0 && c.size() > CTRL_GUARD.size() + CTRL_TAIL.size() &&
                         c.compare(c.size() - CTRL_TAIL.size(), CTRL_TAIL.size(), CTRL_TAIL) == 0;
        EXPECT_TRUE(module_line || ctrl_line) << "unexpected command: " << c;
    }
}
