// The one seam through which the service runs shell commands. The default
// runner behaves like system() and popen() ("/bin/sh -c LINE"), but spawns
// with posix_spawn and waits with waitpid, so signal dispositions of the
// service are never changed while a command runs. Tests install their own
// runner to capture the exact command lines.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

struct cmd_runner {
    // Runs LINE and returns its wait status as system() would (-1 when the
    // shell could not be started).
    std::function<int(const std::string& line)> run;
    // Runs LINE and returns what it wrote on standard output, or nullopt
    // when the shell could not be started.
    std::function<std::optional<std::string>(const std::string& line)> capture;
};

// Installs `runner` for the whole process; empty members fall back to the
// default. cmd_reset_runner() restores the default.
void cmd_set_runner(cmd_runner runner);
void cmd_reset_runner();

int cmd_run(const std::string& line);
std::optional<std::string> cmd_capture(const std::string& line);

// The default implementations, usable by a test runner that also records.
int cmd_run_shell(const std::string& line);
std::optional<std::string> cmd_capture_shell(const std::string& line);

// Escapes \ " $ and ` so that `text` stays one literal inside a double-quoted
// shell word.
std::string shell_escape_dq(std::string_view text);
// True when `text` holds a byte below 0x20 or 0x7F; such keys never reach a
// command line.
bool has_control_bytes(std::string_view text);
