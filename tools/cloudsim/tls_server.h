// The HTTPS server that the simulator and the transport tests listen with:
// the HTTP library's TLS server, with its request parser run once on the
// creating thread.
//
// Why: the library is a prebuilt shared object, and its request parser builds
// a function-local table (the known methods) on first use. A thread sanitizer
// cannot see the guard of that table inside uninstrumented code, so when the
// first two requests of a process land on two worker threads (a slow handler
// holds the first while a second connection arrives), the second worker's
// reads of the table appear unordered with the first worker's construction.
// Parsing one request here, before any worker thread exists, builds the table
// where thread creation orders it before every worker.
#pragma once

#include <httplib.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>

namespace cloudsim {

// A server for `cert` and `key` (the caller keeps ownership of both), with no
// handlers installed yet. Check is_valid() before use.
std::unique_ptr<httplib::SSLServer> make_tls_server(X509* cert, EVP_PKEY* key);

}  // namespace cloudsim
