// The recording shell of the simulated world. Inside the world's mount
// namespace it is bind-mounted over the system shell, so every command the
// service runs ("/bin/sh -c LINE") passes through here first:
//
//  - LINE is appended to /proc/world/commands.log, one record a line;
//  - a LINE that redirects into /proc/zor/ctrl runs under an exclusive lock:
//    the control file is emptied, the real shell runs LINE, and whatever it
//    left in the control file is appended to /proc/world/ctrl.log. Each
//    command rewrites the control file, so this is how every line the kernel
//    module would have received is kept, in order;
//  - everything then runs in the real shell, bound at /proc/world/real-sh.
//
// Records escape bytes below 0x20 and 0x7F as \xHH, so one record is one line.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

namespace {

constexpr const char* REAL_SH = "/proc/world/real-sh";
constexpr const char* COMMANDS_LOG = "/proc/world/commands.log";
constexpr const char* CTRL_LOG = "/proc/world/ctrl.log";
constexpr const char* CTRL_LOCK = "/proc/world/ctrl.lock";
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

std::string read_ctrl() {
    std::string out;
    fd_owner f(open(CTRL_FILE, O_RDONLY | O_CLOEXEC));
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

[[noreturn]] void exec_real(char** argv) {
    execv(REAL_SH, argv);
    std::fprintf(stderr, "world_sh: cannot run %s: %s\n", REAL_SH, std::strerror(errno));
    _exit(127);
}

// Runs the real shell as a child with the control file to itself, then
// keeps what the command wrote there.
int run_recording_ctrl(char** argv) {
    fd_owner lock(open(CTRL_LOCK, O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (lock.fd >= 0) flock(lock.fd, LOCK_EX);
    if (access(CTRL_FILE, F_OK) == 0) {
        int t = truncate(CTRL_FILE, 0);
        (void)t;
    }
    pid_t pid = fork();
    if (pid < 0) return 127;
    if (pid == 0) exec_real(argv);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    std::string written = read_ctrl();
    if (!written.empty()) {
        if (written.back() == '\n') written.pop_back();
        append_record(CTRL_LOG, written);
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
    if (!line.empty()) append_record(COMMANDS_LOG, line);
    if (line.find(std::string("> ") + CTRL_FILE) != std::string::npos) {
        // Leaves without exit handlers: an exit-time leak scan of a
        // sanitizer build would look for this process in the world's /proc,
        // which lists only the service.
        _exit(run_recording_ctrl(argv));
    }
    exec_real(argv);
}
