#include "util/strutil.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

struct free_deleter {
    void operator()(void* p) const { free(p); }
};
using c_text = std::unique_ptr<char, free_deleter>;

// A strbuf that frees its block.
struct owned_buf {
    strbuf_t sb{};
    ~owned_buf() { free(sb.data); }
    std::string text() const { return sb.data ? std::string(sb.data, sb.length) : ""; }
};

TEST(StrDup, CopiesWithTerminatorAndRefusesNull) {
    c_text copy(str_dup("abc"));
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy.get(), "abc");
    EXPECT_EQ(str_dup(nullptr), nullptr);

    c_text field(mem_dup("abcdef", 3));
    EXPECT_STREQ(field.get(), "abc");
    c_text empty(mem_dup("x", 0));
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty.get()[0], '\0');
    EXPECT_EQ(mem_dup(nullptr, 4), nullptr);
    const char with_zero[] = {'a', '\0', 'b'};
    c_text binary(mem_dup(with_zero, 3));
    EXPECT_EQ(memcmp(binary.get(), "a\0b\0", 4), 0);
}

TEST(StrCompare, NullsCompareAsTheTableSays) {
    EXPECT_EQ(str_cmp_safe(nullptr, nullptr), 0);
    EXPECT_EQ(str_cmp_safe(nullptr, "x"), 1);
    EXPECT_EQ(str_cmp_safe("x", nullptr), 1);
    EXPECT_EQ(str_cmp_safe("abc", "abc"), 0);
    EXPECT_LT(str_cmp_safe("abc", "abd"), 0);
    EXPECT_GT(str_cmp_safe("b", "a"), 0);
    EXPECT_EQ(str_cmp_nocase("HeLLo", "hello"), 0);
    EXPECT_NE(str_cmp_nocase("hello", "help"), 0);
    EXPECT_EQ(str_cmp_nocase(nullptr, "x"), 1);
}

TEST(StrDigits, OnlyDecimalDigitsCount) {
    struct digits_case {
        const char* text;
        int expected;
    };
    const digits_case cases[] = {{"", 1},   {"0123456789", 1}, {"12a", 0}, {"-1", 0},
                                 {"+1", 0}, {" 1", 0},         {"1.5", 0}, {nullptr, 0}};
    for (const digits_case& c : cases) {
        SCOPED_TRACE(c.text ? c.text : "(null)");
        EXPECT_EQ(str_is_digits(c.text), c.expected);
    }
    EXPECT_EQ(is_digit_char('0'), 1);
    EXPECT_EQ(is_digit_char('9'), 1);
    EXPECT_EQ(is_digit_char('/'), 0);
    EXPECT_EQ(is_digit_char(':'), 0);
}

TEST(Strbuf, AppendGrowsByTheRuleAndKeepsATerminator) {
    owned_buf b;
    std::string piece(255, 'x');
    strbuf_append(&b.sb, piece.data(), piece.size());
    EXPECT_EQ(b.sb.capacity, 511u);
    EXPECT_EQ(b.sb.length, 255u);
    strbuf_append(&b.sb, "y", 1);
    EXPECT_EQ(b.sb.capacity, 511u);  // 255 + 1 + 1 < 511
    EXPECT_EQ(b.sb.data[256], '\0');
    // A piece that would exactly fill the block still grows it.
    std::string fill(511 - 256 - 1, 'z');
    strbuf_append(&b.sb, fill.data(), fill.size());
    EXPECT_EQ(b.sb.length, 510u);
    EXPECT_EQ(b.sb.capacity, 256u + 254u + 256u);
    EXPECT_EQ(b.text(), piece + "y" + fill);
    strbuf_append(&b.sb, nullptr, 5);
    strbuf_append(&b.sb, "q", 0);
    EXPECT_EQ(b.sb.length, 510u);
}

TEST(Strbuf, AppendStrsTakesEveryPieceUpToTheNull) {
    owned_buf b;
    strbuf_append_strs(&b.sb, "a", "", "bc", "def", nullptr);
    EXPECT_EQ(b.text(), "abcdef");
    strbuf_append_strs(&b.sb, static_cast<const char*>(nullptr), nullptr);
    EXPECT_EQ(b.text(), "abcdef");
}

