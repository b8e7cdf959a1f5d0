#include "base64.h"

#include <gtest/gtest.h>

#include "test_util.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

struct free_deleter {
    void operator()(void* p) const { free(p); }
};
using cstr = std::unique_ptr<char, free_deleter>;
using ubytes = std::unique_ptr<unsigned char, free_deleter>;

// Pass phrase of the pinned vectors below; the expected texts were computed
// outside this code base (SHA-1 key derivation by hand, AES by a separate tool).
constexpr char kPass[] = "Zl8#quiet-harbor-42";

cipher_pair_ptr make_pair(const char* pass = kPass) {
    return cipher_pair_ptr(cipher_new(reinterpret_cast<const unsigned char*>(pass),
                                      static_cast<int>(strlen(pass)), ZOR_CIPHER_SALT,
                                      ZOR_CIPHER_COUNT));
}

std::string encode(const std::string& in) {
    std::vector<char> out(in.size() / 3 * 4 + 5, '#');
    int n = base64_encode(in.data(), static_cast<int>(in.size()), out.data(),
                          static_cast<int>(out.size()));
    // Nothing at all is written for an empty input, not even the NUL.
    EXPECT_EQ(out[n], in.empty() ? '#' : '\0');
    return std::string(out.data(), n);
}

std::string encrypt(cipher_pair* pair, const std::string& plain) {
    int n = -1;
    cstr t(cipher_encrypt_base64(pair, plain.data(), static_cast<int>(plain.size()), &n));
    if (!t) return "<null>";
    EXPECT_EQ(n, static_cast<int>(strlen(t.get())));
    return t.get();
}

std::string decrypt(cipher_pair* pair, const std::string& text) {
    int n = 0;
    cstr p(cipher_base64_decrypt(pair, text.data(), static_cast<int>(text.size()), &n));
    if (!p) return "<null>";
    return std::string(p.get(), n);
}

TEST(Base64, EncodesEachGroupLengthWithItsPadding) {
    struct {
        std::string in, out;
    } cases[] = {
        {"", ""},
        {"M", "TQ=="},
        {"Ma", "TWE="},
        {"Man", "TWFu"},
        {"Many", "TWFueQ=="},
        {std::string("\xff\xfe\x00\x3e\x3f", 5), "//4APj8="},
        {"any carnal pleasure.", "YW55IGNhcm5hbCBwbGVhc3VyZS4="},
    };
    for (const auto& c : cases) EXPECT_EQ(encode(c.in), c.out) << c.in;
}

TEST(Base64, EncoderStopsOnATooSmallDestination) {
    char dest[8];
    EXPECT_DEATH(base64_encode("abcdefghijkl", 12, dest, 15),
                 "dest_len >= \\(src_len \\* 4 / 3\\)");
}

TEST(Base64, EncoderWithTheLooseMinimumNeverWritesPastDestination) {
    // 3 bytes pass the check with a 4-byte destination, but the group and its
    // NUL need 5: nothing may be written beyond the 4 bytes handed over.
    char dest[6] = {'x', 'x', 'x', 'x', 'G', 'G'};
    int n = base64_encode("abc", 3, dest, 4);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(dest[4], 'G');
}

TEST(Base64, DecodeLengthRules) {
    unsigned char dest[16];
    EXPECT_EQ(base64_decode("TWFuTQ", 6, dest, sizeof dest), -1);   // not a multiple of 4
    EXPECT_EQ(base64_decode("TWFuTWFu", 8, dest, 5), -1);            // room for less than 8*3/4
    EXPECT_EQ(base64_decode("", 0, dest, sizeof dest), 0);
    EXPECT_EQ(base64_decode("TWFuTWFu", 8, dest, 6), 6);
}

TEST(Base64, DecodeCountsBadCharactersPerGroup) {
    struct {
        const char* in;
        std::string out;
    } cases[] = {
        {"TQ==", "M"},                 // two pads: one byte
        {"TWE=", "Ma"},                // one pad: two bytes
        {"TWFu", "Man"},
        {"TQ==TWFu", "MMan"},          // decoding goes on past a padded group
        {"TW!u", std::string("M\x7f", 2)},  // a stray byte counts like a pad, values kept as they are
        {"T!!!", std::string("O\xff\xff", 3)},  // three bad: three bytes
    };
    for (const auto& c : cases) {
        unsigned char dest[16] = {};
        int n = base64_decode(c.in, static_cast<int>(strlen(c.in)), dest, sizeof dest);
        ASSERT_GE(n, 0) << c.in;
        EXPECT_EQ(std::string(reinterpret_cast<char*>(dest), n), c.out) << c.in;
    }
}

