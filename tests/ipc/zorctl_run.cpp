#include "zorctl_run.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

// Reads both pipes to their end (bounded by a 30 s silence).
void drain(int out_fd, int err_fd, zorctl_result* r) {
    pollfd fds[2] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}};
    int open_count = 2;
    char buf[4096];
    while (open_count > 0) {
        if (poll(fds, 2, 30000) <= 0) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                (i == 0 ? r->out : r->err).append(buf, static_cast<size_t>(n));
            } else {
                fds[i].fd = -1;
                --open_count;
            }
        }
    }
}

}  // namespace

zorctl_result run_zorctl(const std::vector<std::string>& args, const std::string& cwd) {
    zorctl_result r;
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return r;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return r;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    if (!cwd.empty()) posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
    std::string prog = ZORCTL_PATH;
    std::vector<std::string> copy = args;
    std::vector<char*> argv;
    argv.push_back(prog.data());
    for (auto& a : copy) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    int rc = posix_spawn(&pid, prog.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    if (rc == 0) {
        drain(out[0], err[0], &r);
        int status = 0;
        waitpid(pid, &status, 0);
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    close(out[0]);
    close(err[0]);
    return r;
}

json_ptr parse_one_object(const std::string& out) {
    const char* end = nullptr;
    json_ptr j(cJSON_ParseWithOpts(out.c_str(), &end, 0));
    if (!j || !cJSON_IsObject(j.get())) return nullptr;
    if (*end == '\n') ++end;
    return *end == '\0' ? std::move(j) : nullptr;
}

std::string json_str(const cJSON* j, const char* key) {
    const cJSON* m = cJSON_GetObjectItemCaseSensitive(j, key);
    return cJSON_IsString(m) ? m->valuestring : "<absent>";
}

int json_bool(const cJSON* j, const char* key) {
    const cJSON* m = cJSON_GetObjectItemCaseSensitive(j, key);
    return cJSON_IsBool(m) ? (cJSON_IsTrue(m) ? 1 : 0) : -1;
}
