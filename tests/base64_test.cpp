#include "base64.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

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
        {"", ""}, {"M", "TQ=="}, {"Ma", "TWE="}, {std::string("\xff\xfe\x00\x3e\x3f", 5), "//4APj8="}, {all, ""}};
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

// Lengths are checked first; the decoder never writes past its destination.
// (The cipher text fuzz target checks the per-group rule on any text.)
TEST(Base64, DecoderChecksLengthsAndStaysInItsDestination) {
    struct { const char* in; int dest_len; int n; std::string out; } cases[] = {
        {"TWFuTQ", 16, -1, ""}, {"TWFuTWFu", 5, -1, ""}, {"TWFuTWFu", 6, 6, "ManMan"},
        {"TQ==TQ==", 6, 2, "MM"},  // the bytes after the 2 stay intact
    };
    for (const auto& c : cases) {
        unsigned char dest[16];
        memset(dest, 0xAA, sizeof dest);
        EXPECT_EQ(base64_decode(c.in, static_cast<int>(strlen(c.in)), dest, c.dest_len), c.n) << c.in;
        EXPECT_EQ(std::string(reinterpret_cast<char*>(dest), std::max(c.n, 0)), c.out) << c.in;
        EXPECT_EQ(dest[std::max(c.n, 0)], 0xAA) << c.in;
    }
}

TEST(Cipher, PinnedVectorsDamagedTextsAndRefusedArguments) {
    auto pair = make_pair();
    ASSERT_TRUE(pair);
    // These pin the key derivation (SHA-1, fixed salt, count 5), the cipher,
    // PKCS#7 padding (a whole block gets a full padding block) and the text
    // encoding: the wire format must not drift.
    struct { std::string plain, text; } cases[] = {
        {R"({"q":[[20,"example.com",0,0]]})", "kzQ3Dsu5zhcvZg4XjRsfcJNeJryW/37E9b4jhB+6Nsc="},
        {"0123456789abcdef", "nJAS2aO96PIscMFt+/6+LXT+Xmuhqa4PMjCpJNk/qSU="},
    };
    for (int round = 0; round < 2; ++round)  // one message must leave no state behind for the next
        for (const auto& c : cases) {
            EXPECT_EQ(encrypt(pair.get(), c.plain), c.text);
            EXPECT_EQ(decrypt(pair.get(), c.text), c.plain);
        }
    // Damaged text decrypts to something terminated that is not the message;
    // the fuzz target takes any other text.
    const std::string good = encrypt(pair.get(), cases[0].plain);
    EXPECT_NE(decrypt(pair.get(), good.substr(0, good.size() - 1)), "<null>");
    EXPECT_NE(decrypt(make_pair("second pass").get(), good), cases[0].plain);
    int n = 0;
    EXPECT_TRUE(!cipher_encrypt_base64(nullptr, "x", 1, &n) && !cipher_encrypt_base64(pair.get(), "x", 0, &n) &&
                !cipher_base64_decrypt(pair.get(), nullptr, 4, &n) && !cipher_new(nullptr, 3, ZOR_CIPHER_SALT, 5));
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

}  // namespace
