#include "cmd_recorder.h"

#include "util/cmd_runner.h"

cmd_recorder::cmd_recorder(std::function<int(const std::string&)> hook)
    : s_(std::make_shared<state>()) {
    std::shared_ptr<state> s = s_;  // kept alive by the runner for late senders
    cmd_runner runner;
    runner.run = [s, hook](const std::string& line) {
        int rc = hook ? hook(line) : 0;
        {
            std::lock_guard<std::mutex> g(s->lock);
            s->lines.push_back(line);
        }
        s->cond.notify_all();
        return rc;
    };
    runner.capture = [s](const std::string& line) -> std::optional<std::string> {
        {
            std::lock_guard<std::mutex> g(s->lock);
            s->lines.push_back(line);
        }
        s->cond.notify_all();
        return std::string();
    };
    cmd_set_runner(std::move(runner));
}

cmd_recorder::~cmd_recorder() { cmd_reset_runner(); }

std::vector<std::string> cmd_recorder::lines() const {
    std::lock_guard<std::mutex> g(s_->lock);
    return s_->lines;
}

bool cmd_recorder::wait_for(std::string_view needle, size_t n,
                            std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lk(s_->lock);
    return s_->cond.wait_for(lk, timeout, [&] {
        size_t c = 0;
        for (const std::string& l : s_->lines)
            if (l.find(needle) != std::string::npos) ++c;
        return c >= n;
    });
}

void cmd_recorder::clear() {
    std::lock_guard<std::mutex> g(s_->lock);
    s_->lines.clear();
}
