// Test helper: the client end of the command channel. Connects (or binds a
// stand-in server end) on a Unix path, sends raw request records and reads
// whatever comes back until the peer closes.
#pragma once

#include <cstdint>
#include <string>

#include "ipc/ipc_server.h"

namespace zor_test {

// A Unix stream socket with 5 s send and receive time-outs, connected to
// `path` (listen=false) or bound there and listening. Closed on destruction.
class ipc_socket {
public:
    explicit ipc_socket(const std::string& path, bool listen = false);
    ~ipc_socket();
    ipc_socket(const ipc_socket&) = delete;
    ipc_socket& operator=(const ipc_socket&) = delete;

    bool ok() const { return ok_; }
    int fd() const { return fd_; }
    bool send_all(const void* data, size_t n) const;
    // Everything until the peer closes; "<receive error>" on an error or
    // time-out.
    std::string read_to_end() const;

private:
    int fd_ = -1;
    bool ok_ = false;
};

ipc_request make_request(int32_t cmd, const std::string& buf = "", int32_t type = 0);
// Sends `n` raw bytes on a fresh connection and returns what came back.
std::string ipc_call_raw(const std::string& path, const void* data, size_t n);
// Sends one request; the reply record, zeroed where nothing came back.
ipc_reply ipc_call(const std::string& path, int32_t cmd, const std::string& buf = "", int32_t type = 0);

}  // namespace zor_test
