// HTTP transport: the only place that talks HTTP. Two blocking one-shot
// requests on libcurl's easy interface: a multipart form POST (the login)
// and a text POST or GET with an optional Authorization header (ping and
// category query). Each call makes and destroys its own easy handle; nothing
// is reused between calls, so any threads may run requests at once.
//
// qmx_curl_init() runs once at start-up before any request; qmx_curl_release()
// last in shutdown, when no request is in flight.
//
// Only HTTPS is spoken, for requests and redirects alike. The cloud's
// certificate and host name are checked against the system's trust store,
// or against the bundle qmx_curl_set_tls names; checking can be turned off
// for a cloud without a usable certificate. Every socket is close-on-exec.
//
// Connect and total time-outs are zor_timing's form_timeout (the form POST,
// 5 s) and request_timeout (the text requests, 10 s), read as each request
// starts.
//
// Every request takes an optional abort predicate, polled from libcurl's
// progress callback (several times a second while a transfer waits), so a
// stopping service never waits on the network.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

// The reply of one request. `body` is always NUL-terminated (an empty body
// is "", never null) and owned by the record.
struct http_response {
    long status;    // HTTP status code
    char* body;     // malloc'd, freed by http_response_free
    uint32_t size;  // body length without the NUL
};

// A zeroed record, or null when out of memory.
[[nodiscard]] http_response* http_response_new();
// Frees body and record; null is accepted.
void http_response_free(http_response* r);

struct http_response_deleter {
    void operator()(http_response* r) const { http_response_free(r); }
};
using http_response_ptr = std::unique_ptr<http_response, http_response_deleter>;

// One field of a multipart form: both texts are sent as they stand.
struct http_form_field {
    const char* name;
    const char* value;
};

// True when the transfer in flight is to be given up.
using http_abort_fn = std::function<bool()>;

// Largest body a reply may carry; a longer one ends the transfer with
// CURLE_WRITE_ERROR (the cloud's replies are a few kilobytes).
inline constexpr uint32_t QMX_CURL_MAX_BODY = 1u << 20;

// curl_global_init; 0 on success, else the libcurl code (logged at E).
[[nodiscard]] int qmx_curl_init();
void qmx_curl_release();

// Multipart POST of `form` (fields in the order given). Returns 0 with
// `response` set (it may still be null when the record could not be
// allocated); 2 when no easy handle could be made; otherwise the libcurl code
// (logged at E) with `response` null. CURLE_ABORTED_BY_CALLBACK when
// `should_abort` said so.
[[nodiscard]] int curl_post_form(const char* url, std::span<const http_form_field> form,
                                 http_response_ptr& response, const http_abort_fn& should_abort = {});
// POST of `body` as text when it is non-null, else GET. `authorization` (may
// be null) is the value of an Authorization header, cut to fit a 512-byte
// header line. Results as curl_post_form.
[[nodiscard]] int curl_request(const char* url, const char* authorization, const char* body,
                               http_response_ptr& response, const http_abort_fn& should_abort = {});

// How later requests check the peer: `verify` false skips the certificate
// check (the name check stays at libcurl's default); `ca_file` (null or ""
// for the system's trust store) names a PEM bundle trusted instead. Called
// at start-up from the configuration; tests call it too.
void qmx_curl_set_tls(bool verify, const char* ca_file);
// True when `url` is an https:// URL, the only kind the transport fetches.
bool qmx_curl_https_url(const char* url);
