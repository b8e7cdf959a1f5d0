// Category file loader: messages and outcomes for good and damaged files.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <thread>

#include "xdb_test_util.h"

using namespace xdbtest;

namespace {

// Short keys, a key that is a prefix of others (output hash), leaves, a
// chain of records on one key, postfixes and shared suffixes.
std::vector<uint8_t> sample_file() {
    xdbc::options opt;
    opt.suffix_unit = 4;
    std::vector<xdbc::rule> rules;
    std::vector<std::string> warnings;
    xdbc::compiled out;
    std::string error;
    EXPECT_TRUE(xdbc::parse_source(".example.com 1\n"
                                   ".sample.com 2\n"
                                   ".sample.com 3\n"
                                   "ads. 4\n"
                                   "ads.tracker.net 5\n"
                                   ".longer-label.example.net 6\n"
                                   "x.example.net 7\n"
                                   "10.0.0.0/8 8\n",
                                   rules, error));
    EXPECT_TRUE(xdbc::build(opt, rules, out, error, warnings)) << error;
    return out.file;
}

struct tmp_file {
    std::string path;
    explicit tmp_file(const std::vector<uint8_t>& bytes) {
        char name[] = "/tmp/xdb_load_XXXXXX";
        const int fd = mkstemp(name);
        path = name;
        if (!bytes.empty()) {
            EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        }
        close(fd);
    }
    ~tmp_file() { unlink(path.c_str()); }
};

struct load_outcome {
    bool loaded;
    std::string err;
    category_db_ptr db;
};

load_outcome load_path(const std::string& path) {
    capture err(2);
    category_db_ptr db = xdb_load(path.c_str());
    const bool ok = db != nullptr;
    return {ok, err.text(), std::move(db)};
}

load_outcome load_bytes(const std::vector<uint8_t>& bytes) {
    tmp_file f(bytes);
    return load_path(f.path);
}

const std::string kFailed = "Failed to load xdb!\n";

}  // namespace

TEST(XdbLoad, CompiledFileLoadsSilentlyWithHostOrderTables) {
    const std::vector<uint8_t> file = sample_file();
    const file_layout at(file);
    load_outcome r = load_bytes(file);
    ASSERT_TRUE(r.loaded) << r.err;
    EXPECT_EQ(r.err, "");

    const xac_tables& tb = *r.db->tables;
    EXPECT_EQ(tb.trans_count, at.T);
    EXPECT_EQ(tb.hash_slots, at.H);
    EXPECT_EQ(tb.pattern_count, at.N);
    EXPECT_EQ(tb.suffix_unit, 4u);
    EXPECT_FALSE(tb.anchored);
    ASSERT_TRUE(tb.has_patterns && tb.patterns && tb.postfix && tb.suffix);
    EXPECT_EQ(tb.hash, tb.trans + tb.trans_count);
    EXPECT_EQ(std::memcmp(tb.header, file.data() + file_layout::header, XAC_HEADER_SIZE), 0);
    for (uint32_t i = 0; i < tb.trans_count; ++i) ASSERT_EQ(tb.trans[i], get32(file, at.word(i))) << i;
    for (uint32_t r2 = 0; r2 <= tb.pattern_count; ++r2) {
        ASSERT_EQ(tb.patterns[2 * r2], get32(file, at.record(r2)));
        ASSERT_EQ(tb.patterns[2 * r2 + 1], get32(file, at.record(r2) + 4));
    }
    EXPECT_EQ(tb.symbols[static_cast<uint8_t>('e')],
              file[file_layout::header + 16 + 2 * 'e'] << 8 | file[file_layout::header + 17 + 2 * 'e']);
    ASSERT_TRUE(r.db->prefilter);
    EXPECT_EQ(r.db->prefilter[1], 0x20);  // octet 10
}

TEST(XdbLoad, InitPrintsSuccessAndReleaseIsSafeTwice) {
    tmp_file f(sample_file());
    capture out(1);
    ASSERT_EQ(xdb_init(f.path.c_str()), 0);
    EXPECT_EQ(out.text(), "Success to load xdb.\n");
    EXPECT_EQ(xdb_match_domain("www.example.com", 15, nullptr, nullptr), 1u);
    EXPECT_EQ(xdb_match_ipv4("10.9.8.7", nullptr, nullptr), 1);
    xdb_release();
    xdb_release();
    EXPECT_EQ(xdb_get(), nullptr);
    EXPECT_EQ(xdb_match_domain("www.example.com", 15, nullptr, nullptr), 0u);
    EXPECT_EQ(xdb_match_ipv4("10.9.8.7", nullptr, nullptr), 0);
}

