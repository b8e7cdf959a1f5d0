// End to end: the real zor_service in the simulated world, fed by kernsim,
// with the cloud simulator as its cloud. Every assertion is about what a
// kernel module would have seen (the lines written into its control file,
// the modules loaded), what the shell ran, or what the cloud was asked.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <thread>

#include "cloudsim.h"
#include "sim_world.h"

namespace {

using namespace std::chrono_literals;

const std::string CTRL_GUARD = "[ -f /proc/zor/ctrl ] && echo \"";
const std::string CTRL_TAIL = "\" > /proc/zor/ctrl";

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

using query_keys = std::vector<std::pair<int, std::string>>;

// The (type, key) pairs of one query text {"q":[[type,"key",n,n],...]}.
query_keys keys_of(const std::string& text) {
    query_keys out;
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> root(cJSON_Parse(text.c_str()), cJSON_Delete);
    const cJSON* q = root ? cJSON_GetObjectItemCaseSensitive(root.get(), "q") : nullptr;
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, q) {
        const cJSON* type = cJSON_GetArrayItem(item, 0);
        const cJSON* key = cJSON_GetArrayItem(item, 1);
        if (cJSON_IsNumber(type) && cJSON_IsString(key)) out.emplace_back(type->valueint, key->valuestring);
    }
    return out;
}

std::string describe(const std::vector<query_keys>& queries) {
    std::string s;
    for (const query_keys& q : queries) {
        s += "  query of " + std::to_string(q.size()) + ":";
        for (const auto& [t, k] : q) s += " " + std::to_string(t) + ":" + k;
        s += "\n";
    }
    return s;
}

class EndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why = sim_world::unsupported_reason();
        if (!why.empty()) GTEST_SKIP() << "no simulated world here: " << why;
        std::string err;
        ASSERT_TRUE(cloud.start(&err)) << err;
    }

    // Starts the service against the cloud simulator.
    testing::AssertionResult start(sim_world& w, world_config cfg = {}) {
        cfg.server = cloud.address();
        std::string err;
        if (!w.start(cfg, err)) return testing::AssertionFailure() << err;
        return testing::AssertionSuccess();
    }

    // Starts the service, announces the family and waits for the cloud
    // session: from then on every key can take the whole road.
    testing::AssertionResult up(sim_world& w, world_config cfg = {}) {
        auto started = start(w, std::move(cfg));
        if (!started) return started;
        std::string err;
        if (!w.announce(err)) return testing::AssertionFailure() << err << "\n" << w.service_log();
        if (!session_ready()) return testing::AssertionFailure() << "no cloud session\n" << w.service_log();
        return testing::AssertionSuccess();
    }

    // A session is held once a ping has been answered; the service
    // publishes it right after.
    bool session_ready() {
        bool pinged = sim_world::wait_for([&] {
            for (const auto& r : cloud.requests())
                if (r.endpoint == "ping" && r.status == 200) return true;
            return false;
        });
        std::this_thread::sleep_for(300ms);
        return pinged;
    }

    std::vector<query_keys> queries() const {
        std::vector<query_keys> out;
        for (const auto& r : cloud.requests())
            if (r.endpoint == "query") out.push_back(keys_of(r.detail));
        return out;
    }

    bool wait_queries(size_t n) const {
        return sim_world::wait_for([&] { return cloud.count("query") >= n; });
    }

    cloudsim::simulator cloud;
};

}  // namespace

TEST_F(EndToEnd, LoadsTheModuleWithTheInsmodLine) {
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
        ASSERT_TRUE(start(w, {.service_args = r.args}));
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

TEST_F(EndToEnd, AnnouncedFamilyIsAnsweredWithTheServerPort) {
    sim_world w;
    std::string err;
    ASSERT_TRUE(start(w));
    ASSERT_TRUE(w.announce(err)) << err << "\n" << w.service_log();
    EXPECT_TRUE(contains(w.commands(), CTRL_GUARD + "env server_port " + std::to_string(w.pid()) + CTRL_TAIL));
    EXPECT_EQ(w.ctrl_count("env server_port"), 1u);
}

TEST_F(EndToEnd, EventsAreReportedBackAsBeingResolved) {
    sim_world w;
    std::string err;
    ASSERT_TRUE(start(w));
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

TEST_F(EndToEnd, MalformedDatagramsAreDroppedAndTheServiceCarriesOn) {
    sim_world w;
    std::string err;
    ASSERT_TRUE(start(w));
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
    // Reports are announced by their own thread, so a later port line may
    // overtake a u2k; the u2k lines keep their order.
    auto lines = w.ctrl_lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], port);
    std::vector<std::string> u2k;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(u2k),
                 [&](const std::string& l) { return l != port; });
    EXPECT_EQ(u2k, (std::vector<std::string>{"db key2group u2k 20 stillforty.example",
                                             "db key2group u2k 20 after.example"}));
    EXPECT_EQ(lines.size() - u2k.size(), 2u) << joined(lines);
    EXPECT_FALSE(w.wait_exit(0ms).has_value()) << "the service died: " << w.service_output();
}

