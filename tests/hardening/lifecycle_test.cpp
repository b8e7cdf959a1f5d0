// The whole life of the real zor_service under valgrind memcheck, in the
// simulated world: configuration, category file, cloud login against the
// cloud simulator, kernel reports from kernsim, commands from zorctl and raw
// bytes on the command socket, then one of the ways it can end, each through
// a shutdown path of its own. Memcheck must report no invalid access and no
// definitely or indirectly lost byte, and every descriptor or socket the
// service opened must be closed by the time it exits.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <regex>

#include "sim_world.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* kValgrind = "/usr/bin/valgrind";
constexpr int kValgrindError = 97;
constexpr auto kSlow = 2 * kWorldWait;  // everything is some ten times slower under memcheck

enum class ending { ipc_exit, sigterm, refused_account, bad_category_file };

struct lifecycle_case {
    const char* name;
    ending how;
    int status;  // expected exit status
};
void PrintTo(const lifecycle_case& c, std::ostream* os) { *os << c.name; }

class Lifecycle : public world_test, public ::testing::WithParamInterface<lifecycle_case> {
protected:
    void SetUp() override {
        world_test::SetUp();
        struct stat st;
        if (!IsSkipped() && stat(kValgrind, &st) != 0) GTEST_SKIP() << "valgrind is not installed (scripts/setup.sh installs it)";
    }

    // Reports, the cloud, the verdict cache and every command of zorctl,
    // with some bytes no client should send.
    void exercise() {
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
        for (const std::string& bytes :
             {std::string(), std::string(7, '\x01'), ipc_request_bytes(100, 20, std::string(300, 'q')),
              ipc_request_bytes(201, 0, R"({"r":{"cloud.example":[20,"x",{},[],1e300,-5]}})"),
              ipc_request_bytes(9999, 0, "?")})
            EXPECT_TRUE(w.ipc_raw(bytes, kSlow)) << "no connection";
        EXPECT_EQ(w.zorctl({"status"}), 0);
    }
};

TEST_P(Lifecycle, MemcheckFindsNoLeakNoInvalidAccessNoOpenDescriptor) {
    const lifecycle_case& c = GetParam();
    // The service runs as valgrind's guest: same process, same pid, so the
    // world and kernsim need nothing else. Bash, not /bin/sh: inside the
    // world /bin/sh is the recording shell.
    const std::string service = service_binary(), wrapper = w.dir() + "/memcheck.sh";
    std::ofstream(wrapper) << "#!/bin/bash\nexec " << kValgrind
                           << " --leak-check=full --errors-for-leak-kinds=definite,indirect"
                              " --show-leak-kinds=definite,indirect --track-fds=yes --error-exitcode="
                           << kValgrindError << " --log-file=" << w.dir() << "/memcheck.log " << service << " \"$@\"\n";
    chmod(wrapper.c_str(), 0755);
    world_config cfg{.categories = ".hit.example 0x0305\n198.51.100.0/24 0x0102\n", .service = wrapper,
                     .may_exit = c.how == ending::refused_account || c.how == ending::bad_category_file,
                     .session = c.how == ending::ipc_exit || c.how == ending::sigterm};
    std::string err;
    if (c.how == ending::refused_account) {
        ASSERT_TRUE(cloud.apply("login error 401 5", &err)) << err;
        cfg.preloaded = {"qmxc"};
    } else if (c.how == ending::bad_category_file) {
        cfg.categories.clear();
        std::ofstream(cfg.xdb = w.dir() + "/bad.xdb") << "not a category file";
    }
    ASSERT_TRUE(start(w, cfg, kSlow));
    if (c.how == ending::ipc_exit) {
        exercise();
        EXPECT_EQ(w.zorctl({"exit"}), 0);
    } else if (c.how == ending::sigterm) {
        // Parental control on and a cloud query in flight when the signal comes.
        exercise();
        ASSERT_TRUE(cloud.apply("query * delay 60000", &err)) << err;
        const size_t asked = cloud.count("query");
        ASSERT_EQ(w.kernsim({"domain", "slow.example", "flags=1"}), 0);
        EXPECT_TRUE(zor_test::eventually([&] { return cloud.count("query") > asked; }, kSlow));
        kill(w.pid(), SIGTERM);
    }
    const std::optional<int> status = w.wait_exit(kSlow);
    const std::string log = zor_test::read_file(w.dir() + "/memcheck.log");
    ASSERT_TRUE(status.has_value()) << "still running\n" << log;
    EXPECT_NE(log.find("== Command: " + service), std::string::npos) << "memcheck did not run the service:\n" << log;
    // Definitely and indirectly lost blocks count as errors here.
    EXPECT_NE(log.find("== ERROR SUMMARY: 0 errors from 0 contexts"), std::string::npos) << log << w.service_output();
    // "Open file descriptor 5: ..." (or socket), then where it was opened,
    // unless it came from the parent.
    static const std::regex open_fd("== (Open [^\n]*)\n==[0-9]+==(?! +<inherited from parent>)");
    for (std::sregex_iterator i(log.begin(), log.end(), open_fd), end; i != end; ++i)
        ADD_FAILURE() << "left open at exit: " << (*i)[1] << "\n" << log;
    EXPECT_EQ(*status, c.status) << (*status == kValgrindError ? "memcheck found errors" : "") << "\n"
                                 << w.service_output();
    if (c.how == ending::refused_account) {  // both modules unloaded, the service's own first
        const std::vector<std::string> order = {"lsmod | grep -w ^zor", "rmmod zor > /dev/null 2>&1",
                                                "lsmod | grep -w ^qmxc", "rmmod qmxc > /dev/null 2>&1"};
        std::vector<std::string> ran;
        for (const std::string& l : w.commands())
            if (std::find(order.begin(), order.end(), l) != order.end()) ran.push_back(l);
        EXPECT_EQ(ran, order);
        EXPECT_EQ(w.lines_of("modules"), std::vector<std::string>{});
    }
}

INSTANTIATE_TEST_SUITE_P(
    Endings, Lifecycle,
    ::testing::Values(lifecycle_case{"ExitCommand", ending::ipc_exit, 0},
                      lifecycle_case{"TermSignalMidQuery", ending::sigterm, 0},
                      lifecycle_case{"RefusedAccount", ending::refused_account, 0},
                      lifecycle_case{"CategoryFileDoesNotLoad", ending::bad_category_file, 1}),
    [](const ::testing::TestParamInfo<lifecycle_case>& i) { return std::string(i.param.name); });

}  // namespace
