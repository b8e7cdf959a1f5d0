// A stand-in for the system log daemon: a datagram socket bound where a
// test makes /dev/log lead (a private mount namespace), keeping every record
// syslog(3) sent to it, parsed. drain() reads what is waiting without
// blocking; start_reader() lets a thread of the sink drain until the sink
// goes, for a sender that logs faster than the test reads (the kernel's
// datagram queue is short, and a sender with a full queue waits).
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zor_test {

// "<PRI>Mmm dd hh:mm:ss IDENT[PID]: MESSAGE" as glibc and musl send it.
// priority is -1 for a datagram not of that form (raw holds it).
struct syslog_record {
    int priority = -1;
    std::string ident;
    long pid = 0;
    std::string message;
    std::string raw;
};

class syslog_sink {
public:
    explicit syslog_sink(const std::string& path);
    ~syslog_sink();
    syslog_sink(const syslog_sink&) = delete;
    syslog_sink& operator=(const syslog_sink&) = delete;

    bool ok() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    // Reads every datagram waiting now.
    void drain();
    void start_reader();
    // Every record so far, oldest first.
    std::vector<syslog_record> records() const;
    // Polls records() until `done` holds for them or `limit` has passed.
    bool wait_for(const std::function<bool(const std::vector<syslog_record>&)>& done,
                  std::chrono::milliseconds limit);

private:
    int fd_ = -1;
    int stop_ = -1;  // eventfd that ends the reader
    std::thread reader_;
    mutable std::mutex lock_;
    std::vector<syslog_record> records_;  // covered by lock_
};

}  // namespace zor_test
