#include "zorctl_run.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include "test_util.h"

extern char** environ;

zorctl_result run_zorctl(const std::vector<std::string>& args, const std::string& cwd) {
    zor_test::temp_dir dir;  // the two streams go to files here
    const std::string out = dir.file("out"), err = dir.file("err");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (!cwd.empty()) posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
    std::vector<std::string> words = zor_test::program_argv(ZORCTL_PATH);
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    zorctl_result r;
    pid_t pid = 0;
    int status = 0;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0 && waitpid(pid, &status, 0) == pid)
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    posix_spawn_file_actions_destroy(&actions);
    r.out = zor_test::read_file(out);
    r.err = zor_test::read_file(err);
    return r;
}
