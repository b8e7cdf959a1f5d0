// The transport against a real TLS server on loopback (cpp-httplib with a
// certificate made at start-up), recording what arrives.
#include "qmx_curl.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

#include "sim_crypto.h"
#include "test_util.h"
#include "tls_server.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

// The body /big?n=N answers: 'x' with a letter every 997 bytes.
std::string big_body(size_t n) {
    std::string body(n, 'x');
    for (size_t i = 0; i < n; i += 997) body[i] = static_cast<char>('a' + i % 26);
    return body;
}

class Transport : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(qmx_curl_init(), 0); }
    static void TearDownTestSuite() { qmx_curl_release(); }

    void SetUp() override {
        timing_set(zor_timing{});  // the product's time-outs
        cloudsim::pkey_ptr key;
        cloudsim::x509_ptr cert;
        ASSERT_TRUE(cloudsim::make_certificate(&key, &cert));
        ASSERT_TRUE(zor_test::write_file(ca_file_, cloudsim::certificate_to_pem(cert.get())));
        qmx_curl_set_tls(true, ca_file_.c_str());
        svr_ = cloudsim::make_tls_server(cert.get(), key.get());
        svr_->new_task_queue = [] { return new httplib::ThreadPool(4); };
        auto echo = [this](const httplib::Request& req, httplib::Response& res) {
            std::string seen = req.method + " [" + req.body + "]";
            for (const char* n : {"Accept", "Content-Type", "charset", "Authorization", "Content-Length"})
                seen += std::string("\n") + n + ": " + (req.has_header(n) ? req.get_header_value(n) : "<none>");
            std::lock_guard<std::mutex> g(lock_);
            seen_ = seen;
            res.set_content("echo:" + req.body, "text/plain");
        };
        svr_->Get("/echo", echo).Post("/echo", echo);
        svr_->Get("/empty", [](const httplib::Request&, httplib::Response& res) { res.status = 200; });
        svr_->Get("/busy", [](const httplib::Request&, httplib::Response& res) {
            res.status = 503;
            res.set_content(R"({"error":{"code":7}})", "application/json");
        });
        svr_->Get("/big", [](const httplib::Request& req, httplib::Response& res) {
            res.set_content(big_body(std::stoul(req.get_param_value("n"))), "text/plain");
        });
        auto to = [](const httplib::Request& req, httplib::Response& res) { res.set_redirect(req.get_param_value("u")); };
        svr_->Get("/to", to).Post("/to", to);
        svr_->Post("/slow", [this](const httplib::Request&, httplib::Response& res) {
            auto end = clock_type::now() + 8s;
            while (!stopping_ && clock_type::now() < end) std::this_thread::sleep_for(5ms);
            res.set_content("late", "text/plain");
        });
        port_ = svr_->bind_to_any_port("127.0.0.1");
        ASSERT_GT(port_, 0);
        thread_ = std::thread([this] { svr_->listen_after_bind(); });
        while (!svr_->is_running()) std::this_thread::sleep_for(1ms);  // stop() needs a running listener
    }
    void TearDown() override {
        stopping_ = true;
        if (thread_.joinable()) svr_->stop(), thread_.join();
        qmx_curl_set_tls(true, nullptr);
    }

    std::string url(const std::string& path) const { return "https://127.0.0.1:" + std::to_string(port_) + path; }
    // The last request to /echo: its method, body and headers ("<none>" when absent).
    std::string seen() {
        std::lock_guard<std::mutex> g(lock_);
        return seen_;
    }

    zor_test::temp_dir dir_;
    const std::string ca_file_ = dir_.file("server.pem");
    std::unique_ptr<httplib::SSLServer> svr_;
    std::thread thread_;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::mutex lock_;
    std::string seen_;
};

TEST_F(Transport, RequestsCarryTheirHeadersAndBody) {
    const std::string common = "\nAccept: text/plain\nContent-Type: text/plain\ncharset: utf-8\nAuthorization: ";
    const std::string long_token(600, 't');
    const struct {
        const char* auth;
        const char* body;
        std::string want;
    } cases[] = {
        {"Bearer abc", "cipher+text/==", "POST [cipher+text/==]" + common + "Bearer abc\nContent-Length: 14"},
        {nullptr, nullptr, "GET []" + common + "<none>\nContent-Length: <none>"},
        // "Authorization: " and the value fit a 511-byte header line.
        {long_token.c_str(), nullptr,
         "GET []" + common + std::string(511 - strlen("Authorization: "), 't') + "\nContent-Length: <none>"},
    };
    for (const auto& c : cases) {
        http_response_ptr r;
        ASSERT_EQ(curl_request(url("/echo").c_str(), c.auth, c.body, r), 0);
        ASSERT_TRUE(r);
        EXPECT_EQ(r->status, 200);
        EXPECT_EQ(std::string(r->body, r->size), "echo:" + std::string(c.body ? c.body : ""));
        EXPECT_EQ(seen(), c.want);
    }
    // The login form asks for JSON; the session tests check its fields.
    const http_form_field form[] = {{"id", "acct-1"}, {"password", "p@ss word"}};
    http_response_ptr r;
    ASSERT_EQ(curl_post_form(url("/echo").c_str(), form, r), 0);
    const std::string want = "POST []\nAccept: application/json\nContent-Type: multipart/form-data; boundary=";
    EXPECT_EQ(seen().substr(0, want.size()), want);
}

