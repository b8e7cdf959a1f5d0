// The transport against a real TLS server on loopback (cpp-httplib with a
// certificate made at start-up), recording what arrives.
#include "qmx_curl.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "sim_crypto.h"
#include "tls_server.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

// The value of a header ("<none>" when absent); names compare case-blind.
std::string header(const httplib::Headers& h, const char* name) {
    auto it = h.find(name);
    return it == h.end() ? "<none>" : it->second;
}

struct seen_request {
    std::string method;
    httplib::Headers headers;
    std::string body;
};

// A TLS server whose handlers the test installs; remembers the last request.
class tls_server {
public:
    tls_server() {
        cloudsim::pkey_ptr key;
        cloudsim::x509_ptr cert;
        EXPECT_TRUE(cloudsim::make_certificate(&key, &cert));
        svr_ = cloudsim::make_tls_server(cert.get(), key.get());
        svr_->new_task_queue = [] { return new httplib::ThreadPool(4); };
    }
    ~tls_server() { stop(); }

    httplib::SSLServer& svr() { return *svr_; }

    void start() {
        port_ = svr_->bind_to_any_port("127.0.0.1");
        ASSERT_GT(port_, 0);
        thread_ = std::thread([this] { svr_->listen_after_bind(); });
        // stop() is a no-op until the listener runs: wait for it.
        while (!svr_->is_running()) std::this_thread::sleep_for(1ms);
    }
    void stop() {
        {
            std::lock_guard<std::mutex> g(lock_);
            stopping_ = true;
        }
        cv_.notify_all();
        if (thread_.joinable()) {
            svr_->stop();
            thread_.join();
        }
    }
    std::string url(const std::string& path) const {
        return "https://127.0.0.1:" + std::to_string(port_) + path;
    }

    // Handler-side sleep that ends early when the server stops.
    void sleep(std::chrono::milliseconds d) {
        std::unique_lock<std::mutex> g(lock_);
        cv_.wait_for(g, d, [this] { return stopping_; });
    }

    void remember(const httplib::Request& req, std::string body) {
        std::lock_guard<std::mutex> g(lock_);
        last_ = seen_request{req.method, req.headers, std::move(body)};
        hits_++;
    }
    seen_request last() {
        std::lock_guard<std::mutex> g(lock_);
        return last_;
    }
    int hits() {
        std::lock_guard<std::mutex> g(lock_);
        return hits_;
    }

private:
    std::unique_ptr<httplib::SSLServer> svr_;
    std::thread thread_;
    int port_ = 0;
    std::mutex lock_;
    std::condition_variable cv_;
    bool stopping_ = false;
    seen_request last_;
    int hits_ = 0;
};

class Transport : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(qmx_curl_init(), 0); }
    static void TearDownTestSuite() { qmx_curl_release(); }

    void SetUp() override {
        qmx_curl_set_timeouts(5000ms, 10000ms);
        auto echo = [this](const httplib::Request& req, httplib::Response& res) {
            server.remember(req, req.body);
            res.set_content("echo:" + req.body, "text/plain");
        };
        server.svr().Get("/echo", echo).Post("/echo", echo);
        server.svr().Post("/form", [this](const httplib::Request& req, httplib::Response& res,
                                          const httplib::ContentReader& read) {
            // The parts in arrival order, each as "name=value".
            std::string raw;
            read(
                [&](const httplib::MultipartFormData& part) {
                    raw += part.name + "=";
                    return true;
                },
                [&](const char* d, size_t n) {
                    raw.append(d, n);
                    return true;
                });
            server.remember(req, raw);
            res.set_content("{\"ok\":1}", "application/json");
        });
        server.svr().Get("/empty", [](const httplib::Request&, httplib::Response& res) { res.status = 200; });
        server.svr().Get("/busy", [](const httplib::Request&, httplib::Response& res) {
            res.status = 503;
            res.set_content(R"({"error":{"code":7}})", "application/json");
        });
        server.svr().Get("/moved", [](const httplib::Request&, httplib::Response& res) {
            res.set_redirect("/echo");
        });
        server.svr().Get("/big", [](const httplib::Request& req, httplib::Response& res) {
            size_t n = std::stoul(req.get_param_value("n"));
            std::string body(n, 'x');
            for (size_t i = 0; i < n; i += 997) body[i] = static_cast<char>('a' + i % 26);
            res.set_content(body, "text/plain");
        });
        auto slow = [this](const httplib::Request& req, httplib::Response& res) {
            server.sleep(std::chrono::milliseconds(std::stoi(req.get_param_value("ms"))));
            res.set_content("late", "text/plain");
        };
        server.svr().Get("/slow", slow).Post("/slow", slow);
        server.start();
    }

    tls_server server;
};

