#include "qmxsrv_ctx.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <utility>

#include "test_util.h"

namespace {

mode_t mode_of(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) ? st.st_mode & 07777 : 0;
}

gid_t gid_of(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_gid : static_cast<gid_t>(-1);
}

class QmxsrvCtx : public testing::Test {
protected:
    void TearDown() override { qmxsrv_ctx_release(); }

    // A complete configuration; `drop` leaves one key out, `extra` adds lines.
    std::string config(const std::string& drop = "", const std::string& extra = "") const {
        std::string text = "[zor]\n";
        for (auto [k, v] : {std::pair<std::string, std::string>{"auth_id", "id-1"}, {"auth_pwd", "pw-1"},
                            {"host", "host-1"}, {"product", "prod-1"}, {"root", "/opt/svc"},
                            {"writable_root", writable_root}, {"server", "127.0.0.1:8443"}})
            if (k != drop) text += k + " = " + v + "\n";
        return text + extra;
    }
    // The loader's result and what it printed.
    std::pair<int, std::string> load(const std::string& text) {
        zor_test::write_file(dir.file("zor.ini"), text);
        testing::internal::CaptureStdout();
        int ok = qmxsrv_ctx_load(dir.file("zor.ini").c_str());
        return {ok, testing::internal::GetCapturedStdout()};
    }
    static bool all_strings_released() {
        const qmxsrv_ctx_t& c = qmxsrv_ctx;
        return !c.root && !c.writable_root && !c.server && !c.product && !c.auth_id && !c.auth_pwd && !c.host && !c.xdb;
    }

    zor_test::temp_dir dir;
    std::string writable_root = dir.file("run");
};

TEST_F(QmxsrvCtx, LoadFillsEveryFieldAndResetsTheRunState) {
    qmxsrv_ctx.auth_invalid = qmxsrv_ctx.pctrl_enabled = 1;
    qmxsrv_ctx.pid = 99;
    http_mode = 9;
    ASSERT_EQ(load(config("", "xdb = /opt/svc/cat.xdb\nlog_level = 5\nhttp_mode = 0x2\nctrl_shell = 1\nsyslog = 1\n")),
              std::make_pair(1, std::string("log_level = 5\n")));
    const qmxsrv_ctx_t& c = qmxsrv_ctx;
    EXPECT_EQ(std::make_tuple(c.auth_invalid.load(), c.running.load(), c.cloud_enabled.load(), c.pctrl_enabled.load(),
                              c.pid, c.log_level, c.db_capacity, http_mode, c.ctrl_shell.load(), c.log_syslog),
              std::make_tuple(0, 1, 1, 0, 0, 5u, 2000, 2, 1, 1));
    EXPECT_EQ(*c.auth_id + *c.auth_pwd + *c.host + *c.product + *c.root + *c.server + *c.xdb,
              "id-1pw-1host-1prod-1/opt/svc127.0.0.1:8443/opt/svc/cat.xdb");
    EXPECT_EQ(*c.writable_root, writable_root);
    EXPECT_STREQ(c.ipc_socket, (writable_root + "/.ipc.socket").c_str());
    // Optional keys keep their defaults; a switch is on only at exactly 1.
    ASSERT_EQ(load(config()).first, 1);
    EXPECT_TRUE(!qmxsrv_ctx.xdb && http_mode == 0 && qmxsrv_ctx.ctrl_shell == 0 && qmxsrv_ctx.log_syslog == 0);
    ASSERT_EQ(load(config("", "syslog = 2\n")).first, 1);
    EXPECT_EQ(qmxsrv_ctx.log_syslog, 0);
}

// Certificate checking is on unless tls_verify is exactly 0; ipc_group and
// ca_file are taken as written and forgotten by the next load.
TEST_F(QmxsrvCtx, HardeningKeysDefaultToTheSafeSide) {
    for (auto [line, verify] : {std::pair<const char*, int>{"", 1}, {"tls_verify = 0\n", 0}, {"tls_verify = 1\n", 1},
                                {"tls_verify = no\n", 1}, {"tls_verify = 00\n", 1}, {"tls_verify =\n", 1}}) {
        ASSERT_EQ(load(config("", line)).first, 1) << line;
        EXPECT_EQ(qmxsrv_ctx.tls_verify, verify) << line;
    }
    ASSERT_EQ(load(config("", "ipc_group = www-admin\nca_file = /etc/zor/cloud-ca.pem\ntls_verify = 0\n")).first, 1);
    EXPECT_EQ(*qmxsrv_ctx.ipc_group + " " + *qmxsrv_ctx.ca_file, "www-admin /etc/zor/cloud-ca.pem");
    ASSERT_EQ(load(config()).first, 1);
    EXPECT_TRUE(!qmxsrv_ctx.ipc_group && !qmxsrv_ctx.ca_file && qmxsrv_ctx.tls_verify == 1);
}

