// Cloud client: the login session (a maintainer thread keeps the bearer
// token, payload cipher and server list fresh) and the category query
// exchange. All calls are thread-safe.
//
// The maintainer is a member thread of the session: zor_init starts it,
// zor_release stops it cooperatively (aborting any transfer in flight) and
// joins it. Each round it retires the live login record, logs in, pings the
// servers of the new record from its server_index on, publishes the record
// when a server answers, and waits: until five minutes before the token
// expires, or a retry interval after any failure. zor_relogin cuts the wait
// short. A login refused with an error code sets qmxsrv_ctx.auth_invalid and
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

// The wait after a failed round (30 s in the product; tests shorten it).
// Takes effect at the maintainer's next wait.
void zor_set_retry_interval(std::chrono::milliseconds retry);

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
