// Rule file reader: validation messages, MAC rule, and the schedules decided
// against a pinned "today".
#include "pctrl/pctrl_reader.h"

#include <gtest/gtest.h>
#include <chrono>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "test_util.h"

namespace {

using zor_test::log_capture;
using zor_test::temp_dir;

// Seconds since the epoch of a UTC calendar time.
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

struct rule_view {
    int id;
    std::string mac;
    int kind;
    std::string content;  // "NULL" when absent
    std::string domain;   // "NULL" when absent
    int64_t from;
    int64_t to;
};

class PctrlReader : public ::testing::Test {
protected:
    void SetUp() override { use_zone("UTC0"); }
    void TearDown() override {
        pctrl_set_clock({});
        use_zone("UTC0");
    }

    static void use_zone(const char* tz) {
        setenv("TZ", tz, 1);
        tzset();
    }
    static void pin(time_t now) {
        pctrl_set_clock([now] { return now; });
    }

    // Reads `json` as a rule file on the pinned day.
    int read(const std::string& json) {
        std::string path = dir_.file("rules.json");
        EXPECT_TRUE(zor_test::write_file(path, json));
        return pctrl_read_rules(path.c_str(), &holder_);
    }

    std::vector<rule_view> rules() const {
        std::vector<rule_view> out;
        if (holder_.list == nullptr) return out;
        for (list_node_t* n = holder_.list->head; n != nullptr; n = n->next) {
            const auto* r = reinterpret_cast<const pctrl_rule*>(n);
            out.push_back({r->id, r->mac, r->kind, r->content.value_or("NULL"),
                           r->domain.value_or("NULL"), static_cast<uint32_t>(r->from),
                           static_cast<uint32_t>(r->to)});
        }
        return out;
    }

    temp_dir dir_;
    pctrl_holder holder_;
};

TEST_F(PctrlReader, ContentRuleWithoutScheduleHoldsAllDay) {
    pin(utc(2024, 1, 1, 12));
    ASSERT_EQ(read(R"({"7": {"mac": "00:11:22:33:44:55", "cn": "3"}})"), 0);
    auto r = rules();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].id, 7);
    EXPECT_EQ(r[0].mac, "00:11:22:33:44:55");
    EXPECT_EQ(r[0].kind, PCTRL_KIND_CONTENT);
    EXPECT_EQ(r[0].content, "3");
    EXPECT_EQ(r[0].domain, "NULL");
    EXPECT_EQ(r[0].from, 0);
    EXPECT_EQ(r[0].to, 0);
}

TEST_F(PctrlReader, ContentAndDomainGiveDomainRuleKeepingBothTexts) {
    pin(utc(2024, 1, 1, 12));
    ASSERT_EQ(read(R"({"3": {"MAC": "aabbccddeeff", "CN": "12", "Dn": "example.org"}})"), 0);
    auto r = rules();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].kind, PCTRL_KIND_DOMAIN);
    EXPECT_EQ(r[0].content, "12");
    EXPECT_EQ(r[0].domain, "example.org");
}

TEST_F(PctrlReader, RulesKeepFileOrderAndEmptyKeyIsIdZero) {
    pin(utc(2024, 1, 1, 12));
    ASSERT_EQ(read(R"({"20": {"mac": "aabbccddeeff", "dn": "a.example"},
                       "": {"mac": "aabbccddeeff", "cn": ""},
                       "5": {"mac": "aabbccddeeff", "cn": "7"}})"),
              0);
    auto r = rules();
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0].id, 20);
    EXPECT_EQ(r[1].id, 0);
    EXPECT_EQ(r[1].kind, PCTRL_KIND_CONTENT);  // an empty "cn" still counts
    EXPECT_EQ(r[1].content, "");
    EXPECT_EQ(r[2].id, 5);
}

TEST_F(PctrlReader, LongMacThatPassesIsCutToTheField) {
    pin(utc(2024, 1, 1, 12));
    std::string mac = "aabbccddeeff:" + std::string(40, 'z');
    ASSERT_EQ(read(R"({"1": {"mac": ")" + mac + R"(", "cn": "1"}})"), 0);
    auto r = rules();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].mac, mac.substr(0, 31));
}

