#include "log.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <ctime>
#include <regex>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "syslog_sink.h"
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

mode_t mode_of(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

// log_format into a buffer of `cap` bytes.
std::string formatted(size_t cap, const char* fmt, ...) {
    std::string out(cap, '?');
    va_list ap;
    va_start(ap, fmt);
    log_format(out.data(), cap, fmt, ap);
    va_end(ap);
    return out.c_str();
}

// What syslog(3) sent while `body` ran in a child process whose /dev is
// `dir` (bound over it in a private mount namespace), so that its records
// reach the sink bound here at <dir>/log. Drained while the child runs: a
// full datagram queue would stall its sends. This process stays
// single-threaded for the fork. nullopt when the namespace cannot be made.
std::optional<std::vector<zor_test::syslog_record>> syslog_of(const std::string& dir,
                                                               const std::function<void()>& body) {
    zor_test::syslog_sink sink(dir + "/log");
    if (!sink.ok()) {
        ADD_FAILURE() << "cannot bind " << dir << "/log";
        return std::nullopt;
    }
    const pid_t child = fork();
    if (child == 0) {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(dir.c_str(), "/dev", nullptr, MS_BIND, nullptr) != 0)
            _exit(77);
        body();
        _exit(0);
    }
    int status = -1;
    const auto limit = std::chrono::steady_clock::now() + 30s;
    bool ended = false;
    while (!ended) {
        pollfd p{sink.fd(), POLLIN, 0};
        poll(&p, 1, 20);
        sink.drain();
        ended = waitpid(child, &status, WNOHANG) == child;
        if (!ended && std::chrono::steady_clock::now() > limit) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            ADD_FAILURE() << "the child did not end";
            ended = true;
        }
    }
    sink.drain();
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) return std::nullopt;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    std::vector<zor_test::syslog_record> got = sink.records();
    for (const auto& r : got) EXPECT_TRUE(r.ident == "zor_service" && r.pid == child) << r.raw;
    return got;
}

