// Test helpers for the command channel: the client end (connects, or binds
// a stand-in server end, on a Unix path, sends raw request records and reads
// whatever comes back until the peer closes), and a fixture that runs the
// service's command server for each test.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "ctrl_capture.h"
#include "ipc/ipc_server.h"
#include "test_util.h"

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

// Points the context's command socket at `path` (cut to fit).
void ipc_set_socket(const std::string& path);

// Runs the command server on sock_ for each test, with the context as at
// start-up (running, cloud lookups on, parental control off, no rule file),
// the log captured and kernel commands captured. TearDown stops the server
// and any scheduler a command started.
class ipc_server_fixture : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    ipc_reply call(int32_t cmd, const std::string& buf = "", int32_t type = 0) { return ipc_call(sock_, cmd, buf, type); }

    temp_dir dir_;
    log_capture log_;
    ctrl_capture rec_;  // kernel commands, direct channel
    std::string sock_ = dir_.file(".ipc.socket");
};

}  // namespace zor_test
