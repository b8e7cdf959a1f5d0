// Kernel control command lines: exact texts, buffer cuts, skipped verdicts,
// shell safety of the keys.
#include "zor_ctrl.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cmd_recorder.h"
#include "test_util.h"
#include "util/cmd_runner.h"

namespace {

const std::string kGuard = "[ -f /proc/zor/ctrl ] && echo \"";
std::string line_of(const std::string& text) { return kGuard + text + "\" > /proc/zor/ctrl"; }

// A group or sub-group below zero skips the update.
TEST(ZorCtrl, SendsExactLinesAndSkipsNegativeGroups) {
    cmd_recorder rec;
    EXPECT_EQ(zor_notify_u2k(20, "www.example.com") + zor_notify_u2k(21, "192.168.1.20"), 0);
    EXPECT_EQ(zor_notify_db_group(2, 20, "ads.example.net", 86400, 3, 17), 0);
    EXPECT_EQ(zor_notify_db_group(1, 20, "a.example", 3600, -1, 0) + zor_notify_db_group(1, 20, "a.example", 3600, 0, -1), -2);
    EXPECT_EQ(rec.lines(), (std::vector<std::string>{
                               line_of("db key2group u2k 20 www.example.com"), line_of("db key2group u2k 21 192.168.1.20"),
                               line_of("db key2group update 2 20 ads.example.net 86400 3 17")}));
    EXPECT_EQ(zor_ctrl_pc_clean_line(), line_of("pc rule clean"));
    EXPECT_EQ(zor_ctrl_pc_add_line(2, "00:11:22:AA:BB:CC", "games.example", 1700000000ul, 1700003600ul),
              line_of("pc rule add 2 00:11:22:AA:BB:CC games.example 1700000000 1700003600"));
    EXPECT_EQ(zor_ctrl_server_port_line(4242), line_of("env server_port 4242"));
    // Rule adds escape both texts.
    EXPECT_EQ(zor_ctrl_pc_add_line(1, "m\"$", "`c`", 1, 2), line_of("pc rule add 1 m\\\"\\$ \\`c\\` 1 2"));
}

// Each recorded line runs in the real shell against a scratch control file:
// the file must receive the key literally and nothing else may run.
TEST(ZorCtrl, HostileKeysReachTheControlFileLiterally) {
    zor_test::temp_dir dir;
    const std::string ctrl = dir.file("ctrl"), marker = dir.file("pwned");
    for (const std::string& key : {"a.com\"; touch " + marker + "; \"", "$(touch " + marker + ")", "`touch " + marker + "`",
                                   std::string("$HOME ${PATH} semi;colon|pipe <lt 'single'")}) {
        cmd_recorder rec;
        zor_notify_u2k(20, key.c_str());
        zor_notify_db_group(1, 21, key.c_str(), 60, 1, 2);
        std::vector<std::string> lines = rec.lines();
        ASSERT_EQ(lines.size(), 2u);
        const std::string want[] = {"db key2group u2k 20 " + key, "db key2group update 1 21 " + key + " 60 1 2"};
        for (size_t i = 0; i < 2; ++i) {
            for (size_t at; (at = lines[i].find("/proc/zor/ctrl")) != std::string::npos;) lines[i].replace(at, 14, ctrl);
            ASSERT_TRUE(zor_test::write_file(ctrl, ""));
            ASSERT_EQ(cmd_run_shell(lines[i]), 0) << lines[i];
            EXPECT_EQ(zor_test::read_file(ctrl), want[i] + "\n");
        }
        EXPECT_FALSE(zor_test::file_exists(marker)) << key;
    }
}

// A backslash passes the double quotes unchanged, and the echo of some shells
// reads it: "\n" would start a second control line written by the key's
// sender, "\c" would cut the line short. Such texts, and texts with control
// bytes, never reach a line. Bytes above 0x7F are text.
TEST(ZorCtrl, KeysWithBackslashesOrControlBytesAreDropped) {
    for (const std::string key : {"evil\\npc rule clean", "cut\\c.example", "tail\\", "a\nb", "del\x7f", "x\rreboot"}) {
        cmd_recorder rec;
        EXPECT_EQ(zor_notify_u2k(20, key.c_str()) + zor_notify_db_group(1, 20, key.c_str(), 60, 1, 1), -2) << key;
        EXPECT_TRUE(rec.lines().empty()) << key;
        EXPECT_FALSE(zor_ctrl_pc_add_line(1, key.c_str(), "ok", 1, 2) || zor_ctrl_pc_add_line(1, "00:11:22:33:44:55", key.c_str(), 1, 2)) << key;
    }
    cmd_recorder rec;
    EXPECT_EQ(zor_notify_u2k(20, "caf\xc3\xa9.example") + zor_notify_u2k(20, nullptr), -1);
    EXPECT_EQ(rec.lines().size(), 1u);
}

// Lines are built in 256 bytes (400 for rule adds): a line that needs the
// last byte for its terminator is complete, one byte more is cut, not run.
TEST(ZorCtrl, LinesLongerThanTheirBufferAreNotRun) {
    const size_t u2k_room = 255 - line_of("db key2group u2k 20 ").size();
    const size_t upd_room = 255 - line_of("db key2group update 1 20  3600 1 2").size();
    cmd_recorder rec;
    std::string quoted(u2k_room, 'a');
    quoted.back() = '"';  // escaped to two bytes
    EXPECT_EQ(zor_notify_u2k(20, std::string(u2k_room, 'a').c_str()), 0);
    EXPECT_EQ(zor_notify_u2k(20, std::string(u2k_room + 1, 'a').c_str()) + zor_notify_u2k(20, quoted.c_str()), -2);
    EXPECT_EQ(zor_notify_db_group(1, 20, std::string(upd_room, 'c').c_str(), 3600, 1, 2), 0);
    EXPECT_EQ(zor_notify_db_group(1, 20, std::string(upd_room + 1, 'c').c_str(), 3600, 1, 2), -1);
    EXPECT_EQ(rec.lines(), (std::vector<std::string>{line_of("db key2group u2k 20 " + std::string(u2k_room, 'a')),
                                                     line_of("db key2group update 1 20 " + std::string(upd_room, 'c') + " 3600 1 2")}));
    EXPECT_EQ(rec.lines()[0].size(), 255u);
    const std::string mac = "00:11:22:33:44:55";
    std::string content(399 - line_of("pc rule add 1 " + mac + "  10 20").size(), 'd');
    EXPECT_EQ(zor_ctrl_pc_add_line(1, mac.c_str(), content.c_str(), 10, 20).value_or("").size(), 399u);
    EXPECT_FALSE(zor_ctrl_pc_add_line(1, mac.c_str(), (content + "d").c_str(), 10, 20));
}

}  // namespace
