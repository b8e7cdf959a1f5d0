#include "kmod.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "main.h"
#include "qmxsrv_ctx.h"
#include "util/cmd_runner.h"

namespace {

// Records every command line; "lsmod | grep -w ^NAME" prints a line when NAME
// is in `listed`.
class Kmod : public testing::Test {
protected:
    void SetUp() override {
        main_settings_reset();
        qmxsrv_ctx.root = "/opt/svc";
        cmd_set_runner({[this](const std::string& line) { return runs.push_back(line), 0; },
                        [this](const std::string& line) -> std::optional<std::string> {
                            captures.push_back(line);
                            const std::string name = line.substr(std::string("lsmod | grep -w ^").size());
                            return listed.count(name) ? name + " 16384 0\n" : "";
                        }});
    }
    void TearDown() override {
        cmd_reset_runner();
        main_settings_reset();
        qmxsrv_ctx_release();
    }
    std::vector<std::string> runs, captures;
    std::set<std::string> listed;
};

// The start-up test of the binary checks that this line is logged.
TEST_F(Kmod, InsmodLineCarriesTheSettingsInOrder) {
    struct { const char* ifwan; int32_t qos, pc, cloud, flows, caches, router_mode; const char* params; } cases[] = {
        {nullptr, 0, 0, 0, 0, 0, -1, "qos=0 pc=0 cloud=0 "},
        {"eth0", 2, 3, 4, -5, 0, 7, "ifwan=eth0 ifwan_num=1 qos=2 pc=3 cloud=4 router_mode=7 "},
        {"eth0,eth1", 1, 1, 1, 4096, 8000, 1,
         "ifwan=eth0,eth1 ifwan_num=2 qos=1 pc=1 cloud=1 flows=4096 caches=8000 router_mode=1 "},
    };
    for (const auto& c : cases) {
        runs.clear(), captures.clear();
        ifwan = c.ifwan, qos = c.qos, pc = c.pc, cloud = c.cloud, flows = c.flows, caches = c.caches;
        router_mode = c.router_mode;
        kmod_load();
        EXPECT_EQ(captures, std::vector<std::string>{"lsmod | grep -w ^zor_service"}) << c.params;
        const std::string line = std::string("[ ! -f /proc/zor/ctrl ] && insmod /opt/svc/zor.ko ") + c.params;
        EXPECT_EQ(runs, std::vector<std::string>{line});
    }
}

// A loaded service module is left alone; shell words in a parameter refuse the load.
TEST_F(Kmod, LoadedModuleOrShellWordsMeanNoInsmod) {
    listed = {"zor_service"};
    kmod_load();
    listed.clear();
    qmxsrv_ctx.root = "/opt/svc; reboot";
    kmod_load();
    qmxsrv_ctx.root = "/opt/svc";
    ifwan = "eth0 $(id)";
    kmod_load();
    EXPECT_TRUE(runs.empty());
    ifwan = "eth0.2,br-lan,wan@x";
    kmod_load();
    EXPECT_EQ(runs.size(), 1u);
}

TEST_F(Kmod, UnloadRemovesZorThenQmxcWhenListed) {
    const std::string zor = "rmmod zor > /dev/null 2>&1", qmxc = "rmmod qmxc > /dev/null 2>&1";
    for (auto [names, want] : {std::pair<std::set<std::string>, std::vector<std::string>>{{}, {}},
                               {{"qmxc"}, {qmxc}}, {{"qmxc", "zor"}, {zor, qmxc}}}) {
        runs.clear(), captures.clear();
        listed = names;
        kmod_unload_modules();
        EXPECT_EQ(captures, (std::vector<std::string>{"lsmod | grep -w ^zor", "lsmod | grep -w ^qmxc"}));
        EXPECT_EQ(runs, want);
    }
}

}  // namespace
