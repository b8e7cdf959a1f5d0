// Rule file reader: validation messages, MAC rule, and the schedules decided
// against a pinned "today".
#include "pctrl/pctrl_reader.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <string>
#include <tuple>
#include <vector>

#include "pctrl_fixture.h"

namespace {

using zor_test::log_capture;
using zor_test::utc;

// id, MAC, kind, content, domain ("NULL" when absent), from, to.
using rule_view = std::tuple<int, std::string, int, std::string, std::string, int64_t, int64_t>;

std::string range(const char* from, const char* to) {
    return std::string(R"({"type": 0, "from": ")") + from + R"(", "to": ")" + to + R"("})";
}
std::string period(const char* from, const char* to, const char* days) {
    return std::string(R"({"type": 1, "from": ")") + from + R"(", "to": ")" + to + R"(", )" + days + "}";
}
// A content rule of MAC aabbccddeeff with `schedule`.
std::string scheduled(const std::string& schedule) {
    return R"({"mac": "aabbccddeeff", "cn": "1", "schedule": )" + schedule + "}";
}

class PctrlReader : public zor_test::pctrl_test {
protected:
    int read(const std::string& json) { return pctrl_read_rules(rule_file(json).c_str(), &holder_); }

    std::vector<rule_view> rules() const {
        std::vector<rule_view> out;
        if (!holder_.list) return out;
        holder_.list->for_each([&](const pctrl_rule& r) {
            out.emplace_back(r.id, r.mac, r.kind, r.content.value_or("NULL"), r.domain.value_or("NULL"),
                             static_cast<uint32_t>(r.from), static_cast<uint32_t>(r.to));
        });
        return out;
    }

    pctrl_holder holder_;
};

TEST_F(PctrlReader, GoodRulesKeepTheirTextsInFileOrder) {
    pin(utc(2024, 1, 1, 12));
    const std::string long_mac = "aabbccddeeff:" + std::string(40, 'z');
    // Text before a MAC lets the whole pass; cut to the field only that text
    // would be left, and the kernel would get it as the rule's MAC.
    const std::string tail = "a$:bb:cc:dd:ee:f:ff";
    ASSERT_EQ(read(R"({"7": {"mac": "00:11:22:33:44:55", "cn": "3"},
                       "3": {"MAC": "aabbccddeeff", "CN": "12", "Dn": "example.org"},
                       "": {"mac": "aabbccddeeff", "cn": ""},
                       "20": {"mac": ")" + long_mac + R"(", "dn": "a.example"},
                       "1": {"mac": ")" + std::string(40, 'z') + tail + R"(", "cn": "1"},
                       "2": {"mac": ")" + tail + R"(", "cn": "2"},
                       "8": {"mac": "aabbccddeeff", "dn": "x.example", "schedule": )" +
                   period("0:00", "1:00", R"("weekly": [1])") + "}}"),
              0);
    EXPECT_EQ(rules(), (std::vector<rule_view>{
                           {7, "00:11:22:33:44:55", PCTRL_KIND_CONTENT, "3", "NULL", 0, 0},
                           {3, "aabbccddeeff", PCTRL_KIND_DOMAIN, "12", "example.org", 0, 0},
                           {0, "aabbccddeeff", PCTRL_KIND_CONTENT, "", "NULL", 0, 0},
                           {20, long_mac.substr(0, 31), PCTRL_KIND_DOMAIN, "NULL", "a.example", 0, 0},
                           {2, tail, PCTRL_KIND_CONTENT, "2", "NULL", 0, 0},
                           {8, "aabbccddeeff", PCTRL_KIND_DOMAIN, "NULL", "x.example", utc(2024, 1, 1), utc(2024, 1, 1, 1)}}));
}

// Every bad rule is reported and skipped; the good rule after it is kept.
// Pinned on Wednesday 3 January 2024.
TEST_F(PctrlReader, BadRuleIsReportedAndSkipped) {
    const struct {
        std::string rule;
        const char* message;           // the D line expected, or null for none
        const char* absent = nullptr;  // a text that must not be logged
        const char* key = "9";
    } cases[] = {
        {R"({"mac": "aabbccddeeff", "cn": "1"})", "The ID is invalid", nullptr, "07a"},
        {R"({"cn": "1"})", "The MAC is invalid", "MAC ="},
        {R"({"mac": "aa:bb:cc:dd:ee", "cn": "1"})", "MAC = aa:bb:cc:dd:ee"},
        {R"({"mac": "aabbccddeeff"})", "The Content is invalid"},
        {scheduled("[]"), "The Schedule is invalid"},
        {scheduled(R"({"type": "0", "from": "", "to": ""})"), "The Schedule type is invalid"},
        {scheduled(R"({"type": 0, "from": "", "to": 5})"), "The Schedule to time is invalid"},
        {scheduled(range("2024-1-1", "2024-1-9 0:0")), "The Schedule from time format is invalid"},
        {scheduled(range("2024-1-2 8:00", "2024-1-3 0:00")), "The range schedule id 9 is not today"},
        {scheduled(period("8:00", "9:00", R"("weekly": [0, 6], "monthly": [3])")),
         "The weekly schedule id 9 is not today"},
        {scheduled(period("8:00", "9:00", R"("weekly": [], "monthly": {})")),
         "The period schedule is invalid: rule id 9"},
        {scheduled(period("8:00", "9:00", R"("monthly": [1, 31])")), "The monthly schedule id 9 is not today"},
        {scheduled(period("8:00", "nine", R"("weekly": [3])")), "The period to time is invalid: rule id 9"},
        {scheduled(R"({"type": 2, "from": "8:00", "to": "9:00", "weekly": [3]})"), nullptr, "[D] The"},
    };
    pin(utc(2024, 1, 3, 12));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rule);
        log_capture log;
        ASSERT_EQ(read(std::string("{\"") + c.key + "\": " + c.rule +
                       R"(, "1": {"mac": "AA-BB-CC-DD-EE-FF", "dn": "ok.example"}})"),
                  0);
        auto r = rules();
        ASSERT_EQ(r.size(), 1u);
        EXPECT_EQ(std::get<0>(r[0]), 1);
        if (c.message != nullptr) { EXPECT_TRUE(log.contains(std::string("[D] ") + c.message)); }
        if (c.absent != nullptr) { EXPECT_FALSE(log.contains(c.absent)); }
    }
}

TEST_F(PctrlReader, MacRule) {
    for (auto [mac, valid] : {std::pair{"aa-bb:cc-dd:ee-ff", 1}, {"aab:b:cc:dd:ee:ff", 1}, {":aa:bb:cc:dd:ee:ff", 0},
                              {"aa:bb:cc:dd:ee:fg", 0}, {"aabb:ccddeeff", 0}, {"aa:bb:cc:dd:ee:ff:00", 0}})
        EXPECT_EQ(pctrl_mac_valid(mac), valid) << mac;
    EXPECT_EQ(pctrl_mac_valid(nullptr), 0);
}

// Schedules that cover or start today (those that do not are in the table
// above) hold local wall-clock times of the zone, daylight saving included;
// a period ending before it starts is not wrapped.
TEST_F(PctrlReader, ScheduleTimesOfTheDay) {
    const struct {
        time_t now;
        std::string schedule;
        time_t from, to;
        const char* zone = "UTC0";
    } cases[] = {
        {utc(2024, 1, 1, 12), range("2023-12-25 6:30", "2024-1-7 20:15"), utc(2023, 12, 25, 6, 30),
         utc(2024, 1, 7, 20, 15)},
        {utc(2024, 1, 31, 10), period("7:05", "21:30", R"("monthly": [30, 31])"), utc(2024, 1, 31, 7, 5),
         utc(2024, 1, 31, 21, 30)},
        {utc(2024, 1, 6, 10), period("22:00", "6:00", R"("weekly": [6])"), utc(2024, 1, 6, 22), utc(2024, 1, 6, 6)},
        // 31 March 2024: clocks go from 02:00 CET to 03:00 CEST.
        {utc(2024, 3, 31, 10), period("1:00", "4:00", R"("weekly": [0])"), utc(2024, 3, 31, 0),
         utc(2024, 3, 31, 2), "Europe/Berlin"},
        {utc(2024, 3, 31, 10), range("2024-3-31 0:00", "2024-7-1 10:00"), utc(2024, 3, 30, 23),
         utc(2024, 7, 1, 8), "Europe/Berlin"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.schedule + " at " + std::to_string(c.now));
        zor_test::use_zone(c.zone);
        pin(c.now);
        ASSERT_EQ(read(R"({"4": {"mac": "aabbccddeeff", "cn": "5", "schedule": )" + c.schedule + "}}"), 0);
        auto r = rules();
        ASSERT_EQ(r.size(), 1u);
        EXPECT_EQ(std::get<5>(r[0]), c.from);
        EXPECT_EQ(std::get<6>(r[0]), c.to);
    }
}

// Only regular files are read: a FIFO nobody writes would block the reader
// (the command thread or the midnight run) for ever, a device may never end.
// A file that fails drops the earlier set; JSON that is not an object of
// rules gives an empty one.
TEST_F(PctrlReader, FilesThatCannotBeReadOrParsed) {
    log_capture log;
    pin(utc(2024, 1, 1, 12));
    const std::string fifo = dir_.file("rules.fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path : {dir_.file("none.json"), fifo, std::string("/dev/zero")}) {
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(pctrl_read_rules(path.c_str(), &holder_), -1) << path;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << path;
        EXPECT_TRUE(log.contains("[E] Open file error: " + path)) << path;
    }
    for (const std::string& text : {std::string("{\"1\": {\"mac\": "), std::string(PCTRL_RULE_FILE_MAX + 1, ' ')}) {
        ASSERT_EQ(read(R"({"1": {"mac": "aabbccddeeff", "cn": "1"}})"), 0);
        EXPECT_EQ(read(text), -1) << text.size();
        EXPECT_EQ(holder_.list, nullptr) << text.size();
    }
    EXPECT_TRUE(log.contains("[E] The following rule string is not JSON format:"));
    ASSERT_EQ(read(R"([{"mac": "aabbccddeeff", "cn": "1"}])"), 0);
    ASSERT_NE(holder_.list, nullptr);
    EXPECT_EQ(holder_.list->size(), 0u);
}

}  // namespace
