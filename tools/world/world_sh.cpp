// The recording shell of the simulated world. Inside the world's mount
// namespace it is bind-mounted over the system shell, so every command the
// service runs ("/bin/sh -c LINE") passes through here first:
//
//  - LINE is appended to /proc/world/commands.log, one record a line;
//  - a LINE that ends in "> /proc/zor/ctrl" (a kernel command in the shell
//    channel) runs in the real shell with its output sent to a scratch file
//    instead, and what it wrote is then appended to /proc/zor/ctrl with one
//    write. The control file is a regular file here, so it accumulates every
//    line the kernel module would have received, in order, whether the
//    service wrote it directly or through a shell (whose ">" would otherwise
//    replace what the file held);
//  - every descriptor above standard error that the shell was started with
//    (the service's commands should inherit none) is appended to
//    /proc/world/inherited.log as "fd N -> TARGET: LINE";
//  - everything else runs in the real shell, bound at /proc/world/real-sh.
//
// Records escape bytes below 0x20 and 0x7F as \xHH, so one record is one line.
#include <dirent.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

constexpr const char* REAL_SH = "/proc/world/real-sh";
constexpr const char* COMMANDS_LOG = "/proc/world/commands.log";
constexpr const char* INHERITED_LOG = "/proc/world/inherited.log";
constexpr const char* CTRL_FILE = "/proc/zor/ctrl";
constexpr size_t CTRL_READ_MAX = 64 * 1024;

// A small owner for one descriptor.
struct fd_owner {
    int fd;
    explicit fd_owner(int f) : fd(f) {}
    ~fd_owner() {
        if (fd >= 0) close(fd);
    }
    fd_owner(const fd_owner&) = delete;
    fd_owner& operator=(const fd_owner&) = delete;
};

std::string escape(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 1);
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7F) {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

// Appends one record with a single write, so records from concurrent
// shells never interleave.
void append_record(const char* path, std::string_view text) {
    fd_owner f(open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    if (f.fd < 0) return;
    std::string rec = escape(text);
    rec += '\n';
    ssize_t n = write(f.fd, rec.data(), rec.size());
    (void)n;
}

std::string read_all(const char* path) {
    std::string out;
    fd_owner f(open(path, O_RDONLY | O_CLOEXEC));
    if (f.fd < 0) return out;
    char buf[4096];
    ssize_t n;
    while (out.size() < CTRL_READ_MAX && (n = read(f.fd, buf, sizeof buf)) != 0) {
        if (n < 0) {
            if (errno == EINTR) continue;
            break;
        }
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

// Records the descriptors above 2 this process was started with; called
// before it opens any of its own.
void record_inherited(const std::string& line) {
    DIR* d = opendir("/proc/self/fd");
    if (!d) return;
    std::string found;
    while (dirent* e = readdir(d)) {
        char* end = nullptr;
        long fd = std::strtol(e->d_name, &end, 10);
        if (*end != '\0' || end == e->d_name || fd <= 2 || fd == dirfd(d)) continue;
        char target[256] = {};
        ssize_t n = readlink(("/proc/self/fd/" + std::string(e->d_name)).c_str(), target, sizeof target - 1);
        found += "fd " + std::to_string(fd) + " -> " + std::string(target, n > 0 ? static_cast<size_t>(n) : 0) + ": " +
                 line + "\n";
    }
    closedir(d);
    for (size_t at = 0, end; (end = found.find('\n', at)) != std::string::npos; at = end + 1)
        append_record(INHERITED_LOG, std::string_view(found).substr(at, end - at));
}

[[noreturn]] void exec_real(char** argv) {
    execv(REAL_SH, argv);
    std::fprintf(stderr, "world_sh: cannot run %s: %s\n", REAL_SH, std::strerror(errno));
    _exit(127);
}

// Runs `line` in the real shell with its redirection into the control file
// turned to a scratch file of this process, then appends what it wrote to
// the control file (when the module still has one).
int run_recording_ctrl(std::string line) {
    const std::string scratch = "/proc/world/ctrl." + std::to_string(getpid());
    line.replace(line.size() - std::strlen(CTRL_FILE), std::string::npos, scratch);
    char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), line.data(), nullptr};
    pid_t pid = fork();
    if (pid < 0) return 127;
    if (pid == 0) exec_real(argv);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    const std::string written = read_all(scratch.c_str());
    unlink(scratch.c_str());
    if (!written.empty()) {
        fd_owner f(open(CTRL_FILE, O_WRONLY | O_APPEND | O_CLOEXEC));
        if (f.fd >= 0 && write(f.fd, written.data(), written.size()) < 0)
            std::fprintf(stderr, "world_sh: %s: %s\n", CTRL_FILE, std::strerror(errno));
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}

}  // namespace

int main(int argc, char** argv) {
    std::string line;
    if (argc >= 3 && std::strcmp(argv[1], "-c") == 0) {
        line = argv[2];
    } else {
        for (int i = 1; i < argc; ++i) {
            if (i > 1) line += ' ';
            line += argv[i];
        }
    }
    record_inherited(line);
    if (!line.empty()) append_record(COMMANDS_LOG, line);
    const std::string tail = std::string("> ") + CTRL_FILE;
    if (argc >= 3 && line.size() > tail.size() && line.compare(line.size() - tail.size(), tail.size(), tail) == 0) {
        // Leaves without exit handlers: an exit-time leak scan of a
        // sanitizer build would look for this process in the world's /proc,
        // which lists only the service.
        _exit(run_recording_ctrl(line));
    }
    exec_real(argv);
}