// The MAC rule lets text before a MAC pass; cut to the field, only that text
// would be left, and the kernel would get it as the rule's MAC.
TEST_F(PctrlReader, LongMacIsDroppedWhenItsCutTextFails) {
    pin(utc(2024, 1, 1, 12));
    const std::string tail = "a$:bb:cc:dd:ee:f:ff";
    const std::string mac = std::string(40, 'z') + tail;
    ASSERT_EQ(pctrl_mac_valid(mac.c_str()), 1);
    ASSERT_EQ(read(R"({"1": {"mac": ")" + mac + R"(", "cn": "1"}, "2": {"mac": ")" + tail + R"(", "cn": "2"}})"), 0);
    auto r = rules();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].id, 2);
    EXPECT_EQ(r[0].mac, tail);
}

struct bad_rule_case {
    const char* name;
    const char* key;
    const char* rule;      // the rule object's JSON
    const char* message;   // the D line expected, or null for none
    const char* absent;    // a text that must not be logged, or null
};

// Every bad rule is reported and skipped; the good rule after it is kept.
// Pinned on Wednesday 3 January 2024.
TEST_F(PctrlReader, BadRuleIsReportedAndSkipped) {
    const bad_rule_case cases[] = {
        {"id", "07a", R"({"mac": "aabbccddeeff", "cn": "1"})", "[D] The ID is invalid", nullptr},
        {"mac missing", "9", R"({"cn": "1"})", "[D] The MAC is invalid", "MAC ="},
        {"mac number", "9", R"({"mac": 5, "cn": "1"})", "[D] The MAC is invalid", "MAC ="},
        {"mac empty", "9", R"({"mac": "", "cn": "1"})", "[D] MAC = ", nullptr},
        {"mac ten digits", "9", R"({"mac": "aa:bb:cc:dd:ee", "cn": "1"})",
         "[D] MAC = aa:bb:cc:dd:ee", nullptr},
        {"rule not object", "9", R"(17)", "[D] The MAC is invalid", nullptr},
        {"no content", "9", R"({"mac": "aabbccddeeff"})", "[D] The Content is invalid", nullptr},
        {"content number", "9", R"({"mac": "aabbccddeeff", "cn": 4, "dn": null})",
         "[D] The Content is invalid", nullptr},
        {"schedule array", "9", R"({"mac": "aabbccddeeff", "cn": "1", "schedule": []})",
         "[D] The Schedule is invalid", nullptr},
        {"type string", "9",
         R"({"mac": "aabbccddeeff", "cn": "1", "schedule": {"type": "0", "from": "", "to": ""}})",
         "[D] The Schedule type is invalid", nullptr},
        {"from missing", "9", R"({"mac": "aabbccddeeff", "cn": "1", "schedule": {"type": 0, "to": ""}})",
         "[D] The Schedule from time is invalid", nullptr},
        {"to number", "9",
         R"({"mac": "aabbccddeeff", "cn": "1", "schedule": {"type": 0, "from": "", "to": 5}})",
         "[D] The Schedule to time is invalid", nullptr},
        {"range from short", "9",
         R"({"mac": "aabbccddeeff", "cn": "1",
             "schedule": {"type": 0, "from": "2024-1-1", "to": "2024-1-9 0:0"}})",
         "[D] The Schedule from time format is invalid", nullptr},
        {"range to garbage", "9",
         R"({"mac": "aabbccddeeff", "cn": "1",
             "schedule": {"type": 0, "from": "2024-1-1 0:0", "to": "soon"}})",
         "[D] The Schedule to time format is invalid", nullptr},
        {"range ended yesterday", "9",
         R"({"mac": "aabbccddeeff", "cn": "1",
             "schedule": {"type": 0, "from": "2023-12-20 8:00", "to": "2024-1-2 23:59"}})",
         "[D] The range schedule id 9 is not today", nullptr},
        {"range ends at midnight", "9",
         R"({"mac": "aabbccddeeff", "cn": "1",
             "schedule": {"type": 0, "from": "2024-1-2 8:00", "to": "2024-1-3 0:00"}})",
         "[D] The range schedule id 9 is not today", nullptr},
        {"range starts tomorrow", "9",
         R"({"mac": "aabbccddeeff", "cn": "1",
             "schedule": {"type": 0, "from": "2024-1-4 0:00", "to": "2024-1-5 0:00"}})",
         "[D] The range schedule id 9 is not today", nullptr},
        {"weekly not today", "9",
         R"({"mac": "aabbccddeeff", "cn": "1",
             "schedule": {"type": 1, "from": "8:00", "to": "9:00", "weekly": [0, 6], "monthly": [3]}})",
         "[D] The weekly schedule id 9 is not today", nullptr},
        {"weekly string value ignored", "9",
         R"({"mac": "aabbccddeeff", "cn": "1",
             "schedule": {"type": 1, "from": "8:00", "to": "9:00", "weekly": ["3"]}})",
         "[D] The weekly schedule id 9 is not today", nullptr},
        {"no period days", "9",
         R"({"mac": "aabbccddeeff", "cn": "1",
             "schedule": {"type": 1, "from": "8:00", "to": "9:00", "weekly": [], "monthly": {}}})",
         "[D] The period schedule is invalid: rule id 9", nullptr},
        {"monthly not today", "9",
         R"({"mac": "aabbccddeeff", "cn": "1",
             "schedule": {"type": 1, "from": "8:00", "to": "9:00", "monthly": [1, 31]}})",
         "[D] The monthly schedule id 9 is not today", nullptr},
        {"period from", "9",
         R"({"mac": "aabbccddeeff", "cn": "1",
             "schedule": {"type": 1, "from": "8", "to": "9:00", "weekly": [3]}})",
         "[D] The period from time is invalid: rule id 9", nullptr},
        {"period to", "9",
         R"({"mac": "aabbccddeeff", "cn": "1",
             "schedule": {"type": 1, "from": "8:00", "to": "nine", "weekly": [3]}})",
         "[D] The period to time is invalid: rule id 9", nullptr},
        {"type 2 silent", "9",
         R"({"mac": "aabbccddeeff", "cn": "1",
             "schedule": {"type": 2, "from": "8:00", "to": "9:00", "weekly": [3]}})",
         nullptr, "[D] The"},
    };
    pin(utc(2024, 1, 3, 12));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        log_capture log;
        std::string json = std::string("{\"") + c.key + "\": " + c.rule +
                           R"(, "1": {"mac": "AA-BB-CC-DD-EE-FF", "dn": "ok.example"}})";
        ASSERT_EQ(read(json), 0);
        auto r = rules();
        ASSERT_EQ(r.size(), 1u);
        EXPECT_EQ(r[0].id, 1);
        if (c.message != nullptr) {
            EXPECT_TRUE(log.contains(c.message));
        }
        if (c.absent != nullptr) {
            EXPECT_FALSE(log.contains(c.absent));
        }
    }
}

