#include "service_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "test_util.h"

extern char** environ;

namespace zor_test {

namespace {

int decode(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

// `program` as execve needs it: a name without a slash is looked up on `path`.
std::string resolve(const std::string& program, const std::string& path) {
    if (program.find('/') != std::string::npos) return program;
    size_t begin = 0;
    for (size_t end; begin <= path.size(); begin = end + 1) {
        end = path.find(':', begin);
        if (end == std::string::npos) end = path.size();
        std::string candidate = (end > begin ? path.substr(begin, end - begin) : ".") + "/" + program;
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return program;
}

}  // namespace

std::vector<std::string> service_argv(const std::vector<std::string>& args) {
    std::vector<std::string> argv = program_argv(ZOR_SERVICE_PATH);
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

service_process::~service_process() { kill_now(); }

void service_process::kill_now() {
    if (!running()) return;
    kill(pid_, SIGKILL);
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0)
        if (errno != EINTR) return;
    status_ = decode(status);
}

bool service_process::start(const launch& how) {
    if (running() || how.argv.empty() || how.out.empty()) return false;
    pid_ = -1;
    status_.reset();
    // Everything the child needs is built here: the test runs threads, so the
    // child makes system calls only.
    const char* inherited = getenv("PATH");
    const std::string path = inherited ? inherited : "/usr/bin:/bin";
    const std::string search = how.path_first.empty() ? path : how.path_first + ":" + path;
    std::vector<std::string> env_words;
    for (char** e = environ; *e; ++e)
        if (strncmp(*e, "PATH=", 5) != 0) env_words.emplace_back(*e);
    env_words.push_back("PATH=" + search);
    std::vector<char*> envp, argv;
    for (std::string& w : env_words) envp.push_back(w.data());
    envp.push_back(nullptr);
    std::vector<std::string> words = how.argv;
    const std::string program = resolve(words[0], search);
    for (std::string& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    const int mode = O_WRONLY | O_CREAT | O_CLOEXEC | (how.append ? O_APPEND : O_TRUNC);
    const int out = open(how.out.c_str(), mode, 0644);
    const int err = how.err.empty() ? -1 : open(how.err.c_str(), mode, 0644);
    const int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    pid_t pid = -1;
    if (out >= 0 && in >= 0 && (how.err.empty() || err >= 0)) pid = fork();
    if (pid == 0) {
        if (dup2(in, STDIN_FILENO) < 0 || dup2(out, STDOUT_FILENO) < 0 ||
            dup2(err >= 0 ? err : out, STDERR_FILENO) < 0 || (!how.cwd.empty() && chdir(how.cwd.c_str()) != 0))
            _exit(121);
        execve(program.c_str(), argv.data(), envp.data());
        _exit(122);
    }
    for (int fd : {out, err, in})
        if (fd >= 0) close(fd);
    pid_ = pid;
    return pid_ > 0;
}

bool service_process::signal(int sig) const { return running() && kill(pid_, sig) == 0; }

std::optional<int> service_process::wait_exit(std::chrono::milliseconds timeout) {
    if (!status_ && pid_ > 0) {
        eventually([&] {
            int status = 0;
            pid_t r = waitpid(pid_, &status, WNOHANG);
            if (r == pid_) status_ = decode(status);
            return r == pid_ || (r < 0 && errno != EINTR);
        }, timeout);
    }
    return status_;
}

std::optional<int> service_process::stop(std::chrono::milliseconds grace) {
    if (!running()) return status_;
    kill(pid_, SIGTERM);
    if (auto s = wait_exit(grace)) return s;
    kill(pid_, SIGKILL);
    return wait_exit(grace);
}

}  // namespace zor_test