TEST_F(QmxsrvCtx, LogLevelCanNeverReachDebug) {
    for (auto [line, level] : {std::pair<const char*, uint32_t>{"log_level = 7\n", 3}, {"log_level = 0x5\n", 5},
                               {"", 3}, {"log_level = 6\n", 6}, {"log_level = 010\n", 3}, {"log_level = 4294967301\n", 3}}) {
        EXPECT_EQ(load(config("", line)), std::make_pair(1, "log_level = " + std::to_string(level) + "\n")) << line;
        EXPECT_EQ(qmxsrv_ctx.log_level, level) << line;
    }
}

TEST_F(QmxsrvCtx, MissingKeyOrUnreadableFileFailsAndReleasesEverything) {
    for (const char* key : {"auth_id", "auth_pwd", "host", "product", "root", "writable_root", "server"}) {
        ASSERT_EQ(load(config()).first, 1);
        EXPECT_EQ(load(config(key, "xdb = /x.xdb\n")), std::make_pair(0, std::string())) << key;
        EXPECT_TRUE(all_strings_released()) << key;
    }
    // The keys belong to section zor: the same key elsewhere does not count.
    EXPECT_EQ(load("auth_id = a\n[other]\nauth_id = b\n" + config("auth_id")).first, 0);
    EXPECT_EQ(qmxsrv_ctx_load(dir.file("missing.ini").c_str()), 0);
    EXPECT_TRUE(all_strings_released());
}

// Missing directories are made 0750 whatever the umask (0 in a daemon);
// the socket path is cut to 255 characters.
TEST_F(QmxsrvCtx, WritableRootAndSocketPath) {
    for (mode_t mask : {0000, 0077}) {
        std::filesystem::remove_all(dir.file("a"));
        mode_t old_mask = umask(mask);
        writable_root = dir.file("a/b/c/");
        int ok = load(config()).first;
        umask(old_mask);
        ASSERT_EQ(ok, 1);
        EXPECT_EQ(std::make_tuple(mode_of(dir.file("a")), mode_of(dir.file("a/b")), mode_of(dir.file("a/b/c"))),
                  std::make_tuple(0750u, 0750u, 0750u)) << "umask " << mask;
    }
    EXPECT_STREQ(qmxsrv_ctx.ipc_socket, (dir.file("a/b/c/") + "/.ipc.socket").c_str());
    while (writable_root.size() < 300) writable_root += "/" + std::string(40, 'd');
    std::filesystem::create_directories(writable_root);
    ASSERT_EQ(load(config()).first, 1);
    EXPECT_EQ(std::string(qmxsrv_ctx.ipc_socket), (writable_root + "/.ipc.socket").substr(0, 255));
}

// With ipc_group, the writable_root the loader makes belongs to that group,
// so its members reach the command socket inside; the parents it makes, and
// a directory that was there before, keep the group they had.
TEST_F(QmxsrvCtx, WritableRootMadeForTheIpcGroup) {
    if (geteuid() != 0) GTEST_SKIP() << "giving a directory to another group needs root";
    const group* nogroup = getgrgid(65534);
    if (!nogroup) GTEST_SKIP() << "no group 65534 here";
    const std::string key = std::string("ipc_group = ") + nogroup->gr_name + "\n";
    const gid_t own = gid_of(dir.path());
    ASSERT_NE(own, 65534u);
    writable_root = dir.file("p/run");
    ASSERT_EQ(load(config("", key)).first, 1);
    EXPECT_EQ(std::make_tuple(gid_of(dir.file("p/run")), mode_of(dir.file("p/run")), gid_of(dir.file("p"))),
              std::make_tuple(65534u, 0750u, own));
    qmxsrv_ctx_release();
    writable_root = dir.file("p");
    ASSERT_EQ(load(config("", key)).first, 1);
    EXPECT_EQ(gid_of(dir.file("p")), own);
}

// The INI the OpenWrt init script is tested to write (every option set) loads
// with each value exactly as the router's UCI file gave it.
TEST_F(QmxsrvCtx, RouterRenderedConfigurationLoadsAsWritten) {
    const std::string fixtures = std::string(ZOR_SOURCE_DIR) + "/tests/packaging/openwrt/";
    std::string full = zor_test::read_file(fixtures + "full.ini");
    for (size_t at; (at = full.find("@WORK@")) != std::string::npos;) full.replace(at, 6, dir.path());
    ASSERT_EQ(load(full), std::make_pair(1, std::string("log_level = 5\n")));
    const qmxsrv_ctx_t& c = qmxsrv_ctx;
    EXPECT_EQ(std::make_tuple(*c.auth_id, *c.auth_pwd, *c.host, *c.product, *c.root, *c.server, *c.xdb),
              std::make_tuple("acct-17", "se\\ncret#1 = x", "router-7", "zr-100", "/usr/lib/zor",
                              "cloud.example.net:443", "/usr/lib/zor/category.xdb"));
    EXPECT_EQ(*c.writable_root, dir.file("run"));
    EXPECT_EQ(std::make_tuple(*c.ipc_group, *c.ca_file, c.tls_verify, c.ctrl_shell.load(), c.log_syslog),
              std::make_tuple("www", "/etc/zor/cloud-ca.pem", 0, 1, 1));
}

}  // namespace
