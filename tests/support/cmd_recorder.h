// Test helper: records every line run through the command runner seam
// instead of running it. Installed for the recorder's lifetime; thread-safe,
// so lines sent from the service's worker threads are recorded too.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "line_search.h"

class cmd_recorder : public line_search<cmd_recorder> {
public:
    // `hook`, when given, runs on the sender's thread for every line before
    // it is recorded (a test can hold a worker there); its result is the
    // runner's result. Without a hook the runner returns 0.
    explicit cmd_recorder(std::function<int(const std::string&)> hook = {});
    ~cmd_recorder();
    cmd_recorder(const cmd_recorder&) = delete;
    cmd_recorder& operator=(const cmd_recorder&) = delete;

    // Every line run, in order.
    std::vector<std::string> lines() const;
    // Waits until at least `n` lines holding `needle` were run; false on
    // time-out.
    bool wait_for(std::string_view needle, size_t n,
                  std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
    void clear();

private:
    struct state {
        mutable std::mutex lock;
        mutable std::condition_variable cond;
        std::vector<std::string> lines;
    };
    std::shared_ptr<state> s_;
};
