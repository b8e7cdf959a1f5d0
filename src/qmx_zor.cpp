#include "qmx_zor.h"

#include <cjson/cJSON.h>
#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "base64.h"
#include "cloud_link.h"
#include "log.h"
#include "qmx_curl.h"
#include "qmxsrv_ctx.h"
#include "stats.h"
#include "util/c_ptr.h"
#include "util/clock.h"
#include "util/cmd_runner.h"
#include "util/timing.h"

namespace {

constexpr const char* kLoginPath = "/vorteln/auth/id";
constexpr const char* kPingPath = "/talvo-zor/api/v1/srv/ping";
constexpr const char* kQueryPath = "/talvo-zor/api/v1/srv/q";
constexpr int kAttempts = 3;             // tries of one request while it times out
constexpr int kTokenRefused = 101;       // error code of a token the server no longer accepts
// Entries of a login reply's server list that are looked at; the rest are
// ignored. A ping or query round tries each kept server at most three times
// over, so this bounds how long a hostile list holds the maintainer or the
// query sender (8 x 3 x the request time-out).
constexpr size_t kMaxServers = 8;
constexpr int64_t kMaxTtl = 0x7fffffff;  // token lifetimes are clamped to this

// One successful login. Immutable once published as `current`.
struct zor_auth {
    std::string bearer;  // "Bearer <token>": the Authorization value
    long ttl = 0;
    long exp_time = 0;
    long start_time = 0;
    std::string key;                                // pass phrase of the payload cipher
    cipher_pair_ptr cipher;                         // has its own lock
    int server_index = 0;                           // server that answered the ping
    std::vector<std::optional<std::string>> servers;  // base URLs; non-strings stay empty
};
using auth_ref = std::shared_ptr<const zor_auth>;

struct zor_session {
    // Read-only after zor_init.
    std::string login_url;
    std::string product;
    std::string id;
    std::string password;
    std::string host;
    std::chrono::milliseconds retry{};  // the wait after a failed round

    std::mutex lock;  // covers current, previous, wake, last_wait, rounds
    std::condition_variable cond;
    auth_ref current;   // the live login, null while none is valid
    auth_ref previous;  // retired at the last re-login, held one more round
    bool wake = false;  // a re-login was asked for
    std::optional<zor_wait_note> last_wait;
    uint64_t rounds = 0;

    std::atomic<bool> stop{false};
    std::thread maintainer;  // started by zor_init, joined by zor_release

