// Cloud payloads are base64 text of AES cipher text, and a server may send
// anything: the decoder and the deciphering wrapper take any text without
// writing past their buffers, the decoder follows its per-group rule, and
// the codec and the cipher give back exactly what they were given.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base64.h"
#include "fuzz_support.h"

namespace {

constexpr size_t kMaxInput = 1 << 16;

cipher_pair* the_pair() {
    static cipher_pair_ptr pair = [] {
        const char pass[] = "fuzz pass phrase";
        return cipher_pair_ptr(cipher_new(reinterpret_cast<const unsigned char*>(pass), sizeof pass - 1,
                                          ZOR_CIPHER_SALT, ZOR_CIPHER_COUNT));
    }();
    return pair.get();
}

int alphabet_value(unsigned char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

// The decoder's rule written out plainly: per group of four, two characters
// outside the alphabet give one byte, one gives two, any other count three,
// built from the table values as they stand (255 for such a character).
std::vector<uint8_t> reference_decode(const std::string& text) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 4 <= text.size(); i += 4) {
        unsigned v[4];
        int bad = 0;
        for (size_t k = 0; k < 4; ++k) {
            const int a = alphabet_value(static_cast<unsigned char>(text[i + k]));
            v[k] = a < 0 ? 255u : static_cast<unsigned>(a);
            bad += a < 0;
        }
        const uint8_t bytes[3] = {static_cast<uint8_t>(v[0] << 2 | v[1] >> 4),
                                  static_cast<uint8_t>(v[1] << 4 | v[2] >> 2),
                                  static_cast<uint8_t>(v[2] << 6 | v[3])};
        const int count = bad == 2 ? 1 : bad == 1 ? 2 : 3;
        out.insert(out.end(), bytes, bytes + count);
    }
    return out;
}

void check_decoder(const std::string& text) {
    const int len = static_cast<int>(text.size());
    // Exactly the room the length rule asks for: any write past it is caught.
    std::vector<uint8_t> dest(text.size() * 3 / 4);
    const int n = base64_decode(text.data(), len, dest.data(), static_cast<int>(dest.size()));
    if (len % 4 != 0) {
        fuzz::check(n == -1, "decoder took a text whose length is not a multiple of 4");
        return;
    }
    std::vector<uint8_t> want = reference_decode(text);
    if (want.size() > dest.size()) want.resize(dest.size());
    fuzz::check(n == static_cast<int>(want.size()), "decoded length differs from the group rule", text);
    fuzz::check(std::equal(want.begin(), want.end(), dest.begin()), "decoded bytes differ", text);
}

void check_codec_round_trip(const uint8_t* data, size_t size) {
    if (size == 0) return;
    const size_t room = (size + 2) / 3 * 4 + 1;
    std::vector<char> text(room);
    const int n = base64_encode(data, static_cast<int>(size), text.data(), static_cast<int>(room));
    fuzz::check(n == static_cast<int>(room - 1) && text[room - 1] == '\0', "encoded length");
    std::vector<uint8_t> back(static_cast<size_t>(n) * 3 / 4);
    const int m = base64_decode(text.data(), n, back.data(), static_cast<int>(back.size()));
    fuzz::check(m == static_cast<int>(size) && std::memcmp(back.data(), data, size) == 0,
                "base64 round trip lost bytes");
}

void check_cipher_round_trip(const uint8_t* data, size_t size) {
    if (size == 0) return;
    int text_len = 0;
    std::unique_ptr<char, decltype(&free)> text(
        cipher_encrypt_base64(the_pair(), data, static_cast<int>(size), &text_len), free);
    fuzz::check(text != nullptr && text_len > 0 && text.get()[text_len] == '\0', "enciphering failed");
    int plain_len = 0;
    std::unique_ptr<char, decltype(&free)> plain(
        cipher_base64_decrypt(the_pair(), text.get(), text_len, &plain_len), free);
    fuzz::check(plain != nullptr && plain_len == static_cast<int>(size) &&
                    std::memcmp(plain.get(), data, size) == 0 && plain.get()[plain_len] == '\0',
                "cipher round trip lost bytes");
}

// Any text a server sends: a terminated plain text no longer than the bytes
// the text decodes to.
void check_decrypt_any(const std::string& text) {
    const int len = static_cast<int>(text.size());
    int out_len = 0;
    std::unique_ptr<char, decltype(&free)> plain(cipher_base64_decrypt(the_pair(), text.c_str(), len, &out_len),
                                                 free);
    if (len < 1) {
        fuzz::check(plain == nullptr, "deciphered an empty text");
        return;
    }
    fuzz::check(plain != nullptr, "no plain text for a non-empty cipher text");
    fuzz::check(out_len >= 0 && static_cast<size_t>(out_len) <= text.size() * 3 / 4, "plain text too long");
    fuzz::check(plain.get()[out_len] == '\0', "plain text not terminated");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::setup();
    crypto_init();
    if (!the_pair()) fuzz::fail("no cipher pair");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);
    check_decoder(text);
    check_codec_round_trip(data, size);
    check_cipher_round_trip(data, size);
    check_decrypt_any(text);
    return 0;
}