TEST(Base64, DecoderNeverWritesBeyondDestLen) {
    // "TQ==" with dest_len 3 decodes one byte; the bytes after it stay intact.
    unsigned char dest[8];
    memset(dest, 0xAA, sizeof dest);
    EXPECT_EQ(base64_decode("TQ==TQ==", 8, dest, 6), 2);
    EXPECT_EQ(dest[0], 'M');
    EXPECT_EQ(dest[1], 'M');
    for (int i = 2; i < 8; i++) EXPECT_EQ(dest[i], 0xAA) << i;
}

TEST(Base64, RoundTripsEveryByteValue) {
    std::string all;
    for (int i = 0; i < 256; i++) all.push_back(static_cast<char>(i));
    for (size_t len : {1u, 2u, 3u, 4u, 5u, 255u, 256u}) {
        std::string in = all.substr(0, len);
        std::string text = encode(in);
        std::vector<unsigned char> out(text.size());
        int n = base64_decode(text.data(), static_cast<int>(text.size()), out.data(),
                              static_cast<int>(out.size()));
        ASSERT_EQ(n, static_cast<int>(len));
        EXPECT_EQ(0, memcmp(out.data(), in.data(), len));
    }
}

TEST(Cipher, PinnedVectorsForAKnownPassPhrase) {
    auto pair = make_pair();
    ASSERT_TRUE(pair);
    // These pin the key derivation (SHA-1, fixed salt, count 5), the cipher,
    // PKCS#7 padding and the text encoding: the wire format must not drift.
    struct {
        std::string plain, text;
    } cases[] = {
        {R"({"q":[[20,"example.com",0,0]]})", "kzQ3Dsu5zhcvZg4XjRsfcJNeJryW/37E9b4jhB+6Nsc="},
        {"0123456789abcdef", "nJAS2aO96PIscMFt+/6+LXT+Xmuhqa4PMjCpJNk/qSU="},
        {R"({"time":1700000000})", "X5Ubrn7eUetnt7Y8AcYlU7x2yxGGJBYKkll17gNVtso="},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(encrypt(pair.get(), c.plain), c.text);
        EXPECT_EQ(decrypt(pair.get(), c.text), c.plain);
    }
}

TEST(Cipher, KeyAndIvAreDumpedAtDebugLevel) {
    zor_test::log_capture log(7);
    ASSERT_TRUE(make_pair());
    // The derived values of the pinned pass phrase, as the dump prints them.
    EXPECT_TRUE(log.contains("[D] Key"));
    EXPECT_TRUE(log.contains("0000: 72 d1 48 84 d0 01 7b d9 b0 d2 a1 b0 05 d3 d3 49"));
    EXPECT_TRUE(log.contains("0016: 53 41 5b 3e 0c c4 e0 86 28 0e 94 ba 3f 89 b3 5a"));
    EXPECT_TRUE(log.contains("[D] IV"));
    EXPECT_TRUE(log.contains("0000: 7a b7 ee 30 ac 0a 85 58 1c 23 02 44 09 6f 24 ba"));
}

TEST(Cipher, KeyDumpsStayOutOfTheLogBelowDebugLevel) {
    zor_test::log_capture log(6);
    ASSERT_TRUE(make_pair());
    EXPECT_FALSE(log.contains("Key"));
    EXPECT_FALSE(log.contains("72 d1 48 84"));
}

TEST(Cipher, SamePlainTextGivesSameTextUnderOnePair) {
    auto pair = make_pair();
    ASSERT_TRUE(pair);
    std::string a = encrypt(pair.get(), "hello cloud");
    // Something in between must not leave state behind in either context.
    EXPECT_EQ(decrypt(pair.get(), encrypt(pair.get(), "other text")), "other text");
    EXPECT_EQ(encrypt(pair.get(), "hello cloud"), a);
}

TEST(Cipher, WholeBlockInputGetsAFullPaddingBlock) {
    auto pair = make_pair();
    ASSERT_TRUE(pair);
    int len = 16;
    ubytes raw(cipher_encrypt(pair.get(), "0123456789abcdef", &len));
    ASSERT_TRUE(raw);
    EXPECT_EQ(len, 32);
    EXPECT_EQ(encrypt(pair.get(), "0123456789abcdef").size(), 44u);
    ubytes back(cipher_decrypt(pair.get(), raw.get(), &len));
    ASSERT_TRUE(back);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(back.get()), len), "0123456789abcdef");
}

TEST(Cipher, DifferentPassPhrasesDoNotDecipherEachOther) {
    auto a = make_pair("first pass");
    auto b = make_pair("second pass");
    ASSERT_TRUE(a && b);
    std::string text = encrypt(a.get(), R"({"r":{}})");
    EXPECT_NE(encrypt(b.get(), R"({"r":{}})"), text);
    EXPECT_NE(decrypt(b.get(), text), R"({"r":{}})");
}

