// Category file loader: messages and outcomes for good and damaged files.
#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <random>
#include <thread>

#include "test_util.h"
#include "xdb_test_util.h"

using namespace xdbtest;

namespace {

// A key that is a prefix of others (output hash), leaves, a chain of
// records on one key, postfixes, shared suffixes and an address rule.
std::vector<uint8_t> sample_file() {
    xdbc::options opt;
    opt.suffix_unit = 4;
    return build_source(".example.com 1\n.sample.com 2\n.sample.com 3\nads. 4\nads.tracker.net 5\n"
                        ".longer-label.example.net 6\nx.example.net 7\n10.0.0.0/8 8\n",
                        opt);
}

struct load_outcome {
    category_db_ptr db;
    std::string err;
};

load_outcome load_path(const std::string& path) {
    capture err(2);
    category_db_ptr db = xdb_load(path.c_str());
    return {std::move(db), err.text()};
}

load_outcome load_bytes(const std::vector<uint8_t>& bytes) {
    zor_test::temp_dir dir;
    zor_test::write_file(dir.file("f.xdb"), std::string(bytes.begin(), bytes.end()));
    return load_path(dir.file("f.xdb"));
}

using damage = std::function<void(std::vector<uint8_t>&)>;
const std::string kFailed = "Failed to load xdb!\n";

}  // namespace

TEST(XdbLoad, CompiledFileLoadsSilentlyWithHostOrderTables) {
    const std::vector<uint8_t> file = sample_file();
    const file_layout at(file);
    load_outcome r = load_bytes(file);
    ASSERT_TRUE(r.db) << r.err;
    EXPECT_EQ(r.err, "");
    const xac_tables& tb = *r.db->tables;
    EXPECT_EQ(tb.suffix_unit, 4u);
    ASSERT_TRUE(tb.patterns && tb.postfix && tb.suffix && at.H > 0);
    EXPECT_EQ(tb.hash, tb.trans + at.T);
    EXPECT_EQ(std::memcmp(tb.header, file.data() + file_layout::header, XAC_HEADER_SIZE), 0);
    for (uint32_t i = 0; i < at.T + 2 * at.H; ++i) ASSERT_EQ(tb.trans[i], get32(file, at.word(i))) << i;
    for (uint32_t w = 0; w < 2 * (at.N + 1); ++w) ASSERT_EQ(tb.patterns[w], get32(file, at.patterns + 4 * w));
    const uint8_t* map = file.data() + file_layout::header + 16;
    EXPECT_EQ(tb.symbols['e'], map[2 * 'e'] << 8 | map[2 * 'e' + 1]);
    ASSERT_TRUE(r.db->prefilter);
    EXPECT_EQ(r.db->prefilter[1], 0x20);  // octet 10
}

TEST(XdbLoad, InitPrintsSuccessAndFailureLeavesNothingLoaded) {
    zor_test::temp_dir dir;
    const std::vector<uint8_t> file = sample_file();
    zor_test::write_file(dir.file("good.xdb"), std::string(file.begin(), file.end()));
    {
        capture out(1);
        ASSERT_EQ(xdb_init(dir.file("good.xdb").c_str()), 0);
        EXPECT_EQ(out.text(), "Success to load xdb.\n");
    }
    EXPECT_EQ(xdb_match_domain("www.example.com", 15, nullptr, nullptr), 1u);
    EXPECT_EQ(xdb_match_ipv4("10.9.8.7", nullptr, nullptr), 1);
    capture err(2);
    EXPECT_EQ(xdb_init("/nonexistent/zor.xdb"), -1);
    EXPECT_EQ(err.text(), "Failed to open file, /nonexistent/zor.xdb!\n");
    EXPECT_EQ(xdb_get(), nullptr);
    xdb_release();
    xdb_release();
}

// The first failing step decides the message; every failure of the xac
// block ends with the final line.
TEST(XdbLoad, DamagedXacBlockIsRefusedWithItsStepMessage) {
    const std::vector<uint8_t> good = sample_file();
    const file_layout at(good);
    auto cut = [](size_t n) -> damage { return [n](std::vector<uint8_t>& f) { f.resize(n); }; };
    auto set = [](size_t off, uint8_t v) -> damage { return [=](std::vector<uint8_t>& f) { f[off] = v; }; };
    auto add = [](size_t off, uint8_t v) -> damage { return [=](std::vector<uint8_t>& f) { f[off] |= v; }; };
    auto num = [](const char* what, long v) { return std::string("Failed to load ") + what + std::to_string(v) + "!\n"; };
    const struct {
        damage hurt;
        std::string message;
    } cases[] = {
        {cut(0), "Failed to read xac header!\n"},
        {cut(11), "Failed to read xac header!\n"},
        {set(0, 2), "This is not xac block!\n"},
        {cut(12 + 575), "Failed to check file size!\n"},
        {set(12, 'E'), "Failed to check magic!\n"},
        {add(file_layout::flag_a, 0x40), "This xac file is 4x format!\n"},
        {add(file_layout::flag_b, 0x06), "This scanner doesn't support S2!\n"},
        {add(file_layout::flag_b, 0x02), "This scanner doesn't support category field!\n"},
        {cut(at.hash + 4), num("tran table, ", 4L * (at.T + 2 * at.H))},
        {[](std::vector<uint8_t>& f) { put32(f, file_layout::trans_count, 0x7FFFFFFF); },
         num("tran table, ", 4L * (0x7FFFFFFFL + 2 * at.H))},
        {cut(at.postfix - 1), num("pattern table, ", 8L * (at.N + 1))},
        {cut(at.suffix - 1), num("postfix table, ", at.P)},
        {cut(at.prefilter - 1), num("suffix table, ", at.S)},
    };
    for (const auto& c : cases) {
        std::vector<uint8_t> f = good;
        c.hurt(f);
        load_outcome r = load_bytes(f);
        EXPECT_FALSE(r.db) << c.message;
        EXPECT_EQ(r.err, c.message + kFailed);
    }
}

