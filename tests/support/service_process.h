// Starting the real zor_service (or a wrapper that execs it, such as the
// simulated world's script) from a test: one child process with its
// standard streams in files, its own working directory and tool directory
// first on PATH, killed and reaped if the test leaves it running. The CLI,
// cloud, end-to-end and hardening tests all start the service through this.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace zor_test {

struct launch {
    std::vector<std::string> argv;  // the program, then its arguments
    std::string out;                // file for standard output (required)
    std::string err;                // file for standard error; empty: with standard output
    bool append = false;            // append to the files instead of truncating them
    std::string cwd;                // working directory; empty: the test's
    std::string path_first;         // directory put first on PATH; empty: PATH as it is
};

// The argv that starts the service built in this tree (under the emulator in
// a cross build), followed by `args`.
std::vector<std::string> service_argv(const std::vector<std::string>& args);

// Exit statuses are the exit code, or 128 + the signal that ended the child.
class service_process {
public:
    service_process() = default;
    ~service_process();
    service_process(const service_process&) = delete;
    service_process& operator=(const service_process&) = delete;

    // Starts the child; false when it could not be started (or one runs already).
    bool start(const launch& how);
    pid_t pid() const { return pid_; }
    bool running() const { return pid_ > 0 && !status_; }
    // Sends `sig` to the child while it runs.
    bool signal(int sig) const;
    // Waits until the child ends on its own; its status, or nullopt on time-out.
    std::optional<int> wait_exit(std::chrono::milliseconds timeout);
    // SIGKILL, reaped at once; the destructor does this.
    void kill_now();
    // SIGTERM, then SIGKILL after `grace`; the status, nullopt when never reaped.
    std::optional<int> stop(std::chrono::milliseconds grace = std::chrono::seconds(5));

private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};

}  // namespace zor_test
