#include "base64.h"

#ifdef __GLIBC__
#include <errno.h>  // program_invocation_short_name
#endif
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "log.h"
#include "util/c_ptr.h"

namespace {

struct evp_ctx_deleter {
    void operator()(EVP_CIPHER_CTX* c) const { EVP_CIPHER_CTX_free(c); }
};
using evp_ctx_ptr = std::unique_ptr<EVP_CIPHER_CTX, evp_ctx_deleter>;

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned char kBad = 255;

constexpr std::array<unsigned char, 256> make_decode_table() {
    std::array<unsigned char, 256> t{};
    for (auto& v : t) v = kBad;
    for (int i = 0; i < 64; i++) t[static_cast<unsigned char>(kAlphabet[i])] = static_cast<unsigned char>(i);
    return t;
}
constexpr auto kDecode = make_decode_table();

// Assertions that hold in release builds too: a caller that breaks them is a
// programming error the process must not run past.
[[noreturn]] void fail_assert(const char* expr, int line, const char* func) {
#ifdef __GLIBC__
    const char* program = program_invocation_short_name;
#else
    const char* program = "zor_service";
#endif
    fprintf(stderr, "%s: %s:%d: %s: Assertion `%s' failed.\n", program, __FILE__, line, func,
            expr);
    abort();
}

}  // namespace

struct cipher_pair {
    std::mutex lock;  // serialises every use of enc and dec
    evp_ctx_ptr enc;
    evp_ctx_ptr dec;
};

void crypto_init() {
    OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_CIPHERS, nullptr);
    OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
}

cipher_pair* cipher_new(const unsigned char* pass, int pass_len, const unsigned char* salt,
                        int count) {
    if (!pass || pass_len < 0) return nullptr;
    unsigned char key[EVP_MAX_KEY_LENGTH] = {};
    unsigned char iv[EVP_MAX_IV_LENGTH] = {};
    int n = EVP_BytesToKey(EVP_aes_256_cbc(), EVP_sha1(), salt, pass, pass_len, count, key, iv);
    if (n != 32) return nullptr;
    log_hex(7, "Key", key, 32);
    log_hex(7, "IV", iv, 16);

    auto pair = std::make_unique<cipher_pair>();
    pair->enc.reset(EVP_CIPHER_CTX_new());
    pair->dec.reset(EVP_CIPHER_CTX_new());
    bool ok = pair->enc && pair->dec &&
              EVP_CIPHER_CTX_reset(pair->enc.get()) == 1 &&
              EVP_CIPHER_CTX_reset(pair->dec.get()) == 1 &&
              EVP_EncryptInit_ex(pair->enc.get(), EVP_aes_256_cbc(), nullptr, key, iv) == 1 &&
              EVP_DecryptInit_ex(pair->dec.get(), EVP_aes_256_cbc(), nullptr, key, iv) == 1;
    OPENSSL_cleanse(key, sizeof key);
    OPENSSL_cleanse(iv, sizeof iv);
    return ok ? pair.release() : nullptr;
}

void cipher_free(cipher_pair* pair) {
    delete pair;
}

namespace {

// Runs the whole input through `ctx`, restarted first with its stored key and
// IV. Returns the output length; a failed final step (bad padding on the way
// in) leaves the last block out, as the update step already produced.
int run_cipher(EVP_CIPHER_CTX* ctx, bool encrypt, const unsigned char* in, int len,
               unsigned char* out) {
    int n = 0;
    int fin = 0;
    if (encrypt) {
        if (EVP_EncryptInit_ex(ctx, nullptr, nullptr, nullptr, nullptr) != 1) return 0;
        if (EVP_EncryptUpdate(ctx, out, &n, in, len) != 1) return 0;
        if (EVP_EncryptFinal_ex(ctx, out + n, &fin) != 1) fin = 0;
    } else {
        if (EVP_DecryptInit_ex(ctx, nullptr, nullptr, nullptr, nullptr) != 1) return 0;
        if (EVP_DecryptUpdate(ctx, out, &n, in, len) != 1) return 0;
        if (EVP_DecryptFinal_ex(ctx, out + n, &fin) != 1) fin = 0;
    }
    return n + fin;
}

// Cipher text bound of AES-CBC with PKCS#7: one block of padding at most.
// A length near INT_MAX cannot be enciphered into an int-sized result.
bool cipher_len_ok(int len) {
    return len >= 1 && len <= INT_MAX - 32;
}

}  // namespace

char* cipher_encrypt_base64(cipher_pair* pair, const void* data, int len, int* out_len) {
    if (!pair || !data || !cipher_len_ok(len)) return nullptr;
    malloc_ptr<unsigned char> raw(static_cast<unsigned char*>(malloc(static_cast<size_t>(len) + 17)));
    if (!raw) return nullptr;
    int total;
    {
        std::lock_guard<std::mutex> g(pair->lock);
        total = run_cipher(pair->enc.get(), true, static_cast<const unsigned char*>(data), len,
                           raw.get());
    }
    if (total > INT_MAX / 4 * 3 - 3) return nullptr;
    int text_len = (total / 3) * 4 + (total % 3 ? 4 : 0) + 1;
    char* text = static_cast<char*>(malloc(static_cast<size_t>(text_len)));
    if (!text) return nullptr;
    int n = base64_encode(raw.get(), total, text, text_len);
    text[n] = '\0';
    if (out_len) *out_len = n;
    return text;
}

