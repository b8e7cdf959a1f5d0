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

bool wait_until(const std::function<bool()>& done, std::chrono::milliseconds limit = 10s) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

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
    // The lines of the log file without CR LF, leaving out the logging
    // module's own trace lines (its cleaner may write them at any moment).
    std::vector<std::string> lines(const std::string& file = "") const {
        std::vector<std::string> out;
        std::string text = read_file(file.empty() ? path() : file);
        size_t at = 0;
        for (size_t end; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2) {
            std::string line = text.substr(at, end - at);
            bool own_trace = line.size() > 18 && line.compare(18, 5, "/log/") == 0 &&
                             line.find("[D] ") != std::string::npos;
            if (own_trace) continue;
            if (!line.empty()) out.push_back(line);
        }
        return out;
    }
    void write_all_levels() {
        log_g("t.cpp", 1, "m");
        log_a("t.cpp", 1, "m");
        log_c("t.cpp", 1, "m");
        log_e("t.cpp", 1, "m");
        log_w("t.cpp", 1, "m");
        log_n("t.cpp", 1, "m");
        log_i("t.cpp", 1, "m");
        log_d("t.cpp", 1, "m");
    }
    std::string tags_written() const {
        std::string tags;
        std::smatch m;
        for (const std::string& line : lines())
            if (std::regex_match(line, m, kLine)) tags += m[4].str();
        return tags;
    }
};

TEST_F(LogTest, LineCarriesLocalStampShortNameLineNumberTagAndCrLf) {
    start(6);
    time_t before = time(nullptr);
    log_i("src/qmx_zor.cpp", 381, "hello %d", 5);
    std::string raw = read_file(path());
    ASSERT_GE(raw.size(), 2u);
    EXPECT_EQ(raw.substr(raw.size() - 2), "\r\n");
    std::vector<std::string> got = lines();
    ASSERT_EQ(got.size(), 1u);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(got[0], m, kLine)) << got[0];
    EXPECT_EQ(m[2].str(), "_zor");
    EXPECT_EQ(m[3].str(), "381");
    EXPECT_EQ(m[4].str(), "I");
    EXPECT_EQ(m[5].str(), "hello 5");
    struct tm stamp = {};
    ASSERT_NE(strptime(m[1].str().c_str(), "%Y%m%d %H:%M:%S", &stamp), nullptr);
    stamp.tm_isdst = -1;
    EXPECT_LE(std::abs(difftime(mktime(&stamp), before)), 120.0);
}

TEST_F(LogTest, ShortNameIsFourCharactersChosenByTheDotRule) {
    struct name_case {
        const char* file;
        const char* shown;
    };
    const name_case cases[] = {
        {"abc", "abc"},          {"src/log.cpp", "/log"},  {"/build/src/main.cpp", "main"},
        {"src/qmx_zor.cpp", "_zor"}, {"main.cpp", "main"}, {"ab.cpp", "ab.c"},
        {"abcdefgh", "efgh"},    {"a.c", "a.c"},           {".hidden", ".hid"},
        {"x/y.tar.gz", ".tar"},
    };
    start(6);
    for (const name_case& c : cases) log_i(c.file, 10, "%s", c.file);
    std::vector<std::string> got = lines();
    ASSERT_EQ(got.size(), std::size(cases));
    for (size_t i = 0; i < got.size(); ++i) {
        SCOPED_TRACE(cases[i].file);
        std::smatch m;
        ASSERT_TRUE(std::regex_match(got[i], m, kLine)) << got[i];
        EXPECT_EQ(m[2].str(), cases[i].shown);
        EXPECT_EQ(m[5].str(), cases[i].file);
    }
}

TEST_F(LogTest, MacrosPassTheCallSite) {
    start(6);
    const int here = __LINE__; LOG_I("via macro");
    std::vector<std::string> got = lines();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_NE(got[0].find(" test/" + std::to_string(here) + "[I] via macro"), std::string::npos)
        << got[0];
}