TEST_F(Transport, TextPostCarriesTextHeadersAuthorizationAndBody) {
    http_response_ptr r;
    ASSERT_EQ(curl_request(server.url("/echo").c_str(), "Bearer abc", "cipher+text/==", r), 0);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
    EXPECT_STREQ(r->body, "echo:cipher+text/==");
    EXPECT_EQ(r->size, strlen("echo:cipher+text/=="));
    seen_request s = server.last();
    EXPECT_EQ(s.method, "POST");
    EXPECT_EQ(s.body, "cipher+text/==");
    EXPECT_EQ(header(s.headers, "Accept"), std::string("text/plain"));
    EXPECT_EQ(header(s.headers, "Content-Type"), std::string("text/plain"));
    EXPECT_EQ(header(s.headers, "charset"), std::string("utf-8"));
    EXPECT_EQ(header(s.headers, "Authorization"), std::string("Bearer abc"));
}

TEST_F(Transport, GetWithoutAuthorizationSendsNoBodyAndNoAuthorizationHeader) {
    http_response_ptr r;
    ASSERT_EQ(curl_request(server.url("/echo").c_str(), nullptr, nullptr, r), 0);
    ASSERT_TRUE(r);
    seen_request s = server.last();
    EXPECT_EQ(s.method, "GET");
    EXPECT_EQ(s.body, "");
    EXPECT_EQ(s.headers.count("Authorization"), 0u);
    EXPECT_EQ(s.headers.count("Content-Length"), 0u);
    EXPECT_EQ(header(s.headers, "Content-Type"), std::string("text/plain"));
    EXPECT_EQ(header(s.headers, "Accept"), std::string("text/plain"));
}

TEST_F(Transport, LongAuthorizationIsCutToTheHeaderLine) {
    std::string token(600, 't');
    http_response_ptr r;
    ASSERT_EQ(curl_request(server.url("/echo").c_str(), token.c_str(), nullptr, r), 0);
    std::string got = header(server.last().headers, "Authorization");
    // "Authorization: " + value fits 511 characters.
    EXPECT_EQ(got, std::string(511 - strlen("Authorization: "), 't'));
}

TEST_F(Transport, FormPostSendsTheFieldsInOrderAsMultipart) {
    const http_form_field form[] = {
        {"id", "acct-1"}, {"password", "p@ss word"}, {"product", "router-x"}, {"host", "gw.lan"}};
    http_response_ptr r;
    ASSERT_EQ(curl_post_form(server.url("/form").c_str(), form, r), 0);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
    EXPECT_STREQ(r->body, "{\"ok\":1}");
    seen_request s = server.last();
    EXPECT_EQ(s.method, "POST");
    std::string ct = header(s.headers, "Content-Type");
    EXPECT_EQ(ct.rfind("multipart/form-data; boundary=", 0), 0u) << ct;
    EXPECT_EQ(header(s.headers, "Accept"), std::string("application/json"));
    EXPECT_EQ(header(s.headers, "charset"), std::string("utf-8"));
    EXPECT_EQ(s.body, "id=acct-1password=p@ss wordproduct=router-xhost=gw.lan");
}

TEST_F(Transport, RepliesOfEveryShapeComeBackAsRecords) {
    struct {
        const char* path;
        long status;
        std::string body;
    } cases[] = {
        {"/empty", 200, ""},                       // an empty body is "", never null
        {"/busy", 503, R"({"error":{"code":7}})"},  // an HTTP error is not a transport error
        {"/moved", 200, "echo:"},                  // redirects are followed
    };
    for (const auto& c : cases) {
        http_response_ptr r;
        ASSERT_EQ(curl_request(server.url(c.path).c_str(), nullptr, nullptr, r), 0) << c.path;
        ASSERT_TRUE(r) << c.path;
        EXPECT_EQ(r->status, c.status) << c.path;
        ASSERT_NE(r->body, nullptr) << c.path;
        EXPECT_EQ(std::string(r->body, r->size), c.body) << c.path;
        EXPECT_EQ(r->body[r->size], '\0');
    }
}

