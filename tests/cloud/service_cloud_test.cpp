// The real zor_service binary against the cloud simulator: the start-up
// wiring of the transport, cipher and session, and what a refused account
// does to the whole service. Kernel tools are stubs first on PATH that record
// their arguments.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "cloudsim.h"
#include "test_util.h"

namespace {

using namespace std::chrono_literals;
using zor_test::read_file;

const std::string kBinary = ZOR_BINARY_DIR "/zor_service";

bool wait_for(const std::function<bool()>& done, std::chrono::milliseconds limit = 10s) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

class ServiceWithCloud : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(bin);
        std::filesystem::create_directories(root);
        const std::string record = "printf '%s %s\\n' \"$(basename \"$0\")\" \"$*\" >> \"$(dirname \"$0\")/commands\"\n";
        stub("insmod", record);
        stub("rmmod", record);
        stub("lsmod", "printf 'zor 16384 0\\nqmxc 8192 0\\n'\n");
        std::string error;
        ASSERT_TRUE(sim.start(&error)) << error;
    }
    void TearDown() override {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        sim.stop();
    }

    void stub(const std::string& name, const std::string& body) const {
        std::string path = bin + "/" + name;
        zor_test::write_file(path, "#!/bin/sh\n" + body);
        chmod(path.c_str(), 0755);
    }

    void start() {
        std::string ini = dir.file("zor.ini");
        zor_test::write_file(ini, "[zor]\nauth_id = e2e-id\nauth_pwd = e2e-pw\nhost = e2e-host\n"
                                  "product = e2e-product\nroot = " + root + "\nwritable_root = " +
                                      dir.file("run") + "\nserver = " + sim.address() + "\nlog_level = 6\n");
        pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            std::string path = bin + ":" + (getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin");
            setenv("PATH", path.c_str(), 1);
            if (!freopen(dir.file("stdout").c_str(), "w", stdout) ||
                !freopen(dir.file("stderr").c_str(), "w", stderr))
                _exit(121);
            execl(kBinary.c_str(), kBinary.c_str(), "-i", ini.c_str(), "-l", log_dir.c_str(), nullptr);
            _exit(122);
        }
    }

    // The exit status, or -1 when it did not exit within the limit.
    int wait_exit(std::chrono::milliseconds limit) {
        int status = 0;
        if (!wait_for([&] { return waitpid(pid, &status, WNOHANG) == pid; }, limit)) return -1;
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string commands() const { return read_file(bin + "/commands"); }
    std::string log() const { return read_file(log_dir + "/zorsrv.log"); }

    zor_test::temp_dir dir;
    std::string bin = dir.file("bin");
    std::string root = dir.file("opt");
    std::string log_dir = dir.file("log");
    cloudsim::simulator sim;
    pid_t pid = -1;
};

TEST_F(ServiceWithCloud, LogsInWithTheConfiguredAccountAndStopsPromptly) {
    start();
    // A request is recorded on arrival and gets its status once answered.
    ASSERT_TRUE(wait_for([&] {
        auto r = sim.requests();
        return !r.empty() && r.back().endpoint == "ping" && r.back().status != 0;
    }));
    EXPECT_EQ(sim.count("ping"), 1u);
    auto reqs = sim.requests();
    ASSERT_EQ(reqs.front().endpoint, "login");
    EXPECT_EQ(reqs.front().detail, "id=e2e-id,product=e2e-product,host=e2e-host");
    EXPECT_EQ(reqs.back().status, 200);
    // The session now waits for most of an hour: a stop must not.
    auto t0 = std::chrono::steady_clock::now();
    kill(pid, SIGTERM);
    EXPECT_EQ(wait_exit(5s), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 2s);
    EXPECT_EQ(commands().find("rmmod"), std::string::npos);  // a plain stop leaves the modules
}

TEST_F(ServiceWithCloud, StopDuringASlowLoginDoesNotWaitForIt) {
    std::string error;
    ASSERT_TRUE(sim.apply("login delay 30000", &error)) << error;
    start();
    ASSERT_TRUE(wait_for([&] { return sim.count("login") == 1; }));
    auto t0 = std::chrono::steady_clock::now();
    kill(pid, SIGTERM);
    EXPECT_EQ(wait_exit(10s), 0);
    // Well inside the login form's 5 s time-out.
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 2s);
}

TEST_F(ServiceWithCloud, RefusedAccountUnloadsTheModulesAndEndsTheService) {
    std::string error;
    ASSERT_TRUE(sim.apply("login error 401 5", &error)) << error;
    start();
    EXPECT_EQ(wait_exit(10s), 0);
    EXPECT_EQ(sim.count("login"), 1u);
    std::string cmds = commands();
    size_t zor = cmds.find("rmmod zor\n");
    size_t qmxc = cmds.find("rmmod qmxc\n");
    ASSERT_NE(zor, std::string::npos) << cmds;
    ASSERT_NE(qmxc, std::string::npos) << cmds;
    EXPECT_LT(zor, qmxc);
    std::string l = log();
    EXPECT_NE(l.find("_zor/"), std::string::npos) << l;
    EXPECT_NE(l.find("[E] Authentication invalid: e2e-id/, {\"error\":{\"code\":5,"), std::string::npos) << l;
}

}  // namespace
