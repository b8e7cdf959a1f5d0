// Cloud replies are untrusted: the base64 decoder, the deciphering wrapper
// and the error-code reader take whatever a server sends.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base64.h"
#include "qmx_zor.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static cipher_pair* pair = [] {
        const char pass[] = "fuzz pass phrase";
        return cipher_new(reinterpret_cast<const unsigned char*>(pass), sizeof pass - 1, ZOR_CIPHER_SALT,
                          ZOR_CIPHER_COUNT);
    }();
    if (size > 1 << 16) return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const int len = static_cast<int>(size);

    // Exactly the room the length rule asks for: any write past it is caught.
    std::vector<unsigned char> dest(static_cast<size_t>(len) * 3 / 4);
    int n = base64_decode(text.data(), len, dest.data(), static_cast<int>(dest.size()));
    if (n > static_cast<int>(dest.size())) abort();

    int out_len = 0;
    char* plain = cipher_base64_decrypt(pair, text.c_str(), len, &out_len);
    if (plain && plain[out_len] != '\0') abort();
    free(plain);

    response_error_code(text.c_str());
    return 0;
}
