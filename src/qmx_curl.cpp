#include "qmx_curl.h"

#include <curl/curl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <mutex>
#include <string>

#include "log.h"
#include "util/timing.h"

namespace {

// Redirects are followed, but not for ever.
constexpr long kMaxRedirects = 5;

// How the cloud's certificate is checked; covered by tls_lock.
std::mutex tls_lock;
bool tls_verify = true;
std::string tls_ca_file;  // empty: the system's trust store

struct easy_deleter {
    void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
struct slist_deleter {
    void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};
struct mime_deleter {
    void operator()(curl_mime* m) const { curl_mime_free(m); }
};
using easy_ptr = std::unique_ptr<CURL, easy_deleter>;
using slist_ptr = std::unique_ptr<curl_slist, slist_deleter>;
using mime_ptr = std::unique_ptr<curl_mime, mime_deleter>;

[[noreturn]] void out_of_memory(const char* text) {
    // Only async-signal-safe calls: other threads keep running meanwhile.
    ssize_t r = write(STDERR_FILENO, text, strlen(text));
    (void)r;
    _exit(1);
}

// The body being received: starts as a lone NUL and grows by exactly what
// arrives, always NUL-terminated.
class recv_buffer {
public:
    recv_buffer() : data_(static_cast<char*>(malloc(1))) {
        if (!data_) out_of_memory("malloc() failed\n");
        data_[0] = '\0';
    }
    ~recv_buffer() { free(data_); }
    recv_buffer(const recv_buffer&) = delete;
    recv_buffer& operator=(const recv_buffer&) = delete;

    // Returns false when the body would exceed its bound.
    bool append(const char* p, size_t n) {
        if (n > QMX_CURL_MAX_BODY - size_) return false;
        char* grown = static_cast<char*>(realloc(data_, size_ + n + 1));
        if (!grown) out_of_memory("realloc() failed\n");
        data_ = grown;
        memcpy(data_ + size_, p, n);
        size_ += static_cast<uint32_t>(n);
        data_[size_] = '\0';
        return true;
    }
    uint32_t size() const { return size_; }
    char* release() {
        char* d = data_;
        data_ = nullptr;
        size_ = 0;
        return d;
    }

private:
    char* data_;
    uint32_t size_ = 0;
};

size_t on_write(char* ptr, size_t size, size_t nmemb, void* userdata) {
    size_t n = size * nmemb;
    auto* buf = static_cast<recv_buffer*>(userdata);
    return buf->append(ptr, n) ? n : 0;  // 0 ends the transfer with a write error
}

int on_progress(void* clientp, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    const auto* should_abort = static_cast<const http_abort_fn*>(clientp);
    return (*should_abort && (*should_abort)()) ? 1 : 0;
}

// Every socket of a transfer is close-on-exec from its creation, so no
// command the service runs meanwhile inherits one.
curl_socket_t open_socket(void*, curlsocktype, curl_sockaddr* a) {
    return socket(a->family, a->socktype | SOCK_CLOEXEC, a->protocol);
}

// HTTPS only, for the request and every redirect; the peer's certificate and
// name checked unless the configuration turned that off.
void set_tls_options(CURL* h) {
#if LIBCURL_VERSION_NUM >= 0x075500
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "https");
#else
    curl_easy_setopt(h, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTPS));
    curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS, static_cast<long>(CURLPROTO_HTTPS));
#endif
    std::lock_guard<std::mutex> g(tls_lock);
    if (!tls_verify) {
        // The name check stays at libcurl's default.
        curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 0L);
        return;
    }
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!tls_ca_file.empty()) {
        // The named bundle instead of the system's, not beside it.
        curl_easy_setopt(h, CURLOPT_CAINFO, tls_ca_file.c_str());
        curl_easy_setopt(h, CURLOPT_CAPATH, nullptr);
    }
}

slist_ptr make_headers(std::initializer_list<const char*> lines) {
    curl_slist* list = nullptr;
    for (const char* line : lines) {
        curl_slist* grown = curl_slist_append(list, line);
        if (!grown) {
            curl_slist_free_all(list);
            return nullptr;
        }
        list = grown;
    }
    return slist_ptr(list);
}

void set_common_options(CURL* h, const char* url, curl_slist* headers, recv_buffer* buf,
                        const http_abort_fn* should_abort, long timeout_ms) {
    curl_easy_setopt(h, CURLOPT_URL, url);
    curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, on_write);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, buf);
    curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(h, CURLOPT_MAXREDIRS, kMaxRedirects);
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, timeout_ms);
    curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, timeout_ms);
    curl_easy_setopt(h, CURLOPT_OPENSOCKETFUNCTION, open_socket);
    set_tls_options(h);
    curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, on_progress);
    curl_easy_setopt(h, CURLOPT_XFERINFODATA, const_cast<http_abort_fn*>(should_abort));
}

