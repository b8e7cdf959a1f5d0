// Rule scheduler: the kernel command lines of an apply, the midnight
// computation, and the scheduler thread on a test clock.
#include "pctrl/pctrl_scheduler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <optional>
#include <thread>

#include "ctrl_capture.h"
#include "pctrl_fixture.h"
#include "qmxsrv_ctx.h"
#include "zor_ctrl.h"

namespace {

using namespace std::chrono_literals;
using zor_test::log_capture;
using zor_test::utc;
using lines = std::vector<std::string>;

const std::string kClean = "pc rule clean";
std::string add_line(const std::string& args) { return "pc rule add " + args; }

// Waits until the log holds a line with `text`.
bool logged(const log_capture& log, const std::string& text) {
    return zor_test::eventually([&] { return log.contains(text); });
}

class PctrlScheduler : public zor_test::pctrl_test {
protected:
    void SetUp() override {
        pctrl_test::SetUp();
        pin(utc(2024, 1, 6, 12));  // a Saturday
        timing_set({.rule_second = 5ms});
        qmxsrv_ctx_set_pc_rule(nullptr);
    }
    void TearDown() override {
        pctrl_sched_stop();
        qmxsrv_ctx_set_pc_rule(nullptr);
        timing_set(zor_timing{});
        pctrl_test::TearDown();
    }
    void set_rules(const std::string& json) { qmxsrv_ctx_set_pc_rule(rule_file(json).c_str()); }
};

// A rule whose mac or text the command cannot carry as one word (a space, a
// control byte, a backslash) or that does not fit is skipped, in both
// channels. A missing or bad file leaves the kernel's rules alone; one
// without due rules still cleans.
TEST_F(PctrlScheduler, ApplySendsExactCommands) {
    const std::string from = std::to_string(utc(2024, 1, 6, 8)), to = std::to_string(utc(2024, 1, 6, 20, 30));
    const struct {
        std::optional<std::string> json;  // none: a file that does not exist
        lines want;
    } cases[] = {
        {R"({"7": {"mac": "00:11:22:33:44:55", "cn": "3"},
             "8": {"mac": "aa-bb-cc-dd-ee-ff", "cn": "9", "dn": "video.example"},
             "9": {"mac": "aabbccddeeff", "dn": "games.example",
                   "schedule": {"type": 1, "from": "8:00", "to": "20:30", "weekly": [6]}}})",
         {kClean, add_line("1 00:11:22:33:44:55 3 0 0"), add_line("2 aa-bb-cc-dd-ee-ff video.example 0 0"),
          add_line("2 aabbccddeeff games.example " + from + " " + to)}},
        {R"({"1": {"mac": "aabbccddeeff", "dn": "a\"b$(reboot)`x`"},
             "2": {"mac": "aabbccddeeff", "dn": "bad\u0001name"},
             "3": {"mac": "aabbccddeeff", "dn": ")" + std::string(380, 'd') + R"("},
             "4": {"mac": "aabbccddeeff", "cn": "5"},
             "5": {"mac": "aabbccddeeff", "dn": "cut\\c.example"},
             "6": {"mac": "aabbccddeeff- 1 ff:ff:ff:ff:ff:ff", "cn": "2"},
             "7": {"mac": "aabbccddeeff", "dn": "two words.example"}})",
         {kClean, add_line("2 aabbccddeeff a\"b$(reboot)`x` 0 0"), add_line("1 aabbccddeeff 5 0 0")}},
        {R"({"1": {"mac": "aabbccddeeff", "cn": "1",
             "schedule": {"type": 1, "from": "8:00", "to": "9:00", "weekly": [1]}}})",
         {kClean}},
        {std::nullopt, {}}, {"not json", {}},
    };
    for (auto ch : {ctrl_capture::direct, ctrl_capture::shell}) {
        ctrl_capture rec(ch);
        qmxsrv_ctx_set_pc_rule(nullptr);
        pctrl_apply_rules();  // no rule file set
        EXPECT_TRUE(rec.lines().empty());
        for (const auto& c : cases) {
            SCOPED_TRACE(c.json.value_or("(missing)") + (ch == ctrl_capture::shell ? " (shell)" : ""));
            log_capture log;
            rec.clear();
            if (c.json) set_rules(*c.json);
            else qmxsrv_ctx_set_pc_rule(dir_.file("missing.json").c_str());
            pctrl_apply_rules();
            EXPECT_EQ(rec.lines(), c.want);
            for (const auto& text : c.want) {
                const std::string logged = ch == ctrl_capture::shell ? zor_ctrl_shell_line(text) : text;
                EXPECT_TRUE(log.contains("[I] pctrl command: " + logged)) << logged;
            }
        }
    }
}

