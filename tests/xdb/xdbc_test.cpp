// The xdbc command as a user runs it: source rules and their forms, errors
// and warnings, build options and matching what was built.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "test_util.h"
#include "util/cmd_runner.h"

namespace {

class Xdbc : public testing::Test {
protected:
    struct result {
        int status;
        std::string out, err;
    };
    result run(const std::string& args) const {
        const std::optional<std::string> status = cmd_capture_shell(
            "cd '" + dir.path() + "' && " + zor_test::program_shell(ZOR_BINARY_DIR "/tools/xdbc/xdbc") + " " + args +
            " >out.txt 2>err.txt; echo $?");
        EXPECT_TRUE(status);
        return {std::stoi(status.value_or("-1")), zor_test::read_file(dir.file("out.txt")),
                zor_test::read_file(dir.file("err.txt"))};
    }
    void put(const std::string& name, const std::string& text) const {
        ASSERT_TRUE(zor_test::write_file(dir.file(name), text));
    }
    zor_test::temp_dir dir;
};

}  // namespace

// Comments, blank lines, CR LF and hex ids; host bits are cleared; anything
// but four octets is a domain pattern. A warning names each rule that reaches
// further than written, and the reach is real.
TEST_F(Xdbc, BuildThenMatch) {
    put("rules.txt", "# comment line\n  .example.com\t0x10203   # trailing\r\n\nads. 5\n10.1.2.3/8 0x300\n"
                     "192.168.1.7 0XFFFFF\n1.2.3.4.5 6\n");
    result r = run("build rules.txt cat.xdb");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out.rfind("cat.xdb: 5 rules, ", 0), 0u) << r.out;
    EXPECT_FALSE(zor_test::file_exists(dir.file("cat.xdb.tmp")));
    put("opt.txt", "Ads.Example.com 1\n");
    ASSERT_EQ(run("build --anchored --fold-case --suffix-unit 5 opt.txt opt.xdb").status, 0);
    put("warn.txt", "10.0.0.2 1\n.ads 2\n46.1.2.3 3\n");
    EXPECT_EQ(run("build warn.txt warn.xdb").err,
              "xdbc: warn.txt: warning: line 1: 10.0.0.2 also covers 10.0.0.2/31 (an address ending in zero bits "
              "stands for the network above it)\nxdbc: warn.txt: warning: line 2: pattern \".ads\" is short enough to "
              "match addresses in 46.0.0.0/8 too\n");
    const struct {
        std::string args, out;
    } cases[] = {
        {"match cat.xdb domain www.example.com", "id=66051 group=2 sub=3 end=15 len=12\n"},
        {"match cat.xdb domain example.com", "no match\n"},
        {"match cat.xdb domain 1.2.3.4.5", "id=6 group=0 sub=6 end=9 len=9\n"},
        {"match cat.xdb ipv4 10.20.30.40", "id=768 group=3 sub=0 end=4 len=4\n"},
        {"match cat.xdb ipv4 192.168.1.7", "id=1048575 group=255 sub=255 end=4 len=4\n"},
        {"match cat.xdb ipv4 192.168.1.6", "no match\n"},
        {"match opt.xdb domain ads.example.com", "id=1 group=0 sub=1 end=15 len=15\n"},
        {"match opt.xdb domain x.ads.example.com", "no match\n"},
        {"match warn.xdb ipv4 46.97.100.115", "id=2 group=0 sub=2 end=4 len=4\n"},
    };
    for (const auto& c : cases) {
        result m = run(c.args);
        EXPECT_EQ(m.status, 0) << c.args;
        EXPECT_EQ(m.out, c.out) << c.args;
        EXPECT_EQ(m.err, "") << c.args;
    }
}

// A bad source line names itself and leaves no file; a usage error exits 2.
TEST_F(Xdbc, FailuresExitNonZeroWithTheirMessages) {
    put("s.txt", "a.com 1\n\na\x01.com 2\n");
    const result r = run("build s.txt out.xdb");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "xdbc: s.txt: line 3: control byte in pattern\n");
    EXPECT_FALSE(zor_test::file_exists(dir.file("out.xdb")));
    EXPECT_EQ(run("match s.txt ipv6 ::1").status, 2);
}
