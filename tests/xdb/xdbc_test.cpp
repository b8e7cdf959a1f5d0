// The category file compiler: source rules, address values, limits, and the
// xdbc command as a user runs it.
#include "test_util.h"
#include "util/cmd_runner.h"
#include "xdb_test_util.h"

using namespace xdbtest;

namespace {

std::string parse_error(const std::string& source) {
    std::vector<xdbc::rule> rules;
    std::string error;
    EXPECT_FALSE(xdbc::parse_source(source, rules, error)) << source;
    return error;
}

std::string dotted(uint32_t v) {
    return std::to_string(v >> 24) + "." + std::to_string(v >> 16 & 255) + "." + std::to_string(v >> 8 & 255) + "." +
           std::to_string(v & 255);
}

}  // namespace

TEST(Xdbc, SourceErrorsNameTheLine) {
    const struct {
        std::string source;
        std::string error;
    } cases[] = {
        {"a.com 1\n\nb.com\n", "line 3: expected a pattern and a category id"},
        {"# c\na.com 0x100000\n", "line 2: bad category id \"0x100000\" (decimal or 0x hex, at most 0xFFFFF)"},
        {"a.com 12a\n", "line 1: bad category id \"12a\" (decimal or 0x hex, at most 0xFFFFF)"},
        {"a.com -1\n", "line 1: bad category id \"-1\" (decimal or 0x hex, at most 0xFFFFF)"},
        {"10.0.0.256 1\n", "line 1: address octet above 255"},
        {"10.0.0.0/7 1\n", "line 1: prefix length must be 8 to 32"},
        {"10.0.0.0/ 1\n", "line 1: prefix length must be 8 to 32"},
        {"a\x01.com 1\n", "line 1: control byte in pattern"},
    };
    for (const auto& c : cases) EXPECT_EQ(parse_error(c.source), c.error) << c.source;
}

TEST(Xdbc, SourceRulesAndTheirForms) {
    std::vector<xdbc::rule> rules;
    std::string error;
    ASSERT_TRUE(xdbc::parse_source("# comment line\n"
                                   "  .example.com\t0x10203   # trailing comment\r\n"
                                   "\n"
                                   "10.1.2.3/8 17\n"
                                   "192.168.1.7 0XFFFFF\n"
                                   "1.2.3 5\n"  // not four octets: a domain pattern
                                   "1.2.3.4.5 6\n",
                                   rules, error))
        << error;
    ASSERT_EQ(rules.size(), 5u);
    EXPECT_FALSE(rules[0].is_ipv4);
    EXPECT_EQ(rules[0].text, ".example.com");
    EXPECT_EQ(rules[0].id, 0x10203u);
    EXPECT_EQ(rules[0].line, 2);
    EXPECT_TRUE(rules[1].is_ipv4);
    EXPECT_EQ(dotted(rules[1].network), "10.0.0.0");  // host bits cleared
    EXPECT_EQ(rules[1].prefix, 8);
    EXPECT_EQ(rules[1].line, 4);
    EXPECT_EQ(dotted(rules[2].network), "192.168.1.7");
    EXPECT_EQ(rules[2].prefix, 32);
    EXPECT_EQ(rules[2].id, 0xFFFFFu);
    EXPECT_EQ(rules[3].text, "1.2.3");
    EXPECT_EQ(rules[4].text, "1.2.3.4.5");
}

// A value stands for the network above its lowest one bit; a network whose
// last prefix bit is zero is spread over one value per host bit.
TEST(Xdbc, AddressRulesBecomeTheValuesTheWalkReaches) {
    const struct {
        uint32_t network;
        int prefix;
        std::vector<std::string> values;
    } cases[] = {
        {0x0A000000, 8, {"10.0.0.0"}},
        {0x0A010000, 16, {"10.1.0.0"}},
        {0x0A000002, 32, {"10.0.0.2"}},
        {0x0A000000, 30, {"10.0.0.2", "10.0.0.1"}},
        {0x0A010200, 24, {"10.1.2.128", "10.1.2.64", "10.1.2.32", "10.1.2.16", "10.1.2.8", "10.1.2.4", "10.1.2.2",
                          "10.1.2.1"}},
    };
    for (const auto& c : cases) {
        std::vector<std::string> got;
        for (uint32_t v : xdbc::ipv4_values(c.network, c.prefix)) got.push_back(dotted(v));
        EXPECT_EQ(got, c.values) << dotted(c.network) << "/" << c.prefix;
    }
    EXPECT_EQ(xdbc::ipv4_values(0xC0A80000, 16).size(), 16u);
}

