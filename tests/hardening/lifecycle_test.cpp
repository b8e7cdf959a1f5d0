// The whole life of the real zor_service under valgrind memcheck, in the
// simulated world: configuration, category file, cloud login against the
// cloud simulator, kernel reports from kernsim, commands from zorctl and raw
// bytes on the command socket, then each way the service can end. Memcheck
// must report no invalid access and no definitely or indirectly lost byte,
// and every descriptor or socket the service opened must be closed by the
// time it exits.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>

#include "cloudsim.h"
#include "harden_probe.h"
#include "sim_world.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* kValgrind = "/usr/bin/valgrind";
constexpr int kValgrindError = 97;
constexpr auto kSlow = 90s;  // everything is some ten times slower under memcheck

// What memcheck said, as far as the test judges it.
struct memcheck_report {
    std::string command;  // the guest program
    long errors = -1;     // -1: no summary was written
    long lost = 0;        // definitely and indirectly
    std::vector<std::string> own_fds;  // left open, and not inherited
};

memcheck_report read_report(const std::vector<std::string>& log) {
    static const std::regex count("== (ERROR SUMMARY|definitely lost|indirectly lost): ([0-9,]+)");
    memcheck_report r;
    std::string open;  // "Open file descriptor 5: ...", "Open AF_UNIX socket 6: ...", then its origin
    for (const std::string& line : log) {
        std::smatch m;
        if (size_t at = line.find("== Command: "); at != std::string::npos && r.command.empty())
            r.command = line.substr(at + 12);
        if (std::regex_search(line, m, count)) {
            const long n = std::stol(std::regex_replace(m[2].str(), std::regex(","), ""));
            if (m[1] == "ERROR SUMMARY") r.errors = n; else r.lost += n;
        }
        if (size_t at = line.find("== Open "); at != std::string::npos) {
            open = line.substr(at + 3);
        } else if (!open.empty()) {
            if (line.find("<inherited from parent>") == std::string::npos) r.own_fds.push_back(open);
            open.clear();
        }
    }
    return r;
}

enum class ending { ipc_exit, sigterm, refused_account, bad_category_file, stale_socket };

struct lifecycle_case {
    const char* name;
    ending how;
    int status;  // expected exit status
};
void PrintTo(const lifecycle_case& c, std::ostream* os) { *os << c.name; }

class Lifecycle : public ::testing::TestWithParam<lifecycle_case> {
protected:
    void SetUp() override {
        std::string why = sim_world::unsupported_reason();
        if (!why.empty()) GTEST_SKIP() << "no simulated world here: " << why;
        struct stat st;
        if (stat(kValgrind, &st) != 0) GTEST_SKIP() << "valgrind is not installed (scripts/setup.sh installs it)";
        if (std::string(e2e_paths::zorctl()).empty() || std::string(e2e_paths::xdbc()).empty())
            GTEST_SKIP() << "zorctl and xdbc are not part of this build";
        std::string err;
        ASSERT_TRUE(cloud.start(&err)) << err;
        // The service runs as valgrind's guest: same process, same pid, so
        // the world and kernsim need nothing else. Bash, not /bin/sh: inside
        // the world /bin/sh is the recording shell.
        service = e2e_paths::service();
        const std::string wrapper = w.dir() + "/memcheck.sh";
        std::ofstream(wrapper) << "#!/bin/bash\nexec " << kValgrind
                               << " --leak-check=full --errors-for-leak-kinds=definite,indirect"
                                  " --show-leak-kinds=definite,indirect --track-fds=yes --error-exitcode="
                               << kValgrindError << " --log-file=" << w.dir() << "/memcheck.log " << service
                               << " \"$@\"\n";
        chmod(wrapper.c_str(), 0755);
        setenv("ZOR_E2E_SERVICE", wrapper.c_str(), 1);
    }
    void TearDown() override { unsetenv("ZOR_E2E_SERVICE"); }