char* cipher_base64_decrypt(cipher_pair* pair, const char* text, int len, int* out_len) {
    if (!pair || !text || len < 1 || len == INT_MAX) return nullptr;
    malloc_ptr<unsigned char> raw(static_cast<unsigned char*>(malloc(static_cast<size_t>(len) + 1)));
    if (!raw) return nullptr;
    int raw_len = base64_decode(text, len, raw.get(), len + 1);
    if (raw_len < 0) raw_len = 0;  // an undecodable text deciphers to nothing
    // Decryption output never exceeds its input; keep a block spare anyway.
    char* plain = static_cast<char*>(malloc(static_cast<size_t>(raw_len) + 1 + 16));
    if (!plain) return nullptr;
    int total = 0;
    if (raw_len > 0) {
        std::lock_guard<std::mutex> g(pair->lock);
        total = run_cipher(pair->dec.get(), false, raw.get(), raw_len,
                           reinterpret_cast<unsigned char*>(plain));
    }
    if (out_len && *out_len == 0) *out_len = total;
    plain[total] = '\0';
    return plain;
}

unsigned char* cipher_encrypt(cipher_pair* pair, const void* data, int* len) {
    if (!pair || !data || !len || !cipher_len_ok(*len)) return nullptr;
    auto* out = static_cast<unsigned char*>(malloc(static_cast<size_t>(*len) + 16));
    if (!out) return nullptr;
    std::lock_guard<std::mutex> g(pair->lock);
    *len = run_cipher(pair->enc.get(), true, static_cast<const unsigned char*>(data), *len, out);
    return out;
}

unsigned char* cipher_decrypt(cipher_pair* pair, const void* data, int* len) {
    if (!pair || !data || !len || !cipher_len_ok(*len)) return nullptr;
    auto* out = static_cast<unsigned char*>(malloc(static_cast<size_t>(*len) + 16));
    if (!out) return nullptr;
    std::lock_guard<std::mutex> g(pair->lock);
    *len = run_cipher(pair->dec.get(), false, static_cast<const unsigned char*>(data), *len, out);
    return out;
}

int base64_encode(const void* src, int src_len, char* dest, int dest_len) {
    // Widened so that a huge src_len cannot overflow the test itself.
    if (dest_len < static_cast<int64_t>(src_len) * 4 / 3) fail_assert("dest_len >= (src_len * 4 / 3)", __LINE__, __func__);
    if (src_len < 1) return 0;
    const auto* in = static_cast<const unsigned char*>(src);
    int out = 0;
    for (int i = 0; i < src_len; i += 3) {
        // Never past dest: a group is written only with room for its NUL.
        if (out + 5 > dest_len) break;
        int left = src_len - i;
        unsigned b0 = in[i];
        unsigned b1 = left > 1 ? in[i + 1] : 0;
        unsigned b2 = left > 2 ? in[i + 2] : 0;
        dest[out] = kAlphabet[b0 >> 2];
        dest[out + 1] = kAlphabet[((b0 & 0x03) << 4) | (b1 >> 4)];
        dest[out + 2] = left > 1 ? kAlphabet[((b1 & 0x0f) << 2) | (b2 >> 6)] : '=';
        dest[out + 3] = left > 2 ? kAlphabet[b2 & 0x3f] : '=';
        out += 4;
        dest[out] = '\0';
    }
    return out;
}

int base64_decode(const char* src, int src_len, void* dest, int dest_len) {
    if (dest_len < static_cast<int64_t>(src_len) * 3 / 4 || src_len % 4 != 0) return -1;
    if (src_len < 4) return 0;
    const auto* in = reinterpret_cast<const unsigned char*>(src);
    auto* out = static_cast<unsigned char*>(dest);
    int n = 0;
    for (int i = 0; i + 4 <= src_len; i += 4) {
        unsigned v[4];
        int bad = 0;
        for (int k = 0; k < 4; k++) {
            v[k] = kDecode[in[i + k]];
            if (v[k] == kBad) bad++;
        }
        int count = bad == 2 ? 1 : bad == 1 ? 2 : 3;
        const unsigned char bytes[3] = {
            static_cast<unsigned char>((v[0] << 2) | (v[1] >> 4)),
            static_cast<unsigned char>((v[1] << 4) | (v[2] >> 2)),
            static_cast<unsigned char>((v[2] << 6) | v[3]),
        };
        for (int k = 0; k < count && n < dest_len; k++) out[n++] = bytes[k];
    }
    return n;
}

unsigned char* md5_hex(const void* data, size_t len, int want_hex) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int dlen = 0;
    if (EVP_Digest(data, len, digest, &dlen, EVP_md5(), nullptr) != 1 || dlen != 16) return nullptr;
    if (!want_hex) {
        auto* out = static_cast<unsigned char*>(malloc(16));
        if (out) memcpy(out, digest, 16);
        return out;
    }
    auto* hex = static_cast<unsigned char*>(malloc(33));
    if (!hex) return nullptr;
    for (int i = 0; i < 16; i++) snprintf(reinterpret_cast<char*>(hex) + i * 2, 3, "%02x", digest[i]);
    return hex;
}

void xor_with_key(void* data, size_t len, const void* key, size_t key_len) {
    if (key_len == 0) fail_assert("key_len > 0", __LINE__, __func__);
    auto* d = static_cast<unsigned char*>(data);
    const auto* k = static_cast<const unsigned char*>(key);
    for (size_t i = 0; i < len; i++) d[i] ^= k[i % key_len];
}