TEST_F(EndToEnd, HostileKeysNeverRunAnythingButTheIntendedCommand) {
    sim_world w;
    ASSERT_TRUE(up(w));
    const std::string d = w.dir();
    const std::vector<std::string> keys = {
        "a.com\"; touch " + d + "/pwned1; \"",
        "$(touch " + d + "/pwned2)",
        "`touch " + d + "/pwned3`",
    };
    // A backslash never reaches echo: some shells' echo reads "\n" in its
    // argument as a line break (a second control line) and "\c" as its end.
    const std::vector<std::string> dropped = {
        "x\\\"; touch " + d + "/pwned4 #",
        "${IFS}$$'\\",
        "evil\\npc rule clean",
    };
    std::vector<std::string> args;
    for (const std::string& k : keys) args.insert(args.end(), {"domain", k, ";"});
    for (const std::string& k : dropped) args.insert(args.end(), {"domain", k, ";"});
    args.insert(args.end(), {"domain", std::string("ctl\x01") + "key", ";", "domain", "fence.example"});
    ASSERT_EQ(w.kernsim(args), 0);
    ASSERT_TRUE(w.wait_ctrl("db key2group u2k 20 fence.example")) << joined(w.ctrl_lines());
    // The same keys come back from the cloud in verdicts.
    std::this_thread::sleep_for(300ms);
    ASSERT_EQ(w.kernsim({"wake"}), 0);
    ASSERT_TRUE(w.wait_ctrl("db key2group update 1 20 fence.example 86400 0 0")) << joined(w.ctrl_lines());

    std::vector<std::string> u2k, expected_u2k;
    for (const std::string& l : w.ctrl_lines())
        if (l.rfind("db key2group u2k", 0) == 0) u2k.push_back(l);
    for (const std::string& k : keys) expected_u2k.push_back("db key2group u2k 20 " + k);
    expected_u2k.push_back("db key2group u2k 20 fence.example");
    EXPECT_EQ(u2k, expected_u2k);
    for (const std::string& k : keys)
        EXPECT_TRUE(w.wait_ctrl("db key2group update 1 20 " + k + " 86400 0 0", 5s)) << k;
    for (const std::string& l : w.ctrl_lines()) {
        EXPECT_EQ(l.find("ctl"), std::string::npos) << "a key with a control byte reached the kernel: " << l;
        EXPECT_EQ(l.find('\\'), std::string::npos) << "a key with a backslash reached the kernel: " << l;
        EXPECT_EQ(l.find("pc rule clean"), std::string::npos) << "a key wrote a control line of its own: " << l;
    }
    for (int i = 1; i <= 4; ++i) EXPECT_FALSE(exists(d + "/pwned" + std::to_string(i))) << i;
    for (const std::string& c : w.commands()) {
        bool module_line = c.rfind("lsmod | grep -w ^", 0) == 0 ||
                           c.rfind("[ ! -f /proc/zor/ctrl ] && insmod ", 0) == 0;
        bool ctrl_line = c.rfind(CTRL_GUARD, 0) == 0 && c.size() > CTRL_GUARD.size() + CTRL_TAIL.size() &&
                         c.compare(c.size() - CTRL_TAIL.size(), CTRL_TAIL.size(), CTRL_TAIL) == 0;
        EXPECT_TRUE(module_line || ctrl_line) << "unexpected command: " << c;
    }
    EXPECT_EQ(w.stop(), 0) << "a clean stop on SIGTERM\n" << w.service_output();
}

