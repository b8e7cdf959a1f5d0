// Helpers shared by the unit tests: a temporary directory that removes
// itself, whole-file reads and writes, a log capture that points the
// service's log at a temporary directory for the life of one test, and a
// timing record set for the life of one test.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "util/timing.h"

namespace zor_test {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents when
// the object goes. Not copyable.
class temp_dir {
public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;

    const std::string& path() const { return path_; }
    // path() + "/" + name.
    std::string file(const std::string& name) const;

private:
    std::string path_;
};

// The whole file, or "" when it cannot be read.
std::string read_file(const std::string& path);
// Replaces the file's contents; returns false on failure.
bool write_file(const std::string& path, const std::string& contents);
bool file_exists(const std::string& path);

// The words that start a program built in this tree: in a cross build the
// emulator the tests themselves run under, then `path` (natively `path`
// alone). For execvp and posix_spawnp.
std::vector<std::string> program_argv(const std::string& path);
// The same as a shell command prefix, `path` single-quoted.
std::string program_shell(const std::string& path);

// Polls `done` every 10 ms until it holds or `limit` has passed; returns its
// last answer.
bool eventually(const std::function<bool()>& done,
                std::chrono::milliseconds limit = std::chrono::seconds(8));

// Starts the service log in a temporary directory at level 7 (everything)
// and releases it on destruction. lines() returns what has been written so
// far, one entry per line without its CR LF.
class log_capture {
public:
    explicit log_capture(unsigned level = 7);
    ~log_capture();
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    // The log file's path ("<dir>/test.log").
    std::string log_path() const;
    std::vector<std::string> lines() const;
    // True when some line contains `text`.
    bool contains(const std::string& text) const;

private:
    temp_dir dir_;
};

// Sets the service's timing record for the life of the object and puts the
// product's back on destruction. Made before what it times is started.
class scoped_timing {
public:
    explicit scoped_timing(const zor_timing& timing) { timing_set(timing); }
    ~scoped_timing() { timing_set(zor_timing{}); }
    scoped_timing(const scoped_timing&) = delete;
    scoped_timing& operator=(const scoped_timing&) = delete;
};

}  // namespace zor_test