    zor_session() = default;
    zor_session(const zor_session&) = delete;
    zor_session& operator=(const zor_session&) = delete;
    // Normally zor_release has joined the maintainer already; this covers a
    // process that exits without it.
    ~zor_session() {
        if (!maintainer.joinable()) return;
        {
            std::lock_guard<std::mutex> g(lock);
            stop = true;
        }
        cond.notify_all();
        maintainer.join();
    }
};

// The process-wide session; the pointer itself is covered by session_lock.
std::mutex session_lock;
std::shared_ptr<zor_session> the_session;

std::shared_ptr<zor_session> get_session() {
    std::lock_guard<std::mutex> g(session_lock);
    return the_session;
}

const char* or_empty(const char* s) {
    return s ? s : "";
}

void wake_maintainer(zor_session& s) {
    {
        std::lock_guard<std::mutex> g(s.lock);
        s.wake = true;
    }
    s.cond.notify_all();
}

// Repeats a request while it times out, at most kAttempts times in all.
template <typename Fn>
int with_retries(const zor_session& s, Fn&& request) {
    int rc = CURLE_OK;
    for (int i = 0; i < kAttempts; i++) {
        rc = request();
        if (rc != CURLE_OPERATION_TIMEDOUT || s.stop) break;
    }
    return rc;
}

// A request that ended without an HTTP response; one given up on purpose
// (stop, or the caller's abort) is no error.
void count_transport_error(int rc) {
    if (rc != CURLE_ABORTED_BY_CALLBACK) stat_cloud_error(&zor_stats::cloud_errors_transport);
}

// A reply of another status than 200: refused (the account, or the token
// with its error code) or an HTTP error.
void count_status_error(bool refused) {
    stat_cloud_error(refused ? &zor_stats::cloud_errors_refused : &zor_stats::cloud_errors_http);
}

// ---- login ----------------------------------------------------------------

// Posts the login form and judges the reply; on success *body holds it.
zor_login_verdict post_login(zor_session& s, std::string* body) {
    LOG_D("Auth: %s?id=%s&password=%s&product=%s&host=%s", s.login_url.c_str(), s.id.c_str(),
          s.password.c_str(), s.product.c_str(), s.host.c_str());
    const http_form_field form[] = {{"id", s.id.c_str()},
                                    {"password", s.password.c_str()},
                                    {"product", s.product.c_str()},
                                    {"host", s.host.c_str()}};
    http_response_ptr resp;
    http_abort_fn stopping = [&s] { return s.stop.load(); };
    int rc = with_retries(s, [&] { return curl_post_form(s.login_url.c_str(), form, resp, stopping); });
    if (rc != CURLE_OK) {
        LOG_E("Auth: curl=%d, %s", rc, curl_easy_strerror(static_cast<CURLcode>(rc)));
        count_transport_error(rc);
        return zor_login_verdict::failed;
    }
    if (!resp) {
        LOG_E("Auth: no response");
        count_transport_error(rc);
        return zor_login_verdict::failed;
    }
    const zor_login_verdict v = zor_judge_login(resp->status, resp->body);
    switch (v) {
        case zor_login_verdict::reply:
            LOG_D("HTTP Status: %ld, %s", resp->status, resp->body);
            body->assign(resp->body, resp->size);
            break;
        case zor_login_verdict::failed:
            LOG_E("HTTP Status: %ld, %s", resp->status, resp->body);
            count_status_error(false);
            break;
        case zor_login_verdict::refused:
            // The second account text has no configuration key: printed empty.
            LOG_E("Authentication invalid: %s/%s, %s", s.id.c_str(), "", resp->body);
            count_status_error(true);
            break;
    }
    return v;
}

// Builds the login record from a 200 reply; null when the reply lacks a
// usable token, key, lifetime or server list, or the cipher cannot be made.
std::shared_ptr<zor_auth> make_auth(const std::string& body) {
    std::optional<zor_login_reply> reply = zor_parse_login(body.c_str());
    if (!reply) return nullptr;
    auto a = std::make_shared<zor_auth>();
    a->ttl = reply->ttl;
    a->start_time = static_cast<long>(clock_now());
    a->exp_time = a->start_time + a->ttl;
    a->key = std::move(reply->key);
    a->cipher.reset(cipher_new(reinterpret_cast<const unsigned char*>(a->key.data()),
                               static_cast<int>(a->key.size()), ZOR_CIPHER_SALT, ZOR_CIPHER_COUNT));
    if (!a->cipher) return nullptr;
    a->bearer = "Bearer " + reply->token;
    a->servers = std::move(reply->servers);

    LOG_D("token: %s", a->bearer.c_str());
    LOG_D("token_ttl: %ld", a->ttl);
    LOG_D("token_start_time: %ld", a->start_time);
    LOG_D("token_exp_time: %ld", a->exp_time);
    LOG_D("key: %s", a->key.c_str());
    LOG_D("talvo server list:");
    for (size_t i = 0; i < a->servers.size(); i++)
        if (a->servers[i]) LOG_D("%d -> %s", static_cast<int>(i), a->servers[i]->c_str());
    return a;
}

// ---- ping round -------------------------------------------------------------

enum class ping_outcome { accepted, next_server, token_refused };

ping_outcome ping_one(zor_session& s, const zor_auth& a, const std::string& server) {
    const std::string url = server + kPingPath;
    LOG_D("Ping: %s, token: %s", url.c_str(), a.bearer.c_str());
    stat_add(g_stats.cloud_pings);
    http_response_ptr resp;
    http_abort_fn stopping = [&s] { return s.stop.load(); };
    int rc = with_retries(s, [&] { return curl_request(url.c_str(), a.bearer.c_str(), nullptr, resp, stopping); });
    if (rc != CURLE_OK) {
        LOG_E("[ping error] Curl(%d): %s\n", rc, curl_easy_strerror(static_cast<CURLcode>(rc)));
        count_transport_error(rc);
        return ping_outcome::next_server;
    }
    if (!resp) {
        LOG_E("[ping error] no response\n");
        count_transport_error(rc);
        return ping_outcome::next_server;
    }
    if (resp->status != 200) {
        int code = response_error_code(resp->body);
        LOG_E("[ping error] http status: %ld, %s\n", resp->status, or_empty(resp->body));
        count_status_error(code == kTokenRefused);
        return code == kTokenRefused ? ping_outcome::token_refused : ping_outcome::next_server;
    }
    LOG_D("HTTP Status: %ld", resp->status);
    // The ping reply is enciphered with the key this very login brought.
    int len = 0;
    std::unique_ptr<char, decltype(&free)> plain(
        cipher_base64_decrypt(a.cipher.get(), resp->body, static_cast<int>(strlen(resp->body)), &len), free);
    if (!plain) {
        LOG_E("[ping error] Decrypt Error, body=%s\n", resp->body);
        stat_cloud_error(&zor_stats::cloud_errors_reply);
        return ping_outcome::next_server;
    }
    LOG_D("HTTP Body: %s", plain.get());
    // The whole text must be one JSON value: a reply deciphered with the
    // wrong key is garbage that could otherwise begin like a number.
    json_ptr reply(cJSON_ParseWithOpts(plain.get(), nullptr, 1));
    if (!reply) {
        LOG_D("Ping failed");
        stat_cloud_error(&zor_stats::cloud_errors_reply);
        return ping_outcome::next_server;
    }
    LOG_D("Ping OK");
    return ping_outcome::accepted;
}

// Tries the servers from the record's server_index on; on acceptance sets
// server_index to the server that answered.
ping_outcome ping_round(zor_session& s, zor_auth& a) {
    const int count = static_cast<int>(a.servers.size());
    for (int i = 0; i < count && !s.stop; i++) {
        const int idx = (i + a.server_index) % count;
        if (!a.servers[idx]) continue;
        ping_outcome o = ping_one(s, a, *a.servers[idx]);
        if (o == ping_outcome::accepted) a.server_index = idx;
        if (o != ping_outcome::next_server) return o;
    }
    return ping_outcome::next_server;
}

// ---- maintainer ---------------------------------------------------------------

// The retired record is kept one more round: a caller that picked it up just
// before the re-login may still be using it.
void retire(zor_session& s) {
    std::lock_guard<std::mutex> g(s.lock);
    if (s.current) {
        s.previous = std::move(s.current);
        s.current = nullptr;
    }
    // Wake-ups asked for before this round are answered by it.
    s.wake = false;
}

// Logs in and pings; returns false when the account was refused.
bool login_round(zor_session& s) {
    std::string body;
    zor_login_verdict r = post_login(s, &body);
    if (r == zor_login_verdict::refused) return false;
    if (r == zor_login_verdict::failed || s.stop) return true;
    std::shared_ptr<zor_auth> a = make_auth(body);
    if (!a) {
        LOG_E("Auth: login reply without a usable token, key, token_ttl or server list");
        stat_cloud_error(&zor_stats::cloud_errors_reply);
        return true;
    }
    stat_add(g_stats.cloud_logins);
    LOG_D("_refresh_server server: %d", static_cast<int>(a->servers.size()));
    if (ping_round(s, *a) == ping_outcome::accepted) {
        std::lock_guard<std::mutex> g(s.lock);
        s.current = std::move(a);
    }
    // A refused token or no answering server drops the new record; the wait
    // then retries after the retry interval.
    return true;
}

void wait_round(zor_session& s) {
    std::unique_lock<std::mutex> g(s.lock);
    const int64_t now = clock_now();
    const bool have = s.current != nullptr;
    const int64_t exp = have ? s.current->exp_time : 0;
    const auto wait = zor_wait_rule(have, exp, now, s.retry);
    s.last_wait = zor_wait_note{++s.rounds, now, have, exp, wait};
    s.cond.wait_for(g, wait, [&s] { return s.stop || s.wake; });
    s.wake = false;
}

void maintain(zor_session* s) {
    while (!s->stop) {
        retire(*s);
        if (!login_round(*s)) {
            qmxsrv_ctx.auth_invalid = 1;
            return;
        }
        if (s->stop) break;
        wait_round(*s);
    }
}

// ---- query --------------------------------------------------------------------

std::optional<std::string> query(const char* text, const std::function<bool()>* caller_abort) {
    std::shared_ptr<zor_session> s = get_session();
    if (!s || !text) return std::nullopt;
    auth_ref a;
    {
        std::lock_guard<std::mutex> g(s->lock);
        a = s->current;
    }
    const int count = a ? static_cast<int>(a->servers.size()) : 0;
    if (count < 1) return std::nullopt;
    stat_add(g_stats.cloud_queries);

    auto gave_up = [&] { return s->stop || (caller_abort && *caller_abort && (*caller_abort)()); };
    http_abort_fn abort_fn = gave_up;
    const int text_len = static_cast<int>(strnlen(text, 0x7fffff00));
    for (int i = 0; i < count && !gave_up(); i++) {
        const int idx = (i + a->server_index) % count;
        if (!a->servers[idx]) continue;
        const std::string url = *a->servers[idx] + kQueryPath;
        LOG_D("query %s", url.c_str());
        std::unique_ptr<char, decltype(&free)> body(
            cipher_encrypt_base64(a->cipher.get(), text, text_len, nullptr), free);
        if (!body) continue;
        LOG_D("Cipher = %s", body.get());

        http_response_ptr resp;
        const auto sent_at = std::chrono::steady_clock::now();
        int rc = with_retries(*s, [&] {
            return gave_up() ? static_cast<int>(CURLE_ABORTED_BY_CALLBACK)
                             : curl_request(url.c_str(), a->bearer.c_str(), body.get(), resp, abort_fn);
        });
        LOG_D("curl result: %ld", static_cast<long>(rc));
        if (rc != CURLE_OK) {
            LOG_E("[query error] Curl(%d): %s", rc, curl_easy_strerror(static_cast<CURLcode>(rc)));
            count_transport_error(rc);
            continue;
        }
        if (!resp) {
            LOG_E("[query error] no response");
            count_transport_error(rc);
            continue;
        }
        LOG_D("HTTP Status: %ld", resp->status);
        LOG_D("HTTP Body: %s", resp->body);
        if (resp->status == 200) {
            // A 200 ends the exchange whether or not it deciphers.
            int len = 0;
            std::unique_ptr<char, decltype(&free)> plain(
                cipher_base64_decrypt(a->cipher.get(), resp->body, static_cast<int>(strlen(resp->body)), &len),
                free);
            if (!plain) {
                LOG_E("[query error] decrypt error: %d, %s\n", static_cast<int>(strlen(resp->body)), resp->body);
                stat_cloud_error(&zor_stats::cloud_errors_reply);
                return std::nullopt;
            }
            const auto rtt = std::chrono::steady_clock::now() - sent_at;
            stat_set(g_stats.cloud_query_rtt_ms,
                     static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(rtt).count()));
            stat_add(g_stats.cloud_answers);
            LOG_D("HTTP Plain Body: %s", plain.get());
            return std::string(plain.get(), static_cast<size_t>(len));
        }
        int code = response_error_code(resp->body);
        // The query path reports with the ping's message on purpose.
        LOG_E("[ping error] http status: %ld, %s\n", resp->status, or_empty(resp->body));
        count_status_error(code == kTokenRefused);
        if (code == kTokenRefused) {
            wake_maintainer(*s);
            return std::nullopt;
        }
    }
    return std::nullopt;
}

}  // namespace

