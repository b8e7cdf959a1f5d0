// Rule scheduler: the kernel command lines of an apply, the midnight
// computation, and the scheduler thread on a test clock.
#include "pctrl/pctrl_scheduler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "cmd_recorder.h"
#include "pctrl/pctrl_reader.h"
#include "qmxsrv_ctx.h"
#include "test_util.h"

namespace {

using namespace std::chrono_literals;
using zor_test::log_capture;
using zor_test::temp_dir;

const std::string kClean = R"([ -f /proc/zor/ctrl ] && echo "pc rule clean" > /proc/zor/ctrl)";

std::string add_line(const std::string& args) {
    return R"([ -f /proc/zor/ctrl ] && echo "pc rule add )" + args + R"(" > /proc/zor/ctrl)";
}

time_t utc(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
    struct tm tm = {};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    tm.tm_hour = h;
    tm.tm_min = mi;
    tm.tm_sec = s;
    return timegm(&tm);
}

std::atomic<time_t> fake_now{0};

// Waits until `pred` holds, for at most `limit`.
template <class Pred>
bool eventually(Pred pred, std::chrono::milliseconds limit = 10s) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

size_t count_lines(const log_capture& log, const std::string& text) {
    size_t n = 0;
    for (const auto& line : log.lines()) n += line.find(text) != std::string::npos;
    return n;
}

class PctrlScheduler : public ::testing::Test {
protected:
    void SetUp() override {
        use_zone("UTC0");
        fake_now = utc(2024, 1, 6, 12);  // a Saturday
        pctrl_set_clock([] { return fake_now.load(); });
        pctrl_sched_set_second(5ms);
        qmxsrv_ctx_set_pc_rule(nullptr);
    }
    void TearDown() override {
        pctrl_sched_stop();
        qmxsrv_ctx_set_pc_rule(nullptr);
        pctrl_set_clock({});
        pctrl_sched_set_second(1000ms);
        use_zone("UTC0");
    }

    static void use_zone(const char* tz) {
        setenv("TZ", tz, 1);
        tzset();
    }

    // Writes a rule file and makes it the context's rule file.
    void set_rules(const std::string& json) {
        std::string path = dir_.file("rules.json");
        ASSERT_TRUE(zor_test::write_file(path, json));
        qmxsrv_ctx_set_pc_rule(path.c_str());
    }

    temp_dir dir_;
};

TEST_F(PctrlScheduler, ApplyCleansThenAddsEachRuleInFileOrder) {
    log_capture log;
    cmd_recorder rec;
    set_rules(R"({"7": {"mac": "00:11:22:33:44:55", "cn": "3"},
                 "8": {"mac": "aa-bb-cc-dd-ee-ff", "cn": "9", "dn": "video.example"},
                 "9": {"mac": "aabbccddeeff", "dn": "games.example",
                       "schedule": {"type": 1, "from": "8:00", "to": "20:30", "weekly": [6]}}})");
    pctrl_apply_rules();
    std::string from = std::to_string(utc(2024, 1, 6, 8));
    std::string to = std::to_string(utc(2024, 1, 6, 20, 30));
    std::vector<std::string> want = {
        kClean,
        add_line("1 00:11:22:33:44:55 3 0 0"),
        add_line("2 aa-bb-cc-dd-ee-ff video.example 0 0"),  // kind 2 sends the domain
        add_line("2 aabbccddeeff games.example " + from + " " + to),
    };
    EXPECT_EQ(rec.lines(), want);
    for (const auto& line : want) EXPECT_TRUE(log.contains("[I] pctrl command: " + line)) << line;
}

TEST_F(PctrlScheduler, RuleTextsAreEscapedAndUnsendableRulesAreSkipped) {
    cmd_recorder rec;
    // A backslash would reach echo, which in some shells reads "\c" as "stop
    // here": the kernel would get the rule cut short.
    set_rules(R"({"1": {"mac": "aabbccddeeff", "dn": "a\"b$(reboot)`x`"},
                 "2": {"mac": "aabbccddeeff", "dn": "bad\u0001name"},
                 "3": {"mac": "aabbccddeeff", "dn": ")" + std::string(380, 'd') + R"("},
                 "4": {"mac": "aabbccddeeff", "cn": "5"},
                 "5": {"mac": "aabbccddeeff", "dn": "cut\\c.example"}})");
    pctrl_apply_rules();
    std::vector<std::string> want = {
        kClean,
        add_line(R"(2 aabbccddeeff a\"b\$(reboot)\`x\` 0 0)"),
        add_line("1 aabbccddeeff 5 0 0"),
    };
    EXPECT_EQ(rec.lines(), want);
}

