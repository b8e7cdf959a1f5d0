// Domain and address matcher: report order, label boundaries, postfix and
// suffix confirmation, anchored mode, case folding, the prefix walk and
// streaming.
#include <arpa/inet.h>

#include "xdb_test_util.h"

using namespace xdbtest;

namespace {

category_db_ptr load_patterns(const pattern_list& list, xdbc::options opt = {}) {
    category_db_ptr db = load(compile_patterns(list, opt).file);
    EXPECT_TRUE(db);
    return db;
}

category_db_ptr load_source(const std::string& source, xdbc::options opt = {}) {
    category_db_ptr db = load(build_source(source, opt));
    EXPECT_TRUE(db);
    return db;
}

uint32_t addr(const char* text) {
    in_addr a{};
    EXPECT_EQ(inet_pton(AF_INET, text, &a), 1);
    return ntohl(a.s_addr);
}

}  // namespace

TEST(XacMatch, EmptyNameNeverCallsTheHandler) {
    category_db_ptr db = load_patterns({{"a", 1}, {".", 2}});
    recorder rec;
    EXPECT_EQ(category_db_match_domain(db.get(), "", 0, recorder::handler, &rec), 0u);
    xac_scanner sc;
    xac_scanner_init(&sc, db->tables.get(), recorder::handler, &rec, 0);
    EXPECT_EQ(xac_scan(&sc, "a", 0), 0u);
    EXPECT_TRUE(rec.calls.empty());
}

// By key end, left to right; at one end the longer key first; records of
// one key in source order.
TEST(XacMatch, ReportsEveryMatchInMatchOrder) {
    category_db_ptr db = load_patterns({{"abcd", 1}, {"bcd", 2}, {"cd", 3}, {"d", 4}, {"ab", 5}, {"abc", 6}, {"cd", 7}});
    EXPECT_EQ(scan_all(*db, "abcd"), (std::vector<match>{{5, 2, 2, ""},
                                                         {6, 3, 3, ""},
                                                         {1, 4, 4, ""},
                                                         {2, 4, 3, ""},
                                                         {3, 4, 2, ""},
                                                         {7, 4, 2, ""},
                                                         {4, 4, 1, ""}}));
    // After a leaf ("abcd" has no longer keys) the scan continues from the
    // best state down the chain: "cdab" is still found.
    EXPECT_EQ(scan_all(*db, "abcdab").back(), (match{5, 6, 2, ""}));
}

TEST(XacMatch, HandlerResultEndsTheScan) {
    category_db_ptr db = load_patterns({{"ab", 1}, {"b", 2}, {"bc", 3}});
    recorder rec;
    rec.result = 7;
    xac_scanner_ptr sc = xac_scanner_new(db->tables.get(), recorder::handler, &rec, 0);
    ASSERT_TRUE(sc);
    EXPECT_EQ(xac_scan(sc.get(), "abc", 3), 7u);
    EXPECT_EQ(rec.calls, (std::vector<match>{{1, 2, 2, ""}}));
}

TEST(XacMatch, DomainMatchesSitOnLabelBoundaries) {
    category_db_ptr db = load_patterns(
        {{".example.com", 1}, {"ads.", 2}, {"exact.host.name", 3}, {".mid.", 4}, {"tracker", 5}, {"com", 6}});
    const struct {
        const char* name;
        uint32_t id;  // 0: no match
        uint32_t end;
        int len;
    } cases[] = {
        {"www.example.com", 1, 15, 12},  // ends the name, starts with a dot
        {"example.com", 0, 0, 0},        // the dot has nothing before it
        {"a.b.example.com.", 0, 0, 0},   // inside, but does not end with a dot
        {"ads.example.org", 2, 4, 4},    // starts the name, ends with a dot
        {"xads.example.org", 0, 0, 0},
        {"a.ads.b", 0, 0, 0},  // inside needs dots at both ends
        {"exact.host.name", 3, 15, 15},
        {"a.exact.host.name", 0, 0, 0},
        {"x.mid.y", 4, 6, 5},
        {"mid.y", 0, 0, 0},
        {"tracker", 5, 7, 7},  // the whole name
        {"tracker.com", 0, 0, 0},
        {"x.tracker", 0, 0, 0},
        {"com", 6, 3, 3},
        {"x.com", 0, 0, 0},
    };
    for (const auto& c : cases) {
        const std::vector<match> got = match_domain(*db, c.name);
        if (c.id == 0) {
            EXPECT_TRUE(got.empty()) << c.name << " matched " << got[0];
        } else {
            ASSERT_EQ(got.size(), 1u) << c.name;
            EXPECT_EQ(got[0], (match{c.id, c.end, c.len, ""})) << c.name;
            EXPECT_EQ(got[0].text, c.name);
        }
    }
}

