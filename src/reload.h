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

enum class reload_result {
    // The command's result word: values fixed.
    done = 0,            // the category file (if any) in force, the rules (if on) applied
    category_kept = 1,   // the category file did not load: the previous one stays
    rules_not_read = 2,  // the category file is in force, but the rule file did not read
};

// Runs one reload and logs its outcome, naming `origin` ("SIGHUP",
// "command"). On a failure `message` says why in one line (the loader's
// messages, or which rule file did not read; outside bytes as the log shows
// them); else it is emptied. A category file that did not load is reported
// before rules that did not read.
[[nodiscard]] reload_result service_reload(const char* origin, std::string* message);