    // Reports, the cloud, the verdict cache and every command of zorctl,
    // with some bytes no client should send.
    void exercise() {
        std::string err;
        ASSERT_TRUE(w.announce(err)) << err;
        ASSERT_TRUE(sim_world::wait_for([&] { return cloud.count("ping") > 0; }, kSlow));
        ASSERT_EQ(w.kernsim({"domain", "www.hit.example", ";", "addr", "198.51.100.9", ";", "domain",
                             "cloud.example", ";", "domain", "short", "cut=40", ";", "event", "type=20",
                             "len=100", "text=odd", ";", "addr", "192.0.2.1", "flags=1"}),
                  0);
        EXPECT_TRUE(w.wait_ctrl("db key2group update 2 20 www.hit.example 86400 3 5", kSlow));
        EXPECT_TRUE(w.wait_ctrl("db key2group update 1 20 cloud.example 86400 0 0", kSlow)) << w.service_log();
        const std::string rules = w.dir() + "/rules.json";
        std::ofstream(rules) << R"({"1":{"mac":"aa:bb:cc:dd:ee:ff","cn":"3"},)"
                             << R"("2":{"mac":"001122334455","dn":"x.example","schedule":{"type":1,)"
                             << R"("from":"0:00","to":"23:59","weekly":[0,1,2,3,4,5,6]}},"x":{}})";
        const std::vector<std::vector<std::string>> commands = {
            {"status"}, {"db", "show"}, {"db", "add", R"({"r":{"cloud.example":[20,0,0,2,7,8]}})"},
            {"query", "by-hand.example", "20", "0", "0"}, {"cloud", "off"}, {"cloud", "on"},
            {"pc", "rule", rules}, {"pc", "on"}, {"pc", "off"}, {"pc", "on"}, {"pc", "clear"}, {"pc", "on"},
        };
        for (const auto& c : commands) EXPECT_EQ(w.zorctl(c), 0) << c[0] << " " << (c.size() > 1 ? c[1] : "");
        const std::string socket = w.dir() + "/run/.ipc.socket";
        for (const std::string& bytes :
             {std::string(), std::string(7, '\x01'), ipc_request_bytes(100, 20, std::string(300, 'q')),
              ipc_request_bytes(201, 0, R"({"r":{"cloud.example":[20,"x",{},[],1e300,-5]}})"),
              ipc_request_bytes(9999, 0, "?")})
            EXPECT_TRUE(ipc_raw(socket, bytes, kSlow)) << "no connection";
        EXPECT_EQ(w.zorctl({"status"}), 0);
    }

    cloudsim::simulator cloud;
    sim_world w;
    std::string service;
};

TEST_P(Lifecycle, MemcheckFindsNoLeakNoInvalidAccessNoOpenDescriptor) {
    const lifecycle_case& c = GetParam();
    world_config cfg;
    cfg.server = cloud.address();
    cfg.xdb = w.dir() + "/categories.xdb";
    std::ofstream(w.dir() + "/categories.src") << ".hit.example 0x0305\n198.51.100.0/24 0x0102\n";
    ASSERT_EQ(sim_world::xdbc_build(w.dir() + "/categories.src", cfg.xdb), 0);
    cfg.may_exit = c.how != ending::ipc_exit && c.how != ending::sigterm;
    std::string err;
    if (c.how == ending::refused_account) {
        ASSERT_TRUE(cloud.apply("login error 401 5", &err)) << err;
        cfg.preloaded = {"qmxc"};
    } else if (c.how == ending::bad_category_file) {
        std::ofstream(cfg.xdb, std::ios::trunc) << "not a category file";
    } else if (c.how == ending::stale_socket) {
        std::filesystem::create_directories(w.dir() + "/run");
        std::ofstream(w.dir() + "/run/.ipc.socket") << "";
    }
    ASSERT_TRUE(w.start(cfg, err)) << err;
    if (c.how == ending::ipc_exit) {
        exercise();
        EXPECT_EQ(w.zorctl({"exit"}), 0);
    } else if (c.how == ending::sigterm) {
        // Parental control on and a cloud query in flight when the signal comes.
        exercise();
        ASSERT_TRUE(cloud.apply("query * delay 60000", &err)) << err;
        const size_t asked = cloud.count("query");
        ASSERT_EQ(w.kernsim({"domain", "slow.example", "flags=1"}), 0);
        EXPECT_TRUE(sim_world::wait_for([&] { return cloud.count("query") > asked; }, kSlow));
        kill(w.pid(), SIGTERM);
    }
    const std::optional<int> status = w.wait_exit(kSlow);
    if (c.how == ending::refused_account) {
        EXPECT_TRUE(w.lines_of("modules").empty()) << "qmxc stayed loaded";
    }
    const std::vector<std::string> log = w.lines_of("memcheck.log");
    std::string text;
    for (const std::string& l : log) text += l + "\n";
    ASSERT_TRUE(status.has_value()) << "still running\n" << text;
    memcheck_report r = read_report(log);
    EXPECT_EQ(r.command.substr(0, service.size()), service) << "memcheck did not run the service:\n" << text;
    ASSERT_GE(r.errors, 0) << "memcheck wrote no summary:\n" << text << w.service_output();
    EXPECT_EQ(r.errors, 0) << text;
    EXPECT_EQ(r.lost, 0) << text;
    for (const std::string& fd : r.own_fds) ADD_FAILURE() << "left open at exit: " << fd << "\n" << text;
    EXPECT_EQ(*status, c.status) << (*status == kValgrindError ? "memcheck found errors" : "") << "\n"
                                 << w.service_output();
}

INSTANTIATE_TEST_SUITE_P(
    Endings, Lifecycle,
    ::testing::Values(lifecycle_case{"ExitCommand", ending::ipc_exit, 0},
                      lifecycle_case{"TermSignalMidQuery", ending::sigterm, 0},
                      lifecycle_case{"RefusedAccount", ending::refused_account, 0},
                      lifecycle_case{"CategoryFileDoesNotLoad", ending::bad_category_file, 1},
                      lifecycle_case{"StaleCommandSocket", ending::stale_socket, 1}),
    [](const ::testing::TestParamInfo<lifecycle_case>& i) { return std::string(i.param.name); });

}  // namespace
