#include "qmxsrv_ctx.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "test_util.h"

namespace {

using zor_test::temp_dir;

// Writes `text` to `name` inside `dir` and returns the file's path.
std::string put_file(const temp_dir& dir, const std::string& name, const std::string& text) {
    zor_test::write_file(dir.file(name), text);
    return dir.file(name);
}

class QmxsrvCtx : public testing::Test {
protected:
    void TearDown() override { qmxsrv_ctx_release(); }

    // A complete configuration; `drop` leaves one key out, `extra` adds lines.
    std::string config(const std::string& drop = "", const std::string& extra = "") const {
        std::vector<std::pair<std::string, std::string>> keys = {
            {"auth_id", "id-1"},       {"auth_pwd", "pw-1"},
            {"host", "host-1"},        {"product", "prod-1"},
            {"root", "/opt/svc"},      {"writable_root", writable_root},
            {"server", "127.0.0.1:8443"},
        };
        std::string text = "[zor]\n";
        for (const auto& [k, v] : keys) {
            if (k != drop) text += k + " = " + v + "\n";
        }
        return text + extra;
    }

    // Loads `text` and returns the loader's result and what it printed.
    std::pair<int, std::string> load(const std::string& text) {
        std::string path = put_file(dir, "zor.ini", text);
        testing::internal::CaptureStdout();
        int ok = qmxsrv_ctx_load(path.c_str());
        return {ok, testing::internal::GetCapturedStdout()};
    }

    static bool all_strings_released() {
        const qmxsrv_ctx_t& c = qmxsrv_ctx;
        return !c.root && !c.writable_root && !c.server && !c.product && !c.auth_id && !c.auth_pwd &&
               !c.host && !c.xdb;
    }