TEST_F(Transport, BodyArrivingInManyPiecesIsKeptWhole) {
    const size_t n = 300000;
    http_response_ptr r;
    ASSERT_EQ(curl_request(server.url("/big?n=" + std::to_string(n)).c_str(), nullptr, nullptr, r), 0);
    ASSERT_TRUE(r);
    ASSERT_EQ(r->size, n);
    EXPECT_EQ(strlen(r->body), n);
    for (size_t i = 0; i < n; i += 997) ASSERT_EQ(r->body[i], static_cast<char>('a' + i % 26)) << i;
}

TEST_F(Transport, BodyBeyondTheBoundEndsTheTransfer) {
    http_response_ptr r;
    std::string url = server.url("/big?n=" + std::to_string(QMX_CURL_MAX_BODY + 1));
    EXPECT_EQ(curl_request(url.c_str(), nullptr, nullptr, r), CURLE_WRITE_ERROR);
    EXPECT_FALSE(r);
    url = server.url("/big?n=" + std::to_string(QMX_CURL_MAX_BODY));
    EXPECT_EQ(curl_request(url.c_str(), nullptr, nullptr, r), 0);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->size, QMX_CURL_MAX_BODY);
}

TEST_F(Transport, EachPathHasItsOwnTimeOut) {
    // Login form: 500 ms; text requests: 4 s. A reply after 1.5 s times out
    // on the first only.
    qmx_curl_set_timeouts(500ms, 4000ms);
    const http_form_field form[] = {{"id", "x"}};
    http_response_ptr r;
    EXPECT_EQ(curl_post_form(server.url("/slow?ms=1500").c_str(), form, r), CURLE_OPERATION_TIMEDOUT);
    EXPECT_FALSE(r);
    EXPECT_EQ(curl_request(server.url("/slow?ms=1500").c_str(), nullptr, "q", r), 0);
    ASSERT_TRUE(r);
    EXPECT_STREQ(r->body, "late");
    auto t0 = clock_type::now();
    EXPECT_EQ(curl_request(server.url("/slow?ms=8000").c_str(), nullptr, "q", r), CURLE_OPERATION_TIMEDOUT);
    EXPECT_FALSE(r);
    EXPECT_LT(clock_type::now() - t0, 6000ms);
}

TEST_F(Transport, UnreachableServerGivesTheLibcurlCode) {
    http_response_ptr r;
    int rc = curl_request("https://127.0.0.1:1/x", nullptr, nullptr, r);
    EXPECT_EQ(rc, CURLE_COULDNT_CONNECT);
    EXPECT_FALSE(r);
}

TEST_F(Transport, AbortPredicateEndsAWaitingTransferPromptly) {
    std::atomic<bool> stop{false};
    std::thread stopper([&] {
        std::this_thread::sleep_for(200ms);
        stop = true;
    });
    const http_form_field form[] = {{"id", "x"}};
    auto t0 = clock_type::now();
    http_response_ptr r;
    int rc = curl_post_form(server.url("/slow?ms=8000").c_str(), form, r, [&] { return stop.load(); });
    auto took = clock_type::now() - t0;
    stopper.join();
    EXPECT_EQ(rc, CURLE_ABORTED_BY_CALLBACK);
    EXPECT_FALSE(r);
    EXPECT_LT(took, 1500ms);

    stop = true;  // already set: a text request gives up at once as well
    t0 = clock_type::now();
    rc = curl_request(server.url("/slow?ms=8000").c_str(), nullptr, nullptr, r, [&] { return stop.load(); });
    EXPECT_EQ(rc, CURLE_ABORTED_BY_CALLBACK);
    EXPECT_LT(clock_type::now() - t0, 1500ms);
}

}  // namespace
