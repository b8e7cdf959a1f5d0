// The real zor_service binary against the cloud simulator: the start-up
// wiring of the transport, cipher and session, and what a refused account
// does to the whole service. Kernel tools are stubs first on PATH that record
// their arguments.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>

#include "cloudsim.h"
#include "service_process.h"
#include "test_util.h"

namespace {

using namespace std::chrono_literals;
using zor_test::eventually;
using zor_test::read_file;

class ServiceWithCloud : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(bin);
        const std::string record = "printf '%s %s\\n' \"$(basename \"$0\")\" \"$*\" >> \"$(dirname \"$0\")/commands\"\n";
        for (auto [name, body] : {std::pair{"insmod", record}, {"rmmod", record},
                                  {"lsmod", "printf 'zor 16384 0\\nqmxc 8192 0\\n'\n"}}) {
            zor_test::write_file(bin + "/" + name, "#!/bin/sh\n" + body);
            chmod((bin + "/" + name).c_str(), 0755);
        }
        std::string error;
        ASSERT_TRUE(sim.start(&error)) << error;
        ASSERT_TRUE(sim.save_certificate(dir.file("cloud.pem")));
    }
    void TearDown() override {
        service.kill_now();
        sim.stop();
    }

    void start() {
        std::string ini = dir.file("zor.ini"), log_dir = dir.file("log");
        zor_test::write_file(ini, "[zor]\nauth_id = e2e-id\nauth_pwd = e2e-pw\nhost = e2e-host\nproduct = e2e-product\n"
                                  "root = " + dir.file("opt") + "\nwritable_root = " + dir.file("run") +
                                      "\nserver = " + sim.address() + "\nca_file = " + dir.file("cloud.pem") + "\nlog_level = 6\n");
        ASSERT_TRUE(service.start({.argv = zor_test::service_argv({"-i", ini, "-l", log_dir}), .out = dir.file("stdout"),
                                   .err = dir.file("stderr"), .path_first = bin}));
    }
    // The exit status, or -1 when it did not exit within the limit.
    int wait_exit(std::chrono::milliseconds limit) { return service.wait_exit(limit).value_or(-1); }

    zor_test::temp_dir dir;
    std::string bin = dir.file("bin");
    cloudsim::simulator sim;
    zor_test::service_process service;
};

// Once logged in the session waits for most of an hour: a stop does not.
TEST_F(ServiceWithCloud, LogsInWithTheConfiguredAccountAndStopsPromptly) {
    start();
    // A request is recorded on arrival and gets its status once answered.
    ASSERT_TRUE(eventually([&] {
        auto r = sim.requests();
        return !r.empty() && r.back().endpoint == "ping" && r.back().status == 200;
    }, 60s));
    EXPECT_EQ(sim.requests().front().detail, "id=e2e-id,product=e2e-product,host=e2e-host");
    EXPECT_EQ(sim.count("login") + sim.count("ping"), 2u);
    auto t0 = std::chrono::steady_clock::now();
    service.signal(SIGTERM);
    EXPECT_EQ(wait_exit(10s), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 2s);
    EXPECT_EQ(read_file(bin + "/commands").find("rmmod"), std::string::npos);  // a plain stop leaves the modules
}

TEST_F(ServiceWithCloud, RefusedAccountUnloadsTheModulesAndEndsTheService) {
    std::string error;
    ASSERT_TRUE(sim.apply("login error 401 5", &error)) << error;
    start();
    EXPECT_EQ(wait_exit(60s), 0);
    EXPECT_EQ(sim.count("login"), 1u);
    std::string cmds = read_file(bin + "/commands");
    size_t zor = cmds.find("rmmod zor\n"), qmxc = cmds.find("rmmod qmxc\n");
    ASSERT_NE(zor, std::string::npos) << cmds;
    EXPECT_NE(qmxc, std::string::npos) << cmds;
    EXPECT_LT(zor, qmxc);
    std::string log = read_file(dir.file("log") + "/zorsrv.log");
    EXPECT_NE(log.find("[E] Authentication invalid: e2e-id/, {\"error\":{\"code\":5,"), std::string::npos) << log;
}

}  // namespace