std::chrono::milliseconds zor_wait_rule(bool have_session, int64_t exp_time, int64_t now,
                                        std::chrono::milliseconds retry) {
    using std::chrono::seconds;
    if (!have_session) return retry;
    const int64_t remaining = exp_time - now;
    if (remaining > 300) return seconds(remaining - 300);
    if (remaining >= 1) return seconds(remaining);
    return seconds(1);
}

std::optional<zor_wait_note> zor_last_wait() {
    std::shared_ptr<zor_session> s = get_session();
    if (!s) return std::nullopt;
    std::lock_guard<std::mutex> g(s->lock);
    return s->last_wait;
}

namespace {
// How the rest of the service reaches this client (cloud_link.h).
std::optional<std::string> query_for_link(const char* text, const std::atomic<bool>* abort) {
    return zor_query(text, abort);
}
const cloud_link kCloudLink = {zor_ready, zor_session_info, query_for_link};
}  // namespace

int zor_init(const char* server, const char* product, const char* id, const char* password,
             const char* host) {
    if (!server || !product || !id || !password || !host) return 0;
    std::lock_guard<std::mutex> g(session_lock);
    if (the_session) return 0;
    auto s = std::make_shared<zor_session>();
    s->login_url = std::string("https://") + server + kLoginPath;
    s->product = product;
    s->id = id;
    s->password = password;
    s->host = host;
    s->retry = timing_get().login_retry;
    try {
        s->maintainer = std::thread(maintain, s.get());
    } catch (const std::system_error&) {
        LOG_D("Create auth maintainer failed!!!");
        return 0;
    }
    the_session = std::move(s);
    cloud_link_set(&kCloudLink);
    return 1;
}