TEST(XdbLoad, MissingOrBrokenPrefilterStillLoadsButBlocksAddressLookups) {
    const std::vector<uint8_t> good = sample_file();
    const file_layout at(good);
    const struct {
        damage hurt;
        std::string message;
    } cases[] = {
        {[&](std::vector<uint8_t>& f) { f.resize(at.prefilter); }, "Failed to read ip prefilter header!\n"},
        {[&](std::vector<uint8_t>& f) { f[at.prefilter] = 3; }, "This is not ip prefilter block!\n"},
        {[&](std::vector<uint8_t>& f) { f.resize(f.size() - 5); }, "Failed to load table, 32!\n"},
        {[&](std::vector<uint8_t>& f) { put32(f, at.prefilter + 4, 0x80000000u); },
         "Failed to load table, -2147483648!\n"},
    };
    for (const auto& c : cases) {
        std::vector<uint8_t> f = good;
        c.hurt(f);
        load_outcome r = load_bytes(f);
        ASSERT_TRUE(r.db) << c.message;
        EXPECT_EQ(r.err, c.message);
        EXPECT_EQ(r.db->prefilter, nullptr);
        EXPECT_TRUE(match_ipv4(*r.db, "10.1.1.1").empty()) << c.message;
        EXPECT_EQ(match_domain(*r.db, "www.example.com").size(), 1u) << c.message;
    }
    // A bitmap declared shorter than 32 bytes knows only its own octets.
    std::vector<uint8_t> f = build_source("10.0.0.0/8 1\n200.0.0.0/8 2\n");
    put32(f, file_layout(f).prefilter + 4, 2);
    load_outcome r = load_bytes(f);
    ASSERT_TRUE(r.db);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(match_ipv4(*r.db, "10.2.3.4").size(), 1u);
    EXPECT_TRUE(match_ipv4(*r.db, "200.2.3.4").empty());
}

// Without pattern tables the prefilter follows the transitions; the handler
// gets the first record index with length 0, which no lookup accepts. With
// them, empty postfix and suffix tables stay null.
TEST(XdbLoad, AbsentTablesStayNull) {
    std::vector<uint8_t> f = compile_patterns({{"abc", 1}, {"bc", 2}}, {}, {10}).file;
    const file_layout at(f);
    f[file_layout::flag_a] &= static_cast<uint8_t>(~0x1C);
    f.erase(f.begin() + static_cast<long>(at.patterns), f.begin() + static_cast<long>(at.prefilter));
    load_outcome r = load_bytes(f);
    ASSERT_TRUE(r.db) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(!r.db->tables->patterns && !r.db->tables->postfix && !r.db->tables->suffix);
    ASSERT_TRUE(r.db->prefilter);
    // Records are numbered breadth first: "bc" is 0, "abc" 1 (reported first).
    EXPECT_EQ(scan_all(*r.db, "xabc"), (std::vector<match>{{1, 4, 0, ""}, {0, 4, 0, ""}}));
    EXPECT_TRUE(match_domain(*r.db, "abc").empty());

    r = load_bytes(compile_patterns({{"ab.cd", 1}}).file);
    ASSERT_TRUE(r.db);
    EXPECT_TRUE(r.db->tables->patterns && !r.db->tables->postfix && !r.db->tables->suffix);
}

TEST(XdbLoad, ReadsFromAPipe) {
    const std::vector<uint8_t> file = sample_file();
    zor_test::temp_dir dir;
    const std::string path = dir.file("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    std::thread writer([&] {
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(file.data()), static_cast<std::streamsize>(file.size()));
    });
    load_outcome r = load_path(path);
    writer.join();
    ASSERT_TRUE(r.db) << r.err;
    EXPECT_EQ(match_domain(*r.db, "a.sample.com").size(), 1u);
}

