// Parental-control rule file reader: loads a JSON rule file, validates each
// rule, keeps the rules that are due today by the local clock and turns each
// into a pctrl_rule record with its start and end in epoch seconds.
//
// A rule set is a queue of pctrl_rule records in file order, reached through
// a pctrl_holder cell that the caller owns. Any thread may read a rule file
// into its own holder; a holder is not shared between threads. Every message
// goes to the log: the open and JSON errors at level E, the rest at level D.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>

#include "util/locked_queue.h"

// Kinds of rule the kernel knows.
inline constexpr int32_t PCTRL_KIND_CONTENT = 1;
inline constexpr int32_t PCTRL_KIND_DOMAIN = 2;

// Rule files larger than this are refused whole (a real one is a few KiB).
inline constexpr size_t PCTRL_RULE_FILE_MAX = 1024 * 1024;

// One due rule, linked into its rule set through `link`; the record belongs
// to the set and is freed with it. Immutable once linked.
struct pctrl_rule {
    list_node_t link;
    int32_t id = 0;                      // the member key's decimal value
    char mac[32] = {};                   // the "mac" text, cut to 31 characters
    int32_t kind = 0;                    // PCTRL_KIND_CONTENT or PCTRL_KIND_DOMAIN
    std::optional<std::string> content;  // "cn" when it was a string
    std::optional<std::string> domain;   // "dn" when it was a string
    int32_t from = 0;  // start today in epoch seconds (low 32 bits); 0 without schedule
    int32_t to = 0;    // end in epoch seconds (low 32 bits); 0 without schedule
};

using pctrl_rule_list = locked_queue<pctrl_rule, &pctrl_rule::link>;  // file order

// The cell through which a rule set is reached. Its destructor frees the set.
struct pctrl_holder {
    std::unique_ptr<pctrl_rule_list> list;  // null: no rule set

    pctrl_holder() = default;
    pctrl_holder(const pctrl_holder&) = delete;
    pctrl_holder& operator=(const pctrl_holder&) = delete;
    ~pctrl_holder();
};

// Reads the rule file at `path` into `holder`, freeing any set it already
// holds. Returns 0 when a rule set (possibly empty) was stored, -1 when the
// file cannot be opened, is empty, too large or not JSON (the holder is then
// left without a set). Bad rules are logged and skipped, never fatal.
[[nodiscard]] int pctrl_read_rules(const char* path, pctrl_holder* holder);

// Writes the rule set to the log at level D. Null-safe.
void pctrl_dump_rules(const pctrl_holder* holder);

// Frees the rule set; the holder is left empty. Null-safe.
void pctrl_free_rules(pctrl_holder* holder);

// 1 when `text` passes the MAC rule: twelve hex digits, either bare or in
// groups separated by ':' or '-' (a misplaced separator ends the scan).
int pctrl_mac_valid(const char* text);

// mktime for the reader and the scheduler, which may convert at the same
// time on the IPC and scheduler threads. The C library rebuilds its time
// zone state (freeing and copying the zone name) on every mktime under a lock
// of its own that thread checkers cannot see; one mutex here orders the calls
// visibly.
time_t pctrl_mktime(struct tm* tm);
