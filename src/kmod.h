// Kernel module loader: loads "zor.ko" from the installation directory with
// the command-line settings (main.h) as module parameters, and removes the
// service's modules when the cloud refuses the account. Runs on the main
// thread; every command goes through the command runner (util/cmd_runner.h).
#pragma once

#include <optional>
#include <string>

// Unless "zor_service" is listed by lsmod, runs once
//   [ ! -f /proc/zor/ctrl ] && insmod <root>/zor.ko [ifwan=%s ifwan_num=%d ]
//   qos=%d pc=%d cloud=%d [flows=%d ][caches=%d ][router_mode=%d ]
// and logs it at info level as "Start kernel module: %s". A root directory or
// interface list holding characters the shell would interpret is refused
// with an error line and nothing is run.
void kmod_load();

// Unloads "zor" and then "qmxc", each only when lsmod lists it.
void kmod_unload_modules();

// 1 when "lsmod | grep -w ^<name>" prints anything, else 0.
[[nodiscard]] int module_loaded(const char* name);
// Runs "rmmod <name> > /dev/null 2>&1"; returns the shell's wait status.
int module_unload(const char* name);
// Runs `cmd` and returns the first line it printed (with its newline, at most
// 511 bytes), or nullopt when the shell could not start or nothing was printed.
[[nodiscard]] std::optional<std::string> run_capture(const char* cmd);