// Runs the prepared transfer and turns its outcome into the result code and
// the response record.
int perform(CURL* h, recv_buffer& buf, http_response_ptr& response) {
    CURLcode rc = curl_easy_perform(h);
    if (rc != CURLE_OK) {
        LOG_E("CURL: %s\n", curl_easy_strerror(rc));
        return rc;
    }
    http_response* r = http_response_new();
    if (r) {
        long status = 0;
        curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
        r->status = status;
        r->size = buf.size();
        r->body = buf.release();
        response.reset(r);
    }
    return 0;
}

}  // namespace

http_response* http_response_new() {
    return static_cast<http_response*>(calloc(1, sizeof(http_response)));
}

void http_response_free(http_response* r) {
    if (!r) return;
    free(r->body);
    free(r);
}

int qmx_curl_init() {
    CURLcode rc = curl_global_init(CURL_GLOBAL_ALL);
    if (rc != CURLE_OK) {
        LOG_E("CURL: %s\n", curl_easy_strerror(rc));
        return rc;
    }
    return 0;
}

void qmx_curl_release() {
    LOG_D("qmx_curl_release");
    curl_global_cleanup();
}

void qmx_curl_set_tls(bool verify, const char* ca_file) {
    std::lock_guard<std::mutex> g(tls_lock);
    tls_verify = verify;
    tls_ca_file = ca_file ? ca_file : "";
}

bool qmx_curl_https_url(const char* url) {
    return url && strncasecmp(url, "https://", 8) == 0;
}


int curl_post_form(const char* url, std::span<const http_form_field> form,
                   http_response_ptr& response, const http_abort_fn& should_abort) {
    response.reset();
    slist_ptr headers;
    mime_ptr mime;  // declared before the handle: freed after it
    easy_ptr h(curl_easy_init());
    if (!h) return 2;
    recv_buffer buf;

    headers = make_headers(
        {"Accept: application/json", "Content-Type: multipart/form-data", "charset: utf-8"});
    mime.reset(curl_mime_init(h.get()));
    if (!headers || !mime) {
        LOG_E("CURL: %s\n", curl_easy_strerror(CURLE_OUT_OF_MEMORY));
        return CURLE_OUT_OF_MEMORY;
    }
    for (const http_form_field& f : form) {
        curl_mimepart* part = curl_mime_addpart(mime.get());
        if (!part || curl_mime_name(part, f.name) != CURLE_OK ||
            curl_mime_data(part, f.value, CURL_ZERO_TERMINATED) != CURLE_OK) {
            LOG_E("CURL: %s\n", curl_easy_strerror(CURLE_OUT_OF_MEMORY));
            return CURLE_OUT_OF_MEMORY;
        }
    }
    set_common_options(h.get(), url, headers.get(), &buf, &should_abort,
                       static_cast<long>(timing_get().form_timeout.count()));
    curl_easy_setopt(h.get(), CURLOPT_POST, 1L);
    curl_easy_setopt(h.get(), CURLOPT_MIMEPOST, mime.get());
    curl_easy_setopt(h.get(), CURLOPT_NOSIGNAL, 1L);
    return perform(h.get(), buf, response);
}

int curl_request(const char* url, const char* authorization, const char* body,
                 http_response_ptr& response, const http_abort_fn& should_abort) {
    response.reset();
    slist_ptr headers;
    easy_ptr h(curl_easy_init());
    if (!h) return 2;
    recv_buffer buf;

    char auth_line[512];
    if (authorization) snprintf(auth_line, sizeof auth_line, "Authorization: %s", authorization);
    headers = authorization
                  ? make_headers({"Accept: text/plain", "Content-Type: text/plain",
                                  "charset: utf-8", auth_line})
                  : make_headers({"Accept: text/plain", "Content-Type: text/plain", "charset: utf-8"});
    if (!headers) {
        LOG_E("CURL: %s\n", curl_easy_strerror(CURLE_OUT_OF_MEMORY));
        return CURLE_OUT_OF_MEMORY;
    }
    set_common_options(h.get(), url, headers.get(), &buf, &should_abort,
                       static_cast<long>(timing_get().request_timeout.count()));
    if (body) {
        curl_easy_setopt(h.get(), CURLOPT_CUSTOMREQUEST, "POST");
        curl_easy_setopt(h.get(), CURLOPT_POST, 1L);
        curl_easy_setopt(h.get(), CURLOPT_POSTFIELDS, body);
    } else {
        curl_easy_setopt(h.get(), CURLOPT_CUSTOMREQUEST, "GET");
    }
    return perform(h.get(), buf, response);
}
