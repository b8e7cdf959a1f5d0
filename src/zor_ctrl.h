// Kernel control commands: every text the service sends to the kernel
// module, and the one place that knows how a text reaches the module's
// control file. The module only ever sees the text and a newline; the
// channel is chosen by the INI key ctrl_shell (qmxsrv_ctx.ctrl_shell):
//
//  - direct (the default): each command opens the control file for
//    appending (never creating it), writes the text and one newline in a
//    single write() and closes it. A missing control file (module not
//    loaded) makes the command a silent no-op. A failed or short write is
//    logged at debug level and counted;
//  - shell (ctrl_shell = 1): each command runs, through the command runner,
//      [ -f /proc/zor/ctrl ] && echo "TEXT" > /proc/zor/ctrl
//    with \ " $ and ` escaped inside the quotes; the test in front makes the
//    line a no-op while the module is absent.
//
// In both channels a key, MAC, content or domain name that is empty or holds
// a space, a byte below 0x21, 0x7F or a backslash is never sent: it would
// add or remove words of the command, or the echo of some shells would read
// an escape in it. A
// command that does not fit is not sent either: in the direct channel the
// text and its newline must fit 256 bytes; in the shell channel the whole
// line must fit 256 bytes (400 for rule adds). Both are logged at debug level
// and counted. Commands may be sent from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The control file every command writes to.
inline constexpr const char* ZOR_CTRL_FILE = "/proc/zor/ctrl";
// Bytes of one direct write: the text and its newline.
inline constexpr size_t ZOR_CTRL_WRITE_MAX = 256;

// Results of every sender below: 0 written (direct) or the runner's status
// (shell); 1 when the control file is absent (direct); -1 when nothing was
// sent (refused text, command too long, failed write).

// "db key2group u2k <type> <key>": the kernel learns that the key is being
// resolved. Logged at debug level as "[<seconds>] <command>".
int zor_notify_u2k(int type, const char* key);

// "db key2group update <source> <type> <key> <ttl> <group> <sub>": a verdict.
// Nothing is built, logged or sent when group or sub-group is negative.
// Logged at debug level as "[<seconds>] zor_notify_db_group <command>".
int zor_notify_db_group(int source, int type, const char* key, int ttl, int group, int sub_group);

// "pc rule clean" and "pc rule add <kind> <mac> <content> <from> <to>", each
// logged at info level as "pctrl command: <command>" when sent. A rule add
// whose mac or content breaks the text rule, or that does not fit, returns
// -1 (the caller logs and skips the rule).
int zor_ctrl_pc_clean();
int zor_ctrl_pc_add(int kind, const char* mac, const char* content, unsigned long from, unsigned long to);

// "env server_port <pid>": the netlink port the service receives on.
int zor_ctrl_server_port(int pid);

// True when `text` may travel as one word of a command: not empty, no space,
// no byte below 0x21, no 0x7F and no backslash.
bool zor_ctrl_word_ok(std::string_view text);

// The shell channel's line for `text` (the guarded echo), not bounded.
std::string zor_ctrl_shell_line(std::string_view text);

// Commands since start, by outcome: the commands_* service counters
// (stats.h). Counters only grow; read without a lock.
struct zor_ctrl_counts {
    uint64_t sent = 0;      // written, or run through the runner
    uint64_t absent = 0;    // direct channel, control file missing
    uint64_t refused = 0;   // a word broke the text rule
    uint64_t too_long = 0;  // did not fit
    uint64_t failed = 0;    // open (other than missing), write or short write failed
};
zor_ctrl_counts zor_ctrl_counters();

// Points every command at another control file (tests use a scratch file;
// the product never calls it). Empty restores ZOR_CTRL_FILE. Call while no
// command is being sent.
void zor_ctrl_set_file(const std::string& path);
// The control file commands go to.
std::string zor_ctrl_file();