TEST_F(PctrlReader, MacRule) {
    const struct {
        const char* mac;
        int valid;
    } cases[] = {
        {"aabbccddeeff", 1},
        {"AA:BB:CC:DD:EE:FF", 1},
        {"aa-bb:cc-dd:ee-ff", 1},
        {"aab:b:cc:dd:ee:ff", 1},    // a separator after an odd digit still counts
        {"aabbccddeeff:", 1},        // a separator out of place ends the scan
        {"aabbccddeeff-junk", 1},
        {"aa:bb:cc:dd:ee", 0},       // ten digits
        {"aa:bb:cc:dd:ee:ff:00", 0},
        {":aa:bb:cc:dd:ee:ff", 0},   // a separator before any digit
        {"aa:bb:cc:dd:ee:fg", 0},
        {"aa bb cc dd ee ff", 0},    // other characters spoil the grouping
        {"aabbccddeeff ", 0},
        {"aabb:ccddeeff", 0},
        {"aa:bbccddeeff", 0},
        {"", 0},
    };
    for (const auto& c : cases) EXPECT_EQ(pctrl_mac_valid(c.mac), c.valid) << c.mac;
    EXPECT_EQ(pctrl_mac_valid(nullptr), 0);
}

struct range_case {
    const char* name;
    const char* from;
    const char* to;
    bool due;
    time_t want_from;
    time_t want_to;
};

