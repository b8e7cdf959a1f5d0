#include "util/cmd_runner.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

namespace {

// Restores the default runner whatever a test installed.
struct CmdRunnerTest : ::testing::Test {
    void TearDown() override { cmd_reset_runner(); }
};

TEST(ShellEscape, EscapesExactlyTheFourSpecialCharacters) {
    struct escape_case {
        std::string text;
        std::string expected;
    };
    const escape_case cases[] = {
        {"", ""},
        {"plain-text_1.example", "plain-text_1.example"},
        {"a\"b", "a\\\"b"},
        {"$(reboot)", "\\$(reboot)"},
        {"`id`", "\\`id\\`"},
        {"back\\slash", "back\\\\slash"},
        {"'single' & ; | > <", "'single' & ; | > <"},
    };
    for (const escape_case& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(shell_escape_dq(c.text), c.expected);
    }
}

TEST(ShellEscape, EscapedTextSurvivesTheShellUnchanged) {
    const std::string nasty[] = {"a\"b", "$HOME", "`echo hi`", "x\\", "\\\"$`", "$(id) ; rm -f x"};
    for (const std::string& text : nasty) {
        SCOPED_TRACE(text);
        std::optional<std::string> out = cmd_capture_shell("printf '%s' \"" + shell_escape_dq(text) + "\"");
        ASSERT_TRUE(out.has_value());
        EXPECT_EQ(*out, text);
    }
}

TEST(ControlBytes, BelowSpaceAndDeleteAreControl) {
    struct control_case {
        std::string text;
        bool expected;
    };
    const control_case cases[] = {
        {"", false},          {"example.com", false},     {"a b", false},
        {"a\tb", true},       {"line\n", true},           {std::string("a\0b", 3), true},
        {"\x1f", true},       {"\x7f", true},             {"caf\xc3\xa9", false},
        {"~", false},
    };
    for (const control_case& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(has_control_bytes(c.text), c.expected);
    }
}

TEST_F(CmdRunnerTest, RunReturnsTheWaitStatusLikeSystem) {
    int ok = cmd_run("true");
    ASSERT_TRUE(WIFEXITED(ok));
    EXPECT_EQ(WEXITSTATUS(ok), 0);
    int three = cmd_run("exit 3");
    ASSERT_TRUE(WIFEXITED(three));
    EXPECT_EQ(WEXITSTATUS(three), 3);
    int missing = cmd_run("/nonexistent/command 2>/dev/null");
    ASSERT_TRUE(WIFEXITED(missing));
    EXPECT_EQ(WEXITSTATUS(missing), 127);
    int killed = cmd_run("kill -9 $$");
    ASSERT_TRUE(WIFSIGNALED(killed));
    EXPECT_EQ(WTERMSIG(killed), 9);
}

TEST_F(CmdRunnerTest, CaptureCollectsAllStandardOutputOnly) {
    std::optional<std::string> out = cmd_capture("echo hello; echo err >&2; printf 'no newline'");
    ASSERT_TRUE(out.has_value());
    EXPECT_EQ(*out, "hello\nno newline");
    std::optional<std::string> big = cmd_capture("head -c 200000 /dev/zero | tr '\\000' a");
    ASSERT_TRUE(big.has_value());
    EXPECT_EQ(*big, std::string(200000, 'a'));
    std::optional<std::string> none = cmd_capture("exit 1");
    ASSERT_TRUE(none.has_value());
    EXPECT_EQ(*none, "");
}

TEST_F(CmdRunnerTest, ConcurrentCapturesKeepTheirOwnOutput) {
    std::vector<std::thread> threads;
    std::vector<std::string> got(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i, &got] {
            for (int round = 0; round < 5; ++round) {
                std::optional<std::string> out = cmd_capture("echo " + std::to_string(i));
                if (out && *out != std::to_string(i) + "\n") got[i] = *out;
            }
        });
    }
    for (std::thread& t : threads) t.join();
    for (const std::string& wrong : got) EXPECT_EQ(wrong, "");
}

TEST_F(CmdRunnerTest, InstalledRunnerSeesEveryLineAndEmptyMembersFallBack) {
    std::vector<std::string> ran;
    std::vector<std::string> captured;
    cmd_set_runner({[&](const std::string& line) {
                        ran.push_back(line);
                        return 7 << 8;
                    },
                    nullptr});
    EXPECT_EQ(cmd_run("[ -e /proc/zor/ctrl ] && echo \"x\" > /proc/zor/ctrl"), 7 << 8);
    EXPECT_EQ(cmd_run("second"), 7 << 8);
    EXPECT_EQ(ran, (std::vector<std::string>{"[ -e /proc/zor/ctrl ] && echo \"x\" > /proc/zor/ctrl",
                                              "second"}));
    // No capture member: the real shell still answers.
    EXPECT_EQ(cmd_capture("echo real"), std::optional<std::string>("real\n"));

    cmd_set_runner({nullptr, [&](const std::string& line) -> std::optional<std::string> {
                        captured.push_back(line);
                        return std::nullopt;
                    }});
    EXPECT_EQ(cmd_capture("lsmod"), std::nullopt);
    EXPECT_EQ(captured, std::vector<std::string>{"lsmod"});
    EXPECT_EQ(WEXITSTATUS(cmd_run("exit 4")), 4);

    cmd_reset_runner();
    EXPECT_EQ(cmd_capture("echo back"), std::optional<std::string>("back\n"));
    EXPECT_EQ(ran.size(), 2u);
    EXPECT_EQ(captured.size(), 1u);
}

}  // namespace

namespace {

// A daemon may run with standard input and output closed; the pipe made for
// a capture then takes the lowest descriptors, 0 and 1.
TEST_F(CmdRunnerTest, CaptureWorksWithStandardDescriptorsClosed) {
    fflush(stdout);
    int saved_in = dup(0);
    int saved_out = dup(1);
    ASSERT_GE(saved_in, 0);
    ASSERT_GE(saved_out, 0);
    close(0);
    close(1);
    std::optional<std::string> both_closed = cmd_capture("echo hi");
    int status = cmd_run("exit 5");
    dup2(saved_in, 0);
    close(1);  // only output closed: the pipe gets 1 and a higher descriptor
    std::optional<std::string> out_closed = cmd_capture("echo again");
    dup2(saved_out, 1);
    close(saved_in);
    close(saved_out);
    EXPECT_EQ(both_closed, std::optional<std::string>("hi\n"));
    EXPECT_EQ(out_closed, std::optional<std::string>("again\n"));
    EXPECT_EQ(WEXITSTATUS(status), 5);
}

}  // namespace
