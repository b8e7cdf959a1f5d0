// Payload cipher and encodings of the cloud protocol: AES-256-CBC keyed from
// the pass phrase of the latest login (EVP_BytesToKey over SHA-1), carried as
// base64 text; plus the base64 codec itself, an MD5 helper and a XOR helper.
//
// A cipher_pair is owned by the login record that made it (qmx_zor) and is
// freed with cipher_free(). Every use of a pair takes the pair's own lock, so
// the session's query callers (query sender, IPC) may share one pair.
//
// Every message under one pair is enciphered with the same key AND the same
// IV: the server expects exactly this, so equal plain texts give equal
// cipher texts.
//
// Results marked "malloc'd" are released by the caller with free().
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

struct cipher_pair;

// The 8 salt bytes and iteration count the cloud service derives its keys
// with. Both sides must use the same values.
inline constexpr unsigned char ZOR_CIPHER_SALT[8] = {0x3c, 0x91, 0x5e, 0x07,
                                                     0xa2, 0x6b, 0xd4, 0x18};
inline constexpr int ZOR_CIPHER_COUNT = 5;

// Loads OpenSSL's cipher and digest tables. Called once at start-up.
void crypto_init();

// Derives a 32-byte key and 16-byte IV from `pass` (pass_len bytes), the
// 8-byte `salt` and `count`, logs both as hex dumps at level 7 ("Key", "IV")
// and sets up the enciphering and deciphering contexts. Null when the
// derivation does not give a 32-byte key or a context cannot be made.
[[nodiscard]] cipher_pair* cipher_new(const unsigned char* pass, int pass_len,
                                      const unsigned char* salt, int count);
// Frees the pair and its contexts. Null is accepted.
void cipher_free(cipher_pair* pair);

struct cipher_pair_deleter {
    void operator()(cipher_pair* p) const { cipher_free(p); }
};
using cipher_pair_ptr = std::unique_ptr<cipher_pair, cipher_pair_deleter>;

// Enciphers `len` bytes and returns the base64 text of the cipher text
// (malloc'd, NUL-terminated); *out_len (if out_len is non-null) gets its
// length. Null when pair or data is null or len < 1.
[[nodiscard]] char* cipher_encrypt_base64(cipher_pair* pair, const void* data, int len,
                                          int* out_len);
// Decodes `len` characters of base64 text and deciphers them. Returns the
// plain text (malloc'd) with a NUL after it. *out_len gets the plain length
// only when it is 0 on entry (a caller passing a non-zero value keeps it).
// A wrong key or a damaged text is not reported: it gives a short or garbled
// plain text, which callers detect by parsing it. Null when pair or text is
// null or len < 1.
[[nodiscard]] char* cipher_base64_decrypt(cipher_pair* pair, const char* text, int len,
                                          int* out_len);
// Raw variants (no base64): *len is the input length on entry and the output
// length on return. Null when pair or data is null or *len < 1. malloc'd.
[[nodiscard]] unsigned char* cipher_encrypt(cipher_pair* pair, const void* data, int* len);
[[nodiscard]] unsigned char* cipher_decrypt(cipher_pair* pair, const void* data, int* len);

// Standard alphabet, '=' padding, no line breaks. Stops the process with a
// failed assertion when dest_len < src_len * 4 / 3. Writes 4 characters per
// started 3-byte group and a NUL after them, never more than dest_len bytes
// in all (size dest as 4 * ceil(src_len / 3) + 1). Returns the number of
// characters written; 0 when src_len < 1.
int base64_encode(const void* src, int src_len, char* dest, int dest_len);
// Decodes groups of 4 characters. -1 when src_len is not a multiple of 4 or
// dest_len < src_len * 3 / 4; 0 when src_len < 4. Characters outside the
// alphabet ('=' included) are counted per group: two of them give 1 byte,
// one gives 2 bytes, any other count 3 bytes. Never writes more than
// dest_len bytes. Returns the number of bytes written.
int base64_decode(const char* src, int src_len, void* dest, int dest_len);

// MD5 of `len` bytes: with want_hex 0 the 16-byte digest, otherwise 32
// lower-case hex digits and a NUL. malloc'd; null when out of memory.
[[nodiscard]] unsigned char* md5_hex(const void* data, size_t len, int want_hex);

// XORs each data byte in place with key byte (i mod key_len). A key_len of 0
// stops the process with a failed assertion.
void xor_with_key(void* data, size_t len, const void* key, size_t key_len);
