#include "tls_server.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace cloudsim {

namespace {

// One request held in memory; whatever the server answers is dropped.
class memory_stream final : public httplib::Stream {
public:
    explicit memory_stream(std::string request) : in_(std::move(request)) {}

    bool is_readable() const override { return pos_ < in_.size(); }
    bool is_writable() const override { return true; }
    ssize_t read(char* ptr, size_t size) override {
        size_t n = std::min(size, in_.size() - pos_);
        memcpy(ptr, in_.data() + pos_, n);
        pos_ += n;
        return static_cast<ssize_t>(n);
    }
    ssize_t write(const char*, size_t size) override { return static_cast<ssize_t>(size); }
    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        ip = "127.0.0.1";
        port = 0;
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        ip = "127.0.0.1";
        port = 0;
    }
    socket_t socket() const override { return INVALID_SOCKET; }

private:
    std::string in_;
    size_t pos_ = 0;
};

class primed_server final : public httplib::SSLServer {
public:
    using SSLServer::SSLServer;

    // Serves one GET while no handler is installed: it is parsed, routed to
    // nothing and answered 404, so no caller ever sees it.
    void prime() {
        memory_stream request("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        bool closed = false;
        process_request(request, true, closed, [](httplib::Request&) {});
    }
};

}  // namespace

std::unique_ptr<httplib::SSLServer> make_tls_server(X509* cert, EVP_PKEY* key) {
    auto server = std::make_unique<primed_server>(cert, key);
    if (server->is_valid()) server->prime();
    return server;
}

}  // namespace cloudsim
