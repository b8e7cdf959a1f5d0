// Login replies (and the error bodies of ping and query replies) come from a
// server the router cannot authenticate: the judgement, the error-code reader
// and the reader of a 200 reply take any body, and what they keep is usable:
// a bounded lifetime, a bounded server list, a token that can go into an
// Authorization header line, a key that makes a cipher.
//
// Input: one byte choosing the HTTP status, then the body.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "base64.h"
#include "fuzz_support.h"
#include "qmx_zor.h"

namespace {

constexpr size_t kMaxInput = 1 << 16;
constexpr long kStatuses[] = {200, 401, 403, 404, 500, 503, 0, 302};

void check_login_reply(const zor_login_reply& r) {
    fuzz::check(r.ttl >= 1 && r.ttl <= 0x7fffffff, "token lifetime out of range");
    fuzz::check(!r.servers.empty() && r.servers.size() <= 64, "server list size");
    // The token goes into a header line of its own: anything that could end
    // the line or the header would let the reply write further headers.
    fuzz::check(!has_control_bytes("Bearer " + r.token), "token with control bytes kept", r.token);
    cipher_pair_ptr pair(cipher_new(reinterpret_cast<const unsigned char*>(r.key.data()),
                                    static_cast<int>(r.key.size()), ZOR_CIPHER_SALT, ZOR_CIPHER_COUNT));
    fuzz::check(pair != nullptr, "no cipher from the reply's key", r.key);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::setup();
    crypto_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > kMaxInput) return 0;
    const long status = kStatuses[data[0] % std::size(kStatuses)];
    // Bodies arrive terminated and may hold zero bytes of their own.
    const std::string body(reinterpret_cast<const char*>(data + 1), size - 1);

    const int code = response_error_code(body.c_str());
    const zor_login_verdict verdict = zor_judge_login(status, body.c_str());
    if (status == 200) {
        fuzz::check(verdict == zor_login_verdict::reply, "a 200 was not read as a reply");
    } else {
        fuzz::check(verdict == (code >= 1 ? zor_login_verdict::refused : zor_login_verdict::failed),
                    "judgement disagrees with the error code");
    }

    if (std::optional<zor_login_reply> r = zor_parse_login(body.c_str())) check_login_reply(*r);
    return 0;
}
