// Cloud simulator: a stand-in for the cloud category service, for tests, the
// demo and integration tests on a bench. One HTTPS listener on loopback with
// a certificate made at start-up serves the login endpoint and any number of
// virtual category servers ("nodes", reached under /node<N>), speaking the
// same enciphered protocol as the real service. What each endpoint does is
// scriptable with a small line language (see docs/cloudsim.md), and every
// request is recorded.
//
// All member functions are thread-safe; handlers run on the listener's own
// worker threads. stop() (and the destructor) ends pending delays at once.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace cloudsim {

// One request as the simulator saw it.
struct request_record {
    uint64_t seq = 0;       // 1, 2, ... in arrival order
    int64_t time = 0;       // arrival, Unix seconds
    std::string endpoint;   // "login", "ping", "query" or "other"
    int node = -1;          // virtual server of ping and query; -1 otherwise
    std::string method;
    std::string token;      // bearer token presented, if any
    std::string detail;     // login: "id=..,product=..,host=..", query: the plain query
    int status = 0;         // status answered
};

struct options {
    std::string bind = "127.0.0.1";
    int port = 0;                 // 0: any free port
    int nodes = 3;                // virtual category servers
    std::string categories_file;  // optional category table (see load_categories)
    std::string log_file;         // optional request log, one line per request
    int threads = 8;              // handler threads (delays occupy one each)
};

class simulator {
public:
    explicit simulator(options opts = {});
    ~simulator();
    simulator(const simulator&) = delete;
    simulator& operator=(const simulator&) = delete;

    // Makes the key and certificate, binds and starts serving. False with
    // *error set on failure.
    bool start(std::string* error = nullptr);
    // Ends pending delays, stops the listener and joins it. Safe twice.
    void stop();

    int port() const;
    // "127.0.0.1:<port>": what the service's `server` setting names.
    std::string address() const;
    // "https://127.0.0.1:<port>/node<n>": base URL of a virtual server.
    std::string node_url(int n) const;
    // The certificate in PEM form (empty before start).
    std::string certificate_pem() const;
    // Writes it to `path`, for a client to name as the one certificate it
    // trusts (the service's ca_file). False when it cannot.
    bool save_certificate(const std::string& path) const;

    // Runs script lines (see docs/cloudsim.md). Lines before a bad one take
    // effect; false with *error naming the bad line.
    bool apply(const std::string& script, std::string* error = nullptr);
    // Reads a category table: "<name> <group> <sub_group> [ttl_hours]" per
    // line, '#' comments. False with *error set on a bad file or line.
    bool load_categories(const std::string& path, std::string* error = nullptr);

    // The request log (the newest 4096 requests).
    std::vector<request_record> requests() const;
    // Requests of one endpoint (and node, unless -1).
    size_t count(const std::string& endpoint, int node = -1) const;
    void clear_requests();
    // Tokens handed out so far, oldest first (at most 1024 kept).
    std::vector<std::string> tokens() const;

    struct impl;

private:
    std::unique_ptr<impl> p_;
};

}  // namespace cloudsim