class LogTest : public ::testing::Test {
protected:
    zor_test::temp_dir dir;
    void TearDown() override {
        log_release();
        log_set(1, 0);
        timing_set(zor_timing{});
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
    timing_set({.log_clean = 10ms});
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

// What a conversion brings in never carries a control byte (shown as \xHH);
// the format's own bytes, CR LF included, stay; widths, precisions and the
// other conversions behave as printf's; a cut never leaves half an escape.
TEST(LogFormat, ControlBytesFromArgumentsAreShownAsHex) {
    struct row { std::string got, want; };
    const std::string numbers = [] {
        char b[128];
        snprintf(b, sizeof b, "%d %ld %lld %u %zu %hu %hhu %03d %x %5.1f %%", -1, -2L, -3LL, 4u, size_t{5},
                 static_cast<unsigned short>(6), static_cast<unsigned char>(7), 8, 255, 2.25);
        return std::string(b);
    }();
    const row rows[] = {
        {formatted(256, "%s", "a\nb\r\x01\x7f" "c"), "a\\x0Ab\\x0D\\x01\\x7Fc"},
        {formatted(256, "Backup %s to %s\r\n", "x\ny", "z"), "Backup x\\x0Ay to z\r\n"},
        {formatted(256, "\n%s\n", "listing"), "\nlisting\n"},
        {formatted(256, "%.*s|", 3, "ab\ncd"), "ab\\x0A|"},
        {formatted(256, "%-8s|%5s|%.2s", "a\tb", "ab", "xyz"), "a\\x09b  |   ab|xy"},
        {formatted(256, "%c%c", '\n', 'k'), "\\x0Ak"},
        {formatted(256, "%s", static_cast<const char*>(nullptr)), "(null)"},
        {formatted(256, "%d %ld %lld %u %zu %hu %hhu %03d %x %5.1f %%", -1, -2L, -3LL, 4u, size_t{5},
                   static_cast<unsigned short>(6), static_cast<unsigned char>(7), 8, 255, 2.25), numbers},
        {formatted(8, "%s", "abcdef\n"), "abcdef"},
        {formatted(8, "abcdefghij"), "abcdefg"},
    };
    for (size_t i = 0; i < std::size(rows); ++i) EXPECT_EQ(rows[i].got, rows[i].want) << "row " << i;

    char shown[16];
    log_format_text(shown, sizeof shown, "k\x1b[2J");
    EXPECT_STREQ(shown, "k\\x1B[2J");
}

// A key, path or reply body with line breaks stays on the one line of its
// call.
TEST_F(LogTest, OneCallIsOneLine) {
    start(6);
    log_i("abc", 1, "key: %s", "evil.example\r\n20240101 00:00:00 main/001[I] forged");
    ASSERT_EQ(lines().size(), 1u);
    EXPECT_NE(lines()[0].find("key: evil.example\\x0D\\x0A20240101"), std::string::npos) << lines()[0];
}

// An outside tool may move the file away between two lines (a log rotator
// without copytruncate): the moved file keeps its lines and the next line
// starts a fresh file, with no signal.
TEST_F(LogTest, FileMovedAwayIsStartedAfreshAtTheNextLine) {
    start(6);
    log_i("abc", 1, "before");
    ASSERT_EQ(rename(path().c_str(), (path() + ".1").c_str()), 0);
    log_i("abc", 2, "after");
    const std::string moved = read_file(path() + ".1");
    EXPECT_NE(moved.find("[I] before\r\n"), std::string::npos) << moved;
    EXPECT_EQ(moved.find("after"), std::string::npos) << moved;
    ASSERT_EQ(lines().size(), 1u);
    EXPECT_NE(lines()[0].find("[I] after"), std::string::npos) << lines()[0];
}

// The file and its backup are 0640 and the directories made 0750 whatever
// the umask: a daemon runs with umask 0.
TEST_F(LogTest, FilesAndDirectoriesGetExplicitModes) {
    const mode_t old_mask = umask(0);
    timing_set({.log_clean = 10ms});
    const std::string deep = dir.path() + "/made/log";
    start(6, deep);
    log_i("abc", 1, "first");
    umask(old_mask);
    const std::string file = deep + "/zorsrv.log";
    EXPECT_EQ(mode_of(file), 0640u);
    EXPECT_EQ(mode_of(dir.path() + "/made"), 0750u);
    EXPECT_EQ(mode_of(deep), 0750u);
    ASSERT_EQ(truncate(file.c_str(), 1048577), 0);
    ASSERT_TRUE(zor_test::eventually([&] { return file_exists(file + ".bk"); }));
    EXPECT_EQ(mode_of(file + ".bk"), 0640u);
}

// A symbolic link, a second hard link or a FIFO in the file's place is not
// written through (a link is said once on standard error); logging goes on
// and resumes into a file of its own once the intruder is gone.
TEST_F(LogTest, PlantedLinksAreNotFollowed) {
    const std::string target = dir.file("root-owned");
    ASSERT_TRUE(zor_test::write_file(target, "precious\n"));
    struct plant { const char* what; std::function<int()> make; size_t messages; };
    const plant plants[] = {
        {"symlink", [&] { return symlink(target.c_str(), path().c_str()); }, 1},
        {"hard link", [&] { return link(target.c_str(), path().c_str()); }, 3},
        {"fifo", [&] { return mkfifo(path().c_str(), 0666); }, 3},
    };
    start(6);
    for (const plant& p : plants) {
        unlink(path().c_str());
        ASSERT_EQ(p.make(), 0) << p.what;
        testing::internal::CaptureStderr();
        for (int i = 0; i < 3; ++i) log_i("abc", 1, "line %d", i);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(read_file(target), "precious\n") << p.what;
        size_t messages = 0;
        for (size_t at = 0; (at = err.find(path(), at)) != std::string::npos; ++at) ++messages;
        EXPECT_EQ(messages, p.messages) << p.what << ": " << err;
    }
    unlink(path().c_str());
    log_i("abc", 1, "back");
    ASSERT_EQ(lines().size(), 1u);
    EXPECT_EQ(mode_of(path()), 0640u);
}

// The syslog copy, seen at the socket syslog(3) writes to: every writer at
// facility daemon with its own priority, the file's text after the time
// stamp (outside control bytes as \xHH, the format's own line ends dropped
// and its other control bytes blanks), the file's threshold and log_set
// applied, with or without a file, kept across a new log_init and closed by
// log_release.
TEST_F(LogTest, SyslogCopyReachesTheSystemLogSocket) {
    const std::string file_dir = dir.file("files");
    auto got = syslog_of(dir.path(), [&] {
        log_set_syslog(1);
        log_set_level(7);
        for (auto* writer : {log_g, log_a, log_c, log_e, log_w, log_n, log_i, log_d}) writer("t.cpp", 1, "m");
        log_set_level(3);
        log_i("abc", 2, "above the threshold");
        log_set(0, 0);
        log_g("abc", 3, "silenced");
        log_set(1, 0);
        log_init(file_dir.c_str(), "zorsrv");
        log_set_level(6);
        log_e("abc", 4, "key: %s\r\n", "evil\nx\x1b[2J");
        log_w("abc", 5, "rule:\n%s\tend", "r");
        log_release();
        log_e("abc", 6, "after release");
    });
    if (!got) GTEST_SKIP() << "needs root and mount namespaces (unshare and mount refused)";
    struct want { int priority; std::string message; };
    const want wanted[] = {
        {3 * 8 + 5, "t.cp/001[G] m"}, {3 * 8 + 1, "t.cp/001[A] m"}, {3 * 8 + 2, "t.cp/001[C] m"},
        {3 * 8 + 3, "t.cp/001[E] m"}, {3 * 8 + 4, "t.cp/001[W] m"}, {3 * 8 + 5, "t.cp/001[N] m"},
        {3 * 8 + 6, "t.cp/001[I] m"}, {3 * 8 + 7, "t.cp/001[D] m"},
        {3 * 8 + 3, "abc/004[E] key: evil\\x0Ax\\x1B[2J"}, {3 * 8 + 4, "abc/005[W] rule: r end"},
    };
    std::vector<std::string> records, expected;
    for (const zor_test::syslog_record& r : *got)
        if (r.message.compare(0, 5, "/log/") != 0) records.push_back(std::to_string(r.priority) + " " + r.message);
    for (const want& w : wanted) expected.push_back(std::to_string(w.priority) + " " + w.message);
    EXPECT_EQ(records, expected);
    // The file got the same lines with their stamps and line ends.
    const std::string file = read_file(file_dir + "/zorsrv.log");
    EXPECT_NE(file.find(" abc/004[E] key: evil\\x0Ax\\x1B[2J\r\n\r\n"), std::string::npos) << file;
    EXPECT_NE(file.find(" abc/005[W] rule:\nr\tend\r\n"), std::string::npos) << file;
}

}  // namespace
