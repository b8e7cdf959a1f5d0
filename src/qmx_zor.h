// Cloud client: the login session (a maintainer thread keeps the bearer
// token, payload cipher and server list fresh) and the category query
// exchange. All calls are thread-safe.
//
// The maintainer is a member thread of the session: zor_init starts it,
// zor_release stops it cooperatively (aborting any transfer in flight) and
// joins it. Each round it retires the live login record, logs in, pings the
// servers of the new record from its server_index on, publishes the record
// when a server answers, and waits: until five minutes before the token
// expires, or the retry interval after any failure (zor_timing's
// login_retry, taken by zor_init). zor_relogin cuts the wait short. A login refused with an error code sets qmxsrv_ctx.auth_invalid and
// ends the maintainer.
//
// Login records are immutable once published and shared by reference, so a
// query that picked one up keeps it valid however the session moves on.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// Starts the session and its maintainer thread. All five arguments must be
// non-null. Returns 1 on success, 0 on failure (also while a session runs).
[[nodiscard]] int zor_init(const char* server, const char* product, const char* id,
                           const char* password, const char* host);
// Stops and joins the maintainer (aborting any transfer in flight) and frees
// the session. Safe twice and before init.
void zor_release();
// True when a session is held.
bool zor_ready();
// 1 with the login time, expiry time and a copy of the account id when a
// session is held; 0 (outputs untouched) otherwise.
int zor_session_info(int32_t* start, int32_t* exp, std::string* id);
// Wakes the maintainer at once.
void zor_relogin();
// Prints "Product: %s\r\n" and "ID: %s\r\n" on standard output.
void zor_print_account();
// The numeric "code" of an error reply body {"error":{"code":N}}: N; 0 when
// the body is a JSON object without an "error" object; -1 for a null body,
// a body that is not a JSON object, or an "error" without a numeric code.
int response_error_code(const char* body);

// ---- login reply --------------------------------------------------------

// What a login reply means: a body to read (status 200), a failure that is
// retried after the wait, or a refusal of the account (another status whose
// body carries an error code of 1 or more).
enum class zor_login_verdict { reply, failed, refused };
zor_login_verdict zor_judge_login(long status, const char* body);

// The parts of a 200 login reply that the session keeps.
struct zor_login_reply {
    std::string token;
    long ttl = 0;     // seconds: token_ttl cut to a whole number, at most 0x7fffffff
    std::string key;  // pass phrase of the payload cipher
    std::vector<std::optional<std::string>> servers;  // 1..8 https base URLs; non-strings stay empty
};
// Reads a 200 login reply: nullopt unless the body is a JSON object with a
// string "token" free of control bytes, a string "key", a numeric
// "token_ttl" of at least 1 and a "servers" array whose first 8 entries hold
// at least one https:// URL (later entries are ignored; a string of another
// scheme is skipped with a line at level E).
std::optional<zor_login_reply> zor_parse_login(const char* body);

// Enciphers and posts a plain JSON query to the session's servers in turn
// and returns the deciphered reply, or nullopt.
std::optional<std::string> zor_query(const char* text);
// The same, also giving up (nullopt; a transfer in flight included, no
// further server tried) soon after `should_abort` answers true or *abort
// becomes true: for callers whose own release must not wait on the network.
std::optional<std::string> zor_query(const char* text, const std::function<bool()>& should_abort);
std::optional<std::string> zor_query(const char* text, const std::atomic<bool>* abort);

// ---- timing -------------------------------------------------------------

// The maintainer's wait before its next round. With a session expiring at
// exp_time: remaining - 300 s while more than 300 s remain (log in again
// five minutes early), the remaining seconds for 1..300, 1 s once expired.
// Without a session: `retry`.
std::chrono::milliseconds zor_wait_rule(bool have_session, int64_t exp_time, int64_t now,
                                        std::chrono::milliseconds retry);

// The maintainer's latest wait decision, for diagnostics and tests.
struct zor_wait_note {
    uint64_t round;                 // 1 for the first wait of the session, then 2, ...
    int64_t decided_at;             // Unix seconds when it was computed
    bool have_session;              // a login record was live
    int64_t exp_time;               // its expiry (0 without one)
    std::chrono::milliseconds wait;
};
// nullopt before the first wait or without a session context.
std::optional<zor_wait_note> zor_last_wait();
