// Kernel control commands: the texts the module receives in either channel,
// the text rule for words from outside, the bounds, and the direct channel's
// handling of a missing or failing control file.
#include "zor_ctrl.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <string>
#include <vector>

#include "ctrl_capture.h"
#include "test_util.h"
#include "util/cmd_runner.h"

namespace {

using lines = std::vector<std::string>;
constexpr ctrl_capture::channel kChannels[] = {ctrl_capture::direct, ctrl_capture::shell};

std::string name_of(ctrl_capture::channel ch) { return ch == ctrl_capture::direct ? "direct" : "shell"; }

// Every command, in both channels: the module receives exactly the texts; the
// direct channel runs no shell and leaves text and newline per command in the
// file; the shell channel runs exactly the guarded echo lines.
TEST(ZorCtrl, ModuleReceivesTheSameTextsInBothChannels) {
    const lines want = {"db key2group u2k 20 www.example.com", "db key2group u2k 21 192.168.1.20",
                        "db key2group update 2 20 ads.example.net 86400 3 17", "pc rule clean",
                        "pc rule add 2 00:11:22:AA:BB:CC games.example 1700000000 1700003600",
                        "pc rule add 1 m\"$ `c`'x' 1 2", "env server_port 4242"};
    for (auto ch : kChannels) {
        ctrl_capture cap(ch);
        EXPECT_EQ(zor_notify_u2k(20, "www.example.com") + zor_notify_u2k(21, "192.168.1.20"), 0);
        EXPECT_EQ(zor_notify_db_group(2, 20, "ads.example.net", 86400, 3, 17), 0);
        EXPECT_EQ(zor_notify_db_group(1, 20, "a.example", 3600, -1, 0) + zor_notify_db_group(1, 20, "a.example", 3600, 0, -1), -2);
        EXPECT_EQ(zor_ctrl_pc_clean(), 0);
        EXPECT_EQ(zor_ctrl_pc_add(2, "00:11:22:AA:BB:CC", "games.example", 1700000000ul, 1700003600ul), 0);
        EXPECT_EQ(zor_ctrl_pc_add(1, "m\"$", "`c`'x'", 1, 2), 0);
        EXPECT_EQ(zor_ctrl_server_port(4242), 0);
        EXPECT_EQ(cap.lines(), want) << name_of(ch);
        if (ch == ctrl_capture::direct) {
            EXPECT_TRUE(cap.shell_lines().empty());
            std::string bytes;
            for (const std::string& t : want) bytes += t + "\n";
            EXPECT_EQ(zor_test::read_file(cap.file()), bytes);
        } else {
            lines shell;
            for (const std::string& t : want) shell.push_back(zor_ctrl_shell_line(t));
            EXPECT_EQ(cap.shell_lines(), shell);
            EXPECT_EQ(shell[5], "[ -f " + cap.file() + " ] && echo \"pc rule add 1 m\\\"\\$ \\`c\\`'x' 1 2\" > " + cap.file());
        }
    }
}

// Shell lines run in the real shell write what the direct channel writes,
// byte for byte, however much shell syntax a key holds; nothing else runs.
TEST(ZorCtrl, ShellLinesWriteExactlyWhatTheDirectChannelWrites) {
    zor_test::temp_dir dir;
    const std::string marker = dir.file("pwned");
    const lines keys = {"a.com\";touch${IFS}" + marker + ";\"", "$(touch${IFS}" + marker + ")",
                        "`touch${IFS}" + marker + "`", "$HOME${PATH}semi;colon|pipe<lt'single'&&x"};
    std::string direct_bytes;
    {
        ctrl_capture cap(ctrl_capture::direct);
        for (const std::string& key : keys) zor_notify_db_group(1, 21, key.c_str(), 60, 1, 2);
        direct_bytes = zor_test::read_file(cap.file());
    }
    ctrl_capture cap(ctrl_capture::shell);
    for (const std::string& key : keys) zor_notify_db_group(1, 21, key.c_str(), 60, 1, 2);
    ASSERT_EQ(cap.shell_lines().size(), keys.size());
    std::string shell_bytes;
    for (const std::string& line : cap.shell_lines()) {
        ASSERT_TRUE(zor_test::write_file(cap.file(), ""));
        ASSERT_EQ(cmd_run_shell(line), 0) << line;
        shell_bytes += zor_test::read_file(cap.file());
    }
    EXPECT_EQ(shell_bytes, direct_bytes);
    EXPECT_EQ(std::count(direct_bytes.begin(), direct_bytes.end(), '\n'), 4);
    EXPECT_FALSE(zor_test::file_exists(marker));
}

// A word with a space would add words to the command, an empty one take
// one away; a control byte, 0x7F or a backslash (which some shells' echo
// reads as an escape) would change it. Such words are never sent in either channel, and a rule holding one in
// its mac or text is refused. Bytes above 0x7F are text.
TEST(ZorCtrl, WordsTheCommandCannotCarryAreNeverSent) {
    const lines bad = {"victim.example 86400 0 0", "tab\there", " lead", "evil\\npc rule clean", "tail\\",
                       "a\nb", "del\x7f", "x\rreboot", ""};
    for (auto ch : kChannels) {
        ctrl_capture cap(ch);
        const uint64_t refused = zor_ctrl_counters().refused;
        for (const std::string& w : bad) {
            EXPECT_EQ(zor_notify_u2k(20, w.c_str()) + zor_notify_db_group(1, 20, w.c_str(), 60, 1, 1), -2) << w;
            EXPECT_EQ(zor_ctrl_pc_add(1, w.c_str(), "ok", 1, 2) + zor_ctrl_pc_add(1, "aabbccddeeff", w.c_str(), 1, 2), -2) << w;
        }
        EXPECT_EQ(zor_ctrl_counters().refused - refused, 4 * bad.size()) << name_of(ch);
        EXPECT_EQ(zor_notify_u2k(20, "caf\xc3\xa9.example") + zor_notify_u2k(20, nullptr), -1);
        EXPECT_EQ(zor_ctrl_pc_add(1, "aabbccddeeff- 1 ff:ff:ff:ff:ff:ff", "x", 1, 2), -1);
        EXPECT_EQ(cap.lines(), lines{"db key2group u2k 20 caf\xc3\xa9.example"}) << name_of(ch);
        EXPECT_EQ(cap.shell_lines().size(), ch == ctrl_capture::shell ? 1u : 0u);
    }
}

// Direct: text and newline in 256 bytes; a text of 255 goes, 256 does not.
// Shell: the whole line in 256 bytes (400 for rule adds), as the echo lines
// always were. A command that does not fit is not sent, and counted.
TEST(ZorCtrl, CommandsThatDoNotFitAreNotSent) {
    for (auto ch : kChannels) {
        ctrl_capture cap(ch);
        const std::string head = "db key2group u2k 20 ";
        const size_t room = 255 - (ch == ctrl_capture::direct ? head : zor_ctrl_shell_line(head)).size();
        const std::string key(room, 'a');
        const uint64_t too_long = zor_ctrl_counters().too_long;
        EXPECT_EQ(zor_notify_u2k(20, key.c_str()), 0);
        EXPECT_EQ(zor_notify_u2k(20, (key + "a").c_str()), -1);
        EXPECT_EQ(zor_ctrl_counters().too_long - too_long, 1u);
        EXPECT_EQ(cap.lines(), lines{head + key}) << name_of(ch);
    }
    {
        ctrl_capture cap(ctrl_capture::direct);  // a domain name of 216 gets its update
        EXPECT_EQ(zor_notify_db_group(1, 20, std::string(216, 'd').c_str(), 86400, 255, 255), 0);
        EXPECT_EQ(zor_notify_db_group(1, 20, std::string(217, 'd').c_str(), 86400, 255, 255), -1);
        EXPECT_EQ(cap.lines().size(), 1u);
    }
    ctrl_capture cap(ctrl_capture::shell);
    const std::string mac = "00:11:22:33:44:55";
    std::string content(399 - zor_ctrl_shell_line("pc rule add 1 " + mac + "  10 20").size(), 'd');
    EXPECT_EQ(zor_ctrl_pc_add(1, mac.c_str(), content.c_str(), 10, 20), 0);
    EXPECT_EQ(zor_ctrl_pc_add(1, mac.c_str(), (content + "d").c_str(), 10, 20), -1);
    ASSERT_EQ(cap.shell_lines().size(), 1u);
    EXPECT_EQ(cap.shell_lines()[0].size(), 399u);
}

// Direct channel: no control file means no module, a silent no-op that
// creates nothing; a control file that cannot be written is counted as a
// failure, and the next command is sent as usual.
TEST(ZorCtrl, MissingOrFailingControlFile) {
    ctrl_capture cap(ctrl_capture::direct);
    zor_test::temp_dir dir;
    const zor_ctrl_counts before = zor_ctrl_counters();
    zor_ctrl_set_file(dir.file("absent"));
    EXPECT_EQ(zor_notify_u2k(20, "a.example"), 1);
    EXPECT_FALSE(zor_test::file_exists(dir.file("absent")));
    zor_ctrl_set_file("/dev/full");
    EXPECT_EQ(zor_notify_u2k(20, "b.example"), -1);
    zor_ctrl_set_file(dir.path());  // a directory
    EXPECT_EQ(zor_ctrl_pc_clean(), -1);
    zor_ctrl_set_file(cap.file());
    EXPECT_EQ(zor_notify_u2k(20, "c.example"), 0);
    const zor_ctrl_counts after = zor_ctrl_counters();
    EXPECT_EQ(after.absent - before.absent, 1u);
    EXPECT_EQ(after.failed - before.failed, 2u);
    EXPECT_EQ(after.sent - before.sent, 1u);
    EXPECT_EQ(cap.lines(), lines{"db key2group u2k 20 c.example"});
    EXPECT_TRUE(cap.shell_lines().empty());
}

}  // namespace
