// The simulator's own crypto: the payload cipher of the cloud protocol,
// written independently of the service's implementation so that the two
// check each other, and the self-signed certificate made at start-up.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <optional>
#include <string>

namespace cloudsim {

struct pkey_deleter {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct x509_deleter {
    void operator()(X509* c) const { X509_free(c); }
};
using pkey_ptr = std::unique_ptr<EVP_PKEY, pkey_deleter>;
using x509_ptr = std::unique_ptr<X509, x509_deleter>;

// Key and IV derived from a pass phrase the way the service derives them.
struct payload_key {
    unsigned char key[32];
    unsigned char iv[16];
};
payload_key derive_key(const std::string& pass);

// AES-256-CBC (PKCS#7) under the key's fixed IV, as base64 text.
std::string seal(const payload_key& k, const std::string& plain);
// The inverse; nullopt when the text is not base64 or does not decipher.
std::optional<std::string> open(const payload_key& k, const std::string& text);

// A P-256 key and a self-signed certificate for 127.0.0.1 and localhost,
// valid from an hour ago for 30 days. False on failure.
bool make_certificate(pkey_ptr* key, x509_ptr* cert);
std::string certificate_to_pem(X509* cert);

// `n` random bytes as lower-case hex.
std::string random_hex(size_t n);

}  // namespace cloudsim
