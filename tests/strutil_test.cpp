#include "util/strutil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

std::string take(char* p) {  // frees a malloc'd result
    std::string s = p ? p : "<null>";
    free(p);
    return s;
}

// Null inputs, the compares and the edges of the number and hex helpers (a few
// representative rows; the rule reader's tests cover its digit checks).
TEST(StrUtil, NullsAndNumberEdges) {
    EXPECT_EQ(str_cmp_safe(nullptr, nullptr), 0);
    EXPECT_TRUE(str_cmp_safe(nullptr, "x") == 1 && str_cmp_safe("x", nullptr) == 1);
    struct { const char* a; const char* b; int sign; } nocase[] = {
        {"Example.COM", "example.com", 0}, {"abc", "ABD", -1}, {"b", "A", 1}, {nullptr, nullptr, 0}, {nullptr, "x", 1}, {"x", nullptr, 1}};
    for (const auto& c : nocase) {
        const int r = str_cmp_nocase(c.a, c.b);
        EXPECT_EQ((r > 0) - (r < 0), c.sign) << (c.a ? c.a : "(null)") << " vs " << (c.b ? c.b : "(null)");
    }
    for (auto [text, want] : {std::pair<const char*, int>{"", 1}, {"0123456789", 1}, {"-1", 0}, {"12a", 0}, {nullptr, 0}})
        EXPECT_EQ(str_is_digits(text), want) << (text ? text : "(null)");
    EXPECT_TRUE(str_to_int("  \t-17x") == -17 && str_to_int("99999999999") == INT_MAX && str_to_int("-99999999999") == INT_MIN);
    struct { const char* text; int n; std::string bytes; } hex[] = {
        {"de:AD:be", 3, "\xde\xad\xbe"}, {"abc", -1, "<null>"}, {"0g", -1, "<null>"}, {"ab::cd", -1, "<null>"}};
    for (const auto& c : hex) {
        unsigned char* out = reinterpret_cast<unsigned char*>(1);
        int n = hex_decode(c.text, &out);
        EXPECT_EQ(n, c.n) << c.text;
        EXPECT_EQ(out ? std::string(reinterpret_cast<char*>(out), std::max(n, 0)) : "<null>", c.bytes) << c.text;
        free(out);
    }
}

// Growth rule: length + n + 256 once length + n + 1 reaches the capacity.
// A piece too large for 32 bits is dropped.
TEST(StrUtil, StrbufGrowsByTheRuleAndKeepsATerminator) {
    strbuf_t b{}, f{}, empty{};
    strbuf_append(&b, std::string(255, 'x').data(), 255);
    strbuf_append(&b, "y", 1);
    EXPECT_EQ(b.capacity, 511u);
    strbuf_append(&b, std::string(254, 'z').data(), 254);  // exactly fills: still grows
    EXPECT_EQ(b.capacity, 766u);
    static const char one[1] = {'x'};
    strbuf_append(&b, one, static_cast<size_t>(UINT32_MAX));
    strbuf_append(&b, nullptr, 5);
    EXPECT_EQ(take(strbuf_detach(&b, nullptr)), std::string(255, 'x') + "y" + std::string(254, 'z'));
    uint32_t len = 99;
    EXPECT_EQ(strbuf_detach(&empty, &len), nullptr);
    EXPECT_EQ(len, 0u);
    strbuf_printf(&f, "[%d]%s", 20, "a.example");
    EXPECT_EQ(take(strbuf_detach(&f, &len)), "[20]a.example");
    EXPECT_TRUE(len == 13u && f.data == nullptr && f.length == 0 && f.capacity == 0);
    strbuf_printf(&f, "%s", std::string(5000, 'w').c_str());  // reused after detach; longer than any fixed buffer
    EXPECT_EQ(take(strbuf_detach(&f, &len)), std::string(5000, 'w'));
}

// Random texts over a small alphabet: the search, token and hex helpers
// checked against a plain model.
TEST(StrUtil, HelpersAgreeWithAModelOnRandomTexts) {
    std::mt19937 rng(20240611);
    auto text = [&](size_t max) {
        std::string s(rng() % (max + 1), ' ');
        for (char& c : s) c = "aAbB \t\n\r:/\xC4"[rng() % 11];
        return s;
    };
    auto lower = [](std::string s) {
        for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        return s;
    };
    auto at = [](const void* hit, const std::string& s) {
        return hit ? static_cast<long>(static_cast<const char*>(hit) - s.data()) : -1L;
    };
    for (int round = 0; round < 3000; ++round) {
        const std::string s = text(12), pat = text(3), set = text(3), ls = lower(s), lp = lower(pat);
        SCOPED_TRACE("s='" + s + "' pat='" + pat + "' set='" + set + "'");
        auto want = [&](size_t pos) { return pat.empty() ? -1L : static_cast<long>(pos); };  // "" matches nothing
        EXPECT_EQ(at(mem_find(s.data(), s.size(), pat.data(), pat.size()), s), want(s.find(pat)));
        EXPECT_EQ(at(mem_rfind(s.data(), s.size(), pat.data(), pat.size()), s), want(s.rfind(pat)));
        EXPECT_EQ(at(str_find_nocase(s.c_str(), pat.c_str()), s), want(ls.find(lp)));
        long want_at = -1;  // the first full match, else the first tail that starts the pattern
        size_t want_n = 0, n = 99;
        for (size_t i = 0; i < s.size() && want_at < 0 && !pat.empty(); ++i) {
            size_t k = std::min(pat.size(), s.size() - i);
            if ((round % 2 ? ls : s).compare(i, k, round % 2 ? lp : pat, 0, k) == 0) want_at = i, want_n = k;
        }
        EXPECT_EQ(at(mem_find_partial(s.data(), pat.data(), s.size(), pat.size(), &n, round % 2), s), want_at);
        EXPECT_EQ(n, want_n);
        std::string scan = s;
        std::vector<std::string> want_tokens, tokens;
        for (size_t i = s.find_first_not_of(set); !set.empty() && i != std::string::npos;) {
            size_t j = s.find_first_of(set, i);
            want_tokens.push_back(s.substr(i, j - i));
            i = s.find_first_not_of(set, j == std::string::npos ? s.size() : j);
        }
        char* save = nullptr;
        for (char* t = str_tok_r(scan.data(), set.c_str(), &save); t && !set.empty(); t = str_tok_r(nullptr, set.c_str(), &save))
            tokens.push_back(t);
        EXPECT_EQ(tokens, want_tokens);
        char* hex = nullptr;
        unsigned char* back = nullptr;
        if (s.empty()) continue;
        ASSERT_EQ(hex_encode(s.data(), s.size(), round % 2, &hex), (int)s.size() * (2 + round % 2) - round % 2);
        EXPECT_EQ(hex_decode(hex, &back), (int)s.size());
        EXPECT_EQ(std::string(reinterpret_cast<char*>(back), s.size()), s);
        free(hex);
        free(back);
    }
}

}  // namespace