void zor_release() {
    LOG_D("zor_release");
    std::shared_ptr<zor_session> s;
    {
        std::lock_guard<std::mutex> g(session_lock);
        s = std::move(the_session);
        the_session = nullptr;
    }
    if (!s) return;
    {
        std::lock_guard<std::mutex> g(s->lock);
        s->stop = true;
    }
    s->cond.notify_all();
    if (s->maintainer.joinable()) s->maintainer.join();
}

bool zor_ready() {
    std::shared_ptr<zor_session> s = get_session();
    if (!s) return false;
    std::lock_guard<std::mutex> g(s->lock);
    return s->current != nullptr;
}

int zor_session_info(int32_t* start, int32_t* exp, std::string* id) {
    std::shared_ptr<zor_session> s = get_session();
    if (!s) return 0;
    std::lock_guard<std::mutex> g(s->lock);
    if (!s->current) return 0;
    if (start) *start = static_cast<int32_t>(s->current->start_time);
    if (exp) *exp = static_cast<int32_t>(s->current->exp_time);
    if (id) *id = s->id;
    return 1;
}

void zor_relogin() {
    if (std::shared_ptr<zor_session> s = get_session()) wake_maintainer(*s);
}

void zor_print_account() {
    std::shared_ptr<zor_session> s = get_session();
    if (!s) return;
    printf("Product: %s\r\n", s->product.c_str());
    printf("ID: %s\r\n", s->id.c_str());
    fflush(stdout);
}