TEST(Xdbc, WarnsAboutRulesThatReachFurtherThanWritten) {
    std::vector<xdbc::rule> rules;
    std::string error;
    ASSERT_TRUE(xdbc::parse_source("10.0.0.2 1\n.ads 2\n10.0.0.3 3\n.ads.example.com 4\n", rules, error));
    std::vector<std::string> warnings;
    xdbc::compiled out;
    ASSERT_TRUE(xdbc::build({}, rules, out, error, warnings)) << error;
    EXPECT_EQ(warnings, (std::vector<std::string>{
                            "line 1: 10.0.0.2 also covers 10.0.0.2/31 (an address ending in zero bits stands for the "
                            "network above it)",
                        }));

    rules.clear();
    warnings.clear();
    ASSERT_TRUE(xdbc::parse_source(".ads 2\n46.1.2.3 3\n", rules, error));
    ASSERT_TRUE(xdbc::build({}, rules, out, error, warnings)) << error;
    EXPECT_EQ(warnings, (std::vector<std::string>{
                            "line 1: pattern \".ads\" is short enough to match addresses in 46.0.0.0/8 too"}));
    // The warning is real: the address lookup finds the domain pattern.
    category_db_ptr db = load(out.file);
    ASSERT_TRUE(db);
    const std::vector<match> got = match_ipv4(*db, "46.97.100.115");
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].id, 2u);
}

TEST(Xdbc, PatternsBeyondTheFormatAreRefused) {
    std::vector<xdbc::rule> rules;
    std::string error;
    std::vector<std::string> warnings;
    xdbc::compiled out;
    ASSERT_TRUE(xdbc::parse_source("ok.com 1\n" + std::string(262, 'a') + " 2\n" + std::string(263, 'b') + " 3\n",
                                   rules, error));
    EXPECT_FALSE(xdbc::build({}, rules, out, error, warnings));
    EXPECT_EQ(error, "line 3: pattern too long (263 bytes; at most 262)");

    std::vector<xdbc::pattern> pats = {{"a", 0x100000, 4}};
    EXPECT_FALSE(xdbc::compile({}, pats, {}, out, error));
    EXPECT_EQ(error, "line 4: category id above 0xFFFFF");
    pats = {{"", 1, 5}};
    EXPECT_FALSE(xdbc::compile({}, pats, {}, out, error));
    EXPECT_EQ(error, "line 5: empty pattern");
}

// The most frequent endings become shared suffixes; one used once does not,
// and only patterns that keep a full seven-byte key use them.
TEST(Xdbc, SharedSuffixesAreTheCommonEndings) {
    xdbc::options opt;
    opt.suffix_unit = 4;
    const xdbc::compiled c = compile_patterns(
        {{"alpha-one.com", 1}, {"beta-two.com", 2}, {"gamma.com", 3}, {"lonely.org", 4}, {"ab.com", 5}, {"delta.net", 6}},
        opt);
    std::vector<bool> got;
    for (const auto& l : c.layouts) got.push_back(l.has_suffix);
    EXPECT_EQ(got, (std::vector<bool>{true, true, false, false, false, false}));
    category_db_ptr db = load(c.file);
    ASSERT_TRUE(db);
    EXPECT_EQ(db->tables->suffix_size, 8u);  // index 0 is "none"
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(db->tables->suffix.get()) + 4, 4), ".com");
    EXPECT_EQ(match_domain(*db, "beta-two.com").size(), 1u);
}

