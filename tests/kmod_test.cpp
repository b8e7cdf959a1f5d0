#include "kmod.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "log.h"
#include "main.h"
#include "qmxsrv_ctx.h"
#include "test_util.h"
#include "util/cmd_runner.h"

namespace {

constexpr const char* kGuard = "[ ! -f /proc/zor/ctrl ] && ";

// Records every command line; "lsmod | grep -w ^NAME" prints a line when NAME
// is in `listed`.
class Kmod : public testing::Test {
protected:
    void SetUp() override {
        main_settings_reset();
        qmxsrv_ctx.root = "/opt/svc";
        cmd_runner r;
        r.run = [this](const std::string& line) {
            runs.push_back(line);
            return run_status;
        };
        r.capture = [this](const std::string& line) -> std::optional<std::string> {
            captures.push_back(line);
            const std::string prefix = "lsmod | grep -w ^";
            if (line.rfind(prefix, 0) == 0 && listed.count(line.substr(prefix.size())))
                return line.substr(prefix.size()) + " 16384 0\n";
            return std::string();
        };
        cmd_set_runner(r);
    }
    void TearDown() override {
        cmd_reset_runner();
        main_settings_reset();
        qmxsrv_ctx_release();
    }

    std::vector<std::string> runs;
    std::vector<std::string> captures;
    std::set<std::string> listed;
    int run_status = 0;
};

TEST_F(Kmod, InsmodLineCarriesTheSettingsInOrder) {
    struct {
        const char* name;
        const char* ifwan;
        int32_t qos, pc, cloud, flows, caches, router_mode;
        const char* params;
    } cases[] = {
        {"no options", nullptr, 0, 0, 0, 0, 0, 0, "qos=0 pc=0 cloud=0 router_mode=0 "},
        {"-r -1", nullptr, 0, 0, 0, 0, 0, -1, "qos=0 pc=0 cloud=0 "},
        {"-w eth0", "eth0", 0, 0, 0, 0, 0, 0, "ifwan=eth0 ifwan_num=1 qos=0 pc=0 cloud=0 router_mode=0 "},
        {"-w empty", "", 0, 0, 0, 0, 0, 0, "ifwan= ifwan_num=1 qos=0 pc=0 cloud=0 router_mode=0 "},
        {"negative flows", nullptr, 2, 3, 4, -5, 0, 7, "qos=2 pc=3 cloud=4 router_mode=7 "},
        {"full", "eth0,eth1", 1, 1, 1, 4096, 8000, 1,
         "ifwan=eth0,eth1 ifwan_num=2 qos=1 pc=1 cloud=1 flows=4096 caches=8000 router_mode=1 "},
    };
    for (const auto& c : cases) {
        runs.clear();
        captures.clear();
        ifwan = c.ifwan;
        qos = c.qos;
        pc = c.pc;
        cloud = c.cloud;
        flows = c.flows;
        caches = c.caches;
        router_mode = c.router_mode;
        kmod_load();
        EXPECT_EQ(captures, std::vector<std::string>{"lsmod | grep -w ^zor_service"}) << c.name;
        EXPECT_EQ(runs, std::vector<std::string>{std::string(kGuard) + "insmod /opt/svc/zor.ko " + c.params})
            << c.name;
    }
}

TEST_F(Kmod, LoadedServiceModuleIsLeftAlone) {
    listed = {"zor_service"};
    kmod_load();
    EXPECT_TRUE(runs.empty());
}

TEST_F(Kmod, ShellWordsInParametersAreRefused) {
    qmxsrv_ctx.root = "/opt/svc; reboot";
    kmod_load();
    EXPECT_TRUE(runs.empty());
    qmxsrv_ctx.root = "/opt/svc";
    ifwan = "eth0 $(id)";
    kmod_load();
    EXPECT_TRUE(runs.empty());
    ifwan = "eth0.2,br-lan,wan@x";
    kmod_load();
    EXPECT_EQ(runs.size(), 1u);
}

TEST_F(Kmod, LoadIsLoggedWithTheWholeCommand) {
    zor_test::temp_dir dir;
    log_init(dir.path().c_str(), "zorsrv");
    kmod_load();
    log_release();
    ASSERT_EQ(runs.size(), 1u);
    std::string log = zor_test::read_file(dir.file("zorsrv.log"));
    EXPECT_NE(log.find("[I] Start kernel module: " + runs[0] + "\r\n"), std::string::npos) << log;
}

TEST_F(Kmod, UnloadRemovesZorThenQmxcWhenListed) {
    struct {
        std::set<std::string> listed;
        std::vector<std::string> runs;
    } cases[] = {
        {{}, {}},
        {{"zor"}, {"rmmod zor > /dev/null 2>&1"}},
        {{"qmxc"}, {"rmmod qmxc > /dev/null 2>&1"}},
        {{"qmxc", "zor"}, {"rmmod zor > /dev/null 2>&1", "rmmod qmxc > /dev/null 2>&1"}},
    };
    for (const auto& c : cases) {
        runs.clear();
        captures.clear();
        listed = c.listed;
        kmod_unload_modules();
        EXPECT_EQ(captures, (std::vector<std::string>{"lsmod | grep -w ^zor", "lsmod | grep -w ^qmxc"}));
        EXPECT_EQ(runs, c.runs);
    }
}

TEST_F(Kmod, ModuleUnloadReturnsTheShellStatus) {
    run_status = 256;
    EXPECT_EQ(module_unload("zor"), 256);
    EXPECT_EQ(runs, std::vector<std::string>{"rmmod zor > /dev/null 2>&1"});
}

TEST(RunCapture, ReturnsTheFirstLineOfRealOutput) {
    cmd_reset_runner();
    EXPECT_EQ(run_capture("printf 'one\\ntwo\\n'"), "one\n");
    EXPECT_EQ(run_capture("printf x"), "x");
    EXPECT_EQ(run_capture("true"), std::nullopt);
    EXPECT_EQ(run_capture("exit 3"), std::nullopt);
    std::optional<std::string> wide = run_capture("head -c 700 /dev/zero | tr '\\0' w");
    ASSERT_TRUE(wide);
    EXPECT_EQ(*wide, std::string(511, 'w'));
    EXPECT_EQ(module_loaded("no_such_module_here_zz"), 0);
}

}  // namespace