TEST(Strbuf, PutcGrowsFromTheCapacityNotTheLength) {
    owned_buf b;
    EXPECT_EQ(strbuf_putc(&b.sb, 'a'), b.sb.data);
    EXPECT_EQ(b.sb.capacity, 256u);
    for (int i = 0; i < 254; ++i) strbuf_putc(&b.sb, 'b');
    EXPECT_EQ(b.sb.length, 255u);
    EXPECT_EQ(b.sb.capacity, 256u);
    strbuf_putc(&b.sb, 'c');  // 256 < 255 + 2: grows to 512
    EXPECT_EQ(b.sb.capacity, 512u);
    EXPECT_EQ(b.sb.length, 256u);
    EXPECT_EQ(b.sb.data[256], '\0');
    EXPECT_EQ(b.text(), "a" + std::string(254, 'b') + "c");
}

TEST(Strbuf, PrintfAppendsTheFormattedTextUpToAZeroByte) {
    owned_buf b;
    strbuf_printf(&b.sb, "[%d]%s\n", 20, "example.com");
    strbuf_printf(&b.sb, "%s", "");
    EXPECT_EQ(b.text(), "[20]example.com\n");
    strbuf_printf(&b.sb, "x%cy", 0);
    EXPECT_EQ(b.text(), "[20]example.com\nx");
    std::string big(5000, 'w');
    strbuf_printf(&b.sb, "%s", big.c_str());
    EXPECT_EQ(b.sb.length, 17u + 5000u);
}

TEST(Strbuf, DetachHandsOverTheBlockAndZeroesTheBuffer) {
    strbuf_t zero{};
    uint32_t len = 99;
    EXPECT_EQ(strbuf_detach(&zero, &len), nullptr);
    EXPECT_EQ(len, 0u);

    strbuf_t sb{};
    strbuf_append(&sb, "hello", 5);
    c_text block(strbuf_detach(&sb, &len));
    EXPECT_STREQ(block.get(), "hello");
    EXPECT_EQ(len, 5u);
    EXPECT_EQ(sb.data, nullptr);
    EXPECT_EQ(sb.length, 0u);
    EXPECT_EQ(sb.capacity, 0u);
    strbuf_append(&sb, "again", 5);  // reusable after detach
    c_text second(strbuf_detach(&sb, nullptr));
    EXPECT_STREQ(second.get(), "again");
}

TEST(Strbuf, AnUnrepresentableGrowthKeepsTheOldContents) {
    owned_buf b;
    strbuf_append(&b.sb, "keep", 4);
    static const char big_source[1] = {'x'};
    // A length that cannot fit the 32-bit capacity is dropped, not copied.
    strbuf_append(&b.sb, big_source, static_cast<size_t>(UINT32_MAX));
    EXPECT_EQ(b.text(), "keep");
    EXPECT_EQ(b.sb.length, 4u);
}

TEST(StrToInt, ParsesLikeTheLibraryRule) {
    struct int_case {
        const char* text;
        int expected;
    };
    const int_case cases[] = {
        {"42", 42},       {"  \t-17x", -17},  {"+8", 8},           {"", 0},
        {"abc", 0},       {"\n5", 0},         {"- 5", 0},          {nullptr, 0},
        {"99999999999", INT_MAX},             {"-99999999999", INT_MIN},
        {"2147483647", INT_MAX},              {"-2147483648", INT_MIN},
    };
    for (const int_case& c : cases) {
        SCOPED_TRACE(c.text ? c.text : "(null)");
        EXPECT_EQ(str_to_int(c.text), c.expected);
    }
}

TEST(IntToStr, WritesNonNegativeValuesWithinTheBuffer) {
    struct text_case {
        int value;
        size_t size;
        const char* expected;
    };
    const text_case cases[] = {{0, 8, "0"},     {123, 8, "123"}, {12345, 4, "123"},
                               {-5, 8, ""},     {7, 1, ""},      {INT_MAX, 16, "2147483647"}};
    for (const text_case& c : cases) {
        SCOPED_TRACE(c.value);
        char buf[16];
        memset(buf, '#', sizeof buf);
        int_to_str(c.value, buf, c.size);
        EXPECT_STREQ(buf, c.expected);
    }
}

TEST(StrSpan, SpanAndBreakFollowTheSet) {
    EXPECT_EQ(str_span("aabbc", "ab"), 4u);
    EXPECT_EQ(str_span("", "ab"), 0u);
    EXPECT_EQ(str_span("abc", ""), 0u);
    EXPECT_EQ(str_span(nullptr, "a"), 0u);
    char text[] = "key=value;x";
    EXPECT_EQ(str_pbrk(text, ";="), text + 3);
    EXPECT_EQ(str_pbrk(text, "#"), nullptr);
    EXPECT_EQ(str_pbrk(nullptr, "#"), nullptr);
}