// Tables that would let the matcher leave them are refused as a whole.
TEST(XdbLoad, InconsistentTablesAreRefused) {
    const std::vector<uint8_t> good = sample_file();
    const file_layout at(good);
    category_db_ptr db = load(good);
    ASSERT_TRUE(db);
    const xac_tables& tb = *db->tables;
    const uint32_t shift = tb.state_shift, field = 0x3FFFFFFFu >> shift << shift;
    // From the loaded tables: a root transition without outputs (and its
    // target state), a leaf transition and a hashed one.
    uint32_t plain = 0, state = 0, leaf = 0, hashed = 0;
    for (int b = 0; b < 256 && !plain; ++b) {
        const uint32_t c = tb.symbols[b], x = c && c < at.T ? tb.trans[c] ^ c : 1;
        if (!(x & tb.check_mask) && !(x >> 30)) plain = c, state = (x & field) >> shift;
    }
    for (uint32_t i = 1; i < at.T; ++i) {
        const uint32_t w = tb.trans[i];
        if (w & 0x80000000u) ((w & field) >> shift >= at.T ? leaf : hashed) = i;
    }
    ASSERT_TRUE(plain && state && leaf && hashed);

    const struct {
        damage hurt;
        const char* why;
    } cases[] = {
        {[&](std::vector<uint8_t>& f) { put32(f, at.word(plain), (at.T + 3) << shift | plain); },
         "transition target outside the transition table"},
        {[&](std::vector<uint8_t>& f) { put32(f, at.word(state), (at.T + 1) << shift); },
         "failure link outside the transition table"},
        {[&](std::vector<uint8_t>& f) { put32(f, at.word(state), state << shift); }, "failure links form a cycle"},
        {[&](std::vector<uint8_t>& f) {
             put32(f, at.word(leaf), (get32(f, at.word(leaf)) & ~field) | (at.T + at.N + 1) << shift);
         },
         "pattern index outside its table"},
        {[&](std::vector<uint8_t>& f) {
             for (uint32_t q = 0; q < at.H; ++q)
                 if (get32(f, at.hash + 8 * q) < at.T) put32(f, at.hash + 8 * q + 4, at.N + 7);
         },
         "pattern index outside its table"},
        {[&](std::vector<uint8_t>& f) { put32(f, file_layout::hash_modulus, 0); }, "output hash without a modulus"},
        {[&](std::vector<uint8_t>& f) {
             for (uint32_t r = 0; r < at.N; ++r)
                 if (f[at.record(r) + 4]) put32(f, at.record(r) + 4, uint32_t{f[at.record(r) + 4]} << 24 | at.P);
         },
         "postfix outside its table"},
        {[&](std::vector<uint8_t>& f) {
             for (uint32_t r = 0; r < at.N; ++r) f[at.record(r) + 1] |= 0xF0, f[at.record(r)] |= 0x07;
         },
         "suffix outside its table"},
        {[&](std::vector<uint8_t>& f) {
             for (uint32_t r = 0; r <= at.N; ++r) f[at.record(r)] |= 0x80;
         },
         "pattern chain runs past its table"},
    };
    for (const auto& c : cases) {
        std::vector<uint8_t> f = good;
        c.hurt(f);
        load_outcome r = load_bytes(f);
        EXPECT_FALSE(r.db) << c.why;
        EXPECT_EQ(r.err, std::string("Invalid xac tables, ") + c.why + "!\n" + kFailed);
    }
}

// Random damage anywhere: the loader either refuses with its final line or
// hands out tables every lookup walks safely (the sanitizer build turns a
// stray read into a failure).
TEST(XdbLoad, RandomDamageNeverEscapesTheTables) {
    const std::vector<uint8_t> good = sample_file();
    const size_t words = (file_layout(good).prefilter - file_layout::trans) / 4;
    const char* names[] = {"www.example.com", "ads.tracker.net", "a.sample.com", "q.longer-label.example.net",
                           "example.com.ads.x.sample.com"};
    std::mt19937 rng(20240611);
    int loaded = 0, refused = 0;
    for (int round = 0; round < 3000; ++round) {
        std::vector<uint8_t> f = good;
        const size_t word = file_layout::trans + 4 * (rng() % words);
        switch (round % 3) {
        case 0: for (int k = 0; k < 3; ++k) f[rng() % f.size()] = static_cast<uint8_t>(rng()); break;
        case 1: put32(f, word, static_cast<uint32_t>(rng())); break;
        default: put32(f, word, get32(f, word) ^ 1u << (rng() % 32)); break;  // often still passes the checks
        }
        if (rng() % 10 == 0) f.resize(rng() % f.size());
        capture err(2);
        category_db_ptr db = load(f);
        const std::string text = err.text();
        if (!db) {
            ++refused;
            ASSERT_GE(text.size(), kFailed.size());
            ASSERT_EQ(text.substr(text.size() - kFailed.size()), kFailed);
            continue;
        }
        ++loaded;
        for (const char* n : names) {
            category_db_match_domain(db.get(), n, std::strlen(n), nullptr, nullptr);
            scan_all(*db, n);
        }
        for (const char* a : {"10.1.2.3", "10.0.0.0", "0.0.0.0"}) category_db_match_ipv4(db.get(), a, nullptr, nullptr);
    }
    EXPECT_GT(loaded, 100);
    EXPECT_GT(refused, 100);
}
