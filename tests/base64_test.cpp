#include "base64.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "log.h"
#include "test_util.h"

namespace {

using namespace std::string_literals;

// Pass phrase of the pinned vectors below; the expected texts were computed
// outside this code base (SHA-1 key derivation by hand, AES by a separate tool).
constexpr char kPass[] = "Zl8#quiet-harbor-42";

cipher_pair_ptr make_pair(const char* pass = kPass) {
    return cipher_pair_ptr(cipher_new(reinterpret_cast<const unsigned char*>(pass), static_cast<int>(strlen(pass)),
                                      ZOR_CIPHER_SALT, ZOR_CIPHER_COUNT));
}

std::string take(void* p, int n) {  // frees a malloc'd result
    std::string s = p ? std::string(static_cast<char*>(p), n) : "<null>";
    free(p);
    return s;
}

std::string encrypt(cipher_pair* pair, const std::string& plain) {
    int n = -1;
    char* t = cipher_encrypt_base64(pair, plain.data(), static_cast<int>(plain.size()), &n);
    EXPECT_TRUE(!t || n == static_cast<int>(strlen(t)));
    return take(t, n);
}

std::string decrypt(cipher_pair* pair, const std::string& text, int n = 0) {
    char* p = cipher_base64_decrypt(pair, text.data(), static_cast<int>(text.size()), &n);
    EXPECT_TRUE(!p || p[n] == '\0');
    return take(p, n);
}

TEST(Base64, EncodesWithPaddingAndRoundTripsEveryByte) {
    std::string all;
    for (int i = 0; i < 256; i++) all.push_back(static_cast<char>(i));
    struct { std::string in, out; } cases[] = {
        {"", ""}, {"M", "TQ=="}, {"Ma", "TWE="}, {"Man", "TWFu"}, {"Many", "TWFueQ=="},
        {std::string("\xff\xfe\x00\x3e\x3f", 5), "//4APj8="}, {"any carnal pleasure.", "YW55IGNhcm5hbCBwbGVhc3VyZS4="},
        {all.substr(0, 255), ""}, {all, ""}};
    for (const auto& c : cases) {
        std::vector<char> out(c.in.size() / 3 * 4 + 5, '#');
        int n = base64_encode(c.in.data(), static_cast<int>(c.in.size()), out.data(), static_cast<int>(out.size()));
        EXPECT_EQ(out[n], c.in.empty() ? '#' : '\0');  // nothing at all for an empty input, not even the NUL
        if (!c.out.empty()) { EXPECT_EQ(std::string(out.data(), n), c.out); }
        std::vector<unsigned char> back(n + 1);
        EXPECT_EQ(base64_decode(out.data(), n, back.data(), n), static_cast<int>(c.in.size()));
        EXPECT_EQ(std::string(back.begin(), back.begin() + c.in.size()), c.in);
    }
    // 3 bytes pass the check with a 4-byte destination, but the group and its
    // NUL need 5: nothing may be written beyond the 4 bytes handed over.
    char dest[6] = {'x', 'x', 'x', 'x', 'G', 'G'};
    EXPECT_EQ(base64_encode("abc", 3, dest, 4), 0);
    EXPECT_EQ(dest[4], 'G');
    EXPECT_DEATH(base64_encode("abcdefghijkl", 12, dest, 15), "dest_len >= \\(src_len \\* 4 / 3\\)");
}

// Lengths are checked first; characters outside the alphabet ('=' included)
// are counted per group: two give 1 byte, one gives 2, any other count 3.
TEST(Base64, DecoderCountsBadCharactersAndStaysInItsDestination) {
    struct { const char* in; int dest_len; int n; std::string out; } cases[] = {
        {"TWFuTQ", 16, -1, ""},      {"TWFuTWFu", 5, -1, ""},  {"", 16, 0, ""},
        {"TWFuTWFu", 6, 6, "ManMan"}, {"TQ==", 16, 1, "M"},    {"TWE=", 16, 2, "Ma"},
        {"TQ==TWFu", 16, 4, "MMan"},  {"TW!u", 16, 2, std::string("M\x7f", 2)},
        {"T!!!", 16, 3, "O\xff\xff"}, {"TQ==TQ==", 6, 2, "MM"},  // the bytes after the 2 stay intact
    };
    for (const auto& c : cases) {
        unsigned char dest[16];
        memset(dest, 0xAA, sizeof dest);
        EXPECT_EQ(base64_decode(c.in, static_cast<int>(strlen(c.in)), dest, c.dest_len), c.n) << c.in;
        EXPECT_EQ(std::string(reinterpret_cast<char*>(dest), std::max(c.n, 0)), c.out) << c.in;
        EXPECT_EQ(dest[std::max(c.n, 0)], 0xAA) << c.in;
    }
}

TEST(Cipher, PinnedVectorsKeyDumpAndEdges) {
    zor_test::log_capture log(7);
    auto pair = make_pair();
    ASSERT_TRUE(pair);
    // These pin the key derivation (SHA-1, fixed salt, count 5), the cipher,
    // PKCS#7 padding (a whole block gets a full padding block) and the text
    // encoding: the wire format must not drift.
    struct { std::string plain, text; } cases[] = {
        {R"({"q":[[20,"example.com",0,0]]})", "kzQ3Dsu5zhcvZg4XjRsfcJNeJryW/37E9b4jhB+6Nsc="},
        {"0123456789abcdef", "nJAS2aO96PIscMFt+/6+LXT+Xmuhqa4PMjCpJNk/qSU="},
        {R"({"time":1700000000})", "X5Ubrn7eUetnt7Y8AcYlU7x2yxGGJBYKkll17gNVtso="},
    };
    for (int round = 0; round < 2; ++round)  // one message must leave no state behind for the next
        for (const auto& c : cases) {
            EXPECT_EQ(encrypt(pair.get(), c.plain), c.text);
            EXPECT_EQ(decrypt(pair.get(), c.text), c.plain);
        }
    // The derived values of the pinned pass phrase, as the dump prints them.
    for (const char* line : {"[D] Key", "0000: 72 d1 48 84 d0 01 7b d9 b0 d2 a1 b0 05 d3 d3 49",
                             "0016: 53 41 5b 3e 0c c4 e0 86 28 0e 94 ba 3f 89 b3 5a", "[D] IV",
                             "0000: 7a b7 ee 30 ac 0a 85 58 1c 23 02 44 09 6f 24 ba"})
        EXPECT_TRUE(log.contains(line)) << line;
    const size_t logged = log.lines().size();
    log_set_level(6);
    ASSERT_TRUE(make_pair("quiet"));
    EXPECT_EQ(log.lines().size(), logged) << "key dumps below the debug level";
    int len = 16;
    void* raw = cipher_encrypt(pair.get(), "0123456789abcdef", &len);
    EXPECT_EQ(len, 32);
    void* back = cipher_decrypt(pair.get(), raw, &len);
    EXPECT_EQ(take(back, len), "0123456789abcdef");
    free(raw);
    const std::string abc = encrypt(pair.get(), "abc");
    int kept = 77;  // a caller's non-zero length is kept
    char* p = cipher_base64_decrypt(pair.get(), abc.data(), static_cast<int>(abc.size()), &kept);
    EXPECT_EQ(kept, 77);
    EXPECT_EQ(take(p, p ? 4 : 0), std::string("abc\0", 4));
    int n = 0;
    EXPECT_TRUE(!cipher_encrypt_base64(nullptr, "x", 1, &n) && !cipher_encrypt_base64(pair.get(), nullptr, 1, &n) &&
                !cipher_encrypt_base64(pair.get(), "x", 0, &n) && !cipher_base64_decrypt(nullptr, "TQ==", 4, &n) &&
                !cipher_base64_decrypt(pair.get(), nullptr, 4, &n) && !cipher_base64_decrypt(pair.get(), "TQ==", 0, &n) &&
                !cipher_new(nullptr, 3, ZOR_CIPHER_SALT, 5));
}

TEST(Cipher, DamagedTextsAndOtherKeysGiveATerminatedResultNotACrash) {
    auto pair = make_pair(), other = make_pair("second pass");
    ASSERT_TRUE(pair && other);
    const std::string plain = R"({"r":{"a.example":[20,0,0,24,3,4]}})", good = encrypt(pair.get(), plain);
    for (const std::string& t : {good.substr(0, 24), good.substr(0, good.size() - 1), std::string(64, '!'),
                                 std::string("AAAA")}) {
        std::string got = decrypt(pair.get(), t);
        EXPECT_NE(got, "<null>") << t;
        EXPECT_NE(got, plain) << t;
    }
    EXPECT_NE(decrypt(other.get(), good), plain);
}

// The query sender and the IPC thread share one pair.
TEST(Cipher, OnePairIsSafeFromSeveralThreads) {
    auto pair = make_pair();
    ASSERT_TRUE(pair);
    const std::string plain = "shared by the sender and the IPC thread", text = encrypt(pair.get(), plain);
    std::vector<std::thread> threads;
    std::vector<int> wrong(4, 0);
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 300; i++)
                wrong[t] += (encrypt(pair.get(), plain) != text) + (decrypt(pair.get(), text) != plain);
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(wrong, std::vector<int>(4, 0));
}

TEST(Md5AndXor, DigestsAndAKeyThatRepeatsAndUndoesItself) {
    EXPECT_EQ(take(md5_hex("abc", 3, 1), 32), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(take(md5_hex("", 0, 0), 16), "\xd4\x1d\x8c\xd9\x8f\x00\xb2\x04\xe9\x80\x09\x98\xec\xf8\x42\x7e"s);
    std::string data = "\x01\x02\x03\x04\x05";
    xor_with_key(data.data(), 5, "\xF0\x0F", 2);
    EXPECT_EQ(data, "\xF1\x0D\xF3\x0B\xF5");
    xor_with_key(data.data(), 5, "\xF0\x0F", 2);
    EXPECT_EQ(data, "\x01\x02\x03\x04\x05");
    EXPECT_DEATH(xor_with_key(data.data(), 5, "k", 0), "key_len > 0");
}

}  // namespace