TEST(Cipher, RejectsMissingInputs) {
    auto pair = make_pair();
    ASSERT_TRUE(pair);
    int n = 0;
    EXPECT_EQ(cipher_encrypt_base64(nullptr, "x", 1, &n), nullptr);
    EXPECT_EQ(cipher_encrypt_base64(pair.get(), nullptr, 1, &n), nullptr);
    EXPECT_EQ(cipher_encrypt_base64(pair.get(), "x", 0, &n), nullptr);
    EXPECT_EQ(cipher_base64_decrypt(nullptr, "TQ==", 4, &n), nullptr);
    EXPECT_EQ(cipher_base64_decrypt(pair.get(), nullptr, 4, &n), nullptr);
    EXPECT_EQ(cipher_base64_decrypt(pair.get(), "TQ==", 0, &n), nullptr);
    EXPECT_EQ(cipher_new(nullptr, 3, ZOR_CIPHER_SALT, 5), nullptr);
}

TEST(Cipher, DecryptKeepsACallersNonZeroLength) {
    auto pair = make_pair();
    ASSERT_TRUE(pair);
    std::string text = encrypt(pair.get(), "abc");
    int n = 77;
    cstr p(cipher_base64_decrypt(pair.get(), text.data(), static_cast<int>(text.size()), &n));
    ASSERT_TRUE(p);
    EXPECT_EQ(n, 77);
    EXPECT_STREQ(p.get(), "abc");
    n = 0;
    p.reset(cipher_base64_decrypt(pair.get(), text.data(), static_cast<int>(text.size()), &n));
    EXPECT_EQ(n, 3);
}

TEST(Cipher, DamagedTextsGiveATerminatedResultNotACrash) {
    auto pair = make_pair();
    ASSERT_TRUE(pair);
    std::string good = encrypt(pair.get(), R"({"r":{"a.example":[20,0,0,24,3,4]}})");
    std::string cut = good.substr(0, 24);
    std::string odd = good.substr(0, good.size() - 1);
    std::string junk(64, '!');
    for (const std::string& t : {cut, odd, junk, std::string("AAAA")}) {
        int n = 0;
        cstr p(cipher_base64_decrypt(pair.get(), t.data(), static_cast<int>(t.size()), &n));
        ASSERT_TRUE(p) << t;
        EXPECT_EQ(strlen(p.get()) <= static_cast<size_t>(n), true) << t;
        EXPECT_NE(std::string(p.get(), n), R"({"r":{"a.example":[20,0,0,24,3,4]}})");
    }
}

TEST(Cipher, OnePairIsSafeFromSeveralThreads) {
    auto pair = make_pair();
    ASSERT_TRUE(pair);
    const std::string expect = encrypt(pair.get(), "shared by the sender and the IPC thread");
    std::vector<std::thread> threads;
    std::vector<int> wrong(4, 0);
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 300; i++) {
                if (encrypt(pair.get(), "shared by the sender and the IPC thread") != expect) wrong[t]++;
                if (decrypt(pair.get(), expect) != "shared by the sender and the IPC thread") wrong[t]++;
            }
        });
    }
    for (auto& th : threads) th.join();
    for (int t = 0; t < 4; t++) EXPECT_EQ(wrong[t], 0) << t;
}

TEST(Md5, DigestAndHexForms) {
    ubytes hex(md5_hex("abc", 3, 1));
    ASSERT_TRUE(hex);
    EXPECT_STREQ(reinterpret_cast<char*>(hex.get()), "900150983cd24fb0d6963f7d28e17f72");
    ubytes raw(md5_hex("", 0, 0));
    ASSERT_TRUE(raw);
    const unsigned char empty[16] = {0xd4, 0x1d, 0x8c, 0xd9, 0x8f, 0x00, 0xb2, 0x04,
                                     0xe9, 0x80, 0x09, 0x98, 0xec, 0xf8, 0x42, 0x7e};
    EXPECT_EQ(0, memcmp(raw.get(), empty, 16));
}

TEST(Xor, RepeatsTheKeyAndUndoesItself) {
    unsigned char data[5] = {1, 2, 3, 4, 5};
    const unsigned char key[2] = {0xF0, 0x0F};
    xor_with_key(data, 5, key, 2);
    const unsigned char want[5] = {0xF1, 0x0D, 0xF3, 0x0B, 0xF5};
    EXPECT_EQ(0, memcmp(data, want, 5));
    xor_with_key(data, 5, key, 2);
    const unsigned char orig[5] = {1, 2, 3, 4, 5};
    EXPECT_EQ(0, memcmp(data, orig, 5));
    EXPECT_DEATH(xor_with_key(data, 5, key, 0), "key_len > 0");
}

}  // namespace
