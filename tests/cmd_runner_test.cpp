#include "util/cmd_runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

namespace {

struct CmdRunnerTest : ::testing::Test {
    void TearDown() override { cmd_reset_runner(); }
};

// Exactly \ " $ and backquote are escaped, and the shell gives the text back.
TEST(ShellEscape, EscapesTheFourSpecialCharactersAndSurvivesTheShell) {
    struct { std::string text, escaped; } cases[] = {
        {"", ""}, {"'single' & ; | > <", "'single' & ; | > <"}, {"x\\", "x\\\\"}, {"\\\"$`", "\\\\\\\"\\$\\`"},
        {"$HOME ${PATH} $(id) ; rm -f x", "\\$HOME \\${PATH} \\$(id) ; rm -f x"}};
    for (const auto& c : cases) {
        EXPECT_EQ(shell_escape_dq(c.text), c.escaped) << c.text;
        EXPECT_EQ(cmd_capture_shell("printf '%s' \"" + c.escaped + "\""), std::optional<std::string>(c.text));
    }
    for (auto [text, control] : {std::pair<std::string, bool>{"a b~", false}, {std::string("a\0b", 3), true}, {"\x1f", true},
                                 {"\x7f", true}, {"caf\xc3\xa9", false}})
        EXPECT_EQ(has_control_bytes(text), control) << text;
}

// Wait statuses as system() gives them; captures take standard output only.
TEST_F(CmdRunnerTest, RunGivesTheWaitStatusAndCaptureTheWholeOutput) {
    for (auto [line, code] : {std::pair<const char*, int>{"true", 0}, {"exit 3", 3}, {"/nonexistent/x 2>/dev/null", 127}}) {
        int status = cmd_run(line);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == code) << line << ": " << status;
    }
    EXPECT_EQ(cmd_capture("echo hello; echo err >&2; printf 'no newline'"), std::optional<std::string>("hello\nno newline"));
    EXPECT_EQ(cmd_capture("head -c 200000 /dev/zero | tr '\\000' a"), std::optional<std::string>(std::string(200000, 'a')));
}

// A descriptor some library opened without close-on-exec still never
// reaches a command, on either path.
TEST_F(CmdRunnerTest, CommandsInheritNoDescriptorBeyondTheStandardThree) {
    const int plain = open("/dev/null", O_RDONLY);  // no O_CLOEXEC, as a library might
    ASSERT_GE(plain, 0);
    const int high = fcntl(plain, F_DUPFD, 100);
    close(plain);
    ASSERT_GE(high, 100);
    const std::string absent = "[ ! -e /proc/$$/fd/" + std::to_string(high) + " ]";
    const int status = cmd_run_shell(absent);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "fd " << high << " was inherited";
    EXPECT_EQ(cmd_capture_shell(absent + " && echo none"), std::optional<std::string>("none\n"));
    close(high);
}

TEST_F(CmdRunnerTest, ConcurrentCapturesKeepTheirOwnOutput) {
    std::vector<std::thread> threads;
    std::vector<std::string> wrong(4);
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([i, &wrong] {
            for (int round = 0; round < 5; ++round)
                if (auto out = cmd_capture("echo " + std::to_string(i)); out != std::to_string(i) + "\n")
                    wrong[i] = out.value_or("<none>");
        });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(wrong, std::vector<std::string>(4));
}

// A daemon may run with standard input and output closed; the pipe made for
// a capture must then stay off descriptors 0 and 1.
TEST_F(CmdRunnerTest, CaptureWorksWithStandardDescriptorsClosed) {
    fflush(stdout);
    int saved_in = dup(0), saved_out = dup(1);
    ASSERT_TRUE(saved_in >= 0 && saved_out >= 0);
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