// Started (twice: it runs once) just before midnight, the scheduler applies,
// sleeps until midnight on the rule clock and applies again; a stop joins it
// at once out of the day-long wait and cleans once; a second stop, like one
// before any start, sends nothing.
TEST_F(PctrlScheduler, AppliesAtStartAndJustAfterMidnightAndStopsAtOnce) {
    log_capture log;
    ctrl_capture rec;
    pctrl_sched_stop();
    EXPECT_TRUE(rec.lines().empty());
    set_rules(R"({"1": {"mac": "aabbccddeeff", "cn": "6",
                       "schedule": {"type": 1, "from": "0:00", "to": "23:59", "weekly": [6]}},
                 "2": {"mac": "aabbccddeeff", "cn": "0",
                       "schedule": {"type": 1, "from": "0:00", "to": "23:59", "weekly": [0]}}})");
    const time_t before = utc(2024, 1, 6, 23, 59, 30), midnight = utc(2024, 1, 7);
    pin(before);
    pctrl_sched_start();
    pctrl_sched_start();
    ASSERT_TRUE(logged(log, "Sleep seconds: 30"));
    EXPECT_TRUE(log.contains("[I] Today epoch: " + std::to_string(before)));
    EXPECT_TRUE(log.contains("[I] Excepted next epoch: " + std::to_string(midnight)));
    EXPECT_EQ(rec.lines().size(), 2u);  // Sunday's rule not yet
    pin(midnight + 1);
    ASSERT_TRUE(logged(log, "Sleep seconds: 86399"));
    auto t0 = std::chrono::steady_clock::now();
    pctrl_sched_stop();  // interrupts a wait of 86399 test seconds
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 2s);
    pctrl_sched_stop();
    auto day = [](time_t from) { return std::to_string(from) + " " + std::to_string(from + 86340); };
    EXPECT_EQ(rec.lines(), (lines{kClean, add_line("1 aabbccddeeff 6 " + day(midnight - 86400)), kClean,
                                  add_line("1 aabbccddeeff 0 " + day(midnight)), kClean}));
    EXPECT_TRUE(log.contains("[D] Start parental control scheduler ..."));
    EXPECT_TRUE(log.contains("[I] pctrl_sched stopped"));
}

// The scheduler re-applies every test second just before midnight while the
// command thread applies too, each command taking a moment: the two never
// interleave their commands, and their time conversions (the zone read from
// the system, as on a router without TZ) stay ordered.
TEST_F(PctrlScheduler, SchedulerAndCommandAppliesDoNotInterleave) {
    unsetenv("TZ");
    tzset();
    ctrl_capture rec(ctrl_capture::shell, [](const std::string&) {
        std::this_thread::sleep_for(1ms);
        return 0;
    });
    set_rules(R"({"1": {"mac": "aabbccddeeff", "cn": "1",
                       "schedule": {"type": 1, "from": "0:00", "to": "23:59", "weekly": [0,1,2,3,4,5,6]}},
                 "2": {"mac": "aabbccddeeff", "dn": "games.example"}})");
    const time_t midnight = pctrl_next_midnight(utc(2024, 1, 6, 12));
    pin(midnight - 1);
    timing_set({.rule_second = 1ms});
    pctrl_sched_start();
    std::thread other([] {
        for (int i = 0; i < 10; ++i) pctrl_apply_rules();
    });
    for (int i = 0; i < 10; ++i) pctrl_apply_rules();
    other.join();
    ASSERT_TRUE(rec.wait_for("pc rule clean", 25));  // the scheduler's applies too
    pctrl_sched_stop();
    const lines got = rec.lines(), apply = {kClean, add_line("1 aabbccddeeff 1 " + std::to_string(midnight - 86400) +
                                                             " " + std::to_string(midnight - 60)),
                                            add_line("2 aabbccddeeff games.example 0 0")};
    ASSERT_EQ(got.size() % 3, 1u);  // whole applies, then the stop's clean
    for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i], apply[i % 3]) << i;
}

// Days of 23 and 25 hours around the daylight saving switches.
TEST_F(PctrlScheduler, NextMidnightIsTheComingLocalMidnight) {
    const struct {
        const char* zone;
        time_t now, next;
    } cases[] = {
        {"Europe/Berlin", utc(2024, 3, 30, 23, 30), utc(2024, 3, 31, 22)},  // spring forward
        {"Europe/Berlin", utc(2024, 10, 26, 22), utc(2024, 10, 27, 23)},    // fall back
        {"America/New_York", utc(2024, 11, 3, 4, 30), utc(2024, 11, 4, 5)},
    };
    for (const auto& c : cases) {
        zor_test::use_zone(c.zone);
        EXPECT_EQ(pctrl_next_midnight(c.now), c.next) << c.zone << " " << c.now;
    }
    EXPECT_EQ(pctrl_next_midnight(std::numeric_limits<time_t>::max()), -1);
}

}  // namespace
