#include "log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "test_util.h"

namespace {

using namespace std::chrono_literals;
using zor_test::file_exists;
using zor_test::read_file;

const std::regex kLine(R"(^(\d{8} \d{2}:\d{2}:\d{2}) (.{1,4})/(\d{3,})\[([GACEWNID])\] (.*)$)");

off_t file_size(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

class LogTest : public ::testing::Test {
protected:
    zor_test::temp_dir dir;
    void TearDown() override {
        log_release();
        log_set(1, 0);
        log_set_clean_interval(60s);
    }
    std::string path() const { return dir.file("zorsrv.log"); }
    void start(uint32_t level, const std::string& where = "") {
        log_init(where.empty() ? dir.path().c_str() : where.c_str(), "zorsrv");
        log_set_level(level);
    }
    // The lines without CR LF, leaving out the logging module's own trace
    // lines (its cleaner may write them at any moment).
    std::vector<std::string> lines() const {
        std::vector<std::string> out;
        std::string text = read_file(path());
        for (size_t at = 0, end; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2) {
            std::string line = text.substr(at, end - at);
            if (line.size() > 23 && !(line.compare(18, 5, "/log/") == 0 && line.find("[D] ") != std::string::npos))
                out.push_back(line);
        }
        return out;
    }
};

// "stamp name/LLL[T] message" CR LF: local time, four characters of the file
// name by the dot rule, at least three digits of line number, cut at 1023.
// The default level, 6, leaves out only the debug writer.
TEST_F(LogTest, LineCarriesStampShortNameLineNumberTagAndCrLf) {
    struct { const char* file; int line; const char* shown; const char* number; } cases[] = {
        {"abc", 0, "abc", "000"}, {"src/log.cpp", 7, "/log", "007"}, {"/build/src/main.cpp", 42, "main", "042"},
        {"ab.cpp", 1234, "ab.c", "1234"}, {"x/y.tar.gz", 1, ".tar", "001"}};
    log_init(dir.path().c_str(), "zorsrv");
    const time_t before = time(nullptr);
    for (const auto& c : cases) log_i(c.file, c.line, "hello %s", c.file);
    const int here = __LINE__; LOG_I("via macro");
    log_i("abc", 1, "%s", std::string(3000, 'x').c_str());
    for (auto* writer : {log_g, log_a, log_c, log_e, log_w, log_n, log_i, log_d}) writer("t.cpp", 1, "m");
    std::vector<std::string> got = lines();
    ASSERT_EQ(got.size(), std::size(cases) + 2 + 7);
    EXPECT_EQ(read_file(path()).substr(read_file(path()).size() - 2), "\r\n");
    for (size_t i = 0; i < std::size(cases); ++i) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(got[i], m, kLine)) << got[i];
        EXPECT_EQ(m[2].str() + "/" + m[3].str() + m[4].str() + m[5].str(),
                  std::string(cases[i].shown) + "/" + cases[i].number + "Ihello " + cases[i].file);
        struct tm stamp = {};
        ASSERT_NE(strptime(m[1].str().c_str(), "%Y%m%d %H:%M:%S", &stamp), nullptr);
        stamp.tm_isdst = -1;
        EXPECT_LE(std::abs(difftime(mktime(&stamp), before)), 120.0);
    }
    char macro_line[64];
    snprintf(macro_line, sizeof macro_line, " test/%03d[I] via macro", here);
    EXPECT_EQ(got[std::size(cases)].substr(17), macro_line);
    EXPECT_EQ(got[std::size(cases) + 1].size(), 1023u);
    std::string tags;
    std::smatch m;
    for (size_t i = std::size(cases) + 2; i < got.size(); ++i) tags += std::regex_match(got[i], m, kLine) ? m[4].str() : "?";
    EXPECT_EQ(tags, "GACEWNI");
}

// Missing directories are made; a second init switches files; release is safe
// any time, drops later lines and returns promptly with the product's period.
TEST_F(LogTest, LifecycleCallsAreSafeAnyTime) {
    log_i("abc", 1, "before init");
    const std::string deep = dir.path() + "/a/b/c/";
    start(6, deep);
    log_i("abc", 1, "first");
    start(6);
    log_i("abc", 1, "second");
    std::this_thread::sleep_for(20ms);  // the cleaner is now waiting out its period
    auto begin = std::chrono::steady_clock::now();
    log_release();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
    log_release();
    log_g("abc", 1, "after release");
    EXPECT_EQ(log_get(), nullptr);
    EXPECT_NE(read_file(deep + "zorsrv.log").find("[I] first\r\n"), std::string::npos);
    EXPECT_EQ(read_file(deep + "zorsrv.log").find("second"), std::string::npos);
    ASSERT_EQ(lines().size(), 1u);
    EXPECT_NE(lines()[0].find("[I] second"), std::string::npos);
}

TEST_F(LogTest, FileOfExactly1MiBStaysAndOneByteMoreIsRotated) {
    log_set_clean_interval(10ms);
    start(6);  // the cleaner's own start line must not grow the file
    log_i("abc", 1, "first");
    ASSERT_EQ(truncate(path().c_str(), 1048576), 0);
    std::this_thread::sleep_for(300ms);  // thirty periods
    EXPECT_FALSE(file_exists(path() + ".bk"));
    EXPECT_EQ(file_size(path()), 1048576);
    log_set_level(7);
    ASSERT_EQ(truncate(path().c_str(), 1048577), 0);
    ASSERT_TRUE(zor_test::eventually([&] { return file_exists(path() + ".bk"); }));
    EXPECT_EQ(file_size(path() + ".bk"), 1048577);
    const std::string backup_line = "Backup " + path() + " to " + path() + ".bk\r\n\r\n";
    EXPECT_TRUE(zor_test::eventually([&] { return read_file(path()).find(backup_line) != std::string::npos; }));
    EXPECT_LT(file_size(path()), 4096);
}

TEST_F(LogTest, ConcurrentWritersNeverInterleaveLines) {
    start(6);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int n = 0; n < 300; ++n) log_i("abc", t, "%d-%d-%s", t, n, std::string(200, 'a' + t).c_str());
        });
    for (std::thread& th : threads) th.join();
    std::set<std::string> seen;
    const std::regex message(R"((\d)-\d+-(a{200}|b{200}|c{200}|d{200}))");
    for (const std::string& line : lines()) {
        std::smatch m, body;
        const std::string text = std::regex_match(line, m, kLine) ? m[5].str() : line;
        EXPECT_TRUE(std::regex_match(text, body, message) && body[2].str()[0] == 'a' + std::stoi(body[1])) << line;
        seen.insert(text);
    }
    EXPECT_EQ(seen.size(), 1200u);
}

}  // namespace