    temp_dir dir;
    std::string writable_root = dir.file("run");
};

TEST_F(QmxsrvCtx, LoadFillsEveryFieldAndResetsTheRunState) {
    qmxsrv_ctx.auth_invalid = 1;
    qmxsrv_ctx.pctrl_enabled = 1;
    qmxsrv_ctx.pid = 99;
    qmxsrv_ctx_set_pc_rule("/old/rule.json");
    http_mode = 9;

    auto [ok, out] = load(config("", "xdb = /opt/svc/cat.xdb\nlog_level = 5\nhttp_mode = 0x2\n"));
    ASSERT_EQ(ok, 1);
    EXPECT_EQ(out, "log_level = 5\n");
    const qmxsrv_ctx_t& c = qmxsrv_ctx;
    EXPECT_EQ(c.auth_invalid, 0);
    EXPECT_EQ(c.running, 1);
    EXPECT_EQ(c.cloud_enabled, 1);
    EXPECT_EQ(c.pctrl_enabled, 0);
    EXPECT_EQ(c.pid, 0);
    EXPECT_EQ(qmxsrv_ctx_pc_rule(), "");
    EXPECT_EQ(*c.auth_id, "id-1");
    EXPECT_EQ(*c.auth_pwd, "pw-1");
    EXPECT_EQ(*c.host, "host-1");
    EXPECT_EQ(*c.product, "prod-1");
    EXPECT_EQ(*c.root, "/opt/svc");
    EXPECT_EQ(*c.writable_root, writable_root);
    EXPECT_EQ(*c.server, "127.0.0.1:8443");
    EXPECT_EQ(*c.xdb, "/opt/svc/cat.xdb");
    EXPECT_STREQ(c.ipc_socket, (writable_root + "/.ipc.socket").c_str());
    EXPECT_EQ(c.log_level, 5u);
    EXPECT_EQ(c.db_capacity, 2000);
    EXPECT_EQ(http_mode, 2);
}

TEST_F(QmxsrvCtx, LogLevelCanNeverReachDebug) {
    struct {
        const char* line;
        uint32_t level;
    } cases[] = {
        {"log_level = 7\n", 3}, {"log_level = 0x5\n", 5}, {"log_level = -1\n", 3}, {"", 3},
        {"log_level = 6\n", 6}, {"log_level = 0\n", 0},   {"log_level = 010\n", 3},
        {"log_level = 4294967301\n", 3},
    };
    for (const auto& c : cases) {
        auto [ok, out] = load(config("", c.line));
        ASSERT_EQ(ok, 1) << c.line;
        EXPECT_EQ(qmxsrv_ctx.log_level, c.level) << c.line;
        EXPECT_EQ(out, "log_level = " + std::to_string(c.level) + "\n") << c.line;
    }
}

TEST_F(QmxsrvCtx, MissingRequiredKeyFailsAndReleasesEverything) {
    const char* required[] = {"auth_id", "auth_pwd", "host", "product", "root", "writable_root", "server"};
    for (const char* key : required) {
        ASSERT_EQ(load(config()).first, 1);
        auto [ok, out] = load(config(key, "xdb = /x.xdb\n"));
        EXPECT_EQ(ok, 0) << key;
        EXPECT_TRUE(all_strings_released()) << key;
        EXPECT_EQ(out, "") << key;
    }
    // The keys belong to section zor: the same key elsewhere does not count.
    EXPECT_EQ(load("auth_id = a\n[other]\nauth_id = b\n" + config("auth_id")).first, 0);
}

TEST_F(QmxsrvCtx, UnreadableFilesFail) {
    EXPECT_EQ(qmxsrv_ctx_load(nullptr), 0);
    EXPECT_EQ(qmxsrv_ctx_load(dir.file("missing.ini").c_str()), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(load(config() + "no equals sign\n").first, 0);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("iniparser: syntax error"), std::string::npos);
    EXPECT_TRUE(all_strings_released());
}

TEST_F(QmxsrvCtx, OptionalKeysKeepTheirDefaults) {
    http_mode = 9;
    ASSERT_EQ(load(config()).first, 1);
    EXPECT_FALSE(qmxsrv_ctx.xdb);
    EXPECT_EQ(http_mode, 0);
    // An empty xdb is kept as given; loading it fails later, loudly.
    ASSERT_EQ(load(config("", "xdb =\n")).first, 1);
    ASSERT_TRUE(qmxsrv_ctx.xdb);
    EXPECT_EQ(*qmxsrv_ctx.xdb, "");
}

mode_t mode_of(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return 0;
    return st.st_mode & 07777;
}

TEST_F(QmxsrvCtx, WritableRootIsCreatedWithPrivateParents) {
    mode_t old_mask = umask(022);
    writable_root = dir.file("a/b/c/");
    int ok = load(config()).first;
    umask(old_mask);
    ASSERT_EQ(ok, 1);
    EXPECT_EQ(mode_of(dir.file("a")), 0700u);
    EXPECT_EQ(mode_of(dir.file("a/b")), 0700u);
    EXPECT_EQ(mode_of(dir.file("a/b/c")), 0755u);
    EXPECT_STREQ(qmxsrv_ctx.ipc_socket, (dir.file("a/b/c/") + "/.ipc.socket").c_str());
}

TEST_F(QmxsrvCtx, ExistingWritableRootIsLeftAsItIs) {
    ASSERT_EQ(mkdir(writable_root.c_str(), 0711), 0);
    chmod(writable_root.c_str(), 0711);
    ASSERT_EQ(load(config()).first, 1);
    EXPECT_EQ(mode_of(writable_root), 0711u);
}

TEST_F(QmxsrvCtx, IpcSocketPathIsCutTo255Characters) {
    writable_root = dir.path();
    while (writable_root.size() < 300) writable_root += "/" + std::string(40, 'd');
    std::filesystem::create_directories(writable_root);
    ASSERT_EQ(load(config()).first, 1);
    std::string expected = (writable_root + "/.ipc.socket").substr(0, 255);
    EXPECT_EQ(std::string(qmxsrv_ctx.ipc_socket), expected);
}

TEST_F(QmxsrvCtx, ReleaseIsSafeTwiceAndClearsEveryString) {
    ASSERT_EQ(load(config("", "xdb = /x\n")).first, 1);
    qmxsrv_ctx_release();
    EXPECT_TRUE(all_strings_released());
    qmxsrv_ctx_release();
    EXPECT_TRUE(all_strings_released());
}

TEST(QmxsrvCtxPcRule, StoresAtMost255CharactersAndClears) {
    qmxsrv_ctx_set_pc_rule("/etc/rules.json");
    EXPECT_EQ(qmxsrv_ctx_pc_rule(), "/etc/rules.json");
    qmxsrv_ctx_set_pc_rule(std::string(300, 'r').c_str());
    EXPECT_EQ(qmxsrv_ctx_pc_rule(), std::string(255, 'r'));
    qmxsrv_ctx_set_pc_rule("");
    EXPECT_EQ(qmxsrv_ctx_pc_rule(), "");
    qmxsrv_ctx_set_pc_rule("/x");
    qmxsrv_ctx_set_pc_rule(nullptr);
    EXPECT_EQ(qmxsrv_ctx_pc_rule(), "");
}

}  // namespace
