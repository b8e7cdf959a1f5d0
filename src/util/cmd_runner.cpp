#include "util/cmd_runner.h"

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include <cerrno>
#include <mutex>

extern char** environ;

namespace {

std::mutex runner_lock;
cmd_runner installed;  // covered by runner_lock

// Owns a pipe's two ends.
struct pipe_fds {
    int fd[2] = {-1, -1};
    ~pipe_fds() {
        for (int f : fd)
            if (f >= 0) close(f);
    }
    void close_end(int i) {
        if (fd[i] >= 0) close(fd[i]);
        fd[i] = -1;
    }
    // A daemon may run with 0-2 closed, so pipe2 can hand out a standard
    // descriptor; the child's dup2 onto standard output and its closes would
    // then destroy the very end it writes to. Both ends are moved above 2.
    bool lift_above_std() {
        for (int& f : fd) {
            if (f > STDERR_FILENO) continue;
            int moved = fcntl(f, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
            if (moved < 0) return false;
            close(f);
            f = moved;
        }
        return true;
    }
};

int wait_child(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
}

#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
#define ZOR_HAVE_SPAWN_CLOSEFROM 1
#endif

#ifndef ZOR_HAVE_SPAWN_CLOSEFROM
// Marks every descriptor above standard error close-on-exec. The service
// opens all of its own so; this catches those a library opened without the
// flag (a resolver's socket pair). One opened between this scan and the
// spawn can still slip through: the C library's close-from action, where it
// exists, leaves no such gap.
void mark_all_cloexec() {
    DIR* d = opendir("/proc/self/fd");
    if (!d) return;
    while (dirent* e = readdir(d)) {
        char* end = nullptr;
        long fd = strtol(e->d_name, &end, 10);
        if (*end != '\0' || end == e->d_name || fd <= STDERR_FILENO || fd == dirfd(d)) continue;
        int flags = fcntl(static_cast<int>(fd), F_GETFD);
        if (flags >= 0 && !(flags & FD_CLOEXEC)) fcntl(static_cast<int>(fd), F_SETFD, flags | FD_CLOEXEC);
    }
    closedir(d);
}
#endif

// Spawns /bin/sh -c LINE; with out_fd >= 0 its standard output goes there.
// The shell gets standard input, output and error only: no other descriptor
// of the service, whoever opened it.
int spawn_shell(const std::string& line, int out_fd, int close_fd, pid_t* pid) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (out_fd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, out_fd);
        if (close_fd >= 0) posix_spawn_file_actions_addclose(&actions, close_fd);
    }
#if defined(__GLIBC__) && defined(ZOR_HAVE_SPAWN_CLOSEFROM)
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
#else
    mark_all_cloexec();
#endif
    // The child starts with default handlers and an empty mask, as a shell
    // started by system() would.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const char* argv[] = {"sh", "-c", line.c_str(), nullptr};
    int rc = posix_spawn(pid, "/bin/sh", &actions, &attr, const_cast<char**>(argv), environ);
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    return rc;
}

}  // namespace

int cmd_run_shell(const std::string& line) {
    pid_t pid = 0;
    if (spawn_shell(line, -1, -1, &pid) != 0) return -1;
    return wait_child(pid);
}

std::optional<std::string> cmd_capture_shell(const std::string& line) {
    pipe_fds p;
    if (pipe2(p.fd, O_CLOEXEC) != 0 || !p.lift_above_std()) return std::nullopt;
    pid_t pid = 0;
    if (spawn_shell(line, p.fd[1], p.fd[0], &pid) != 0) return std::nullopt;
    p.close_end(1);
    std::string out;
    char buf[512];
    for (;;) {
        ssize_t n = read(p.fd[0], buf, sizeof buf);
        if (n > 0) {
            out.append(buf, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            break;
        }
    }
    p.close_end(0);
    wait_child(pid);
    return out;
}

void cmd_set_runner(cmd_runner runner) {
    std::lock_guard<std::mutex> g(runner_lock);
    installed = std::move(runner);
}

void cmd_reset_runner() { cmd_set_runner({}); }

int cmd_run(const std::string& line) {
    std::function<int(const std::string&)> fn;
    {
        std::lock_guard<std::mutex> g(runner_lock);
        fn = installed.run;
    }
    return fn ? fn(line) : cmd_run_shell(line);
}

std::optional<std::string> cmd_capture(const std::string& line) {
    std::function<std::optional<std::string>(const std::string&)> fn;
    {
        std::lock_guard<std::mutex> g(runner_lock);
        fn = installed.capture;
    }
    return fn ? fn(line) : cmd_capture_shell(line);
}

std::string shell_escape_dq(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 8);
    for (char c : text) {
        if (c == '\\' || c == '"' || c == '$' || c == '`') out.push_back('\\');
        out.push_back(c);
    }
    return out;
}

bool has_control_bytes(std::string_view text) {
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7F) return true;
    }
    return false;
}