namespace {

struct run_result {
    int status;
    std::string out, err;
};

class XdbcCommand : public testing::Test {
protected:
    run_result run(const std::string& args) const {
        const std::string line = "cd '" + dir.path() + "' && '" ZOR_BINARY_DIR "/tools/xdbc/xdbc' " + args +
                                 " >out.txt 2>err.txt; echo $?";
        const std::optional<std::string> status = cmd_capture_shell(line);
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

TEST_F(XdbcCommand, BuildThenMatchAndDump) {
    put("rules.txt", ".example.com 0x10203\nads. 5\n10.0.0.0/8 0x300\n");
    run_result r = run("build rules.txt cat.xdb");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out.rfind("cat.xdb: 3 rules, ", 0), 0u) << r.out;
    EXPECT_FALSE(zor_test::file_exists(dir.file("cat.xdb.tmp")));

    const struct {
        const char* args;
        const char* out;
    } cases[] = {
        {"match cat.xdb domain www.example.com", "id=66051 group=2 sub=3 end=15 len=12\n"},
        {"match cat.xdb domain example.com", "no match\n"},
        {"match cat.xdb domain ads.example.org", "id=5 group=0 sub=5 end=4 len=4\n"},
        {"match cat.xdb ipv4 10.20.30.40", "id=768 group=3 sub=0 end=4 len=4\n"},
        {"match cat.xdb ipv4 11.0.0.1", "no match\n"},
    };
    for (const auto& c : cases) {
        run_result m = run(c.args);
        EXPECT_EQ(m.status, 0) << c.args;
        EXPECT_EQ(m.out, c.out) << c.args;
        EXPECT_EQ(m.err, "") << c.args;
    }

    run_result d = run("dump cat.xdb");
    EXPECT_EQ(d.status, 0);
    EXPECT_NE(d.out.find("magic:             0xE807\n"), std::string::npos) << d.out;
    EXPECT_NE(d.out.find("anchored:          no\n"), std::string::npos) << d.out;
    EXPECT_NE(d.out.find("ip prefilter:      32 bytes, first octets: 10\n"), std::string::npos) << d.out;
    EXPECT_NE(d.out.find("loads:             yes\n"), std::string::npos) << d.out;
}

TEST_F(XdbcCommand, BuildOptionsReachTheFile) {
    put("rules.txt", "Ads.Example.com 1\n");
    ASSERT_EQ(run("build --anchored --fold-case --suffix-unit 5 rules.txt cat.xdb").status, 0);
    run_result d = run("dump cat.xdb");
    EXPECT_NE(d.out.find("anchored:          yes\n"), std::string::npos) << d.out;
    EXPECT_NE(d.out.find("suffix unit:       5\n"), std::string::npos) << d.out;
    EXPECT_EQ(run("match cat.xdb domain ads.example.com").out, "id=1 group=0 sub=1 end=15 len=15\n");
    EXPECT_EQ(run("match cat.xdb domain x.ads.example.com").out, "no match\n");
}

TEST_F(XdbcCommand, FailuresExitNonZeroWithTheirMessages) {
    put("bad.txt", "good.com 1\nbad.com\n");
    run_result b = run("build bad.txt out.xdb");
    EXPECT_EQ(b.status, 1);
    EXPECT_EQ(b.err, "xdbc: bad.txt: line 2: expected a pattern and a category id\n");
    EXPECT_FALSE(zor_test::file_exists(dir.file("out.xdb")));

    run_result missing = run("match nothere.xdb domain a.com");
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.err, "Failed to open file, nothere.xdb!\n");
    EXPECT_EQ(missing.out, "");

    put("junk.xdb", std::string(600, '\x01'));
    run_result junk = run("match junk.xdb ipv4 1.2.3.4");
    EXPECT_EQ(junk.status, 2);
    EXPECT_EQ(junk.err, "Failed to check magic!\nFailed to load xdb!\n");

    EXPECT_EQ(run("").status, 2);
    EXPECT_EQ(run("build --suffix-unit 8 bad.txt out.xdb").status, 2);
    EXPECT_EQ(run("match junk.xdb ipv6 ::1").status, 2);
    EXPECT_EQ(run("build nosuchfile.txt out.xdb").status, 1);
}