TEST_F(PctrlScheduler, BadOrMissingFileLeavesKernelRulesAlone) {
    cmd_recorder rec;
    pctrl_apply_rules();  // no rule file set
    qmxsrv_ctx_set_pc_rule(dir_.file("missing.json").c_str());
    pctrl_apply_rules();
    for (const char* text : {"", "not json", "{\"1\": "}) {
        set_rules(text);
        pctrl_apply_rules();
    }
    EXPECT_TRUE(rec.lines().empty());
}

TEST_F(PctrlScheduler, FileWithoutDueRulesStillCleans) {
    cmd_recorder rec;
    set_rules(R"({"1": {"mac": "aabbccddeeff", "cn": "1",
                 "schedule": {"type": 1, "from": "8:00", "to": "9:00", "weekly": [1]}}})");
    pctrl_apply_rules();
    EXPECT_EQ(rec.lines(), std::vector<std::string>{kClean});
}

TEST_F(PctrlScheduler, StopWhenNeverStartedSendsNothing) {
    log_capture log;
    cmd_recorder rec;
    pctrl_sched_stop();
    EXPECT_TRUE(log.contains("[D] pctrl_sched_stop"));
    EXPECT_TRUE(rec.lines().empty());
}

TEST_F(PctrlScheduler, StartAppliesOnceAndStopCleansOnce) {
    log_capture log;
    cmd_recorder rec;
    set_rules(R"({"1": {"mac": "aabbccddeeff", "cn": "4"}})");
    pctrl_sched_start();
    pctrl_sched_start();  // already running: nothing more
    ASSERT_TRUE(rec.wait_for("pc rule add", 1));
    ASSERT_TRUE(eventually([&] { return log.contains("Sleep seconds: 43200"); }));
    auto t0 = std::chrono::steady_clock::now();
    pctrl_sched_stop();  // interrupts a wait of 43200 test seconds
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 10s);
    pctrl_sched_stop();
    EXPECT_EQ(rec.lines(), (std::vector<std::string>{kClean, add_line("1 aabbccddeeff 4 0 0"), kClean}));
    EXPECT_TRUE(log.contains("[D] Start parental control scheduler ..."));
    EXPECT_TRUE(log.contains("[I] pctrl_sched stopped"));
}

TEST_F(PctrlScheduler, AppliesAgainJustAfterMidnight) {
    log_capture log;
    cmd_recorder rec;
    set_rules(R"({"1": {"mac": "aabbccddeeff", "cn": "6",
                       "schedule": {"type": 1, "from": "0:00", "to": "23:59", "weekly": [6]}},
                 "2": {"mac": "aabbccddeeff", "cn": "0",
                       "schedule": {"type": 1, "from": "0:00", "to": "23:59", "weekly": [0]}}})");
    time_t before = utc(2024, 1, 6, 23, 59, 30);
    time_t midnight = utc(2024, 1, 7);
    fake_now = before;
    pctrl_sched_start();
    ASSERT_TRUE(rec.wait_for(" 6 ", 1));
    ASSERT_TRUE(eventually([&] { return log.contains("Sleep seconds: 30"); }));
    EXPECT_TRUE(log.contains("[I] Today epoch: " + std::to_string(before)));
    EXPECT_TRUE(log.contains("[I] Excepted next epoch: " + std::to_string(midnight)));
    EXPECT_EQ(rec.count_with(" 0 " + std::to_string(midnight)), 0u);  // Sunday's rule not yet

    fake_now = midnight + 1;
    ASSERT_TRUE(rec.wait_for("pc rule add 1 aabbccddeeff 0 " + std::to_string(midnight), 1));
    ASSERT_TRUE(eventually([&] { return log.contains("Sleep seconds: 86399"); }));
    pctrl_sched_stop();
    auto lines = rec.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), kClean);
}

TEST_F(PctrlScheduler, LongDayReappliesEachSecondUntilCaughtUp) {
    use_zone("Europe/Berlin");
    log_capture log;
    cmd_recorder rec;
    set_rules(R"({"1": {"mac": "aabbccddeeff", "cn": "2"}})");
    // 27 October 2024 00:00 CEST; the day lasts 25 hours.
    time_t start = utc(2024, 10, 26, 22);
    fake_now = start;
    pctrl_sched_start();
    ASSERT_TRUE(eventually([&] { return log.contains("[I] diff_epoch biggger than 86400: 90000"); }));
    ASSERT_TRUE(rec.wait_for("pc rule add", 3));  // applied again after each second
    EXPECT_FALSE(log.contains("Sleep seconds"));

    fake_now = start + 3600;  // 01:00 CEST: midnight is 24 hours away
    ASSERT_TRUE(eventually([&] { return log.contains("[I] Sleep seconds: 86400"); }));
    pctrl_sched_stop();
}

