// Shared by the fuzz targets (each target is one translation unit, so
// everything here is inline). Every target's LLVMFuzzerInitialize calls
// setup() first.
//
// - Findings go to a copy of standard error taken at start-up, so they still
//   show when the service's own chatter is silenced (-close_fd_mask=3).
// - A command runner that runs nothing: every line the service would hand
//   to the shell is checked instead, and anything but a well-formed kernel
//   control line with shell-safe quoted text stops the run.
// - The log goes to /dev/null at the debug level, so every message is still
//   formatted and a bad argument to a format is caught.
// - A scratch file: fuzz input for readers that take a path.
// - Small input helpers.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ctrl_text.h"
#include "log.h"
#include "qmxsrv_ctx.h"
#include "util/cmd_runner.h"
#include "zor_ctrl.h"

namespace fuzz {

inline FILE* report_stream() {
    static FILE* stream = [] {
        const int fd = dup(2);
        FILE* f = fd >= 0 ? fdopen(fd, "w") : nullptr;
        if (!f) return stderr;
        setvbuf(f, nullptr, _IONBF, 0);
        return f;
    }();
    return stream;
}

inline void report(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
inline void report(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vfprintf(report_stream(), fmt, ap);
    va_end(ap);
}

[[noreturn]] inline void fail(const char* what, std::string_view detail = {}) {
    FILE* out = report_stream();
    fprintf(out, "fuzz check failed: %s", what);
    if (!detail.empty()) {
        fputs(": ", out);
        for (unsigned char c : detail) {
            if (c >= 0x20 && c < 0x7f)
                fputc(c, out);
            else
                fprintf(out, "\\x%02x", c);
        }
    }
    fputc('\n', out);
    abort();
}

inline void check(bool ok, const char* what, std::string_view detail = {}) {
    if (!ok) fail(what, detail);
}

// ---- kernel control lines ----

// True when `text` is a command the module can parse as sent: one of the
// verbs below with exactly its number of words, single spaces between them,
// and no control byte, 0x7F or backslash anywhere. A key that carried a
// space would show here as a word too many.
inline bool control_text_ok(std::string_view text) {
    static constexpr struct {
        std::string_view head;
        size_t words;
    } kVerbs[] = {{"db key2group u2k ", 5}, {"db key2group update ", 9}, {"pc rule clean", 3},
                  {"pc rule add ", 8}, {"env server_port ", 3}};
    size_t words = 1;
    for (size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == ' ') {
            if (i == 0 || text[i - 1] == ' ' || i + 1 == text.size()) return false;
            ++words;
        } else if (c < 0x21 || c == 0x7f || c == '\\') {
            return false;
        }
    }
    for (const auto& v : kVerbs)
        if (text.substr(0, v.head.size()) == v.head) return words == v.words;
    return false;
}

// True when `line` is the shell channel's guarded echo into the control file
// of a sound command text, quoted so that it can neither end the quotes early
// nor expand anything.
inline bool control_line_ok(std::string_view line) {
    const std::optional<std::string> text = zor_test::ctrl_text_of_line(line, ZOR_CTRL_FILE);
    return text && control_text_ok(*text);
}

// The lines the service asked to run since the last take_lines(); any
// thread may add to them.
inline std::mutex lines_lock;
inline std::vector<std::string> lines_run;

inline std::vector<std::string> take_lines() {
    std::lock_guard<std::mutex> g(lines_lock);
    std::vector<std::string> out;
    out.swap(lines_run);
    return out;
}

// Installs the checking runner and sends kernel commands through it (the
// shell channel, whose lines carry the same texts as direct writes): no
// shell is ever started; a line that is not a sound control line, or any
// capture, stops the run.
inline void install_checking_runner() {
    qmxsrv_ctx.ctrl_shell = 1;
    cmd_runner r;
    r.run = [](const std::string& line) {
        if (!control_line_ok(line)) fail("command line the service must never run", line);
        std::lock_guard<std::mutex> g(lines_lock);
        if (lines_run.size() < 4096) lines_run.push_back(line);
        return 0;
    };
    r.capture = [](const std::string& line) -> std::optional<std::string> {
        fail("unexpected command capture", line);
    };
    cmd_set_runner(std::move(r));
}

// ---- log ----

// Logging at the debug level into a log file that is a link to /dev/null:
// every message is formatted as in the product, nothing is kept. The log
// reopens its path for every line, so the link stays: one directory per
// user, reused by every run (a crashed run leaves nothing new behind).
inline void log_to_null() {
    const std::string dir = "/tmp/zor-fuzz-log-" + std::to_string(getuid());
    mkdir(dir.c_str(), 0700);
    struct stat st {};
    if (lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != getuid())
        fail("log directory is not a directory of this user", dir);
    const std::string file = dir + "/fuzz.log";
    char target[16] = {};
    if (readlink(file.c_str(), target, sizeof target - 1) < 0 || strcmp(target, "/dev/null") != 0) {
        // Only something else is removed: a run starting beside this one may
        // just have made the link.
        struct stat other {};
        if (lstat(file.c_str(), &other) == 0) unlink(file.c_str());
        if (symlink("/dev/null", file.c_str()) != 0 && errno != EEXIST) fail("no log link", file);
    }
    log_init(dir.c_str(), "fuzz");
    log_set_level(7);
    atexit(log_free);
}

// ---- set-up ----

// The report channel, the checking runner and the log, for every target.
inline void setup() {
    report_stream();
    install_checking_runner();
    log_to_null();
}

// ---- scratch file ----

// One in-memory file, rewritten for every input and reached by a path, for
// readers that open a path themselves.
class scratch_file {
public:
    scratch_file() {
        fd_ = memfd_create("zor-fuzz", MFD_CLOEXEC);
        if (fd_ < 0) fail("memfd_create");
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    scratch_file(const scratch_file&) = delete;
    scratch_file& operator=(const scratch_file&) = delete;
    ~scratch_file() { close(fd_); }

    void write(const void* data, size_t size) {
        if (ftruncate(fd_, 0) != 0) fail("ftruncate");
        const auto* p = static_cast<const uint8_t*>(data);
        size_t done = 0;
        while (done < size) {
            ssize_t n = pwrite(fd_, p + done, size - done, static_cast<off_t>(done));
            if (n <= 0) fail("pwrite");
            done += static_cast<size_t>(n);
        }
    }
    const char* path() const { return path_.c_str(); }

private:
    int fd_ = -1;
    std::string path_;
};

// ---- input helpers ----

// Splits `text` at every '\n' (an empty text gives no pieces).
inline std::vector<std::string_view> split_lines(std::string_view text) {
    std::vector<std::string_view> out;
    while (!text.empty()) {
        size_t nl = text.find('\n');
        out.push_back(text.substr(0, nl));
        if (nl == std::string_view::npos) break;
        text.remove_prefix(nl + 1);
    }
    return out;
}

}  // namespace fuzz
