// Sending the simulator's datagrams: a generic netlink socket on an
// automatic port that unicasts to one destination port (the service binds
// its socket with its process id as port id). Sending to another process's
// port needs CAP_NET_ADMIN, so the simulator runs as root. Single-threaded.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kernsim_script.h"

class ks_sender {
public:
    ks_sender() = default;
    ~ks_sender();
    ks_sender(const ks_sender&) = delete;
    ks_sender& operator=(const ks_sender&) = delete;

    // Opens the socket. Returns false with `err` set when the system refuses.
    [[nodiscard]] bool open(std::string& err);
    // Sends one datagram to `port`. A port without a socket yet is retried
    // every 20 ms until `deadline`. Returns false with `err` set on failure.
    // With `lost` given the send never waits for room: a datagram the
    // receiver's full queue refuses is counted there and dropped, as the
    // kernel module's unicast would drop it.
    [[nodiscard]] bool send(uint32_t port, const std::vector<uint8_t>& msg,
                            std::chrono::steady_clock::time_point deadline, std::string& err,
                            long* lost = nullptr);

private:
    int fd_ = -1;
};

struct ks_run_opts {
    uint32_t port = 0;
    uint16_t family_id = KS_DEFAULT_FAMILY_ID;
    unsigned count = 1;      // the command list runs this many times
    double rate = 0;         // datagrams per second; 0 sends as fast as possible
    std::chrono::milliseconds wait{0};  // how long to wait for the port to appear
    // Non-null: never wait for room in the receiver's queue; datagrams it
    // refuses are counted here (see ks_sender::send) and not sent again.
    long* lost = nullptr;
    // Called after every datagram sent (verbose trace); may be empty.
    std::function<void(const std::vector<uint8_t>&)> on_sent;
};

// Runs the command list `count` times through `sender`. Returns the number
// of datagrams sent (lost ones included), or -1 with `err` set at the first
// failure.
long ks_run(const std::vector<ks_command>& commands, const ks_run_opts& opts, ks_sender& sender,
            std::string& err);
