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

// Null inputs, empty inputs and the edges of the number and hex helpers.
TEST(StrUtil, NullsEmptiesAndNumberEdges) {
    EXPECT_EQ(take(str_dup("abc")) + take(str_dup(nullptr)) + take(mem_dup("x", 0)), "abc<null>");
    EXPECT_EQ(mem_dup(nullptr, 4), nullptr);
    char* binary = mem_dup("a\0b", 3);
    EXPECT_EQ(memcmp(binary, "a\0b\0", 4), 0);
    free(binary);
    EXPECT_EQ(str_cmp_safe(nullptr, nullptr), 0);
    EXPECT_TRUE(str_cmp_safe(nullptr, "x") == 1 && str_cmp_safe("x", nullptr) == 1 && str_cmp_nocase(nullptr, "x") == 1);
    for (auto [text, want] : {std::pair<const char*, int>{"", 1}, {"0123456789", 1}, {"-1", 0}, {" 1", 0},
                              {"1.5", 0}, {"12a", 0}, {"/", 0}, {":", 0}, {nullptr, 0}})
        EXPECT_EQ(str_is_digits(text), want) << (text ? text : "(null)");
    EXPECT_TRUE(is_digit_char('0') && is_digit_char('9') && !is_digit_char('/') && !is_digit_char(':'));
    for (auto [text, want] : {std::pair<const char*, int>{"  \t-17x", -17}, {"+8", 8}, {"\n5", 0}, {"- 5", 0},
                              {nullptr, 0}, {"2147483647", INT_MAX}, {"-2147483648", INT_MIN},
                              {"99999999999", INT_MAX}, {"-99999999999", INT_MIN}})
        EXPECT_EQ(str_to_int(text), want) << (text ? text : "(null)");
    struct { int value; size_t size; const char* want; } ints[] = {
        {0, 8, "0"}, {12345, 4, "123"}, {-5, 8, ""}, {7, 1, ""}, {INT_MAX, 16, "2147483647"}};
    for (const auto& c : ints) {
        char buf[16];
        memset(buf, '#', sizeof buf);
        int_to_str(c.value, buf, c.size);
        EXPECT_STREQ(buf, c.want) << c.value;
    }
    EXPECT_EQ(str_nth_str("aaaa", "", 9), nullptr);  // never past the terminator
    EXPECT_EQ(str_trim(nullptr), nullptr);
    EXPECT_EQ(str_span(nullptr, "a") + str_has_char("abc", '\0') + str_has_char(nullptr, 'a'), 0u);
    EXPECT_EQ(hex_byte("ff") * 1000 + hex_byte("A0") + hex_byte("f") + hex_byte(nullptr), 255400);  // "f": stops at the end
    struct { const char* text; int n; std::string bytes; } hex[] = {
        {"00ff7A", 3, std::string("\x00\xff\x7a", 3)}, {"de:AD:be", 3, "\xde\xad\xbe"}, {"", 0, ""},
        {"abc", -1, "<null>"}, {"0g", -1, "<null>"}, {":ab", -1, "<null>"}, {"ab:", -1, "<null>"},
        {"ab::cd", -1, "<null>"}, {"a:bc", -1, "<null>"}};
    for (const auto& c : hex) {
        unsigned char* out = reinterpret_cast<unsigned char*>(1);
        int n = hex_decode(c.text, &out);
        EXPECT_EQ(n, c.n) << c.text;
        EXPECT_EQ(out ? std::string(reinterpret_cast<char*>(out), std::max(n, 0)) : "<null>", c.bytes) << c.text;
        free(out);
    }
    const unsigned char bytes[] = {0x00, 0xab};
    char* text = nullptr;
    EXPECT_EQ(hex_encode(bytes, 1, 1, &text), 2);
    EXPECT_EQ(take(text), "00");
    EXPECT_EQ(hex_encode(nullptr, 2, 0, &text) + hex_encode(bytes, 0, 0, &text), -2);
}

// Growth rule: length + n + 256 once length + n + 1 reaches the capacity;
// putc grows from the capacity. A piece too large for 32 bits is dropped.
TEST(StrUtil, StrbufGrowsByTheRuleAndKeepsATerminator) {
    strbuf_t b{}, p{}, f{}, empty{};
    strbuf_append(&b, std::string(255, 'x').data(), 255);
    strbuf_append(&b, "y", 1);
    EXPECT_EQ(b.capacity, 511u);
    strbuf_append(&b, std::string(254, 'z').data(), 254);  // exactly fills: still grows
    EXPECT_EQ(b.capacity, 766u);
    static const char one[1] = {'x'};
    strbuf_append(&b, one, static_cast<size_t>(UINT32_MAX));
    strbuf_append(&b, nullptr, 5);
    EXPECT_EQ(take(strbuf_detach(&b, nullptr)), std::string(255, 'x') + "y" + std::string(254, 'z'));
    EXPECT_EQ(strbuf_putc(&p, 'a'), p.data);
    for (int i = 0; i < 254; ++i) strbuf_putc(&p, 'b');
    EXPECT_EQ(p.capacity, 256u);
    strbuf_putc(&p, 'c');
    EXPECT_EQ(p.capacity, 512u);
    EXPECT_EQ(take(strbuf_detach(&p, nullptr)), "a" + std::string(254, 'b') + "c");
    strbuf_printf(&f, "[%d]%s", 20, "a.example");
    strbuf_printf(&f, "x%cy", 0);  // stops at the zero byte
    strbuf_append_strs(&f, "-", "", "bc", nullptr);
    strbuf_append_strs(&f, static_cast<const char*>(nullptr), nullptr);
    uint32_t len = 99;
    EXPECT_EQ(strbuf_detach(&empty, &len), nullptr);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(take(strbuf_detach(&f, &len)), "[20]a.examplex-bc");
    EXPECT_EQ(len, 17u);
    EXPECT_TRUE(f.data == nullptr && f.length == 0 && f.capacity == 0);
    strbuf_printf(&f, "%s", std::string(5000, 'w').c_str());  // reused after detach; longer than any fixed buffer
    EXPECT_EQ(take(strbuf_detach(&f, &len)), std::string(5000, 'w'));
}

