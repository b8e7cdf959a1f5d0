// Reload: a re-read category file, the rule file applied again and the log
// following an outside rotation, without a restart. Asked for by SIGHUP (the
// main thread carries it out after the handler set its flag) and by the
// command channel (the command thread); one reload runs at a time.
//
// The new category file is loaded and checked completely before it takes
// the old one's place (xdb_reload); a file that does not load leaves the old
// one in force. The verdict cache is not touched. The rules are applied
// through the scheduler's serialised apply, and only while parental control
// is on. The log opens its file for every line, so after an outside rename
// the reload's own line already goes to a new file: nothing to reopen here.
#pragma once

#include <string>

// Runs one reload and logs its outcome, naming `origin` ("SIGHUP",
// "command"). Returns 0, or -1 when the category file did not load; then
// `message` holds the loader's messages as one line (outside bytes as the
// log shows them), else it is emptied.
[[nodiscard]] int service_reload(const char* origin, std::string* message);