zor_login_verdict zor_judge_login(long status, const char* body) {
    if (status == 200) return zor_login_verdict::reply;
    return response_error_code(body) < 1 ? zor_login_verdict::failed : zor_login_verdict::refused;
}

std::optional<zor_login_reply> zor_parse_login(const char* body) {
    if (!body) return std::nullopt;
    json_ptr root(cJSON_Parse(body));
    if (!cJSON_IsObject(root.get())) return std::nullopt;
    const cJSON* token = cJSON_GetObjectItemCaseSensitive(root.get(), "token");
    const cJSON* ttl = cJSON_GetObjectItemCaseSensitive(root.get(), "token_ttl");
    const cJSON* key = cJSON_GetObjectItemCaseSensitive(root.get(), "key");
    const cJSON* servers = cJSON_GetObjectItemCaseSensitive(root.get(), "servers");
    if (!cJSON_IsString(token) || !cJSON_IsString(key) || !cJSON_IsNumber(ttl) ||
        !cJSON_IsArray(servers) || cJSON_GetArraySize(servers) < 1)
        return std::nullopt;
    const double ttl_value = ttl->valuedouble;
    if (!(ttl_value >= 1)) return std::nullopt;
    // The token becomes a header line of its own: a line break in it would
    // let the reply add headers to every later request.
    if (has_control_bytes(token->valuestring)) return std::nullopt;

    zor_login_reply r;
    r.token = token->valuestring;
    r.ttl = static_cast<long>(ttl_value < static_cast<double>(kMaxTtl) ? ttl_value : kMaxTtl);
    r.key = key->valuestring;
    const cJSON* item = nullptr;
    size_t looked_at = 0;
    bool usable = false;
    cJSON_ArrayForEach(item, servers) {
        if (looked_at++ == kMaxServers) break;
        if (!cJSON_IsString(item)) {
            r.servers.emplace_back(std::nullopt);
        } else if (!qmx_curl_https_url(item->valuestring)) {
            // file://, gopher://, plain http:// ...: never fetched.
            LOG_E("Auth: server %s skipped: not an https URL", item->valuestring);
        } else {
            r.servers.emplace_back(item->valuestring);
            usable = true;
        }
    }
    if (!usable) return std::nullopt;
    return r;
}

int response_error_code(const char* body) {
    if (!body) return -1;
    json_ptr root(cJSON_Parse(body));
    if (!cJSON_IsObject(root.get())) return -1;
    const cJSON* err = cJSON_GetObjectItemCaseSensitive(root.get(), "error");
    if (!cJSON_IsObject(err)) return 0;
    const cJSON* code = cJSON_GetObjectItemCaseSensitive(err, "code");
    if (!cJSON_IsNumber(code)) return -1;
    LOG_D("respose error code: %d", code->valueint);
    return code->valueint;
}

std::optional<std::string> zor_query(const char* text) {
    return query(text, nullptr);
}

std::optional<std::string> zor_query(const char* text, const std::function<bool()>& should_abort) {
    return query(text, &should_abort);
}

std::optional<std::string> zor_query(const char* text, const std::atomic<bool>* abort) {
    if (!abort) return query(text, nullptr);
    const std::function<bool()> should_abort = [abort] { return abort->load(); };
    return query(text, &should_abort);
}
