// Helpers of the hardening tests, which run the real zor_service in the
// simulated world (tests/e2e/sim_world.h): what the service costs, whether a
// command line it ran is one it was meant to run, and a raw client of its
// command socket that writes whatever bytes it is given. Test thread only.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <string>

// RssAnon of /proc/PID/status in KiB; -1 when the process is gone.
long rss_anon_kb(pid_t pid);

// What the service may run in the hostile tests, and the texts it may carry.
struct command_rules {
    pid_t pid = 0;                    // "env server_port <pid>"
    std::string insmod_line;          // the one module line, exactly
    std::set<std::string> keys;       // key texts that may reach the kernel
    std::set<std::string> rule_pairs; // "MAC CONTENT" of rules that may be added
};

// Empty when `line` (as recorded, control bytes as \xHH) has one of the
// intended shapes exactly and names only texts the rules allow; otherwise
// why not. A control-file line must keep its text one double-quoted shell
// word: every ", \, $ and ` inside it escaped, nothing else escaped.
std::string command_fault(const std::string& line, const command_rules& rules);

// The shell line that writes `body` into the control file, as the service
// builds it.
std::string ctrl_line(const std::string& body);

// Connects to the Unix socket at `path`, writes `bytes` (`chunk` bytes at a
// time with a pause between when chunk > 0), half-closes when asked, and
// reads what comes back until the service closes or `wait` passes. nullopt
// when no connection could be made.
std::optional<std::string> ipc_raw(const std::string& path, const std::string& bytes,
                                   std::chrono::milliseconds wait, bool half_close = true,
                                   size_t chunk = 0);

// One 264-byte request record as the service reads it.
std::string ipc_request_bytes(int32_t cmd, int32_t type, const std::string& text);