TEST(XdbLoad, FailedInitLeavesNothingLoaded) {
    tmp_file good(sample_file());
    {
        capture out(1);
        ASSERT_EQ(xdb_init(good.path.c_str()), 0);
    }
    capture err(2);
    capture out(1);
    EXPECT_EQ(xdb_init("/nonexistent/zor.xdb"), -1);
    EXPECT_EQ(err.text(), "Failed to open file, /nonexistent/zor.xdb!\n");
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(xdb_get(), nullptr);
}

// Each case damages the sample file; the first failing step decides the
// message, and every failure of the xac block ends with the final line.
TEST(XdbLoad, DamagedXacBlockIsRefusedWithItsStepMessage) {
    const std::vector<uint8_t> good = sample_file();
    const file_layout at(good);
    auto cut = [](size_t n) { return [n](std::vector<uint8_t>& f) { f.resize(n); }; };
    auto set_byte = [](size_t off, uint8_t v) { return [off, v](std::vector<uint8_t>& f) { f[off] = v; }; };
    auto or_byte = [](size_t off, uint8_t v) { return [off, v](std::vector<uint8_t>& f) { f[off] |= v; }; };
    char tran[64], pat[64], post[64], suf[64];
    std::snprintf(tran, sizeof tran, "Failed to load tran table, %ld!\n", static_cast<long>(4 * (at.T + 2 * at.H)));
    std::snprintf(pat, sizeof pat, "Failed to load pattern table, %ld!\n", static_cast<long>(8 * (at.N + 1)));
    std::snprintf(post, sizeof post, "Failed to load postfix table, %d!\n", static_cast<int>(at.P));
    std::snprintf(suf, sizeof suf, "Failed to load suffix table, %d!\n", static_cast<int>(at.S));

    const struct {
        const char* name;
        std::function<void(std::vector<uint8_t>&)> damage;
        std::string message;
    } cases[] = {
        {"empty", cut(0), "Failed to read xac header!\n"},
        {"short block header", cut(11), "Failed to read xac header!\n"},
        {"prefilter block first", set_byte(0, 2), "This is not xac block!\n"},
        {"short xac header", cut(12 + 575), "Failed to check file size!\n"},
        {"text magic", set_byte(12, 'E'), "Failed to check magic!\n"},
        {"4x format", or_byte(file_layout::flag_a, 0x40), "This xac file is 4x format!\n"},
        {"S2 and category field", or_byte(file_layout::flag_b, 0x06), "This scanner doesn't support S2!\n"},
        {"category field", or_byte(file_layout::flag_b, 0x02), "This scanner doesn't support category field!\n"},
        {"short transition area", cut(at.hash + 4), tran},
        {"huge transition count",
         [](std::vector<uint8_t>& f) { put32(f, file_layout::trans_count, 0x7FFFFFFF); },
         "Failed to load tran table, " + std::to_string(4L * (0x7FFFFFFFL + 2L * at.H)) + "!\n"},
        {"short pattern table", cut(at.postfix - 1), pat},
        {"short postfix table", cut(at.suffix - 1), post},
        {"short suffix table", cut(at.prefilter - 1), suf},
    };
    for (const auto& c : cases) {
        std::vector<uint8_t> f = good;
        c.damage(f);
        load_outcome r = load_bytes(f);
        EXPECT_FALSE(r.loaded) << c.name;
        EXPECT_EQ(r.err, c.message + kFailed) << c.name;
    }
    load_outcome missing = load_path("/nonexistent/dir/zor.xdb");
    EXPECT_FALSE(missing.loaded);
    EXPECT_EQ(missing.err, "Failed to open file, /nonexistent/dir/zor.xdb!\n");
}

TEST(XdbLoad, MissingOrBrokenPrefilterStillLoadsButBlocksAddressLookups) {
    const std::vector<uint8_t> good = sample_file();
    const file_layout at(good);
    const struct {
        const char* name;
        std::function<void(std::vector<uint8_t>&)> damage;
        std::string message;
    } cases[] = {
        {"file ends after the xac tables", [&](std::vector<uint8_t>& f) { f.resize(at.prefilter); },
         "Failed to read ip prefilter header!\n"},
        {"wrong block type", [&](std::vector<uint8_t>& f) { f[at.prefilter] = 3; }, "This is not ip prefilter block!\n"},
        {"short bitmap", [&](std::vector<uint8_t>& f) { f.resize(f.size() - 5); }, "Failed to load table, 32!\n"},
        {"bitmap longer than the file", [&](std::vector<uint8_t>& f) { put32(f, at.prefilter + 4, 0x80000000u); },
         "Failed to load table, -2147483648!\n"},
    };
    for (const auto& c : cases) {
        std::vector<uint8_t> f = good;
        c.damage(f);
        load_outcome r = load_bytes(f);
        ASSERT_TRUE(r.loaded) << c.name;
        EXPECT_EQ(r.err, c.message) << c.name;
        EXPECT_EQ(r.db->prefilter, nullptr) << c.name;
        EXPECT_EQ(match_ipv4(*r.db, "10.1.1.1").size(), 0u) << c.name;
        EXPECT_EQ(match_domain(*r.db, "www.example.com").size(), 1u) << c.name;
    }
}

