// Kernel control command lines: exact texts, buffer cuts, skipped verdicts,
// shell safety of the keys.
#include "zor_ctrl.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "cmd_recorder.h"
#include "test_util.h"
#include "util/cmd_runner.h"

namespace {

const std::string kGuard = "[ -f /proc/zor/ctrl ] && echo \"";
const std::string kTail = "\" > /proc/zor/ctrl";

std::string line_of(const std::string& text) { return kGuard + text + kTail; }

TEST(ZorCtrl, SendsExactLines) {
    cmd_recorder rec;
    EXPECT_EQ(zor_notify_u2k(20, "www.example.com"), 0);
    EXPECT_EQ(zor_notify_u2k(21, "192.168.1.20"), 0);
    EXPECT_EQ(zor_notify_db_group(2, 20, "ads.example.net", 86400, 3, 17), 0);
    EXPECT_EQ(zor_notify_db_group(1, 22, "10.0.0.1", 7200, 0, 0), 0);
    EXPECT_EQ(rec.lines(), (std::vector<std::string>{
                               line_of("db key2group u2k 20 www.example.com"),
                               line_of("db key2group u2k 21 192.168.1.20"),
                               line_of("db key2group update 2 20 ads.example.net 86400 3 17"),
                               line_of("db key2group update 1 22 10.0.0.1 7200 0 0"),
                           }));
    EXPECT_EQ(zor_ctrl_pc_clean_line(), line_of("pc rule clean"));
    EXPECT_EQ(zor_ctrl_pc_add_line(2, "00:11:22:AA:BB:CC", "games.example", 1700000000ul,
                                   1700003600ul),
              line_of("pc rule add 2 00:11:22:AA:BB:CC games.example 1700000000 1700003600"));
    EXPECT_EQ(zor_ctrl_server_port_line(4242), line_of("env server_port 4242"));
}

// "[<time>] <line>" for u2k, "[<time>] zor_notify_db_group <line>" for an
// update, at debug level; a skipped update writes nothing; a cut line is
// logged as cut.
TEST(ZorCtrl, SentLinesAreLoggedAtDebugLevel) {
    zor_test::log_capture log;
    cmd_recorder rec;
    zor_notify_u2k(20, "logged.example");
    zor_notify_db_group(2, 21, "10.9.8.7", 86400, 1, 2);
    zor_notify_db_group(2, 21, "skipped.example", 86400, 1, -1);
    std::string long_key(300, 'z');
    zor_notify_u2k(20, long_key.c_str());
    auto with = [&](const std::string& text) {
        std::vector<std::string> out;
        for (const std::string& l : log.lines())
            if (l.find(text) != std::string::npos) out.push_back(l);
        return out;
    };
    auto u2k = with(line_of("db key2group u2k 20 logged.example"));
    ASSERT_EQ(u2k.size(), 1u);
    EXPECT_NE(u2k[0].find("[D] ["), std::string::npos) << u2k[0];
    auto upd = with("] zor_notify_db_group " + line_of("db key2group update 2 21 10.9.8.7 86400 1 2"));
    ASSERT_EQ(upd.size(), 1u);
    EXPECT_NE(upd[0].find("[D] ["), std::string::npos) << upd[0];
    EXPECT_TRUE(with("skipped.example").empty());
    const std::string cut = (kGuard + "db key2group u2k 20 " + long_key).substr(0, 255);
    auto cut_lines = with(cut);
    ASSERT_EQ(cut_lines.size(), 1u);
    EXPECT_EQ(cut_lines[0].substr(cut_lines[0].size() - cut.size()), cut);
    EXPECT_EQ(rec.lines().size(), 2u);
}

TEST(ZorCtrl, NegativeGroupOrSubGroupSendsNothing) {
    struct Case {
        int group, sub;
        bool sent;
    };
    const Case cases[] = {{-1, 0, false}, {0, -1, false}, {-5, -5, false},
                          {0, 0, true},   {255, 255, true}};
    for (const Case& c : cases) {
        cmd_recorder rec;
        int rc = zor_notify_db_group(1, 20, "a.example", 3600, c.group, c.sub);
        EXPECT_EQ(rec.lines().size(), c.sent ? 1u : 0u) << c.group << "," << c.sub;
        if (!c.sent) {
            EXPECT_EQ(rc, -1);
        }
    }
}

TEST(ZorCtrl, RunnerStatusIsReturned) {
    cmd_recorder rec([](const std::string&) { return 256; });
    EXPECT_EQ(zor_notify_u2k(20, "a.example"), 256);
    EXPECT_EQ(zor_notify_db_group(1, 20, "a.example", 1, 1, 1), 256);
}

TEST(ZorCtrl, ShellMetacharactersAreEscapedInsideTheQuotes) {
    struct Case {
        const char* key;
        const char* escaped;
    };
    const Case cases[] = {
        {"a.com\"; touch /tmp/pwned; \"", "a.com\\\"; touch /tmp/pwned; \\\""},
        {"$(reboot)", "\\$(reboot)"},
        {"`reboot`", "\\`reboot\\`"},
        {"back\\slash", "back\\\\slash"},
        {"it's; ok", "it's; ok"},
    };
    for (const Case& c : cases) {
        cmd_recorder rec;
        zor_notify_u2k(20, c.key);
        zor_notify_db_group(1, 20, c.key, 60, 1, 2);
        auto pc = zor_ctrl_pc_add_line(1, c.key, c.key, 1, 2);
        EXPECT_EQ(rec.lines(),
                  (std::vector<std::string>{
                      line_of(std::string("db key2group u2k 20 ") + c.escaped),
                      line_of(std::string("db key2group update 1 20 ") + c.escaped + " 60 1 2")}))
            << c.key;
        EXPECT_EQ(pc, line_of(std::string("pc rule add 1 ") + c.escaped + " " + c.escaped + " 1 2"));
    }
}

// Runs the recorded line in the real shell against a scratch control file:
// the file must receive the key literally and nothing else may run.
TEST(ZorCtrl, HostileKeysReachTheControlFileLiterallyInARealShell) {
    namespace fs = std::filesystem;
    fs::path dir = fs::temp_directory_path() / ("zor_ctrl_test." + std::to_string(getpid()));
    fs::create_directories(dir);
    const fs::path ctrl = dir / "ctrl";
    const fs::path marker = dir / "pwned";
    const std::string m = marker.string();
    const std::string keys[] = {
        "a.com\"; touch " + m + "; \"",
        "$(touch " + m + ")",
        "`touch " + m + "`",
        "x\" > " + m + " \"",
        "$HOME ${PATH} $$",
        "semi;colon|pipe&amp <lt >gt 'single'",
    };
    for (const std::string& key : keys) {
        std::string line;
        {
            cmd_recorder rec;
            zor_notify_u2k(20, key.c_str());
            ASSERT_EQ(rec.lines().size(), 1u);
            line = rec.lines()[0];
        }
        for (size_t at; (at = line.find("/proc/zor/ctrl")) != std::string::npos;)
            line.replace(at, 14, ctrl.string());
        std::ofstream(ctrl).close();
        ASSERT_EQ(cmd_run_shell(line), 0) << line;
        std::ifstream in(ctrl);
        std::stringstream got;
        got << in.rdbuf();
        EXPECT_EQ(got.str(), "db key2group u2k 20 " + key + "\n");
        EXPECT_FALSE(fs::exists(marker)) << key;
    }
    fs::remove_all(dir);
}

TEST(ZorCtrl, KeysWithControlBytesAreDropped) {
    const std::string keys[] = {"a\nb", "tab\there", std::string("bell\x07"), "del\x7f",
                                "\x1f", "x\rreboot"};
    for (const std::string& key : keys) {
        cmd_recorder rec;
        EXPECT_EQ(zor_notify_u2k(20, key.c_str()), -1);
        EXPECT_EQ(zor_notify_db_group(1, 20, key.c_str(), 60, 1, 1), -1);
        EXPECT_TRUE(rec.lines().empty());
        EXPECT_FALSE(zor_ctrl_pc_add_line(1, key.c_str(), "ok", 1, 2).has_value());
        EXPECT_FALSE(zor_ctrl_pc_add_line(1, "00:11:22:33:44:55", key.c_str(), 1, 2).has_value());
    }
    cmd_recorder rec;
    EXPECT_EQ(zor_notify_u2k(20, "caf\xc3\xa9.example"), 0);  // bytes above 0x7F are text
    EXPECT_EQ(zor_notify_u2k(20, nullptr), -1);
    EXPECT_EQ(rec.lines().size(), 1u);
}

// The lines are built in 256 bytes (400 for rule adds): a line that needs
// the last byte for its terminator is complete, one byte more is cut and
// never run.
TEST(ZorCtrl, LinesLongerThanTheirBufferAreNotRun) {
    const size_t u2k_room = 255 - line_of("db key2group u2k 20 ").size();
    const size_t upd_room = 255 - line_of("db key2group update 1 20  3600 1 2").size();
    {
        cmd_recorder rec;
        std::string fits(u2k_room, 'a');
        EXPECT_EQ(zor_notify_u2k(20, fits.c_str()), 0);
        std::string over(u2k_room + 1, 'a');
        EXPECT_EQ(zor_notify_u2k(20, over.c_str()), -1);
        std::string domain300(300, 'b');
        EXPECT_EQ(zor_notify_u2k(20, domain300.c_str()), -1);
        // Escaping counts: each quote takes two bytes of the line.
        std::string quoted(u2k_room, 'a');
        quoted.back() = '"';
        EXPECT_EQ(zor_notify_u2k(20, quoted.c_str()), -1);
        ASSERT_EQ(rec.lines().size(), 1u);
        EXPECT_EQ(rec.lines()[0], line_of("db key2group u2k 20 " + fits));
        EXPECT_EQ(rec.lines()[0].size(), 255u);
    }
    {
        cmd_recorder rec;
        std::string fits(upd_room, 'c');
        EXPECT_EQ(zor_notify_db_group(1, 20, fits.c_str(), 3600, 1, 2), 0);
        std::string over(upd_room + 1, 'c');
        EXPECT_EQ(zor_notify_db_group(1, 20, over.c_str(), 3600, 1, 2), -1);
        ASSERT_EQ(rec.lines().size(), 1u);
        EXPECT_EQ(rec.lines()[0].size(), 255u);
    }
    const size_t add_room = 399 - line_of("pc rule add 1 00:11:22:33:44:55  10 20").size();
    std::string content(add_room, 'd');
    auto fits = zor_ctrl_pc_add_line(1, "00:11:22:33:44:55", content.c_str(), 10, 20);
    ASSERT_TRUE(fits.has_value());
    EXPECT_EQ(fits->size(), 399u);
    content.push_back('d');
    EXPECT_FALSE(zor_ctrl_pc_add_line(1, "00:11:22:33:44:55", content.c_str(), 10, 20));
}

}  // namespace