// Pinned at noon on 1 January 2024.
TEST_F(PctrlReader, RangeScheduleIsDueWhenItCoversOrStartsToday) {
    const range_case cases[] = {
        {"equal to midnight", "2024-1-1 0:0", "2024-1-1 0:0", true, utc(2024, 1, 1), utc(2024, 1, 1)},
        {"spans the day", "2023-12-25 6:30", "2024-1-7 20:15", true, utc(2023, 12, 25, 6, 30),
         utc(2024, 1, 7, 20, 15)},
        {"starts late today", "2024-1-1 23:59", "2024-1-2 1:0", true, utc(2024, 1, 1, 23, 59),
         utc(2024, 1, 2, 1)},
        {"starts today whatever its end", "2024-1-1 18:00", "2023-1-1 0:0", true,
         utc(2024, 1, 1, 18), utc(2023, 1, 1)},
        {"ended yesterday 23:59", "2023-12-31 8:0", "2023-12-31 23:59", false, 0, 0},
        {"ends at midnight", "2023-12-31 8:0", "2024-1-1 0:0", false, 0, 0},
        {"starts tomorrow", "2024-1-2 0:0", "2024-1-3 0:0", false, 0, 0},
    };
    pin(utc(2024, 1, 1, 12));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(read(std::string(R"({"4": {"mac": "aabbccddeeff", "cn": "1",
                        "schedule": {"type": 0, "from": ")") +
                       c.from + R"(", "to": ")" + c.to + R"("}}})"),
                  0);
        auto r = rules();
        ASSERT_EQ(r.size(), c.due ? 1u : 0u);
        if (!c.due) continue;
        EXPECT_EQ(r[0].from, c.want_from);
        EXPECT_EQ(r[0].to, c.want_to);
    }
}

struct period_case {
    const char* name;
    time_t today;
    const char* days;  // the "weekly"/"monthly" members
    bool due;
};

TEST_F(PctrlReader, PeriodScheduleFollowsTheDayOfWeekOrMonth) {
    const period_case cases[] = {
        {"weekend on Saturday", utc(2024, 1, 6, 10), R"("weekly": [0, 6])", true},
        {"weekend on Sunday", utc(2024, 1, 7, 10), R"("weekly": [0, 6])", true},
        {"weekend on Wednesday", utc(2024, 1, 3, 10), R"("weekly": [0, 6])", false},
        {"fraction truncated", utc(2024, 1, 3, 10), R"("weekly": [3.9])", true},
        {"weekly wins over monthly", utc(2024, 1, 3, 10), R"("weekly": [1], "monthly": [3])", false},
        {"empty weekly falls back", utc(2024, 1, 3, 10), R"("weekly": [], "monthly": [3])", true},
        {"weekly not an array falls back", utc(2024, 1, 6, 10), R"("weekly": "6", "monthly": [6])",
         true},
        {"monthly other day", utc(2024, 1, 3, 10), R"("monthly": [4])", false},
        {"monthly 31st", utc(2024, 1, 31, 10), R"("monthly": [30, 31])", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        pin(c.today);
        ASSERT_EQ(read(std::string(R"({"8": {"mac": "aabbccddeeff", "dn": "x.example",
                        "schedule": {"type": 1, "from": "7:05", "to": "21:30", )") +
                       c.days + "}}}"),
                  0);
        auto r = rules();
        ASSERT_EQ(r.size(), c.due ? 1u : 0u);
        if (!c.due) continue;
        time_t day = c.today - c.today % 86400;
        EXPECT_EQ(r[0].from, day + 7 * 3600 + 5 * 60);
        EXPECT_EQ(r[0].to, day + 21 * 3600 + 30 * 60);
    }
}

TEST_F(PctrlReader, PeriodEndingBeforeItStartsIsNotWrapped) {
    pin(utc(2024, 1, 6, 10));
    ASSERT_EQ(read(R"({"2": {"mac": "aabbccddeeff", "cn": "5",
                      "schedule": {"type": 1, "from": "22:00", "to": "6:00", "weekly": [6]}}})"),
              0);
    auto r = rules();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].from, utc(2024, 1, 6, 22));
    EXPECT_EQ(r[0].to, utc(2024, 1, 6, 6));
}