// A rejected match does not end the lookup: a later one can still win.
TEST(XacMatch, RejectedMatchLetsALaterOneWin) {
    category_db_ptr db = load_patterns({{"ads", 1}, {".ads.net", 2}});
    const std::vector<match> got = match_domain(*db, "ads.ads.net");
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0], (match{2, 11, 8, ""}));
}

TEST(XacMatch, PostfixAndSuffixMustFitInTheText) {
    xdbc::options opt;
    opt.suffix_unit = 3;
    const xdbc::compiled c = compile_patterns({{"abcdefghi", 1}, {"longname1.com", 2}, {"longname2.com", 3}}, opt);
    EXPECT_EQ(c.layouts[0].postfix_len, 2u);
    EXPECT_FALSE(c.layouts[0].has_suffix);
    EXPECT_TRUE(c.layouts[1].has_suffix && c.layouts[2].has_suffix);
    category_db_ptr db = load(c.file);
    ASSERT_TRUE(db);
    EXPECT_TRUE(scan_all(*db, "abcdefghi", 7).empty());  // key matched, postfix needs 2 more bytes
    EXPECT_TRUE(scan_all(*db, "abcdefghi", 8).empty());
    EXPECT_TRUE(scan_all(*db, "abcdefgxi").empty());
    EXPECT_EQ(scan_all(*db, "abcdefghi"), (std::vector<match>{{1, 9, 9, ""}}));
    EXPECT_TRUE(scan_all(*db, "longname1.com", 12).empty());  // suffix needs one more byte
    EXPECT_TRUE(scan_all(*db, "longname1.cox").empty());
    EXPECT_EQ(scan_all(*db, "longname2.com"), (std::vector<match>{{3, 13, 13, ""}}));
}

TEST(XacMatch, AnchoredScanStopsWhereTheTextLeavesTheKeys) {
    xdbc::options anchored;
    anchored.anchored = true;
    const pattern_list list = {{"ab", 1}, {"zz", 2}, {"b", 3}};
    category_db_ptr a = load_patterns(list, anchored);
    category_db_ptr free = load_patterns(list);
    ASSERT_TRUE(a->tables->anchored);
    EXPECT_EQ(scan_all(*a, "ab"), (std::vector<match>{{1, 2, 2, ""}}));  // "b" is not at the start
    EXPECT_EQ(scan_all(*free, "ab"), (std::vector<match>{{1, 2, 2, ""}, {3, 2, 1, ""}}));
    EXPECT_TRUE(scan_all(*a, "!ab").empty());   // byte outside the alphabet
    EXPECT_TRUE(scan_all(*a, "zab").empty());   // no transition from "z" on "a"
    EXPECT_TRUE(scan_all(*a, "aab").empty());   // none from the root's "a" either
    EXPECT_EQ(scan_all(*a, "ab!ab").size(), 1u);  // reported before the stop
    EXPECT_EQ(scan_all(*free, "!ab").size(), 2u);
}

