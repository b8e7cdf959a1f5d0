// A simulated router for the end-to-end and hardening tests. The real
// zor_service runs in the world of tools/world/world.sh (private mount
// namespace, /proc/zor/ctrl a regular file made by an insmod stub that
// accumulates every command the module receives, a recording shell that
// keeps every command line),
// kernsim plays the kernel module, zorctl and raw bytes talk to its command
// socket, and the cloud simulator is its cloud.
//
// One sim_world is one service process in its own temporary directory; the
// destructor stops the service and removes the directory. Used from the test
// thread only.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cloudsim.h"
#include "service_process.h"
#include "test_util.h"

struct world_config {
    std::vector<std::string> service_args;  // options besides -i and -l
    std::vector<std::string> preloaded;     // modules lsmod lists from the start
    std::string categories;                 // category file source, compiled into DIR/categories.xdb
    std::string xdb;                        // else a category file as it is, or empty
    std::string server = "127.0.0.1:1";     // the cloud's address
    std::string ca_file;                    // the certificate the service trusts (empty: the cloud simulator's)
    bool system_trust = false;              // no ca_file line: the system's trust store
    std::string extra_ini;                  // further lines of section zor
    std::string service;                    // the program world.sh execs; empty: service_binary()
    bool may_exit = false;                  // ending right after loading the module is no failure
    bool session = false;                   // also announce and wait until logged in to the cloud
    bool ctrl_shell = false;                // kernel commands as shell lines (ctrl_shell = 1)
    bool squat = false;                     // a socket of the test holds the service's pid as netlink port
    bool devlog = false;                    // /dev/log leads to DIR/devlog (world.sh -L)
};

// How long a test waits for something the service owes it (a control line,
// a login, a query): long enough for a loaded 2-core machine running the
// service under a sanitizer, where every command line still costs a shell.
// A wait ends as soon as what it waits for is there, so a passing test
// takes no longer for it.
inline constexpr std::chrono::seconds kWorldWait{120};

// The service under test: ZOR_E2E_SERVICE from the environment, or this build's.
std::string service_binary();

class sim_world {
public:
    sim_world();
    ~sim_world();
    sim_world(const sim_world&) = delete;
    sim_world& operator=(const sim_world&) = delete;

    // Why the world cannot be built on this machine (not root, no mount
    // namespaces, generic netlink unicast refused), or empty when it can.
    static std::string unsupported_reason();

    // Writes the configuration and starts the service in the world (with
    // `session`, up to a held cloud login, waiting at most `slow`). False
    // with `err` set when that failed.
    bool start(const world_config& cfg, std::string& err,
               std::chrono::milliseconds slow = kWorldWait);

    pid_t pid() const { return service_.pid(); }
    // Sends `sig` to the service while it runs.
    bool signal(int sig) const { return service_.signal(sig); }
    // Compiles category file source into DIR/categories.xdb (the file the
    // service's xdb names when `categories` was given), replacing the old
    // file in one rename as an operator's update would. False with `err`.
    bool build_categories(const std::string& source, std::string& err) const;
    // The service's netlink port: its pid, or with `squat` the port it
    // bound instead (read from its log).
    uint32_t port() const { return port_; }
    // The port line the kernel gets: "env server_port N", N as a 32-bit signed number.
    std::string port_line() const;
    // With `squat`: whether anything arrived at the squatting socket.
    bool squatter_received() const;
    const std::string& dir() const { return dir_; }
    std::string root() const { return dir_ + "/root"; }

    // Every shell line the service ran, and every command text the kernel
    // module received through its control file (while loaded before, then
    // now), in order.
    std::vector<std::string> commands() const { return lines_of("commands.log"); }
    std::vector<std::string> ctrl_lines() const;
    std::vector<std::string> lines_of(const std::string& name) const;  // of a file in dir()
    std::string service_log() const;
    std::string service_output() const;  // standard output and error
    size_t ctrl_count(const std::string& prefix) const;
    // RssAnon of the service in KiB; -1 when it is gone.
    long rss_anon_kb() const;

    bool wait_ctrl(const std::string& line, std::chrono::milliseconds timeout = kWorldWait) const;

    // Runs kernsim (its commands and options after -p) or zorctl against the
    // service; the exit status. Output goes to kernsim.out / zorctl.out.
    int kernsim(const std::vector<std::string>& args) const;
    int zorctl(const std::vector<std::string>& args) const;
    bool logged_in() const;  // as `zorctl --json status` says
    // zorctl on the service's socket as account `uid` (group the same, no
    // others); output to zorctl.out, which the account can write. The exit
    // status, or -1 when it could not run.
    int zorctl_as(uid_t uid, const std::vector<std::string>& args) const;
    // Writes `bytes` to the command socket (`chunk` bytes at a time with a
    // pause between when chunk > 0), half-closes when asked, and reads what
    // comes back until the service closes or sends nothing for `wait`.
    // nullopt when no connection could be made.
    std::optional<std::string> ipc_raw(const std::string& bytes, std::chrono::milliseconds wait,
                                       bool half_close = true, size_t chunk = 0) const;

    // Waits for the service to end on its own; its exit status, or nullopt
    // on time-out.
    std::optional<int> wait_exit(std::chrono::milliseconds timeout);
    // Ends the service with SIGTERM (SIGKILL after 5 s); its exit status.
    std::optional<int> stop();

private:
    std::string dir_;
    zor_test::service_process service_;  // world.sh, which execs the service
    uint32_t port_ = 0;
    int squatter_ = -1;  // the socket holding the pid as port, with `squat`
};

// One 264-byte command socket request as the service reads it.
std::string ipc_request_bytes(int32_t cmd, int32_t type, const std::string& text);

// A test with a world and the cloud simulator, skipped with the reason where
// the world cannot be built.
class world_test : public ::testing::Test {
protected:
    void SetUp() override;
    // Starts `world` against the cloud simulator, trusting its certificate.
    testing::AssertionResult start(sim_world& world, world_config cfg,
                                   std::chrono::milliseconds slow = kWorldWait);

    cloudsim::simulator cloud;
    sim_world w;
};
