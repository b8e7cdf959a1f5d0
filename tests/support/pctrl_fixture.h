// Test helper shared by the rule reader and scheduler tests: UTC calendar
// times, the zone and clock restored after each test, rule files in a
// temporary directory.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>

#include "pctrl/pctrl_reader.h"
#include "test_util.h"
#include "util/clock.h"

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
        clock_set_source(nullptr);
        use_zone("UTC0");
    }
    // Holds the service's clock at `now` until the next pin or the end of the test.
    static void pin(time_t now) {
        pinned_.store(now);
        clock_set_source([] { return pinned_.load(); });
    }
    // Writes `json` as the rule file; returns its path.
    std::string rule_file(const std::string& json) {
        const std::string path = dir_.file("rules.json");
        EXPECT_TRUE(write_file(path, json));
        return path;
    }

    temp_dir dir_;

private:
    static inline std::atomic<int64_t> pinned_{0};
};

}  // namespace zor_test