TEST_F(LogTest, LineNumbersHaveAtLeastThreeDigits) {
    start(6);
    for (int n : {0, 7, 42, 1234}) log_i("abc", n, "n");
    std::vector<std::string> got = lines();
    ASSERT_EQ(got.size(), 4u);
    const char* expected[] = {"abc/000[I]", "abc/007[I]", "abc/042[I]", "abc/1234[I]"};
    for (size_t i = 0; i < 4; ++i) EXPECT_NE(got[i].find(expected[i]), std::string::npos) << got[i];
}

TEST_F(LogTest, EachWriterWritesOnlyFromItsLevelUp) {
    const char* expected[] = {"G", "GA", "GAC", "GACE", "GACEW", "GACEWN", "GACEWNI", "GACEWNID"};
    for (uint32_t level = 0; level < 8; ++level) {
        SCOPED_TRACE(level);
        start(level);
        write_all_levels();
        EXPECT_EQ(tags_written(), expected[level]);
        log_release();
        unlink(path().c_str());
    }
    start(0xFFFFFFFFu);  // compared unsigned: the top level lets everything through
    write_all_levels();
    EXPECT_EQ(tags_written(), "GACEWNID");
}

TEST_F(LogTest, DefaultLevelKeepsInformationAndDropsDebug) {
    log_init(dir.path().c_str(), "zorsrv");
    log_i("abc", 1, "info");
    log_d("abc", 1, "debug");
    EXPECT_EQ(tags_written(), "I");
}

TEST_F(LogTest, DisablingSilencesEvenAlwaysLinesButNotDumps) {
    start(0);
    log_set(0, 0);
    log_g("abc", 1, "hidden");
    const char* parts[] = {"p", "q"};
    log_strings(0, 2, parts);
    unsigned char byte = 0x41;
    log_hex(0, "dump", &byte, 1);
    log_set(1, 0);
    log_g("abc", 1, "shown");
    std::string text = read_file(path());
    EXPECT_EQ(text.find("hidden"), std::string::npos);
    EXPECT_NE(text.find("shown"), std::string::npos);
    EXPECT_NE(text.find(" [G]  p q\n"), std::string::npos);
    EXPECT_NE(text.find(" [G] dump\n0000: 41 "), std::string::npos);
}

TEST_F(LogTest, OverlongMessageIsCutAt1023Characters) {
    start(6);
    std::string big(3000, 'x');
    log_i("abc", 1, "%s", big.c_str());
    std::vector<std::string> got = lines();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].size(), 1023u);
    EXPECT_EQ(got[0].back(), 'x');
}

TEST(Hexdump, SeventeenBytesGiveAFullAndAPaddedLine) {
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    ASSERT_NE(out, nullptr);
    const char data[] = "ABCDEFGHIJKLMNOP\n";
    hexdump(out, data, 17);
    fclose(out);
    std::string expected =
        "0000: 41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50     ABCDEFGHIJKLMNOP\n"
        "0016: 0a " + std::string(45, ' ') + "    .\n";
    EXPECT_EQ(std::string(text, size), expected);
    free(text);
}

TEST(Hexdump, OffsetsAreDecimalAndTheDumpStopsAt2048Bytes) {
    std::vector<unsigned char> data(3000);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i);
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    ASSERT_NE(out, nullptr);
    hexdump(out, data.data(), data.size());
    hexdump(out, data.data(), 0);
    hexdump(out, nullptr, 10);
    fclose(out);
    std::string dump(text, size);
    free(text);
    size_t count = 0;
    for (char c : dump) count += c == '\n';
    EXPECT_EQ(count, 128u);
    EXPECT_NE(dump.find("\n0016: 10 11 "), std::string::npos);
    EXPECT_NE(dump.find("\n2032: f0 f1 "), std::string::npos);
    EXPECT_EQ(dump.find("2048:"), std::string::npos);
    // Line 0 shows 0x00..0x0f: none printable, so the text column is dots.
    EXPECT_EQ(dump.substr(0, dump.find('\n')).substr(6 + 48 + 4), std::string(16, '.'));
}