// Times are local wall-clock times of the zone, daylight saving included.
TEST_F(PctrlReader, ScheduleTimesAreLocalAcrossDaylightSaving) {
    use_zone("Europe/Berlin");
    // 31 March 2024: clocks go from 02:00 CET to 03:00 CEST.
    pin(utc(2024, 3, 31, 10));
    ASSERT_EQ(read(R"({"1": {"mac": "aabbccddeeff", "cn": "5",
                      "schedule": {"type": 1, "from": "1:00", "to": "4:00", "weekly": [0]}},
                      "2": {"mac": "aabbccddeeff", "cn": "5",
                      "schedule": {"type": 0, "from": "2024-3-31 0:00", "to": "2024-7-1 10:00"}}})"),
              0);
    auto r = rules();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].from, utc(2024, 3, 31, 0));  // 01:00 CET
    EXPECT_EQ(r[0].to, utc(2024, 3, 31, 2));    // 04:00 CEST
    EXPECT_EQ(r[1].from, utc(2024, 3, 30, 23));
    EXPECT_EQ(r[1].to, utc(2024, 7, 1, 8));     // 10:00 CEST
}

TEST_F(PctrlReader, UnreadableEmptyOrNonJsonFileFails) {
    log_capture log;
    pin(utc(2024, 1, 1, 12));
    std::string missing = dir_.file("none.json");
    EXPECT_EQ(pctrl_read_rules(missing.c_str(), &holder_), -1);
    EXPECT_TRUE(log.contains("[E] Open file error: " + missing));

    ASSERT_EQ(read(R"({"1": {"mac": "aabbccddeeff", "cn": "1"}})"), 0);
    ASSERT_NE(holder_.list, nullptr);
    EXPECT_EQ(read(""), -1);
    EXPECT_EQ(holder_.list, nullptr);  // the earlier set is gone

    EXPECT_EQ(read("{\"1\": {\"mac\": "), -1);
    EXPECT_EQ(holder_.list, nullptr);
    EXPECT_TRUE(log.contains("[E] The following rule string is not JSON format:"));

    std::string big(PCTRL_RULE_FILE_MAX + 1, ' ');
    EXPECT_EQ(read(big), -1);
}

// Only regular files are read: a FIFO nobody writes would block the reader
// (the command thread or the midnight run) for ever, a device may never end.
TEST_F(PctrlReader, FilesThatAreNotRegularAreRefusedAtOnce) {
    log_capture log;
    pin(utc(2024, 1, 1, 12));
    const std::string fifo = dir_.file("rules.fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path : {fifo, dir_.path(), std::string("/dev/zero")}) {
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(pctrl_read_rules(path.c_str(), &holder_), -1) << path;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << path;
        EXPECT_TRUE(log.contains("[E] Open file error: " + path)) << path;
    }
}

TEST_F(PctrlReader, ArrayOrEmptyObjectGivesEmptySet) {
    pin(utc(2024, 1, 1, 12));
    for (const char* json : {"[]", R"([{"mac": "aabbccddeeff", "cn": "1"}])", "{}", "3"}) {
        SCOPED_TRACE(json);
        ASSERT_EQ(read(json), 0);
        ASSERT_NE(holder_.list, nullptr);
        EXPECT_EQ(list_count(holder_.list), 0u);
    }
}

TEST_F(PctrlReader, DumpWritesEveryRecord) {
    log_capture log;
    pctrl_dump_rules(nullptr);
    EXPECT_TRUE(log.contains("[D] Parental control does not initialize."));
    pctrl_dump_rules(&holder_);
    EXPECT_TRUE(log.contains("[D] Parental control has no rule input."));

    pin(utc(2024, 1, 6, 10));
    ASSERT_EQ(read(R"({"7": {"mac": "00:11:22:33:44:55", "cn": "3"},
                      "8": {"mac": "aabbccddeeff", "dn": "x.example",
                      "schedule": {"type": 1, "from": "0:00", "to": "1:00", "weekly": [6]}}})"),
              0);
    pctrl_dump_rules(&holder_);
    EXPECT_TRUE(log.contains("[D] ID\tMAC\t\t\tSTART\tEND\tCONTENT\tDOMAIN NAME"));
    EXPECT_TRUE(log.contains("[D] 7\t00:11:22:33:44:55\t0\t0\t3\tNULL"));
    EXPECT_TRUE(log.contains("[D] 8\taabbccddeeff\t" + std::to_string(utc(2024, 1, 6)) + "\t" +
                              std::to_string(utc(2024, 1, 6, 1)) + "\tNULL\tx.example"));
}

}  // namespace
