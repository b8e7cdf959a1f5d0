// Runs the real zor_service binary with stub kernel tools (insmod, lsmod)
// first on PATH; insmod records its arguments, so the tests see the module
// line the service ran without touching the kernel.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "service_process.h"
#include "test_util.h"

namespace {

using namespace std::chrono_literals;
using zor_test::read_file;
using args_t = std::vector<std::string>;
namespace fs = std::filesystem;

const std::string kBinary = ZOR_BINARY_DIR "/zor_service";

bool wait_for(const std::function<bool()>& done) { return zor_test::eventually(done, 10s); }

class ZorServiceBinary : public testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(bin);
        for (auto [name, body] : {std::pair<std::string, std::string>{"insmod", "printf 'insmod %s\\n' \"$*\" >> \"$(dirname \"$0\")/commands\"\n"},
                                  {"lsmod", "exit 0\n"}}) {
            zor_test::write_file(bin + "/" + name, "#!/bin/sh\n" + body);
            chmod((bin + "/" + name).c_str(), 0755);
        }
        put("zor.ini", config());
    }
    std::string put(const std::string& name, const std::string& text) const {
        zor_test::write_file(dir.file(name), text);
        return dir.file(name);
    }
    std::string config() const {
        return "[zor]\nauth_id = e2e-id\nauth_pwd = e2e-pw\nhost = e2e-host\nproduct = e2e-product\nroot = " + root +
               "\nwritable_root = " + writable_root + "\nserver = 127.0.0.1:8443\nlog_level = 6\n";
    }
    // Starts the service in the temp directory with the stubs first on PATH.
    void start(zor_test::service_process& p, const args_t& args) const {
        ASSERT_TRUE(p.start({.argv = zor_test::service_argv(args), .out = out, .err = err, .cwd = dir.path(),
                             .path_first = bin}));
    }
    // The exit status, or -1 when it did not exit in time.
    static int wait_exit(zor_test::service_process& p) { return p.wait_exit(10s).value_or(-1); }
    int run(const args_t& args) const {
        zor_test::service_process p;
        start(p, args);
        return wait_exit(p);
    }
    std::string commands() const { return read_file(bin + "/commands"); }
    // Starts afresh, waits until the module line ran, sends `sig`, returns the status.
    int run_until_signal(const args_t& args, int sig = SIGTERM) const {
        fs::remove(bin + "/commands");
        fs::remove_all(log_dir);
        zor_test::service_process p;
        start(p, args);
        if (!wait_for([this] { return !commands().empty(); })) return -2;
        p.signal(sig);
        return wait_exit(p);
    }
    // Exit status, standard output, standard error.
    std::tuple<int, std::string, std::string> outcome(int status) const { return {status, read_file(out), read_file(err)}; }

    zor_test::temp_dir dir;
    std::string bin = dir.file("bin"), root = dir.file("opt"), writable_root = dir.file("run/zor"),
                log_dir = dir.file("log"), out = dir.file("stdout"), err = dir.file("stderr"), ini = dir.file("zor.ini");
};