TEST(XacMatch, AnchoredDomainPatternsMatchFromTheFirstLabel) {
    xdbc::options opt;
    opt.anchored = true;
    category_db_ptr db = load_patterns({{"ads.", 1}, {"www.example.com", 2}}, opt);
    EXPECT_EQ(match_domain(*db, "ads.example.com").size(), 1u);
    EXPECT_TRUE(match_domain(*db, "x.ads.example.com").empty());
    EXPECT_EQ(match_domain(*db, "www.example.com").size(), 1u);
    EXPECT_TRUE(match_domain(*db, "www.example.com.au").empty());
}

// Folding reaches the key only; the postfix is compared exactly.
TEST(XacMatch, CaseFoldingCoversTheKeyNotThePostfix) {
    xdbc::options fold;
    fold.fold_case = true;
    category_db_ptr folded = load_patterns({{"Ads.Example.com", 1}, {"TRK", 2}}, fold);
    category_db_ptr exact = load_patterns({{"Ads.Example.com", 1}, {"TRK", 2}});
    EXPECT_EQ(match_domain(*folded, "ads.example.com").size(), 1u);
    EXPECT_EQ(match_domain(*folded, "ADS.EXAmple.com").size(), 1u);
    EXPECT_TRUE(match_domain(*folded, "ads.exAMPLE.com").empty());
    EXPECT_EQ(match_domain(*folded, "trk").size(), 1u);
    EXPECT_TRUE(match_domain(*exact, "ads.example.com").empty());
    EXPECT_EQ(match_domain(*exact, "Ads.Example.com").size(), 1u);
    EXPECT_TRUE(match_domain(*exact, "trk").empty());
}

TEST(XacMatch, PrefixWalkScansEachDistinctValueOnceMostSpecificFirst) {
    const struct {
        const char* address;
        std::vector<const char*> scanned;
    } cases[] = {
        {"10.1.2.3", {"10.1.2.3", "10.1.2.2", "10.1.2.0", "10.1.0.0", "10.0.0.0"}},
        {"10.0.0.0", {"10.0.0.0"}},
        {"192.168.0.0", {"192.168.0.0", "192.160.0.0", "192.128.0.0", "192.0.0.0"}},
        {"0.0.0.1", {"0.0.0.1", "0.0.0.0"}},
    };
    for (const auto& c : cases) {
        uint32_t out[25];
        const int n = xdb_ipv4_prefixes(addr(c.address), out);
        ASSERT_EQ(n, static_cast<int>(c.scanned.size())) << c.address;
        for (int k = 0; k < n; ++k) EXPECT_EQ(out[k], addr(c.scanned[k])) << c.address << " #" << k;
    }
    uint32_t out[25];
    EXPECT_EQ(xdb_ipv4_prefixes(0xFFFFFFFFu, out), 25);
}

TEST(XacMatch, MostSpecificAddressRuleWins) {
    category_db_ptr db = load_source("10.0.0.0/8 1\n10.1.0.0/16 2\n10.1.2.0/24 3\n10.1.2.3 4\n"
                                     "192.168.0.0/16 5\n192.168.1.128/25 6\n");
    const struct {
        const char* address;
        uint32_t id;
    } cases[] = {
        {"10.1.2.3", 4},     {"10.1.2.4", 3},     {"10.1.2.255", 3},  {"10.1.3.1", 2},    {"10.1.0.0", 2},
        {"10.2.0.1", 1},     {"10.0.0.0", 1},     {"10.255.255.255", 1}, {"11.0.0.1", 0},  {"192.168.1.200", 6},
        {"192.168.1.128", 6}, {"192.168.1.127", 5}, {"192.168.200.9", 5}, {"192.169.0.1", 0}, {"192.167.255.255", 0},
        {"not an address", 0},
    };
    for (const auto& c : cases) {
        const std::vector<match> got = match_ipv4(*db, c.address);
        if (c.id == 0) {
            EXPECT_TRUE(got.empty()) << c.address << " matched " << got[0];
        } else {
            ASSERT_EQ(got.size(), 1u) << c.address;
            EXPECT_EQ(got[0].id, c.id) << c.address;
            EXPECT_EQ(got[0].end, 4u);
            EXPECT_EQ(got[0].len, 4);
            EXPECT_EQ(got[0].text.size(), 4u);
        }
    }
    // The handler sees the scanned value, here the /8 one.
    EXPECT_EQ(match_ipv4(*db, "10.200.0.1")[0].text, std::string("\x0a\0\0\0", 4));
}