TEST_F(PctrlScheduler, UnknownLocalTimeRetriesEachSecond) {
    log_capture log;
    cmd_recorder rec;
    fake_now = std::numeric_limits<time_t>::max();  // beyond any calendar
    pctrl_sched_start();
    ASSERT_TRUE(eventually([&] { return count_lines(log, "[I] nextday_epoch < cur_epoch") >= 2; }));
    pctrl_sched_stop();
    EXPECT_EQ(rec.lines(), std::vector<std::string>{kClean});  // only the stop's clean
}

TEST_F(PctrlScheduler, ConcurrentAppliesDoNotInterleave) {
    // Each command takes a moment, so unserialised applies would interleave.
    cmd_recorder rec([](const std::string&) {
        std::this_thread::sleep_for(1ms);
        return 0;
    });
    set_rules(R"({"1": {"mac": "aabbccddeeff", "cn": "1"}, "2": {"mac": "aabbccddeeff", "cn": "2"}})");
    auto worker = [] {
        for (int i = 0; i < 5; ++i) pctrl_apply_rules();
    };
    std::thread a(worker);
    std::thread b(worker);
    a.join();
    b.join();
    auto lines = rec.lines();
    ASSERT_EQ(lines.size(), 30u);
    for (size_t i = 0; i < lines.size(); i += 3) {
        EXPECT_EQ(lines[i], kClean) << i;
        EXPECT_EQ(lines[i + 1], add_line("1 aabbccddeeff 1 0 0")) << i;
        EXPECT_EQ(lines[i + 2], add_line("1 aabbccddeeff 2 0 0")) << i;
    }
}

// The scheduler re-applies every test second just before midnight while the
// command thread applies too: the two never interleave their commands, and
// their time conversions (the zone read from the system, as on a router
// without TZ) stay ordered.
TEST_F(PctrlScheduler, SchedulerAndCommandAppliesDoNotInterleave) {
    unsetenv("TZ");
    tzset();
    cmd_recorder rec;
    set_rules(R"({"1": {"mac": "aabbccddeeff", "cn": "1",
                       "schedule": {"type": 1, "from": "0:00", "to": "23:59", "weekly": [0,1,2,3,4,5,6]}},
                 "2": {"mac": "aabbccddeeff", "dn": "games.example"}})");
    const time_t midnight = pctrl_next_midnight(utc(2024, 1, 6, 12));
    fake_now = midnight - 1;
    pctrl_sched_set_second(1ms);
    pctrl_sched_start();
    for (int i = 0; i < 20; ++i) pctrl_apply_rules();
    ASSERT_TRUE(rec.wait_for("pc rule clean", 25));  // the scheduler's applies too
    pctrl_sched_stop();
    auto lines = rec.lines();
    ASSERT_GE(lines.size(), 76u);
    ASSERT_EQ(lines.back(), kClean);  // the stop's
    lines.pop_back();
    ASSERT_EQ(lines.size() % 3, 0u);
    const std::string first = add_line("1 aabbccddeeff 1 " + std::to_string(midnight - 86400) + " " +
                                       std::to_string(midnight - 60));
    for (size_t i = 0; i < lines.size(); i += 3) {
        EXPECT_EQ(lines[i], kClean) << i;
        EXPECT_EQ(lines[i + 1], first) << i;
        EXPECT_EQ(lines[i + 2], add_line("2 aabbccddeeff games.example 0 0")) << i;
    }
}

struct midnight_case {
    const char* name;
    const char* zone;
    time_t now;
    time_t next;
};

TEST_F(PctrlScheduler, NextMidnightIsTheComingLocalMidnight) {
    const midnight_case cases[] = {
        {"month end", "UTC0", utc(2024, 1, 31, 23, 59, 30), utc(2024, 2, 1)},
        {"leap day", "UTC0", utc(2024, 2, 28, 12), utc(2024, 2, 29)},
        {"year end", "UTC0", utc(2023, 12, 31, 0, 0, 1), utc(2024, 1, 1)},
        {"at midnight", "UTC0", utc(2024, 3, 1), utc(2024, 3, 2)},
        {"east of UTC", "Asia/Tokyo", utc(2024, 4, 30, 15), utc(2024, 5, 1, 15)},
        {"spring forward", "Europe/Berlin", utc(2024, 3, 30, 23, 30), utc(2024, 3, 31, 22)},
        {"fall back", "Europe/Berlin", utc(2024, 10, 26, 22), utc(2024, 10, 27, 23)},
        {"month end in daylight time", "America/New_York", utc(2024, 11, 1), utc(2024, 11, 1, 4)},
        {"fall back early", "America/New_York", utc(2024, 11, 3, 4, 30), utc(2024, 11, 4, 5)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        use_zone(c.zone);
        EXPECT_EQ(pctrl_next_midnight(c.now), c.next);
    }
    EXPECT_EQ(pctrl_next_midnight(std::numeric_limits<time_t>::max()), -1);
}

}  // namespace