TEST(StrTok, SplitsAtRunsOfDelimiters) {
    char text[] = ",,a,b;;c,";
    char* save = nullptr;
    std::vector<std::string> tokens;
    for (char* t = str_tok_r(text, ",;", &save); t; t = str_tok_r(nullptr, ",;", &save))
        tokens.push_back(t);
    EXPECT_EQ(tokens, (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(str_tok_r(nullptr, ",", &save), nullptr);

    char shared[] = "x y  z";
    EXPECT_STREQ(str_tok(shared, " "), "x");
    EXPECT_STREQ(str_tok(nullptr, " "), "y");
    EXPECT_STREQ(str_tok(nullptr, " "), "z");
    EXPECT_EQ(str_tok(nullptr, " "), nullptr);

    char only_delims[] = ";;;";
    save = nullptr;
    EXPECT_EQ(str_tok_r(only_delims, ";", &save), nullptr);
}

TEST(StrTok, TwoReentrantScansDoNotDisturbEachOther) {
    char outer[] = "a=1&b=2";
    char* save_outer = nullptr;
    std::vector<std::string> seen;
    for (char* pair = str_tok_r(outer, "&", &save_outer); pair;
         pair = str_tok_r(nullptr, "&", &save_outer)) {
        char* save_inner = nullptr;
        for (char* part = str_tok_r(pair, "=", &save_inner); part;
             part = str_tok_r(nullptr, "=", &save_inner))
            seen.push_back(part);
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "1", "b", "2"}));
}

TEST(StrNthStr, CountsOverlappingHits) {
    const char* h = "aaaa";
    EXPECT_EQ(str_nth_str(h, "aa", 1), h);
    EXPECT_EQ(str_nth_str(h, "aa", 2), h + 1);
    EXPECT_EQ(str_nth_str(h, "aa", 3), h + 2);
    EXPECT_EQ(str_nth_str(h, "aa", 4), nullptr);
    EXPECT_EQ(str_nth_str(h, "b", 0), h);
    EXPECT_EQ(str_nth_str(h, "b", -3), h);
    EXPECT_EQ(str_nth_str(h, "", 9), nullptr);  // never past the terminator
    EXPECT_EQ(str_nth_str(nullptr, "a", 1), nullptr);
}

TEST(MemFind, ForwardBackwardAndCaseless) {
    const char range[] = "abcABCabc";
    const size_t n = 9;
    EXPECT_EQ(mem_find(range, n, "bc", 2), range + 1);
    EXPECT_EQ(mem_rfind(range, n, "bc", 2), range + 7);
    EXPECT_EQ(mem_rfind(range, n, "abcABCabc", 9), range);
    EXPECT_EQ(mem_rfind(range, n, "abcABCabcX", 10), nullptr);
    EXPECT_EQ(mem_find(range, n, "zz", 2), nullptr);
    EXPECT_EQ(mem_find(range, n, "", 0), nullptr);
    EXPECT_EQ(mem_find_nocase(range, n, "CA", 2), range + 2);
    EXPECT_EQ(mem_find_nocase(range, n, "cx", 2), nullptr);
    EXPECT_EQ(mem_find_nocase(range, n, "BCX", 3), nullptr);  // a tail is not a match here
    const char* s = "Hello World";
    EXPECT_EQ(str_find_nocase(s, "WORLD"), s + 6);
    EXPECT_EQ(str_find_nocase(s, "worlds"), nullptr);
    EXPECT_EQ(str_find_nocase(nullptr, "a"), nullptr);
}

TEST(MemFindPartial, ATailMatchingThePatternStartCounts) {
    const char range[] = "xxabcdeab";
    size_t matched = 99;
    EXPECT_EQ(mem_find_partial(range, "abc", 9, 3, &matched, 0), range + 2);
    EXPECT_EQ(matched, 3u);
    EXPECT_EQ(mem_find_partial(range, "abz", 9, 3, &matched, 0), range + 7);
    EXPECT_EQ(matched, 2u);
    EXPECT_EQ(mem_find_partial(range, "ABZ", 9, 3, &matched, 1), range + 7);
    EXPECT_EQ(matched, 2u);
    EXPECT_EQ(mem_find_partial(range, "ABZ", 9, 3, &matched, 0), nullptr);
    EXPECT_EQ(matched, 0u);
    EXPECT_EQ(mem_find_partial(range, "qq", 9, 2, nullptr, 0), nullptr);
}

