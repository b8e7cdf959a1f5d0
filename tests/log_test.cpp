#include "log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <functional>
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

bool wait_until(const std::function<bool()>& done) {
    for (auto end = std::chrono::steady_clock::now() + 10s; !done(); std::this_thread::sleep_for(5ms))
        if (std::chrono::steady_clock::now() > end) return false;
    return true;
}

off_t file_size(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

std::string dumped(const void* data, size_t len) {
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    hexdump(out, data, len);
    fclose(out);
    std::string s(text, size);
    free(text);
    return s;
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
TEST_F(LogTest, LineCarriesStampShortNameLineNumberTagAndCrLf) {
    struct { const char* file; int line; const char* shown; const char* number; } cases[] = {
        {"abc", 0, "abc", "000"}, {"src/log.cpp", 7, "/log", "007"}, {"/build/src/main.cpp", 42, "main", "042"},
        {"src/qmx_zor.cpp", 381, "_zor", "381"}, {"ab.cpp", 1234, "ab.c", "1234"}, {"abcdefgh", 1, "efgh", "001"},
        {"a.c", 1, "a.c", "001"}, {".hidden", 1, ".hid", "001"}, {"x/y.tar.gz", 1, ".tar", "001"}};
    start(6);
    const time_t before = time(nullptr);
    for (const auto& c : cases) log_i(c.file, c.line, "hello %s", c.file);
    const int here = __LINE__; LOG_I("via macro");
    log_i("abc", 1, "%s", std::string(3000, 'x').c_str());
    std::vector<std::string> got = lines();
    ASSERT_EQ(got.size(), std::size(cases) + 2);
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
    EXPECT_EQ(got.back().size(), 1023u);
}

TEST_F(LogTest, EachWriterWritesOnlyFromItsLevelUp) {
    auto tags = [&] {
        for (auto* writer : {log_g, log_a, log_c, log_e, log_w, log_n, log_i, log_d}) writer("t.cpp", 1, "m");
        std::string t;
        std::smatch m;
        for (const std::string& line : lines()) t += std::regex_match(line, m, kLine) ? m[4].str() : "?";
        log_release();
        unlink(path().c_str());
        return t;
    };
    for (uint32_t level = 0; level < 8; ++level) {
        start(level);
        EXPECT_EQ(tags(), std::string("GACEWNID").substr(0, level + 1)) << level;
    }
    start(0xFFFFFFFFu);  // compared unsigned: the top level lets everything through
    EXPECT_EQ(tags(), "GACEWNID");
    log_init(dir.path().c_str(), "zorsrv");  // default 6
    EXPECT_EQ(tags(), "GACEWNI");
}

// 16 bytes a line, decimal offsets, text column with dots, at most 2048 bytes.
TEST(Hexdump, FormatAndBound) {
    EXPECT_EQ(dumped("ABCDEFGHIJKLMNOP\n", 17),
              "0000: 41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50     ABCDEFGHIJKLMNOP\n"
              "0016: 0a " + std::string(45, ' ') + "    .\n");
    std::vector<unsigned char> data(3000);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i);
    std::string dump = dumped(data.data(), data.size());
    EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 128);
    EXPECT_NE(dump.find("\n2032: f0 f1 "), std::string::npos);
    EXPECT_EQ(dump.substr(0, dump.find('\n')).substr(6 + 48 + 4), std::string(16, '.'));
    EXPECT_EQ(dumped(data.data(), 0) + dumped(nullptr, 10), "");
}

