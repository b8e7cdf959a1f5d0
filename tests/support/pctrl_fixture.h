// Test helper shared by the rule reader and scheduler tests: UTC calendar
// times, the zone and rule clock restored after each test, rule files in a
// temporary directory.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "pctrl/pctrl_reader.h"
#include "test_util.h"

namespace zor_test {

// Seconds since the epoch of a UTC calendar time.
inline time_t utc(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
    struct tm tm = {.tm_sec = s, .tm_min = mi, .tm_hour = h, .tm_mday = d, .tm_mon = mo - 1,
                    .tm_year = y - 1900};
    return timegm(&tm);
}

inline void use_zone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
}

// Runs in UTC; the real clock and UTC come back after each test.
class pctrl_test : public ::testing::Test {
protected:
    void SetUp() override { use_zone("UTC0"); }
    void TearDown() override {
        pctrl_set_clock({});
        use_zone("UTC0");
    }
    static void pin(time_t now) { pctrl_set_clock([now] { return now; }); }
    // Writes `json` as the rule file; returns its path.
    std::string rule_file(const std::string& json) {
        const std::string path = dir_.file("rules.json");
        EXPECT_TRUE(write_file(path, json));
        return path;
    }

    temp_dir dir_;
};

}  // namespace zor_test