TEST(StrChars, LastFirstAndPresence) {
    const char* s = "a/b/c";
    EXPECT_EQ(str_rchr(s, '/'), s + 3);
    EXPECT_EQ(str_rchr(s, '#'), s);
    EXPECT_EQ(str_find_char(s, '/', 0), s + 1);
    EXPECT_EQ(str_find_char(s, '/', 1), s + 3);
    EXPECT_EQ(str_find_char(s, '#', 1), nullptr);
    EXPECT_EQ(str_has_char(s, 'c'), 1);
    EXPECT_EQ(str_has_char(s, 'z'), 0);
    EXPECT_EQ(str_has_char(s, '\0'), 0);
    EXPECT_EQ(str_has_char(nullptr, 'a'), 0);
}

TEST(StrTrim, RemovesWhiteSpaceAtBothEndsInPlace) {
    struct trim_case {
        const char* text;
        const char* expected;
    };
    const trim_case cases[] = {{"  a b \t\r\n", "a b"}, {"abc", "abc"}, {" \t ", ""},
                               {"", ""},                 {"\nx", "x"}};
    for (const trim_case& c : cases) {
        SCOPED_TRACE(c.text);
        std::string buf = c.text;
        char* out = str_trim(buf.data());
        EXPECT_EQ(out, buf.data());
        EXPECT_STREQ(out, c.expected);
    }
    EXPECT_EQ(str_trim(nullptr), nullptr);
}

TEST(Hex, DecodeAcceptsPairsWithOptionalColons) {
    struct decode_case {
        const char* text;
        int expected;
        std::string bytes;
    };
    const decode_case cases[] = {
        {"00ff7A", 3, std::string("\x00\xff\x7a", 3)},
        {"de:AD:be", 3, "\xde\xad\xbe"},
        {"", 0, ""},
        {"abc", -1, ""},
        {"0g", -1, ""},
        {":ab", -1, ""},
        {"ab:", -1, ""},
        {"ab::cd", -1, ""},
        {"a:bc", -1, ""},
    };
    for (const decode_case& c : cases) {
        SCOPED_TRACE(c.text);
        unsigned char* out = reinterpret_cast<unsigned char*>(1);
        int n = hex_decode(c.text, &out);
        EXPECT_EQ(n, c.expected);
        if (n < 0) {
            EXPECT_EQ(out, nullptr);
            continue;
        }
        ASSERT_NE(out, nullptr);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(out), n), c.bytes);
        free(out);
    }
}

TEST(Hex, EncodeIsUpperCaseAndRoundTrips) {
    const unsigned char bytes[] = {0x00, 0xab, 0x7f, 0x10};
    char* text = nullptr;
    EXPECT_EQ(hex_encode(bytes, 4, 0, &text), 8);
    EXPECT_STREQ(text, "00AB7F10");
    free(text);
    EXPECT_EQ(hex_encode(bytes, 4, 1, &text), 11);
    EXPECT_STREQ(text, "00:AB:7F:10");
    unsigned char* back = nullptr;
    EXPECT_EQ(hex_decode(text, &back), 4);
    EXPECT_EQ(memcmp(back, bytes, 4), 0);
    free(back);
    free(text);
    EXPECT_EQ(hex_encode(bytes, 1, 1, &text), 2);
    EXPECT_STREQ(text, "00");
    free(text);
    EXPECT_EQ(hex_encode(nullptr, 4, 0, &text), -1);
    EXPECT_EQ(hex_encode(bytes, 0, 0, &text), -1);
}

TEST(Hex, ByteValueAndLowerCasing) {
    EXPECT_EQ(hex_byte("ff"), 255);
    EXPECT_EQ(hex_byte("A0"), 160);
    EXPECT_EQ(hex_byte("0b"), 11);
    EXPECT_EQ(hex_byte("f"), 240);  // stops at the terminator
    EXPECT_EQ(hex_byte(nullptr), 0);
    char text[] = "MiXeD-09\xC4";
    mem_tolower(text, 5);
    EXPECT_STREQ(text, "mixed-09\xC4");
}

}  // namespace