// Dumps and string lists: "stamp [T] ..." lines ending in LF, shown when their
// level is at most the threshold, not silenced by log_set; the level writers are.
TEST_F(LogTest, DumpsAndStringListsFollowTheirOwnRules) {
    start(6);
    unsigned char key[32];
    for (int i = 0; i < 32; ++i) key[i] = static_cast<unsigned char>(0x20 + i);
    const char* words[] = {"insmod", "zor.ko", "port=53"};
    log_hex(7, "Key", key, sizeof key);  // above the threshold
    log_hex(14, "wrapped", key, 1);
    log_strings(7, 3, words);
    log_strings(6, 0, words);
    log_strings(6, 3, nullptr);
    log_set(0, 0);
    log_g("abc", 1, "hidden");
    log_hex(3, "IV", key, 1);
    log_strings(6, 3, words);
    log_set(1, 0);
    log_set_level(100);
    std::vector<unsigned char> big(4096, 0x55);
    log_hex(8, "big", big.data(), big.size());  // tag from 8 & 7
    std::string text = std::regex_replace(read_file(path()), std::regex(R"(\d{8} \d{2}:\d{2}:\d{2} \[)"), "<stamp>[");
    text = std::regex_replace(text, std::regex(R"(\d{8} [\d:]{8} /log/\d+\[D\] [^\n]*\r\n)"), "");  // the cleaner's own
    EXPECT_EQ(text, "<stamp>[E] IV\n" + dumped(key, 1) + "<stamp>[I]  insmod zor.ko port=53\n<stamp>[G] big\n" +
                        dumped(big.data(), big.size()));
}

TEST_F(LogTest, ConsoleCopyAndUnopenableFile) {
    start(6);
    log_set(1, 1);
    testing::internal::CaptureStdout();
    log_w("abc", 12, "to both");
    std::string out = testing::internal::GetCapturedStdout();
    log_set(1, 0);
    EXPECT_EQ(out.substr(17), " abc/012[W] to both\r\n");
    EXPECT_EQ(lines().at(0).substr(17), " abc/012[W] to both");
    std::string blocker = dir.file("plain");
    ASSERT_TRUE(zor_test::write_file(blocker, "x"));
    log_init(blocker.c_str(), "zorsrv");
    testing::internal::CaptureStderr();
    log_e("abc", 1, "lost");
    log_e("abc", 2, "lost too");
    std::string message = "failed to open log file " + blocker + "/zorsrv.log! (" + blocker + ",zorsrv)\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), message + message);
}

// Missing directories are made; a second init switches files; release is safe
// any time, drops later lines and returns promptly with the product's period.
TEST_F(LogTest, LifecycleCallsAreSafeAnyTime) {
    log_release();
    log_free();
    log_i("abc", 1, "before init");
    log_set_level(7);  // no context: nothing to set, nothing to crash
    EXPECT_EQ(log_get(), nullptr);
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
    FILE* f = fopen(path().c_str(), "a");
    ASSERT_NE(f, nullptr);
    fputc('z', f);
    fclose(f);
    ASSERT_TRUE(wait_until([&] { return file_exists(path() + ".bk"); }));
    EXPECT_EQ(file_size(path() + ".bk"), 1048577);
    const std::string backup_line = "Backup " + path() + " to " + path() + ".bk\r\n\r\n";
    EXPECT_TRUE(wait_until([&] { return read_file(path()).find(backup_line) != std::string::npos; }));
    EXPECT_LT(file_size(path()), 4096);
}

// The path is known from the first line on; an old backup is replaced.
TEST_F(LogTest, RotationWaitsForTheFirstLineAndKeepsOneBackup) {
    ASSERT_TRUE(zor_test::write_file(path(), std::string(1048677, 'o')));
    ASSERT_TRUE(zor_test::write_file(path() + ".bk", "old backup"));
    log_set_clean_interval(10ms);
    start(6);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(read_file(path() + ".bk"), "old backup");
    log_i("abc", 1, "now the path is known");
    EXPECT_TRUE(wait_until([&] { return file_size(path() + ".bk") > 1048677; }));
}

TEST_F(LogTest, FailedRenameThrowsTheOversizedLogAway) {
    const std::string backup = path() + ".bk";  // a non-empty directory cannot be replaced
    ASSERT_EQ(mkdir(backup.c_str(), 0755), 0);
    ASSERT_TRUE(zor_test::write_file(backup + "/keep", "x"));
    log_set_clean_interval(10ms);
    start(7);
    log_i("abc", 1, "first");
    ASSERT_EQ(truncate(path().c_str(), 2 * 1048576), 0);
    const std::string failed = "Backup failed, " + path() + " removed";
    ASSERT_TRUE(wait_until([&] { return read_file(path()).find(failed) != std::string::npos; }));
    EXPECT_LT(file_size(path()), 4096);
    EXPECT_TRUE(file_exists(backup + "/keep"));
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