TEST_F(EndToEnd, UnknownKeysAreAnsweredFromTheCloud) {
    std::string err;
    ASSERT_TRUE(cloud.apply("category news.example 3 4 2\ncategory 192.0.2.10 7 1 5\n", &err)) << err;
    sim_world w;
    ASSERT_TRUE(up(w));
    // Bit 0 on the last event sends the batch once its key is queued.
    ASSERT_EQ(w.kernsim({"domain", "www.news.example", ";", "addr", "192.0.2.10", ";", "domain",
                         "nobody.example", "flags=1"}),
              0);
    ASSERT_TRUE(wait_queries(1)) << w.service_log();
    ASSERT_TRUE(w.wait_ctrl_count("db key2group update", 3)) << joined(w.ctrl_lines());
    EXPECT_EQ(queries(), (std::vector<query_keys>{
                             {{20, "nobody.example"}, {21, "192.0.2.10"}, {20, "www.news.example"}}}))
        << "one batch, newest first";
    for (const char* line : {"db key2group update 1 20 www.news.example 7200 3 4",
                             "db key2group update 1 21 192.0.2.10 18000 7 1",
                             "db key2group update 1 20 nobody.example 86400 0 0"})
        EXPECT_TRUE(contains(w.ctrl_lines(), line)) << line << "\n" << joined(w.ctrl_lines());
}

TEST_F(EndToEnd, CachedKeyIsAnsweredWithoutANewQuery) {
    std::string err;
    ASSERT_TRUE(cloud.apply("category cached.example 5 6 3\n", &err)) << err;
    sim_world w;
    ASSERT_TRUE(up(w));
    const std::string verdict = "db key2group update 1 20 cached.example 10800 5 6";
    ASSERT_EQ(w.kernsim({"domain", "cached.example", "flags=1"}), 0);
    ASSERT_TRUE(w.wait_ctrl(verdict)) << joined(w.ctrl_lines()) << w.service_log();

    ASSERT_EQ(w.kernsim({"domain", "cached.example", "flags=1"}), 0);
    ASSERT_TRUE(w.wait_ctrl_count(verdict, 2)) << joined(w.ctrl_lines());
    // A key queried after it shows the cache hit asked the cloud nothing.
    ASSERT_EQ(w.kernsim({"domain", "fence.example", "flags=1"}), 0);
    ASSERT_TRUE(wait_queries(2));
    ASSERT_TRUE(w.wait_ctrl("db key2group update 1 20 fence.example 86400 0 0"));
    EXPECT_EQ(queries(), (std::vector<query_keys>{{{20, "cached.example"}}, {{20, "fence.example"}}}));
    EXPECT_EQ(w.ctrl_count("db key2group u2k 20 cached.example"), 2u);
}

TEST_F(EndToEnd, ManyUnknownKeysGoOutInBatchesOfFiftyNewestFirst) {
    sim_world w;
    ASSERT_TRUE(up(w));
    ASSERT_EQ(w.kernsim({"-n", "120", "domain", "k{n}.example"}), 0);
    ASSERT_TRUE(w.wait_ctrl("db key2group u2k 20 k119.example")) << joined(w.ctrl_lines());
    // The worker takes each key in microseconds; leave it time for the last.
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(cloud.count("query"), 0u) << "nothing is sent before bit 0 asks";
    ASSERT_EQ(w.kernsim({"wake"}), 0);
    ASSERT_TRUE(wait_queries(3)) << describe(queries());
    ASSERT_TRUE(w.wait_ctrl_count("db key2group update 1 20 k", 120)) << w.ctrl_count("db key2group update");

    std::vector<query_keys> expected(3);
    for (int i = 119; i >= 0; --i)
        expected[i >= 70 ? 0 : i >= 20 ? 1 : 2].emplace_back(20, "k" + std::to_string(i) + ".example");
    EXPECT_EQ(queries(), expected) << describe(queries());
    EXPECT_EQ(w.stop(), 0) << "a clean stop on SIGTERM\n" << w.service_output();
}

