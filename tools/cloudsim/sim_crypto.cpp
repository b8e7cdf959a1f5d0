#include "sim_crypto.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <cstring>
#include <vector>

namespace cloudsim {

namespace {

// Salt and round count shared with the service.
constexpr unsigned char kSalt[8] = {0x3c, 0x91, 0x5e, 0x07, 0xa2, 0x6b, 0xd4, 0x18};
constexpr int kRounds = 5;

struct ctx_deleter {
    void operator()(EVP_CIPHER_CTX* c) const { EVP_CIPHER_CTX_free(c); }
};
struct bio_deleter {
    void operator()(BIO* b) const { BIO_free(b); }
};
struct ext_deleter {
    void operator()(X509_EXTENSION* e) const { X509_EXTENSION_free(e); }
};

std::string sha1(const std::string& in) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    EVP_Digest(in.data(), in.size(), md, &n, EVP_sha1(), nullptr);
    return std::string(reinterpret_cast<char*>(md), n);
}

}  // namespace

// D1 = H^rounds(pass | salt), Di = H^rounds(Di-1 | pass | salt); key and IV
// are the first 48 bytes of D1 | D2 | D3.
payload_key derive_key(const std::string& pass) {
    const std::string salt(reinterpret_cast<const char*>(kSalt), sizeof kSalt);
    std::string stream, prev;
    while (stream.size() < 48) {
        std::string d = sha1(prev + pass + salt);
        for (int i = 1; i < kRounds; i++) d = sha1(d);
        stream += d;
        prev = d;
    }
    payload_key k;
    memcpy(k.key, stream.data(), 32);
    memcpy(k.iv, stream.data() + 32, 16);
    return k;
}

std::string seal(const payload_key& k, const std::string& plain) {
    std::unique_ptr<EVP_CIPHER_CTX, ctx_deleter> c(EVP_CIPHER_CTX_new());
    std::vector<unsigned char> out(plain.size() + 32);
    int n = 0, fin = 0;
    if (!c || EVP_EncryptInit_ex(c.get(), EVP_aes_256_cbc(), nullptr, k.key, k.iv) != 1 ||
        EVP_EncryptUpdate(c.get(), out.data(), &n, reinterpret_cast<const unsigned char*>(plain.data()),
                          static_cast<int>(plain.size())) != 1 ||
        EVP_EncryptFinal_ex(c.get(), out.data() + n, &fin) != 1)
        return {};
    int total = n + fin;
    std::vector<unsigned char> text(static_cast<size_t>(4 * ((total + 2) / 3) + 1));
    int len = EVP_EncodeBlock(text.data(), out.data(), total);
    return std::string(reinterpret_cast<char*>(text.data()), static_cast<size_t>(len));
}

std::optional<std::string> open(const payload_key& k, const std::string& text) {
    if (text.empty() || text.size() % 4 != 0) return std::nullopt;
    std::vector<unsigned char> raw(text.size());
    int len = EVP_DecodeBlock(raw.data(), reinterpret_cast<const unsigned char*>(text.data()),
                              static_cast<int>(text.size()));
    if (len < 0) return std::nullopt;
    // EVP_DecodeBlock counts the padding characters as zero bytes.
    if (text.back() == '=') len--;
    if (text.size() > 1 && text[text.size() - 2] == '=') len--;
    std::unique_ptr<EVP_CIPHER_CTX, ctx_deleter> c(EVP_CIPHER_CTX_new());
    std::vector<unsigned char> out(static_cast<size_t>(len) + 32);
    int n = 0, fin = 0;
    if (!c || EVP_DecryptInit_ex(c.get(), EVP_aes_256_cbc(), nullptr, k.key, k.iv) != 1 ||
        EVP_DecryptUpdate(c.get(), out.data(), &n, raw.data(), len) != 1 ||
        EVP_DecryptFinal_ex(c.get(), out.data() + n, &fin) != 1)
        return std::nullopt;
    return std::string(reinterpret_cast<char*>(out.data()), static_cast<size_t>(n + fin));
}

bool make_certificate(pkey_ptr* key, x509_ptr* cert) {
    pkey_ptr k(EVP_EC_gen("P-256"));
    x509_ptr c(X509_new());
    if (!k || !c) return false;
    X509_set_version(c.get(), 2);
    unsigned char serial[8];
    if (RAND_bytes(serial, sizeof serial) != 1) return false;
    serial[0] &= 0x7f;
    BIGNUM* bn = BN_bin2bn(serial, sizeof serial, nullptr);
    if (!bn) return false;
    BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(c.get()));
    BN_free(bn);
    X509_gmtime_adj(X509_getm_notBefore(c.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(c.get()), 30L * 24 * 3600);
    X509_set_pubkey(c.get(), k.get());
    X509_NAME* name = X509_get_subject_name(c.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("cloudsim"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
    X509_set_issuer_name(c.get(), name);
    X509V3_CTX v3;
    X509V3_set_ctx_nodb(&v3);
    X509V3_set_ctx(&v3, c.get(), c.get(), nullptr, nullptr, 0);
    std::unique_ptr<X509_EXTENSION, ext_deleter> san(X509V3_EXT_conf_nid(
        nullptr, &v3, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost"));
    if (!san || X509_add_ext(c.get(), san.get(), -1) != 1) return false;
    if (X509_sign(c.get(), k.get(), EVP_sha256()) == 0) return false;
    *key = std::move(k);
    *cert = std::move(c);
    return true;
}

std::string certificate_to_pem(X509* cert) {
    std::unique_ptr<BIO, bio_deleter> b(BIO_new(BIO_s_mem()));
    if (!b || PEM_write_bio_X509(b.get(), cert) != 1) return {};
    char* data = nullptr;
    long n = BIO_get_mem_data(b.get(), &data);
    return std::string(data, static_cast<size_t>(n));
}

std::string random_hex(size_t n) {
    std::vector<unsigned char> b(n);
    if (RAND_bytes(b.data(), static_cast<int>(n)) != 1) return {};
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : b) {
        out.push_back(digits[c >> 4]);
        out.push_back(digits[c & 15]);
    }
    return out;
}

}  // namespace cloudsim
