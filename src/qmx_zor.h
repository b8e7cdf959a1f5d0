// Cloud client: the login session (a maintainer thread keeps the bearer
// token, payload cipher and server list fresh) and the category query
// exchange. All calls are thread-safe.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

// Starts the session and its maintainer thread. All five arguments must be
// non-null. Returns 1 on success, 0 on failure.
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
// The numeric "code" of an error reply body (see the implementation for the
// exact reading rules).
int response_error_code(const char* body);
// Enciphers and posts a plain JSON query to the session's servers in turn
// and returns the deciphered reply, or nullopt. When `abort` is given, a
// transfer in flight is abandoned (nullopt) soon after *abort becomes true
// and no further server is tried: the event workers' release sets it so that
// it never waits on the network while their sender is inside this call.
std::optional<std::string> zor_query(const char* text, const std::atomic<bool>* abort = nullptr);