TEST(XdbLoad, ShortDeclaredBitmapKnowsOnlyItsOwnOctets) {
    std::vector<uint8_t> f = build_source("10.0.0.0/8 1\n200.0.0.0/8 2\n");
    const file_layout at(f);
    put32(f, at.prefilter + 4, 2);  // bits for octets 0-15 only; the rest is trailing bytes
    load_outcome r = load_bytes(f);
    ASSERT_TRUE(r.loaded) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(match_ipv4(*r.db, "10.2.3.4").size(), 1u);
    EXPECT_EQ(match_ipv4(*r.db, "200.2.3.4").size(), 0u);
}

// Without pattern tables the prefilter follows the transitions directly and
// the handler gets the pattern index with a zero match length, which no
// lookup filter accepts.
TEST(XdbLoad, FileWithoutPatternTablesLoadsAndReportsBareIndexes) {
    std::vector<uint8_t> f = compile_patterns({{"abc", 1}, {"bc", 2}}, {}, {10}).file;
    const file_layout at(f);
    f[file_layout::flag_a] &= static_cast<uint8_t>(~0x1C);
    f.erase(f.begin() + static_cast<long>(at.patterns), f.begin() + static_cast<long>(at.prefilter));
    load_outcome r = load_bytes(f);
    ASSERT_TRUE(r.loaded) << r.err;
    EXPECT_EQ(r.err, "");
    const xac_tables& tb = *r.db->tables;
    EXPECT_EQ(tb.patterns, nullptr);
    EXPECT_EQ(tb.postfix, nullptr);
    EXPECT_EQ(tb.suffix, nullptr);
    ASSERT_TRUE(r.db->prefilter);
    // Records are numbered breadth first: "bc" holds index 0, "abc" index 1;
    // the longer key is reported first.
    EXPECT_EQ(scan_all(*r.db, "xabc"), (std::vector<match>{{1, 4, 0, ""}, {0, 4, 0, ""}}));
    EXPECT_EQ(match_domain(*r.db, "abc").size(), 0u);
}

TEST(XdbLoad, EmptyPostfixAndSuffixTablesStayNull) {
    load_outcome r = load_bytes(compile_patterns({{"ab.cd", 1}, {"q", 2}}).file);
    ASSERT_TRUE(r.loaded) << r.err;
    EXPECT_EQ(r.db->tables->postfix_size, 0u);
    EXPECT_EQ(r.db->tables->postfix, nullptr);
    EXPECT_EQ(r.db->tables->suffix, nullptr);
    EXPECT_EQ(match_domain(*r.db, "ab.cd").size(), 1u);
}

TEST(XdbLoad, ReadsFromAPipe) {
    const std::vector<uint8_t> file = sample_file();
    char dir[] = "/tmp/xdb_fifo_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/pipe";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    std::thread writer([&] {
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(file.data()), static_cast<std::streamsize>(file.size()));
    });
    load_outcome r = load_path(path);
    writer.join();
    unlink(path.c_str());
    rmdir(dir);
    ASSERT_TRUE(r.loaded) << r.err;
    EXPECT_EQ(match_domain(*r.db, "a.sample.com").size(), 1u);
}

