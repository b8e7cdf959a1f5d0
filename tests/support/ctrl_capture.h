// Test helper: what the kernel module received through its control file, as
// command texts in the order they arrived, whichever channel sent them.
//
//  - direct: the control file is a scratch regular file, read back; each
//    write appends, so the file holds every text and its newline;
//  - shell (ctrl_shell = 1): a command recorder takes the lines instead of
//    running them, and each control-file line is decoded back into its text
//    (a line that is not a well-formed one shows as "<bad line> LINE").
//
// The capture selects its channel and control file for its lifetime and
// restores the direct channel and the real path afterwards. Thread-safe.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "cmd_recorder.h"
#include "test_util.h"

class ctrl_capture : public line_search<ctrl_capture> {
public:
    enum channel { direct, shell };
    // `hook` runs for every line given to the command runner (in the shell
    // channel, every command) before it is recorded; its result is the
    // runner's.
    explicit ctrl_capture(channel ch = direct, std::function<int(const std::string&)> hook = {});
    ~ctrl_capture();
    ctrl_capture(const ctrl_capture&) = delete;
    ctrl_capture& operator=(const ctrl_capture&) = delete;

    // Texts received so far, without their newlines.
    std::vector<std::string> lines() const;
    // Waits until at least `n` texts holding `needle` arrived; false on
    // time-out.
    bool wait_for(std::string_view needle, size_t n,
                  std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
    void clear();

    // Every line the command runner was given (none for a command in the
    // direct channel).
    std::vector<std::string> shell_lines() const { return rec_.lines(); }
    const std::string& file() const { return file_; }

private:
    channel ch_;
    zor_test::temp_dir dir_;
    std::string file_;
    cmd_recorder rec_;
};
