// A simulated router for end-to-end tests. The real zor_service runs in the
// world of tools/world/world.sh (private mount namespace, /proc/zor/ctrl made by
// an insmod stub, a recording shell that keeps every command line and every
// line written into the control file), kernsim plays the kernel module, and
// the caller points the service at a cloud of its choosing.
//
// One sim_world is one service process in its own temporary directory; the
// destructor stops the service and removes the directory. Used from the test
// thread only.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

struct world_config {
    std::vector<std::string> service_args;  // options besides -i and -l
    std::vector<std::string> preloaded;     // modules lsmod lists from the start
    std::string xdb;                        // compiled category file, or empty
    std::string server = "127.0.0.1:1";     // the cloud's address
    std::vector<std::string> ini_lines;     // further "key = value" lines of section zor
    bool may_exit = false;                  // ending right after loading the module is no failure
};

class sim_world {
public:
    sim_world();
    ~sim_world();
    sim_world(const sim_world&) = delete;
    sim_world& operator=(const sim_world&) = delete;

    // Why the world cannot be built on this machine (not root, no mount
    // namespaces, generic netlink unicast refused), or empty when it can.
    static std::string unsupported_reason();

    // Writes the configuration and starts the service in the world. Returns
    // false with `err` set when the service could not be started or died at once.
    bool start(const world_config& cfg, std::string& err);

    pid_t pid() const { return pid_; }
    const std::string& dir() const { return dir_; }
    std::string root() const { return dir_ + "/root"; }

    // Every shell line the service ran, in order.
    std::vector<std::string> commands() const;
    // Every line the kernel module received through its control file.
    std::vector<std::string> ctrl_lines() const;
    // Lines of a file in the world's directory.
    std::vector<std::string> lines_of(const std::string& name) const;
    // The service's log file and its standard output and error.
    std::string service_log() const;
    std::string service_output() const;
    bool ctrl_file_exists() const;

    // Polls `done` every 20 ms until it holds or `timeout` passes.
    static bool wait_for(const std::function<bool()>& done,
                         std::chrono::milliseconds timeout = std::chrono::seconds(20));
    // Waits until the control file has received `line`.
    bool wait_ctrl(const std::string& line,
                   std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;
    // Waits until the control file has received at least `n` lines
    // starting with `prefix`.
    bool wait_ctrl_count(const std::string& prefix, size_t n,
                         std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;
    size_t ctrl_count(const std::string& prefix) const;

    // Runs kernsim against the service with `args` (kernsim's commands and
    // options after -p); returns its exit status.
    int kernsim(const std::vector<std::string>& args) const;
    // Runs zorctl against the service's command socket; its exit status.
    int zorctl(const std::vector<std::string>& args) const;
    // Runs `xdbc build SOURCE OUT`; its exit status.
    static int xdbc_build(const std::string& source, const std::string& out);
    // Announces the family and waits until the service told the kernel its
    // port ("env server_port <pid>").
    bool announce(std::string& err);

    // Waits for the service to end on its own; its exit status, or nullopt
    // on time-out.
    std::optional<int> wait_exit(std::chrono::milliseconds timeout);
    // Ends the service with SIGTERM (SIGKILL after 5 s); its exit status.
    std::optional<int> stop();

private:
    std::string dir_;
    pid_t pid_ = -1;
    std::optional<int> status_;
};

// Paths of the programs the world uses, from the build.
struct e2e_paths {
    static const char* service();
    static const char* kernsim();
    static const char* world_script();
    static const char* world_shell();
    // Empty when the tool is not part of the build.
    static const char* zorctl();
    static const char* xdbc();
};