TEST(XacMatch, UnparsableAddressIsLookedUpAsZero) {
    category_db_ptr db = load_source("0.0.0.0/8 9\n");
    const std::vector<match> got = match_ipv4(*db, "no.such.address");
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].id, 9u);
}

TEST(XacMatch, AddressOutsideThePrefilterIsNeverScanned) {
    std::vector<uint8_t> f = build_source("10.1.2.3 1\n");
    category_db_ptr before = load(f);
    ASSERT_EQ(match_ipv4(*before, "10.1.2.3").size(), 1u);
    const file_layout at(f);
    f[at.prefilter + 12 + 10 / 8] = 0;  // clear octet 10
    category_db_ptr after = load(f);
    ASSERT_TRUE(after);
    EXPECT_TRUE(match_ipv4(*after, "10.1.2.3").empty());
    // The automaton itself still knows the key.
    EXPECT_EQ(scan_all(*after, std::string("\x0a\x01\x02\x03", 4)).size(), 1u);
}

TEST(XacMatch, NothingLoadedAnswersZero) {
    xdb_release();
    recorder rec;
    EXPECT_EQ(xdb_match_domain("example.com", 11, recorder::handler, &rec), 0u);
    EXPECT_EQ(xdb_match_ipv4("10.0.0.1", recorder::handler, &rec), 0);
    EXPECT_EQ(category_db_match_domain(nullptr, "a", 1, recorder::handler, &rec), 0u);
    EXPECT_TRUE(rec.calls.empty());
}

TEST(XacMatch, StreamingCarriesStateAndUnfinishedRecordsAcrossTexts) {
    category_db_ptr db = load_patterns({{"hello", 1}, {"abcdefghij", 2}});
    recorder rec;
    xac_scanner_ptr sc = xac_scanner_new(db->tables.get(), recorder::handler, &rec, 1);
    ASSERT_TRUE(sc);
    EXPECT_EQ(xac_scan(sc.get(), "xhel", 4), 0u);
    EXPECT_EQ(xac_scan(sc.get(), "lo", 2), 0u);
    EXPECT_EQ(rec.calls, (std::vector<match>{{1, 2, 5, ""}}));  // the key spans both texts

    rec.calls.clear();
    EXPECT_EQ(xac_scan(sc.get(), "zzabcdefgh", 10), 0u);
    EXPECT_EQ(sc->pending_count, 1u);
    EXPECT_EQ(xac_scan(sc.get(), "i", 1), 0u);  // still one postfix byte short
    EXPECT_EQ(xac_scan(sc.get(), "jk", 2), 0u);
    EXPECT_EQ(rec.calls, (std::vector<match>{{2, 1, 10, ""}}));
    EXPECT_EQ(sc->pending_count, 0u);

    rec.calls.clear();
    EXPECT_EQ(xac_scan(sc.get(), "abcdefgh", 8), 0u);
    EXPECT_EQ(xac_scan(sc.get(), "X", 1), 0u);  // disagrees: dropped
    EXPECT_EQ(sc->pending_count, 0u);
    EXPECT_TRUE(rec.calls.empty());

    // Without streaming each text stands alone.
    xac_scanner_ptr plain = xac_scanner_new(db->tables.get(), recorder::handler, &rec, 0);
    EXPECT_EQ(xac_scan(plain.get(), "xhel", 4), 0u);
    EXPECT_EQ(xac_scan(plain.get(), "lo", 2), 0u);
    EXPECT_TRUE(rec.calls.empty());
}