TEST_F(LogTest, HexWriterTitlesWithTheLevelTagAndEndsLinesInLf) {
    start(6);
    unsigned char key[32];
    for (int i = 0; i < 32; ++i) key[i] = static_cast<unsigned char>(0x20 + i);
    log_hex(7, "Key", key, sizeof key);  // above the threshold
    log_hex(3, "IV", key, 16);
    log_hex(14, "wrapped", key, 1);      // 14 > 6: dropped
    std::string text = read_file(path());
    EXPECT_EQ(text.find("Key"), std::string::npos);
    EXPECT_EQ(text.find("wrapped"), std::string::npos);
    std::smatch m;
    std::regex title(R"(^\d{8} \d{2}:\d{2}:\d{2} \[E\] IV\n0000: 20 21 )");
    EXPECT_TRUE(std::regex_search(text, m, title)) << text;
    EXPECT_EQ(text.find('\r'), std::string::npos);
    log_set_level(100);
    std::vector<unsigned char> big(4096, 0x55);
    log_hex(8, "big", big.data(), big.size());  // tag from 8 & 7
    text = read_file(path());
    EXPECT_NE(text.find(" [G] big\n"), std::string::npos);
    EXPECT_NE(text.find("\n2032: 55"), std::string::npos);
    EXPECT_EQ(text.find("\n2048: "), std::string::npos);
}

TEST_F(LogTest, StringListWriterJoinsWithBlanksOnOneLine) {
    start(6);
    const char* words[] = {"insmod", "zor.ko", "port=53"};
    log_strings(6, 3, words);
    log_strings(6, 0, words);
    log_strings(6, 3, nullptr);
    log_strings(7, 3, words);
    std::string text = read_file(path());
    std::regex line(R"(^\d{8} \d{2}:\d{2}:\d{2} \[I\]  insmod zor.ko port=53\n$)");
    EXPECT_TRUE(std::regex_match(text, line)) << text;
}

TEST_F(LogTest, ConsoleFlagCopiesLevelLinesToStandardOutput) {
    start(6);
    log_set(1, 1);
    testing::internal::CaptureStdout();
    log_w("abc", 12, "to both");
    std::string out = testing::internal::GetCapturedStdout();
    log_set(1, 0);
    EXPECT_NE(out.find("abc/012[W] to both\r\n"), std::string::npos) << out;
    EXPECT_NE(read_file(path()).find("abc/012[W] to both\r\n"), std::string::npos);
}

TEST_F(LogTest, UnopenableFileIsReportedOnStandardErrorForEveryLine) {
    std::string blocker = dir.file("plain");
    ASSERT_TRUE(zor_test::write_file(blocker, "x"));
    log_init(blocker.c_str(), "zorsrv");
    testing::internal::CaptureStderr();
    log_e("abc", 1, "lost");
    log_e("abc", 2, "lost too");
    std::string err = testing::internal::GetCapturedStderr();
    std::string message =
        "failed to open log file " + blocker + "/zorsrv.log! (" + blocker + ",zorsrv)\n";
    EXPECT_EQ(err, message + message);
}

