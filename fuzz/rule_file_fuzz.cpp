// Parental-control rule files are written by other tools and may hold
// anything: the reader keeps only sound rules (a valid MAC, a kind with its
// text) and the apply step turns them into "pc rule clean" and one
// shell-safe "pc rule add" per rule, and never anything else.
//
// The clock is fixed on a daylight-saving change day in a zone given by a
// rule, so schedules around midnight and the missing hour are reached.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "fuzz_support.h"
#include "pctrl/pctrl_reader.h"
#include "pctrl/pctrl_scheduler.h"
#include "qmxsrv_ctx.h"
#include "util/clock.h"
#include "zor_ctrl.h"

namespace {

constexpr size_t kMaxInput = 1 << 16;
constexpr time_t kNow = 1711846800;  // Sunday 31 March 2024, 01:00 UTC: clocks go forward

fuzz::scratch_file& scratch() {
    static fuzz::scratch_file f;
    return f;
}

// Returns the number of rules read.
size_t check_rules(const pctrl_holder& h) {
    size_t count = 0;
    if (!h.list) return count;
    h.list->for_each([&](const pctrl_rule& r) {
        ++count;
        fuzz::check(memchr(r.mac, '\0', sizeof r.mac) != nullptr, "MAC not terminated");
        fuzz::check(pctrl_mac_valid(r.mac) == 1, "rule kept with an invalid MAC", r.mac);
        if (r.kind == PCTRL_KIND_CONTENT)
            fuzz::check(r.content.has_value(), "content rule without content");
        else
            fuzz::check(r.kind == PCTRL_KIND_DOMAIN && r.domain.has_value(), "rule of no kind");
    });
    return count;
}

bool starts_with(const std::string& s, std::string_view head) { return s.compare(0, head.size(), head) == 0; }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::setup();
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    clock_set_source([] { return int64_t{kNow}; });
    qmxsrv_ctx_set_pc_rule(scratch().path());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) return 0;
    scratch().write(data, size);

    pctrl_holder rules;
    const int rc = pctrl_read_rules(scratch().path(), &rules);
    fuzz::check(rc == 0 || rc == -1, "reader result");
    fuzz::check((rc == 0) == (rules.list != nullptr), "rule set presence disagrees with the result");
    const size_t count = rc == 0 ? check_rules(rules) : 0;
    pctrl_dump_rules(&rules);

    fuzz::take_lines();
    pctrl_apply_rules();
    const std::vector<std::string> lines = fuzz::take_lines();
    if (rc != 0) {
        fuzz::check(lines.empty(), "kernel lines for a file that was refused");
        return 0;
    }
    fuzz::check(!lines.empty() && lines[0] == zor_ctrl_shell_line("pc rule clean"), "apply did not start with a clean");
    fuzz::check(lines.size() <= count + 1, "more add lines than rules");
    for (size_t i = 1; i < lines.size(); ++i)
        fuzz::check(starts_with(zor_test::ctrl_text_of_line(lines[i], ZOR_CTRL_FILE).value_or(""), "pc rule add "),
                    "not a rule add", lines[i]);
    return 0;
}