// Refusals end before the module line; the category file loads before the
// rest of the start-up, or its failure ends it.
TEST_F(ZorServiceBinary, RefusedStartsExitWith1AndTheirMessage) {
    const std::string missing = dir.file("missing.ini"), socket = writable_root + "/.ipc.socket";
    const std::string incomplete = put("incomplete.ini", "[zor]\nauth_id = a\nauth_pwd = b\nhost = c\n");
    const std::string bad_xdb = put("bad.xdb", "not a category file"), no_xdb = dir.file("missing.xdb");
    EXPECT_EQ(outcome(run({})), std::make_tuple(1, "", "usage: -i <ini file>\n"));
    // Rejected options leave getopt's one line only; the configuration was never read.
    for (auto [args, letter] : {std::pair<args_t, std::string>{{"-x"}, "'x'"}, {{"-i", "zor.ini", "-l"}, "'l'"}}) {
        auto [status, o, e] = outcome(run(args));
        EXPECT_TRUE(status == 1 && o.empty() && e.starts_with(kBinary + ": ") && e.find(letter) != std::string::npos &&
                    e.find('\n') == e.size() - 1) << e;
    }
    for (const std::string& path : {missing, incomplete}) {
        auto [status, o, e] = outcome(run({"-i", path}));
        EXPECT_TRUE(status == 1 && e.ends_with("Error to read " + path + "\n")) << status << e;
    }
    for (auto [xdb, message] : {std::pair<std::string, std::string>{bad_xdb, "This is not xac block!\nFailed to load xdb!\n"},
                                {no_xdb, "Failed to open file, " + no_xdb + "!\n"}}) {
        put("zor.ini", config() + "xdb = " + xdb + "\n");
        EXPECT_EQ(outcome(run({"-i", ini})), std::make_tuple(1, "log_level = 6\n", message));
    }
    put("zor.ini", config());
    // A socket left by an earlier run refuses the start, as a daemon too.
    fs::create_directories(writable_root);
    put("run/zor/.ipc.socket", "");
    for (const args_t& args : {args_t{"-i", ini}, args_t{"-d", "-i", ini}})
        EXPECT_EQ(outcome(run(args)), std::make_tuple(1, "log_level = 6\n",
                  "The previous operation maybe invalid. Please:\n1. killall zor_service\n2. remove " + socket + "\n"));
    EXPECT_EQ(commands(), "");
}

TEST_F(ZorServiceBinary, StopSignalShutsDownInOrder) {
    EXPECT_EQ(outcome(run_until_signal({"-i", ini, "-l", log_dir})), std::make_tuple(0, "log_level = 6\n", ""));
    const std::string log = read_file(log_dir + "/zorsrv.log");
    const size_t start = log.find("[I] ZOR service start up\r\n"), down = log.find("[I] Shutdown service...\r\n");
    const size_t module = log.find("[I] Start kernel module: [ ! -f /proc/zor/ctrl ] && insmod " + root +
                                   "/zor.ko qos=0 pc=0 cloud=0 router_mode=0 \r\n");
    EXPECT_TRUE(start < module && module < down && down != std::string::npos) << log;
    // Without -l no log is written anywhere.
    EXPECT_EQ(run_until_signal({"-i", ini}), 0);
    for (const auto& entry : fs::recursive_directory_iterator(dir.path()))
        EXPECT_TRUE(entry.path().extension() != ".log" && entry.path().filename().string().find("zorsrv") == std::string::npos)
            << entry.path();
    EXPECT_FALSE(fs::exists(log_dir));
}

// Cache sizes are held to 2000..20000; the parameter words are the kernel's.
// Either stop signal ends the run cleanly.
TEST_F(ZorServiceBinary, OptionsBecomeModuleParameters) {
    int sig = SIGTERM;
    for (auto [options, params] : {std::pair<args_t, std::string>{{"-c", "100"}, "qos=0 pc=0 cloud=0 caches=2000 router_mode=0"},
            {{"-c", "50000"}, "qos=0 pc=0 cloud=0 caches=20000 router_mode=0"}, {{"-r", "-1"}, "qos=0 pc=0 cloud=0"},
            {{"-w", "eth0", "-c", "100", "-r", "-1"}, "ifwan=eth0 ifwan_num=1 qos=0 pc=0 cloud=0 caches=2000"},
            {{"-w", "eth0,eth1", "-q", "1", "-p", "1", "-m", "1", "-f", "4096", "-c", "8000", "-r", "1"},
             "ifwan=eth0,eth1 ifwan_num=2 qos=1 pc=1 cloud=1 flows=4096 caches=8000 router_mode=1"}}) {
        options.insert(options.end(), {"-i", ini});
        EXPECT_EQ(run_until_signal(options, sig = sig == SIGTERM ? SIGINT : SIGTERM), 0) << params;
        EXPECT_EQ(commands(), "insmod " + root + "/zor.ko " + params + "\n");
    }
}

}  // namespace