TEST_F(LogTest, MissingDirectoryChainIsCreated) {
    std::string deep = dir.path() + "/a/b/c/";
    start(6, deep);
    log_i("abc", 1, "deep");
    EXPECT_NE(read_file(deep + "zorsrv.log").find("deep"), std::string::npos);
    struct stat st;
    ASSERT_EQ(stat((dir.path() + "/a/b").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
}

TEST_F(LogTest, ReleaseIsSafeAnyTimeAndLaterLinesAreDropped) {
    log_release();
    log_free();
    EXPECT_EQ(log_get(), nullptr);
    log_i("abc", 1, "before init");
    start(6);
    EXPECT_NE(log_get(), nullptr);
    log_i("abc", 1, "kept");
    log_release();
    log_release();
    EXPECT_EQ(log_get(), nullptr);
    log_g("abc", 1, "after release");
    log_set_level(7);  // no context: nothing to set, nothing to crash
    std::vector<std::string> got = lines();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_NE(got[0].find("kept"), std::string::npos);
}

TEST_F(LogTest, InitWhileRunningSwitchesToTheNewFile) {
    zor_test::temp_dir other;
    start(6);
    log_i("abc", 1, "first");
    start(6, other.path());
    log_i("abc", 1, "second");
    std::string old_text = read_file(path());
    std::string new_text = read_file(other.file("zorsrv.log"));
    EXPECT_NE(old_text.find("first"), std::string::npos);
    EXPECT_EQ(old_text.find("second"), std::string::npos);
    EXPECT_NE(new_text.find("second"), std::string::npos);
}

TEST_F(LogTest, ReleaseReturnsPromptlyWithTheProductPeriod) {
    log_set_clean_interval(60s);
    start(6);
    std::this_thread::sleep_for(20ms);  // the cleaner is now waiting out its period
    auto begin = std::chrono::steady_clock::now();
    log_release();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
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
    std::string backup_line = "Backup " + path() + " to " + path() + ".bk\r\n\r\n";
    EXPECT_TRUE(wait_until([&] { return read_file(path()).find(backup_line) != std::string::npos; }));
    log_i("abc", 1, "fresh");
    EXPECT_LT(file_size(path()), 4096);
}

TEST_F(LogTest, RotationKeepsOnlyOneBackup) {
    ASSERT_TRUE(zor_test::write_file(path() + ".bk", "old backup"));
    log_set_clean_interval(10ms);
    start(6);
    log_i("abc", 1, "first");
    ASSERT_EQ(truncate(path().c_str(), 1048577 + 100), 0);
    ASSERT_TRUE(wait_until([&] { return file_size(path() + ".bk") == 1048577 + 100; }));
    EXPECT_EQ(read_file(path() + ".bk").find("old backup"), std::string::npos);
}

TEST_F(LogTest, NothingIsRotatedBeforeTheFirstLine) {
    ASSERT_TRUE(zor_test::write_file(path(), std::string(1048577, 'o')));
    log_set_clean_interval(10ms);
    start(6);
    std::this_thread::sleep_for(200ms);
    EXPECT_FALSE(file_exists(path() + ".bk"));
    log_i("abc", 1, "now the path is known");
    EXPECT_TRUE(wait_until([&] { return file_exists(path() + ".bk"); }));
}

TEST_F(LogTest, FailedRenameThrowsTheOversizedLogAway) {
    // A backup name taken by a non-empty directory cannot be replaced.
    std::string backup = path() + ".bk";
    ASSERT_EQ(mkdir(backup.c_str(), 0755), 0);
    ASSERT_TRUE(zor_test::write_file(backup + "/keep", "x"));
    log_set_clean_interval(10ms);
    start(7);
    log_i("abc", 1, "first");
    ASSERT_EQ(truncate(path().c_str(), 2 * 1048576), 0);
    std::string failed = "Backup failed, " + path() + " removed";
    ASSERT_TRUE(wait_until([&] { return read_file(path()).find(failed) != std::string::npos; }));
    EXPECT_LT(file_size(path()), 4096);
    EXPECT_TRUE(file_exists(backup + "/keep"));
}

TEST_F(LogTest, ConcurrentWritersNeverInterleaveLines) {
    start(6);
    constexpr int kThreads = 4;
    constexpr int kLines = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            std::string body(200, static_cast<char>('a' + t));
            for (int n = 0; n < kLines; ++n) log_i("abc", t, "%d-%d-%s", t, n, body.c_str());
        });
    }
    for (std::thread& th : threads) th.join();
    std::vector<std::string> got = lines();
    ASSERT_EQ(got.size(), static_cast<size_t>(kThreads * kLines));
    std::set<std::pair<int, int>> seen;
    const std::regex message(R"((\d)-(\d+)-([a-d]{200}))");
    for (const std::string& line : got) {
        std::smatch m, body;
        ASSERT_TRUE(std::regex_match(line, m, kLine)) << line;
        std::string text = m[5].str();
        ASSERT_TRUE(std::regex_match(text, body, message)) << line;
        int t = std::stoi(body[1].str());
        EXPECT_EQ(body[3].str(), std::string(200, static_cast<char>('a' + t)));
        seen.insert({t, std::stoi(body[2].str())});
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLines));
}

}  // namespace
