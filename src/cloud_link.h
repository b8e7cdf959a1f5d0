// The cloud as the rest of the service sees it: whether a session is held,
// what it is, and one query exchange. The cloud client (qmx_zor, built with
// the HTTP transport and the payload cipher into a library of their own)
// plugs its functions in when it starts a session; until then, and in a build
// without that library, no session is held and every query fails. Nothing
// else includes the cloud client's header, so only the service executable
// and the cloud library need libcurl and libcrypto.
//
// All calls are thread-safe; each reads the link once.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

struct cloud_link {
    bool (*ready)();
    int (*session_info)(int32_t* start, int32_t* exp, std::string* id);
    std::optional<std::string> (*query)(const char* text, const std::atomic<bool>* abort);
};

// Plugs `link` in: a record of static storage (it is never freed), whose
// functions stay callable after the client's session ends. Null unplugs.
void cloud_link_set(const cloud_link* link);

// True when a client is plugged in and holds a session.
bool cloud_ready();

// 1 with the login time, expiry and account id of the session; 0 (outputs
// untouched) without a client or a session.
int cloud_session_info(int32_t* start, int32_t* exp, std::string* id);

// Enciphers and posts `text` to the session's servers and returns the plain
// reply; nullopt without a client, without a session, on failure, or soon
// after *abort (may be null) becomes true.
std::optional<std::string> cloud_query(const char* text, const std::atomic<bool>* abort);
