// Category file loader: the messages of a good load and a missing file, and
// one damaged file per check (random damage is the fuzz targets' part).
#include <functional>

#include "test_util.h"
#include "xdb_test_util.h"

using namespace xdbtest;
using testing::internal::CaptureStderr, testing::internal::GetCapturedStderr;

namespace {

uint32_t get32(const std::vector<uint8_t>& f, size_t at) {
    return uint32_t{f[at]} << 24 | uint32_t{f[at + 1]} << 16 | uint32_t{f[at + 2]} << 8 | f[at + 3];
}
void put32(std::vector<uint8_t>& f, size_t at, uint32_t v) {
    for (size_t i = 0; i < 4; ++i) f[at + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

// Byte offsets of the parts of a file image (12-byte block header, then the
// xac header), from its own counts.
struct file_layout {
    static constexpr size_t flag_a = 16, flag_b = 17, trans_count = 564, hash_modulus = 572, trans = 588;
    uint32_t T, H, N;
    size_t hash = trans + 4 * size_t{T}, patterns = hash + 8 * size_t{H}, postfix = patterns + 8 * (size_t{N} + 1);
    explicit file_layout(const std::vector<uint8_t>& f) : T(get32(f, 564)), H(get32(f, 568)), N(get32(f, 576)) {}
    size_t word(uint32_t i) const { return trans + 4 * size_t{i}; }
    size_t record(uint32_t r) const { return patterns + 8 * size_t{r}; }
};

// A key that is a prefix of others (output hash), leaves, a chain of
// records on one key, postfixes, shared suffixes and an address rule.
std::vector<uint8_t> sample_file() {
    return build_source(".example.com 1\n.sample.com 2\n.sample.com 3\nads. 4\nads.tracker.net 5\n"
                        ".longer-label.example.net 6\nx.example.net 7\n10.0.0.0/8 8\n",
                        {false, false, 4});
}

// Loads the bytes from a file: the tables and what the loader wrote to
// standard error.
std::pair<category_db_ptr, std::string> load_file(const std::vector<uint8_t>& bytes) {
    zor_test::temp_dir dir;
    const std::string path = dir.file("f.xdb");
    EXPECT_TRUE(zor_test::write_file(path, std::string(bytes.begin(), bytes.end())));
    CaptureStderr();
    category_db_ptr db = xdb_load(path.c_str());
    return {std::move(db), GetCapturedStderr()};
}

using damage = std::function<void(std::vector<uint8_t>&)>;
const std::string kFailed = "Failed to load xdb!\n";

}  // namespace

TEST(XdbLoad, InitReportsTheOutcomeAndFailureLeavesNothingLoaded) {
    const std::vector<uint8_t> file = sample_file();
    zor_test::temp_dir dir;
    zor_test::write_file(dir.file("good.xdb"), std::string(file.begin(), file.end()));
    testing::internal::CaptureStdout();
    CaptureStderr();
    ASSERT_EQ(xdb_init(dir.file("good.xdb").c_str()), 0);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Success to load xdb.\n");
    EXPECT_TRUE(xdb_match_domain("www.example.com", 15).has_value());
    EXPECT_TRUE(xdb_match_ipv4("10.9.8.7").has_value());
    CaptureStderr();
    EXPECT_EQ(xdb_init("/nonexistent/zor.xdb"), -1);
    EXPECT_EQ(GetCapturedStderr(), "Failed to open file, /nonexistent/zor.xdb!\n");
    EXPECT_EQ(xdb_read().get(), nullptr);
    EXPECT_FALSE(xdb_match_domain("www.example.com", 15).has_value());
    EXPECT_FALSE(xdb_match_ipv4("10.9.8.7").has_value());
    xdb_release();
    xdb_release();
}

// One case per damaged table: the first failing step decides the message and
// every refusal ends with the final line. Tables that would let the matcher
// leave them are refused as a whole.
TEST(XdbLoad, DamagedTablesAreRefusedWithTheirStepMessage) {
    const std::vector<uint8_t> good = sample_file();
    const file_layout at(good);
    category_db_ptr db = load(good);
    ASSERT_TRUE(db);
    const xac_tables& tb = *db->tables;
    const uint32_t shift = tb.state_shift, field = 0x3FFFFFFFu >> shift << shift;
    // A root transition without outputs (and its target state) and a leaf
    // transition.
    uint32_t plain = 0, state = 0, leaf = 0;
    for (int b = 0; b < 256 && !plain; ++b) {
        const uint32_t c = tb.symbols[b], x = c && c < at.T ? tb.trans[c] ^ c : 1;
        if (!(x & tb.check_mask) && !(x >> 30)) plain = c, state = (x & field) >> shift;
    }
    for (uint32_t i = 1; i < at.T; ++i)
        if ((tb.trans[i] & 0x80000000u) && (tb.trans[i] & field) >> shift >= at.T) leaf = i;
    ASSERT_TRUE(plain && state && leaf);

    auto cut = [](size_t n) -> damage { return [n](std::vector<uint8_t>& f) { f.resize(n); }; };
    auto set = [](size_t off, uint8_t v) -> damage { return [=](std::vector<uint8_t>& f) { f[off] = v; }; };
    auto add = [](size_t off, uint8_t v) -> damage { return [=](std::vector<uint8_t>& f) { f[off] |= v; }; };
    auto word = [](size_t off, uint32_t v) -> damage { return [=](std::vector<uint8_t>& f) { put32(f, off, v); }; };
    auto num = [](const char* what, long v) { return std::string("Failed to load ") + what + std::to_string(v) + "!\n"; };
    auto invalid = [](const char* why) { return std::string("Invalid xac tables, ") + why + "!\n"; };
    const struct {
        damage hurt;
        std::string message;
    } cases[] = {
        {cut(11), "Failed to read xac header!\n"},
        {set(0, 2), "This is not xac block!\n"},
        {cut(12 + 575), "Failed to check file size!\n"},
        {set(12, 'E'), "Failed to check magic!\n"},
        {add(file_layout::flag_a, 0x40), "This xac file is 4x format!\n"},
        {add(file_layout::flag_b, 0x02), "This scanner doesn't support category field!\n"},
        {cut(at.hash + 4), num("tran table, ", 4L * (at.T + 2 * at.H))},
        {word(file_layout::trans_count, 0x7FFFFFFF), num("tran table, ", 4L * (0x7FFFFFFFL + 2 * at.H))},
        {cut(at.postfix - 1), num("pattern table, ", 8L * (at.N + 1))},
        {word(at.word(plain), (at.T + 3) << shift | plain), invalid("transition target outside the transition table")},
        {word(at.word(state), (at.T + 1) << shift), invalid("failure link outside the transition table")},
        {word(at.word(state), state << shift), invalid("failure links form a cycle")},
        {word(at.word(leaf), (get32(good, at.word(leaf)) & ~field) | (at.T + at.N + 1) << shift),
         invalid("pattern index outside its table")},
        {word(file_layout::hash_modulus, 0), invalid("output hash without a modulus")},
        {[&](auto& f) { for (uint32_t r = 0; r < at.N; ++r) f[at.record(r) + 1] |= 0xF0, f[at.record(r)] |= 0x07; },
         invalid("suffix outside its table")},
        {[&](auto& f) { for (uint32_t r = 0; r <= at.N; ++r) f[at.record(r)] |= 0x80; },
         invalid("pattern chain runs past its table")},
    };
    for (const auto& c : cases) {
        std::vector<uint8_t> f = good;
        c.hurt(f);
        auto [damaged, err] = load_file(f);
        EXPECT_FALSE(damaged) << c.message;
        EXPECT_EQ(err, c.message + kFailed);
    }
}
