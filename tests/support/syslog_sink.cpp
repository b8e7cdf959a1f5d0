#include "syslog_sink.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <regex>

namespace zor_test {

namespace {

syslog_record parse(std::string raw) {
    static const std::regex form(R"(^<(\d+)>[A-Z][a-z]{2} +\d+ \d\d:\d\d:\d\d ([^ \[]+)\[(\d+)\]: (.*)$)");
    syslog_record r;
    std::smatch m;
    if (std::regex_match(raw, m, form)) {
        r.priority = std::stoi(m[1]);
        r.ident = m[2];
        r.pid = std::stol(m[3]);
        r.message = m[4];
    }
    r.raw = std::move(raw);
    return r;
}

}  // namespace

syslog_sink::syslog_sink(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) return;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd_);
        fd_ = -1;
    }
}

syslog_sink::~syslog_sink() {
    if (reader_.joinable()) {
        const uint64_t one = 1;
        if (write(stop_, &one, sizeof one) < 0) perror("syslog_sink stop");
        reader_.join();
    }
    if (stop_ >= 0) close(stop_);
    if (fd_ >= 0) close(fd_);
}

void syslog_sink::drain() {
    char buf[4096];
    ssize_t n;
    while (fd_ >= 0 && (n = recv(fd_, buf, sizeof buf, MSG_DONTWAIT)) >= 0) {
        syslog_record r = parse(std::string(buf, static_cast<size_t>(n)));
        std::lock_guard<std::mutex> guard(lock_);
        records_.push_back(std::move(r));
    }
}

void syslog_sink::start_reader() {
    if (fd_ < 0 || reader_.joinable()) return;
    stop_ = eventfd(0, EFD_CLOEXEC);
    if (stop_ < 0) return;
    reader_ = std::thread([this] {
        pollfd p[2] = {{fd_, POLLIN, 0}, {stop_, POLLIN, 0}};
        for (;;) {
            const int ready = poll(p, 2, -1);
            if (ready < 0 && errno == EINTR) continue;
            if (ready < 0 || (p[1].revents & POLLIN)) break;
            drain();
        }
        drain();
    });
}

std::vector<syslog_record> syslog_sink::records() const {
    std::lock_guard<std::mutex> guard(lock_);
    return records_;
}

bool syslog_sink::wait_for(const std::function<bool(const std::vector<syslog_record>&)>& done,
                           std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        if (!reader_.joinable()) drain();
        if (done(records())) return true;
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace zor_test