// Random texts over a small alphabet, every helper checked against a plain model.
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
        EXPECT_EQ(str_span(s.c_str(), set.c_str()), set.empty() ? 0 : strspn(s.c_str(), set.c_str()));
        EXPECT_EQ(at(str_pbrk(s.c_str(), set.c_str()), s), at(strpbrk(s.c_str(), set.c_str()), s));
        EXPECT_EQ(str_cmp_nocase(s.c_str(), pat.c_str()) == 0, ls == lp);
        EXPECT_EQ(str_cmp_safe(s.c_str(), pat.c_str()) < 0, s < pat);
        long want_at = -1;  // the first full match, else the first tail that starts the pattern
        size_t want_n = 0, n = 99;
        for (size_t i = 0; i < s.size() && want_at < 0 && !pat.empty(); ++i) {
            size_t k = std::min(pat.size(), s.size() - i);
            if ((round % 2 ? ls : s).compare(i, k, round % 2 ? lp : pat, 0, k) == 0) want_at = i, want_n = k;
        }
        EXPECT_EQ(at(mem_find_partial(s.data(), pat.data(), s.size(), pat.size(), &n, round % 2), s), want_at);
        EXPECT_EQ(n, want_n);
        std::vector<long> hits = {0};  // n-th overlapping hit; n < 1 gives the haystack
        for (size_t i = s.find(pat); !pat.empty() && i != std::string::npos; i = s.find(pat, i + 1)) hits.push_back(i);
        for (int k = 0; k <= 3 && !pat.empty(); ++k)
            EXPECT_EQ(at(str_nth_str(s.c_str(), pat.c_str(), k), s), k < (int)hits.size() ? hits[k] : -1L) << k;
        const char c = "ab:"[round % 3];
        EXPECT_EQ(at(str_rchr(s.c_str(), c), s), std::max(0L, (long)s.rfind(c)));
        EXPECT_EQ(at(str_find_char(s.c_str(), c, 0), s), (long)s.find(c));
        EXPECT_EQ(at(str_find_char(s.c_str(), c, 1), s), (long)s.rfind(c));
        EXPECT_EQ(str_has_char(s.c_str(), c), s.find(c) != std::string::npos);
        size_t b = s.find_first_not_of(" \t\n\r"), e = s.find_last_not_of(" \t\n\r");
        std::string trimmed = s, low = s, scan = s;
        EXPECT_STREQ(str_trim(trimmed.data()), b == std::string::npos ? "" : s.substr(b, e - b + 1).c_str());
        mem_tolower(low.data(), low.size());
        EXPECT_EQ(low, ls);
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
        EXPECT_EQ(hex_byte(hex), static_cast<unsigned char>(s[0]));
        std::string upper;  // upper-case pairs, with colons when asked
        for (unsigned char c : s) {
            char pair[4];
            snprintf(pair, sizeof pair, "%s%02X", upper.empty() || round % 2 == 0 ? "" : ":", c);
            upper += pair;
        }
        EXPECT_EQ(hex, upper);
        free(hex);
        free(back);
    }
    strbuf_t big{};  // many appends of random sizes against std::string
    std::string model;
    for (int i = 0; i < 400 && !HasFailure(); ++i) {
        std::string piece = text(600);
        strbuf_append(&big, piece.data(), piece.size());
        model += piece;
        EXPECT_EQ(std::string(big.data, big.length), model);
        EXPECT_TRUE(big.data[big.length] == '\0' && big.capacity > big.length);
    }
    free(big.data);
}

// str_tok keeps one position shared by every caller; str_tok_r scans nest.
TEST(StrUtil, ReentrantTokenScansNest) {
    char outer[] = "a=1&b=2", shared[] = "x y  z";
    char *save_outer = nullptr, *save_inner = nullptr;
    std::string seen;
    for (char* pair = str_tok_r(outer, "&", &save_outer); pair; pair = str_tok_r(nullptr, "&", &save_outer))
        for (char* part = str_tok_r(pair, "=", &save_inner); part; part = str_tok_r(nullptr, "=", &save_inner))
            seen += std::string(part) + ",";
    EXPECT_EQ(seen, "a,1,b,2,");
    char* from = shared;
    for (const char* want : {"x", "y", "z"}) {
        EXPECT_STREQ(str_tok(from, " "), want);
        from = nullptr;
    }
    EXPECT_EQ(str_tok(nullptr, " "), nullptr);
}

}  // namespace
