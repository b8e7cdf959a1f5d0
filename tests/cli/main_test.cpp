// Runs the real zor_service binary with stub kernel tools (insmod, lsmod)
// first on PATH; insmod records its arguments, so the tests see the module
// line the service ran without touching the kernel.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "test_util.h"

namespace {

using namespace std::chrono_literals;
using zor_test::read_file;
using zor_test::temp_dir;

// Writes `text` to `name` inside `dir` and returns the file's path.
std::string put_file(const temp_dir& dir, const std::string& name, const std::string& text) {
    zor_test::write_file(dir.file(name), text);
    return dir.file(name);
}

const std::string kBinary = ZOR_BINARY_DIR "/zor_service";

bool wait_for(const std::function<bool()>& done, std::chrono::milliseconds limit = 10s) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

// A child process that is killed and reaped if a test leaves it behind.
struct child {
    pid_t pid = -1;
    ~child() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    // The exit status, or -1 when it did not exit normally within the limit.
    int wait_exit(std::chrono::milliseconds limit = 10s) {
        int status = 0;
        bool done = wait_for([&] { return waitpid(pid, &status, WNOHANG) == pid; }, limit);
        if (!done) return -1;
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

class ZorServiceBinary : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(bin);
        std::filesystem::create_directories(root);
        stub("insmod", "printf 'insmod %s\\n' \"$*\" >> \"$(dirname \"$0\")/commands\"\n");
        stub("lsmod", "exit 0\n");
        ini = put_file(dir, "zor.ini", config());
    }

    void stub(const std::string& name, const std::string& body) const {
        std::string path = bin + "/" + name;
        zor_test::write_file(path, "#!/bin/sh\n" + body);
        chmod(path.c_str(), 0755);
    }

    std::string config() const {
        return "[zor]\n"
               "auth_id = e2e-id\nauth_pwd = e2e-pw\nhost = e2e-host\nproduct = e2e-product\n"
               "root = " + root + "\nwritable_root = " + writable_root + "\n"
               "server = 127.0.0.1:8443\nlog_level = 6\n";
    }