TEST_F(EndToEnd, CloudSwitchedOffDropsTheBatch) {
    if (std::string(e2e_paths::zorctl()).empty()) GTEST_SKIP() << "zorctl is not part of this build";
    sim_world w;
    ASSERT_TRUE(up(w));
    ASSERT_EQ(w.zorctl({"cloud", "off"}), 0) << w.lines_of("zorctl.out").size();
    ASSERT_EQ(w.kernsim({"domain", "off1.example", ";", "domain", "off2.example", "flags=1"}), 0);
    ASSERT_TRUE(w.wait_ctrl("db key2group u2k 20 off2.example"));
    std::this_thread::sleep_for(500ms);
    ASSERT_EQ(w.zorctl({"cloud", "on"}), 0);
    ASSERT_EQ(w.kernsim({"domain", "on.example", "flags=1"}), 0);
    ASSERT_TRUE(wait_queries(1));
    ASSERT_TRUE(w.wait_ctrl("db key2group update 1 20 on.example 86400 0 0"));
    EXPECT_EQ(queries(), (std::vector<query_keys>{{{20, "on.example"}}}))
        << "the keys pending while the cloud was off were dropped, not kept";
    EXPECT_EQ(w.ctrl_count("db key2group update"), 1u);
}

TEST_F(EndToEnd, RefusedAccountUnloadsTheModulesAndExitsZero) {
    std::string err;
    ASSERT_TRUE(cloud.apply("login error 401 5\n", &err)) << err;
    sim_world w;
    ASSERT_TRUE(start(w, {.preloaded = {"qmxc"}, .may_exit = true}));
    auto status = w.wait_exit(20s);
    ASSERT_TRUE(status.has_value()) << "still running after a refused login\n" << w.service_log();
    EXPECT_EQ(*status, 0) << w.service_output();
    auto cmds = w.commands();
    auto pos = [&](const std::string& c) { return std::find(cmds.begin(), cmds.end(), c) - cmds.begin(); };
    const long n = static_cast<long>(cmds.size());
    EXPECT_LT(pos("lsmod | grep -w ^zor"), pos("rmmod zor > /dev/null 2>&1")) << joined(cmds);
    EXPECT_LT(pos("rmmod zor > /dev/null 2>&1"), pos("lsmod | grep -w ^qmxc")) << joined(cmds);
    EXPECT_LT(pos("lsmod | grep -w ^qmxc"), pos("rmmod qmxc > /dev/null 2>&1")) << joined(cmds);
    EXPECT_LT(pos("rmmod qmxc > /dev/null 2>&1"), n) << joined(cmds);
    EXPECT_TRUE(w.lines_of("modules").empty()) << joined(w.lines_of("modules"));
    EXPECT_FALSE(w.ctrl_file_exists());
    EXPECT_EQ(cloud.count("query"), 0u);
}

TEST_F(EndToEnd, CategoryFileHitIsAnsweredLocally) {
    if (std::string(e2e_paths::xdbc()).empty()) GTEST_SKIP() << "xdbc is not part of this build";
    sim_world w;
    const std::string source = w.dir() + "/categories.src", xdb = w.dir() + "/categories.xdb";
    std::ofstream(source) << "# pattern id\n.local.example 0x0305\n198.51.100.7 0x0102\n";
    ASSERT_EQ(sim_world::xdbc_build(source, xdb), 0) << joined(w.lines_of("categories.xdb.log"));
    ASSERT_TRUE(up(w, {.xdb = xdb}));
    ASSERT_EQ(w.kernsim({"domain", "www.local.example", ";", "addr", "198.51.100.7"}), 0);
    ASSERT_TRUE(w.wait_ctrl("db key2group update 2 20 www.local.example 86400 3 5")) << joined(w.ctrl_lines());
    ASSERT_TRUE(w.wait_ctrl("db key2group update 2 21 198.51.100.7 86400 1 2")) << joined(w.ctrl_lines());
    // A name off the label boundary is not the file's: it goes to the cloud,
    // and its query shows what else was pending: nothing.
    ASSERT_EQ(w.kernsim({"domain", "notlocal.example", "flags=1"}), 0);
    ASSERT_TRUE(wait_queries(1));
    ASSERT_TRUE(w.wait_ctrl("db key2group update 1 20 notlocal.example 86400 0 0")) << joined(w.ctrl_lines());
    EXPECT_EQ(queries(), (std::vector<query_keys>{{{20, "notlocal.example"}}}));
    EXPECT_EQ(w.ctrl_count("db key2group update 2"), 2u);
}
