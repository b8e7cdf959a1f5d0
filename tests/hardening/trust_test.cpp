// Who may steer the service, end to end: the real zor_service in the
// simulated world, tried as an unprivileged account (uid 65534) on its
// command socket, as a forged cloud and a cloud whose login reply names
// servers of other protocols, as a local process squatting its netlink port,
// and through the descriptors the commands it runs could inherit.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "sim_world.h"

namespace {

using namespace std::chrono_literals;

constexpr uid_t kNobody = 65534;

mode_t mode_of(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

size_t count_of(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t at = 0; (at = text.find(needle, at)) != std::string::npos; at += needle.size()) ++n;
    return n;
}

using Trust = world_test;

// As a daemon (umask 0) the socket is 0600 and the log 0640 in 0750
// directories. An unprivileged account is stopped by the socket's mode and,
// past a loosened file, by the credential check: none of exit, cloud off,
// db add or a root-only rule file takes effect, and zorctl says why.
TEST_F(Trust, StrangersAreRefusedAndChangeNothing) {
    ASSERT_TRUE(start(w, {.service_args = {"-d"}, .may_exit = true}));
    const std::string sock = w.dir() + "/run/.ipc.socket", log_dir = w.dir() + "/log";
    ASSERT_TRUE(zor_test::eventually([&] { return w.zorctl({"status"}) == 0; }, 20s)) << w.service_output();
    EXPECT_TRUE(S_ISSOCK(mode_of(sock)));
    EXPECT_EQ(mode_of(sock) & 07777, 0600u);
    EXPECT_EQ(mode_of(log_dir + "/zorsrv.log") & 07777, 0640u);
    EXPECT_EQ(mode_of(log_dir) & 07777, 0750u);
    EXPECT_EQ(mode_of(w.dir() + "/run") & 07777, 0750u);

    const std::string secret = w.dir() + "/secret.json";
    std::ofstream(secret) << "TOPSECRET first line\nsecond\n";
    ASSERT_EQ(chmod(secret.c_str(), 0600), 0);
    for (const std::string& d : {w.dir(), w.dir() + "/run"}) ASSERT_EQ(chmod(d.c_str(), 0755), 0);
    const std::vector<std::vector<std::string>> commands = {
        {"exit"}, {"cloud", "off"}, {"db", "add", R"({"r":{"stranger.example":[20,0,0,24,6,6]}})"}, {"pc", "rule", secret}};
    struct stage { const char* what; int status; const char* says; };
    for (const stage& s : {stage{"socket 0600", 3, "permission denied"},
                           stage{"socket loosened to 0666", 4, "refuses accounts other than root"}}) {
        if (s.status == 4) {
            ASSERT_EQ(chmod(sock.c_str(), 0666), 0);
        }
        for (const auto& c : commands) {
            EXPECT_EQ(w.zorctl_as(kNobody, c), s.status) << s.what << ": " << c[0];
            EXPECT_NE(zor_test::read_file(w.dir() + "/zorctl.out").find(s.says), std::string::npos)
                << s.what << ": " << zor_test::read_file(w.dir() + "/zorctl.out");
        }
    }
    ASSERT_EQ(w.zorctl({"--json", "status"}), 0) << "the service stopped";
    EXPECT_NE(zor_test::read_file(w.dir() + "/zorctl.out").find("\"cloud\":true"), std::string::npos);
    const std::string log = w.service_log();
    EXPECT_EQ(count_of(log, "[E] Refused command connection from uid 65534 gid 65534 "), commands.size()) << log;
    EXPECT_EQ(log.find("TOPSECRET"), std::string::npos);
    EXPECT_EQ(log.find("Receive command"), std::string::npos);
    EXPECT_EQ(w.ctrl_count("db key2group update 1 20 stranger.example"), 0u);
    EXPECT_EQ(w.zorctl({"exit"}), 0);
    EXPECT_TRUE(zor_test::eventually([&] { return mode_of(sock) == 0; }, 10s)) << "the daemon did not stop";
}

// The cloud's certificate is checked: against the system's store (which
// does not know it) and against another certificate (a forged cloud, seen
// from the service) no login happens; with its own certificate as ca_file,
// or with checking turned off, it does.
TEST_F(Trust, CloudCertificateIsCheckedUnlessTrustedOrTurnedOff) {
    cloudsim::simulator forger;
    std::string err;
    ASSERT_TRUE(forger.start(&err)) << err;
    struct row { const char* what; bool system_trust; std::string ca_file, extra; bool login; };
    const row rows[] = {
        {"system trust store", true, "", "", false},
        {"another certificate", false, w.dir() + "/forged.pem", "", false},
        {"its own certificate", false, "", "", true},
        {"checking off", true, "", "tls_verify = 0\n", true},
    };
    ASSERT_TRUE(forger.save_certificate(w.dir() + "/forged.pem"));
    for (const row& r : rows) {
        SCOPED_TRACE(r.what);
        sim_world world;
        cloud.clear_requests();
        ASSERT_TRUE(start(world, {.ca_file = r.ca_file, .system_trust = r.system_trust, .extra_ini = r.extra}));
        if (r.login) {
            EXPECT_TRUE(zor_test::eventually([&] { return world.logged_in(); }, 20s)) << world.service_log();
        } else {
            EXPECT_TRUE(zor_test::eventually(
                [&] { return world.service_log().find("[E] Auth: curl=60,") != std::string::npos; }, 20s))
                << world.service_log();
            EXPECT_FALSE(world.logged_in());
            EXPECT_EQ(cloud.count("login"), 0u);
        }
        EXPECT_EQ(world.stop(), std::optional<int>(0));
    }
}

// A login reply naming file://, gopher:// and http:// servers: each is
// skipped with a line in the log, nothing is read or connected to, and the
// https server of the list serves. Commands the service runs while a cloud
// transfer is open inherit none of its descriptors.
TEST_F(Trust, OtherSchemesAreNeverFetchedAndCommandsInheritNothing) {
    const std::string secret = w.dir() + "/secret";
    std::ofstream(secret) << "TOPSECRET\n";
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(listen(listener, 8), 0);
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len), 0);
    const std::string local = "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
    std::string err;
    ASSERT_TRUE(cloud.apply("servers file://" + secret + "# gopher://" + local + "/_HELO http://" + local + "/x @0", &err))
        << err;
    // Kernel commands as shell lines, so that commands run while a transfer is open.
    ASSERT_TRUE(start(w, {.session = true, .ctrl_shell = true}));
    const std::string log = w.service_log();
    EXPECT_EQ(count_of(log, "skipped: not an https URL"), 3u) << log;
    EXPECT_EQ(log.find("TOPSECRET"), std::string::npos);
    EXPECT_LT(accept(listener, nullptr, nullptr), 0) << "the service connected to a local service";
    close(listener);

    // A query held open by the cloud while further reports make the
    // service run commands.
    ASSERT_TRUE(cloud.apply("query * delay 3000", &err)) << err;
    const size_t asked = cloud.count("query");
    ASSERT_EQ(w.kernsim({"domain", "held.example", "flags=1"}), 0);
    ASSERT_TRUE(zor_test::eventually([&] { return cloud.count("query") > asked; }, 20s));
    ASSERT_EQ(w.kernsim({"domain", "during1.example", ";", "domain", "during2.example"}), 0);
    EXPECT_TRUE(w.wait_ctrl("db key2group u2k 20 during2.example"));
    EXPECT_EQ(w.zorctl({"db", "show"}), 0);
    EXPECT_EQ(w.lines_of("inherited.log"), std::vector<std::string>{});
    EXPECT_GT(w.commands().size(), 3u);
}

// A local process that binds the service's pid as its netlink port first
// gets nothing: the service binds another port, tells the kernel that one,
// and every report reaches it.
TEST_F(Trust, SquattedNetlinkPortStillDeliversReports) {
    ASSERT_TRUE(start(w, {.session = true, .squat = true}));
    EXPECT_NE(w.port(), static_cast<uint32_t>(w.pid()));
    EXPECT_EQ(w.ctrl_count("env server_port " + std::to_string(w.pid())), 0u);
    ASSERT_EQ(w.kernsim({"domain", "one.example", ";", "domain", "two.example", "flags=1"}), 0);
    EXPECT_TRUE(w.wait_ctrl("db key2group u2k 20 one.example"));
    EXPECT_TRUE(w.wait_ctrl("db key2group u2k 20 two.example"));
    EXPECT_FALSE(w.squatter_received());
}

}  // namespace