    // Starts the service in the temp directory with the stubs first on PATH.
    void start(child& c, const std::vector<std::string>& args) const {
        c.pid = fork();
        ASSERT_GE(c.pid, 0);
        if (c.pid == 0) {
            if (chdir(dir.path().c_str()) != 0) _exit(120);
            std::string path = bin + ":" + (getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin");
            setenv("PATH", path.c_str(), 1);
            if (!freopen(out.c_str(), "w", stdout) || !freopen(err.c_str(), "w", stderr)) _exit(121);
            std::vector<char*> argv{const_cast<char*>(kBinary.c_str())};
            for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execv(kBinary.c_str(), argv.data());
            _exit(122);
        }
    }

    // Runs with `args` and returns the exit status.
    int run(const std::vector<std::string>& args) const {
        child c;
        start(c, args);
        return c.wait_exit();
    }

    std::string commands() const { return read_file(bin + "/commands"); }
    bool module_line_ran() const { return commands().find("insmod ") != std::string::npos; }

    // Starts, waits until the module line ran, sends `sig`, returns the status.
    int run_until_signal(const std::vector<std::string>& args, int sig) const {
        child c;
        start(c, args);
        if (!wait_for([this] { return module_line_ran(); })) return -2;
        kill(c.pid, sig);
        return c.wait_exit();
    }

    temp_dir dir;
    std::string bin = dir.file("bin");
    std::string root = dir.file("opt");
    std::string writable_root = dir.file("run/zor");
    std::string log_dir = dir.file("log");
    std::string out = dir.file("stdout");
    std::string err = dir.file("stderr");
    std::string ini;
};

TEST_F(ZorServiceBinary, NoArgumentsPrintUsage) {
    EXPECT_EQ(run({}), 1);
    EXPECT_EQ(read_file(err), "usage: -i <ini file>\n");
    EXPECT_EQ(read_file(out), "");
}

TEST_F(ZorServiceBinary, RejectedOptionsLeaveOnlyGetoptsMessage) {
    struct {
        std::vector<std::string> args;
        const char* letter;
    } cases[] = {
        {{"-x"}, "'x'"},
        {{"-c"}, "'c'"},
        {{"-i"}, "'i'"},
        {{"-i", "zor.ini", "-z"}, "'z'"},
        {{"-i", "zor.ini", "-l"}, "'l'"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(run(c.args), 1) << c.letter;
        std::string e = read_file(err);
        EXPECT_EQ(e.rfind(kBinary + ": ", 0), 0u) << e;
        EXPECT_NE(e.find(c.letter), std::string::npos) << e;
        EXPECT_EQ(e.find('\n'), e.size() - 1) << "more than getopt's one line: " << e;
        // The configuration was never read.
        EXPECT_EQ(read_file(out), "") << c.letter;
    }
}

TEST_F(ZorServiceBinary, UnreadableOrIncompleteConfigurationIsNamed) {
    std::string missing = dir.file("missing.ini");
    std::string incomplete = put_file(dir, "incomplete.ini", "[zor]\nauth_id = a\nauth_pwd = b\nhost = c\n");
    std::string broken = put_file(dir, "broken.ini", "[zor]\nthis line is wrong\n");
    for (const std::string& path : {missing, incomplete, broken}) {
        EXPECT_EQ(run({"-i", path}), 1) << path;
        std::string e = read_file(err);
        std::string expected = "Error to read " + path + "\n";
        ASSERT_GE(e.size(), expected.size()) << e;
        EXPECT_EQ(e.substr(e.size() - expected.size()), expected);
    }
    EXPECT_FALSE(module_line_ran());
}

TEST_F(ZorServiceBinary, StaleSocketRefusesStartEvenAsDaemon) {
    std::filesystem::create_directories(writable_root);
    std::string socket = writable_root + "/.ipc.socket";
    put_file(dir, "run/zor/.ipc.socket", "");
    const std::string message = "The previous operation maybe invalid. Please:\n1. killall zor_service\n2. remove " +
                                socket + "\n";
    for (const auto& args : {std::vector<std::string>{"-i", ini}, std::vector<std::string>{"-d", "-i", ini}}) {
        EXPECT_EQ(run(args), 1) << args[0];
        EXPECT_EQ(read_file(err), message);
        EXPECT_EQ(read_file(out), "log_level = 6\n");
    }
    EXPECT_FALSE(module_line_ran());
}

TEST_F(ZorServiceBinary, StopSignalsShutDownInOrder) {
    for (int sig : {SIGTERM, SIGINT}) {
        std::filesystem::remove_all(log_dir);
        std::filesystem::remove(bin + "/commands");
        EXPECT_EQ(run_until_signal({"-i", ini, "-l", log_dir}, sig), 0) << strsignal(sig);
        EXPECT_EQ(read_file(out), "log_level = 6\n");
        EXPECT_EQ(read_file(err), "");

        std::string log = read_file(log_dir + "/zorsrv.log");
        std::string module_line = "[ ! -f /proc/zor/ctrl ] && insmod " + root +
                                  "/zor.ko qos=0 pc=0 cloud=0 router_mode=0 \r\n";
        size_t start = log.find("[I] ZOR service start up\r\n");
        size_t module = log.find("[I] Start kernel module: " + module_line);
        size_t down = log.find("[I] Shutdown service...\r\n");
        ASSERT_NE(start, std::string::npos) << log;
        ASSERT_NE(module, std::string::npos) << log;
        ASSERT_NE(down, std::string::npos) << log;
        EXPECT_LT(start, module);
        EXPECT_LT(module, down);
        EXPECT_TRUE(std::regex_search(log, std::regex(R"(\d{8} \d\d:\d\d:\d\d main/\d{3}\[I\] ZOR service start up\r\n)")))
            << log;
        // The configuration cannot switch on debug lines.
        EXPECT_EQ(log.find("[D]"), std::string::npos) << log;
    }
}

TEST_F(ZorServiceBinary, WithoutLogDirectoryNoLogIsWritten) {
    EXPECT_EQ(run_until_signal({"-i", ini}, SIGTERM), 0);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path())) {
        EXPECT_NE(entry.path().extension(), ".log") << entry.path();
        EXPECT_EQ(entry.path().filename().string().find("zorsrv"), std::string::npos) << entry.path();
    }
    EXPECT_FALSE(std::filesystem::exists(log_dir));
}

TEST_F(ZorServiceBinary, OptionsBecomeModuleParameters) {
    struct {
        std::vector<std::string> options;
        const char* params;
    } cases[] = {
        {{}, "qos=0 pc=0 cloud=0 router_mode=0"},
        {{"-c", "100"}, "qos=0 pc=0 cloud=0 caches=2000 router_mode=0"},
        {{"-c", "50000"}, "qos=0 pc=0 cloud=0 caches=20000 router_mode=0"},
        {{"-c", "many"}, "qos=0 pc=0 cloud=0 caches=2000 router_mode=0"},
        {{"-r", "-1"}, "qos=0 pc=0 cloud=0"},
        {{"-f", "lots"}, "qos=0 pc=0 cloud=0 router_mode=0"},
        {{"-q", "1", "-q", "2", "-f", "10", "-f", "x"}, "qos=2 pc=0 cloud=0 flows=10 router_mode=0"},
        {{"-w", "eth0,eth1", "-q", "1", "-p", "1", "-m", "1", "-f", "4096", "-c", "8000", "-r", "1"},
         "ifwan=eth0,eth1 ifwan_num=2 qos=1 pc=1 cloud=1 flows=4096 caches=8000 router_mode=1"},
    };
    for (const auto& c : cases) {
        std::filesystem::remove(bin + "/commands");
        std::vector<std::string> args = c.options;
        args.insert(args.end(), {"-i", ini});
        EXPECT_EQ(run_until_signal(args, SIGTERM), 0) << c.params;
        EXPECT_EQ(commands(), "insmod " + root + "/zor.ko " + c.params + "\n");
    }
}

// The smallest file the category loader accepts: an empty automaton and an
// empty prefilter block.
std::string empty_category_file() {
    std::string f(12 + 576 + 12, '\0');
    f[0] = 1;
    f[12] = static_cast<char>(0xE8);
    f[13] = 0x07;
    f[12 + 576] = 2;
    return f;
}

TEST_F(ZorServiceBinary, CategoryFileLoadsBeforeTheRestOrEndsStartUp) {
    const std::string good = put_file(dir, "good.xdb", empty_category_file());
    const std::string bad = put_file(dir, "bad.xdb", "not a category file");
    const std::string missing = dir.file("missing.xdb");

    put_file(dir, "zor.ini", config() + "xdb = " + good + "\n");
    EXPECT_EQ(run_until_signal({"-i", ini}, SIGTERM), 0);
    EXPECT_EQ(read_file(out), "log_level = 6\nSuccess to load xdb.\n");
    EXPECT_EQ(read_file(err), "");

    const struct {
        std::string path;
        std::string message;
    } failures[] = {
        {bad, "This is not xac block!\nFailed to load xdb!\n"},
        {missing, "Failed to open file, " + missing + "!\n"},
    };
    for (const auto& f : failures) {
        std::filesystem::remove_all(log_dir);
        std::filesystem::remove(bin + "/commands");
        put_file(dir, "zor.ini", config() + "xdb = " + f.path + "\n");
        EXPECT_EQ(run({"-i", ini, "-l", log_dir}), 1) << f.path;
        EXPECT_EQ(read_file(err), f.message);
        const std::string log = read_file(log_dir + "/zorsrv.log");
        EXPECT_NE(log.find("[E] Faild to load xdb!\r\n"), std::string::npos) << log;
        EXPECT_EQ(log.find("Shutdown service"), std::string::npos) << "no shutdown sequence: " << log;
        EXPECT_FALSE(module_line_ran());
    }
}

// The pid of a child of this process running zor_service, or -1.
pid_t find_child_service() {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::string stat = read_file(entry.path().string() + "/stat");
        size_t close = stat.rfind(')');
        if (close == std::string::npos || stat.find("(zor_service)") == std::string::npos) continue;
        char state = 0;
        int ppid = 0;
        if (sscanf(stat.c_str() + close + 1, " %c %d", &state, &ppid) == 2 && ppid == getpid() && state != 'Z')
            return static_cast<pid_t>(atoi(entry.path().filename().c_str()));
    }
    return -1;
}

TEST_F(ZorServiceBinary, DaemonDetachesIntoItsOwnSession) {
    // Orphans are handed to this process, so the daemon can be found and reaped.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    EXPECT_EQ(run({"-d", "-i", ini}), 0);
    ASSERT_TRUE(wait_for([this] { return module_line_ran(); }));
    child daemon;
    ASSERT_TRUE(wait_for([&] { return (daemon.pid = find_child_service()) > 0; }));
    EXPECT_EQ(getsid(daemon.pid), daemon.pid);
    kill(daemon.pid, SIGTERM);
    EXPECT_EQ(daemon.wait_exit(), 0);
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}

}  // namespace