// Tables that would let the matcher leave them are refused as a whole.
TEST(XdbLoad, InconsistentTablesAreRefused) {
    const std::vector<uint8_t> good = sample_file();
    const file_layout at(good);
    category_db_ptr db = load(good);
    ASSERT_TRUE(db);
    const xac_tables& tb = *db->tables;
    const uint32_t shift = tb.state_shift, mask = tb.check_mask;

    // Find, from the loaded tables, one transition of each kind.
    uint32_t plain = 0, plain_sym = 0, leaf = 0, hashed = 0, state = 0;
    for (int b = 0; b < 256 && !plain; ++b) {  // a root transition without outputs
        const uint32_t c = tb.symbols[b];
        if (!c || c >= tb.trans_count || ((tb.trans[c] ^ c) & mask)) continue;
        const uint32_t x = tb.trans[c] ^ c;
        if (!(x >> 30)) plain = c, plain_sym = c, state = (x & 0x3FFFFFFF) >> shift;
    }
    for (uint32_t i = 1; i < tb.trans_count; ++i) {
        const uint32_t w = tb.trans[i];
        if (!(w & 0x80000000u)) continue;
        const uint32_t target = (w & 0x3FFFFFFF) >> shift;
        if (target >= tb.trans_count && !leaf) leaf = i;
        if (target < tb.trans_count && !hashed) hashed = i;
    }
    ASSERT_TRUE(plain && leaf && hashed && state && at.H > 0);

    const struct {
        const char* name;
        std::function<void(std::vector<uint8_t>&)> damage;
        const char* why;
    } cases[] = {
        {"plain transition past the table",
         [&](std::vector<uint8_t>& f) { put32(f, at.word(plain), (at.T + 3) << shift | plain_sym); },
         "transition target outside the transition table"},
        {"failure link past the table",
         [&](std::vector<uint8_t>& f) { put32(f, at.word(state), (at.T + 1) << shift); },
         "failure link outside the transition table"},
        {"failure link to itself", [&](std::vector<uint8_t>& f) { put32(f, at.word(state), state << shift); },
         "failure links form a cycle"},
        {"leaf past the pattern table",
         [&](std::vector<uint8_t>& f) {
             const uint32_t w = get32(f, at.word(leaf));
             put32(f, at.word(leaf), (w & ~(0x3FFFFFFFu >> shift << shift)) | (at.T + at.N + 1) << shift);
         },
         "pattern index outside its table"},
        {"hash value past the pattern table",
         [&](std::vector<uint8_t>& f) {
             for (uint32_t q = 0; q < at.H; ++q)
                 if (get32(f, at.hash + 8 * q) < at.T) put32(f, at.hash + 8 * q + 4, at.N + 7);
         },
         "pattern index outside its table"},
        {"hash without modulus", [&](std::vector<uint8_t>& f) { put32(f, file_layout::hash_modulus, 0); },
         "output hash without a modulus"},
        {"postfix past its table",
         [&](std::vector<uint8_t>& f) {
             for (uint32_t r = 0; r < at.N; ++r)
                 if (f[at.record(r) + 4]) put32(f, at.record(r) + 4, uint32_t{f[at.record(r) + 4]} << 24 | at.P);
         },
         "postfix outside its table"},
        {"suffix index past its table",
         [&](std::vector<uint8_t>& f) {
             for (uint32_t r = 0; r < at.N; ++r) f[at.record(r) + 1] |= 0xF0, f[at.record(r)] |= 0x07;
         },
         "suffix outside its table"},
        {"chain past the last record",
         [&](std::vector<uint8_t>& f) {
             for (uint32_t r = 0; r <= at.N; ++r) f[at.record(r)] |= 0x80;
         },
         "pattern chain runs past its table"},
    };
    for (const auto& c : cases) {
        std::vector<uint8_t> f = good;
        c.damage(f);
        ASSERT_NE(f, good) << c.name;
        load_outcome r = load_bytes(f);
        EXPECT_FALSE(r.loaded) << c.name;
        EXPECT_EQ(r.err, std::string("Invalid xac tables, ") + c.why + "!\n" + kFailed) << c.name;
    }
}

// Random damage anywhere in the file: the loader either refuses with its
// final line or hands out tables that every lookup can walk safely (the
// sanitizer build turns any stray read into a failure).
TEST(XdbLoad, RandomDamageNeverEscapesTheTables) {
    const std::vector<uint8_t> good = sample_file();
    const file_layout at(good);
    const char* names[] = {"www.example.com", "ads.tracker.net", "a.sample.com", "x.example.net",
                           "q.longer-label.example.net", "ads.", "example.com.ads.x", "zzzz"};
    const char* addrs[] = {"10.1.2.3", "10.0.0.0", "11.2.3.4", "0.0.0.0"};
    std::mt19937 rng(20240611);
    int loaded = 0, refused = 0;
    for (int round = 0; round < 3000; ++round) {
        std::vector<uint8_t> f = good;
        const int kind = round % 3;
        if (kind == 0) {  // anywhere
            for (int k = 0; k < 3; ++k) f[rng() % f.size()] = static_cast<uint8_t>(rng());
        } else if (kind == 1) {  // a table word
            const size_t words = (at.prefilter - file_layout::trans) / 4;
            put32(f, file_layout::trans + 4 * (rng() % words), static_cast<uint32_t>(rng()));
        } else {  // a low bit pattern in a word, so checks often still pass
            const size_t words = (at.prefilter - file_layout::trans) / 4;
            const size_t off = file_layout::trans + 4 * (rng() % words);
            put32(f, off, get32(f, off) ^ (1u << (rng() % 32)));
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
        for (const char* n : names) category_db_match_domain(db.get(), n, std::strlen(n), nullptr, nullptr);
        for (const char* a : addrs) category_db_match_ipv4(db.get(), a, nullptr, nullptr);
        scan_all(*db, "ads.tracker.net.example.com.sample.com");
    }
    EXPECT_GT(loaded, 100);
    EXPECT_GT(refused, 100);
}
