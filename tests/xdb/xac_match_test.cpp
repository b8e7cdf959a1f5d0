// Domain and address matcher: what the randomised comparison does not
// reach (handler results, the prefix walk and prefilter, no file, streaming)
// and the label-boundary rule spelled out.
#include <arpa/inet.h>

#include "xdb_test_util.h"

using namespace xdbtest;

namespace {

category_db_ptr load_patterns(const pattern_list& list, xdbc::options opt = {}) {
    category_db_ptr db = load(compile_patterns(list, opt).file);
    EXPECT_TRUE(db);
    return db;
}

uint32_t addr(const char* text) {
    in_addr a{};
    EXPECT_EQ(inet_pton(AF_INET, text, &a), 1);
    return ntohl(a.s_addr);
}

}  // namespace

TEST(XacMatch, EmptyTextCallsNothingAndAHandlerResultEndsTheScan) {
    category_db_ptr db = load_patterns({{"ab", 1}, {"b", 2}, {"bc", 3}});
    recorder rec;
    rec.result = 7;
    EXPECT_EQ(category_db_match_domain(db.get(), "", 0, recorder::handler, &rec), 0u);
    xac_scanner_ptr sc = xac_scanner_new(db->tables.get(), recorder::handler, &rec, 0);
    ASSERT_TRUE(sc);
    EXPECT_EQ(xac_scan(sc.get(), "abc", 0), 0u);
    EXPECT_TRUE(rec.calls.empty());
    EXPECT_EQ(xac_scan(sc.get(), "abc", 3), 7u);
    EXPECT_EQ(rec.calls, (std::vector<match>{{1, 2, 2, ""}}));  // "b" and "bc" never reported
}

TEST(XacMatch, DomainMatchesSitOnLabelBoundaries) {
    category_db_ptr db = load_patterns({{".example.com", 1}, {"ads.", 2}, {".mid.", 4}, {"tracker", 5}});
    const struct {
        const char* name;
        uint32_t id;  // 0: no match
        uint32_t end;
        int len;
    } cases[] = {
        {"www.example.com", 1, 15, 12},  // ends the name, starts with a dot
        {"example.com", 0, 0, 0},
        {"a.example.com.b", 0, 0, 0},  // inside, but does not end with a dot
        {"ads.example.org", 2, 4, 4},  // starts the name, ends with a dot
        {"xads.example.org", 0, 0, 0},
        {"a.ads.b", 0, 0, 0},  // inside needs dots at both ends
        {"x.mid.y", 4, 6, 5},
        {"tracker", 5, 7, 7},  // the whole name
        {"tracker.com", 0, 0, 0},
        {"x.tracker", 0, 0, 0},
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

TEST(XacMatch, AnchoredScanStopsWhereTheTextLeavesTheKeys) {
    xdbc::options anchored;
    anchored.anchored = true;
    category_db_ptr db = load_patterns({{"ab", 1}, {"zz", 2}, {"b", 3}}, anchored);
    EXPECT_EQ(scan_all(*db, "ab"), (std::vector<match>{{1, 2, 2, ""}}));  // "b" is not at the start
    EXPECT_TRUE(scan_all(*db, "!ab").empty());                            // byte outside the alphabet
    EXPECT_TRUE(scan_all(*db, "zab").empty());                            // no transition from "z"
    EXPECT_EQ(scan_all(*db, "ab!ab").size(), 1u);                         // reported before the stop
}

TEST(XacMatch, PrefixWalkScansEachDistinctValueOnceMostSpecificFirst) {
    const struct {
        const char* address;
        std::vector<const char*> scanned;
    } cases[] = {
        {"10.1.2.3", {"10.1.2.3", "10.1.2.2", "10.1.2.0", "10.1.0.0", "10.0.0.0"}},
        {"10.0.0.0", {"10.0.0.0"}},
        {"192.168.0.0", {"192.168.0.0", "192.160.0.0", "192.128.0.0", "192.0.0.0"}},
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

TEST(XacMatch, AddressLookupHandsOverTheScannedValue) {
    category_db_ptr db = load(build_source("10.0.0.0/8 1\n10.1.2.3 4\n0.0.0.0/8 9\n"));
    ASSERT_TRUE(db);
    std::vector<match> got = match_ipv4(*db, "10.200.0.1");
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0], (match{1, 4, 4, ""}));
    EXPECT_EQ(got[0].text, std::string("\x0a\0\0\0", 4));
    EXPECT_EQ(match_ipv4(*db, "10.1.2.3")[0].id, 4u);
    got = match_ipv4(*db, "no.such.address");  // looked up as 0.0.0.0
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].id, 9u);
}

TEST(XacMatch, AddressOutsideThePrefilterIsNeverScanned) {
    std::vector<uint8_t> f = build_source("10.1.2.3 1\n");
    f[file_layout(f).prefilter + 12 + 10 / 8] = 0;  // clear octet 10
    category_db_ptr db = load(f);
    ASSERT_TRUE(db);
    EXPECT_TRUE(match_ipv4(*db, "10.1.2.3").empty());
    EXPECT_EQ(scan_all(*db, std::string("\x0a\x01\x02\x03", 4)).size(), 1u);  // the key is there
}

TEST(XacMatch, NothingLoadedAnswersZero) {
    xdb_release();
    recorder rec;
    EXPECT_EQ(xdb_match_domain("example.com", 11, recorder::handler, &rec), 0u);
    EXPECT_EQ(xdb_match_ipv4("10.0.0.1", recorder::handler, &rec), 0);
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

    // Without streaming each text stands alone.
    xac_scanner_ptr plain = xac_scanner_new(db->tables.get(), recorder::handler, &rec, 0);
    EXPECT_EQ(xac_scan(plain.get(), "xhel", 4), 0u);
    EXPECT_EQ(xac_scan(plain.get(), "lo", 2), 0u);
    EXPECT_TRUE(rec.calls.empty());
}
