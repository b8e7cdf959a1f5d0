// Kernel control commands: every line the service writes into the kernel
// module's control file. Each is one shell line guarded by a test for the
// file, so it does nothing while the module is absent. Texts placed inside
// the double quotes are shell-escaped; keys holding control bytes or a
// backslash (which some shells' echo would read as an escape, changing the
// text or starting a second command line) are dropped before a line is
// built. A line longer than its buffer is cut like snprintf cuts it; the
// senders below log such a line but do not run it (it has lost its closing
// quote or redirection and could never reach the module). Lines run through
// the command runner seam and may be sent from any thread.
#pragma once

#include <optional>
#include <string>

// The control file every command writes to.
inline constexpr const char* ZOR_CTRL_FILE = "/proc/zor/ctrl";

// "db key2group u2k <type> <key>": the kernel learns that the key is being
// resolved. Built in 256 bytes. Returns the runner's status, or -1 when
// nothing was run.
int zor_notify_u2k(int type, const char* key);

// "db key2group update <source> <type> <key> <ttl> <group> <sub>": a verdict.
// Built in 256 bytes. Nothing is built, logged or run when group or sub-group
// is negative. Returns the runner's status, or -1 when nothing was run.
int zor_notify_db_group(int source, int type, const char* key, int ttl, int group, int sub_group);

// The full shell line of "pc rule clean".
const std::string& zor_ctrl_pc_clean_line();

// The full shell line of "pc rule add <kind> <mac> <content> <from> <to>",
// built in the 400-byte buffer; nullopt when mac or content holds control
// bytes or a backslash, or the line does not fit (the caller logs and skips
// the rule).
std::optional<std::string> zor_ctrl_pc_add_line(int kind, const char* mac, const char* content,
                                                unsigned long from, unsigned long to);

// The full shell line of "env server_port <pid>".
std::string zor_ctrl_server_port_line(int pid);