TEST_F(Transport, RepliesOfEveryShapeOrTheLibcurlCode) {
    const struct {
        std::string url;
        int rc;
        long status;
        std::string body;
    } cases[] = {
        {url("/empty"), 0, 200, ""},                          // an empty body is "", never null
        {url("/busy"), 0, 503, R"({"error":{"code":7}})"},    // an HTTP error is no transport error
        {url("/big?n=" + std::to_string(QMX_CURL_MAX_BODY)), 0, 200, big_body(QMX_CURL_MAX_BODY)},  // in many pieces
        {url("/big?n=" + std::to_string(QMX_CURL_MAX_BODY + 1)), CURLE_WRITE_ERROR, 0, ""},
        {"https://127.0.0.1:1/x", CURLE_COULDNT_CONNECT, 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        http_response_ptr r;
        ASSERT_EQ(curl_request(c.url.c_str(), nullptr, nullptr, r), c.rc);
        ASSERT_EQ(r != nullptr, c.rc == 0);
        if (!r) continue;
        EXPECT_EQ(r->status, c.status);
        ASSERT_NE(r->body, nullptr);
        EXPECT_TRUE(std::string(r->body, r->size) == c.body) << r->size;
        EXPECT_EQ(r->body[r->size], '\0');
    }
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
    EXPECT_EQ(curl_post_form(url("/slow").c_str(), form, r, [&] { return stop.load(); }), CURLE_ABORTED_BY_CALLBACK);
    EXPECT_LT(clock_type::now() - t0, 1500ms);
    stopper.join();
    EXPECT_FALSE(r);
}

// The peer is checked against the named bundle (or the system's store, which
// does not know this server, nor a forged one with a certificate of its
// own), unless checking is off; nothing but https is fetched, and no
// redirect leaves https.
TEST_F(Transport, OnlyVerifiedHttpsIsFetched) {
    cloudsim::pkey_ptr other_key;
    cloudsim::x509_ptr other;
    ASSERT_TRUE(cloudsim::make_certificate(&other_key, &other));
    const std::string forged = dir_.file("other.pem");
    ASSERT_TRUE(zor_test::write_file(forged, cloudsim::certificate_to_pem(other.get())));
    ASSERT_TRUE(zor_test::write_file(dir_.file("secret"), "secret\n"));
    const struct {
        const char* what;
        bool verify;
        std::string ca, url;
        int rc;
    } cases[] = {
        {"trusted bundle", true, ca_file_, url("/echo"), 0},
        {"system store", true, "", url("/echo"), CURLE_PEER_FAILED_VERIFICATION},
        {"bundle of another certificate", true, forged, url("/echo"), CURLE_PEER_FAILED_VERIFICATION},
        {"checking off", false, forged, url("/echo"), 0},
        {"redirect within https", true, ca_file_, url("/to?u=" + url("/echo")), 0},
        {"redirect to file", true, ca_file_, url("/to?u=file://" + dir_.file("secret")), CURLE_UNSUPPORTED_PROTOCOL},
        {"redirect to http", true, ca_file_, url("/to?u=http://127.0.0.1:" + std::to_string(port_) + "/echo"),
         CURLE_UNSUPPORTED_PROTOCOL},
        {"file URL", false, "", "file://" + dir_.file("secret"), CURLE_UNSUPPORTED_PROTOCOL},
        {"gopher URL", false, "", "gopher://127.0.0.1:" + std::to_string(port_) + "/_x", CURLE_UNSUPPORTED_PROTOCOL},
        {"http URL", false, "", "http://127.0.0.1:" + std::to_string(port_) + "/echo", CURLE_UNSUPPORTED_PROTOCOL},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        qmx_curl_set_tls(c.verify, c.ca.c_str());
        http_response_ptr r;
        EXPECT_EQ(curl_request(c.url.c_str(), nullptr, nullptr, r), c.rc);
        if (r) {
            EXPECT_EQ(std::string(r->body, r->size).find("secret"), std::string::npos);
        }
        const http_form_field form[] = {{"id", "x"}};
        EXPECT_EQ(curl_post_form(c.url.c_str(), form, r), c.rc);
    }
}

}  // namespace
