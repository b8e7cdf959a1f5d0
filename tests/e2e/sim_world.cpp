#include "sim_world.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace {

using namespace std::chrono_literals;

std::string slurp(const std::string& path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

int decode(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

// Spawns argv with standard output and error appended to `out_path`.
pid_t spawn(const std::vector<std::string>& args, const std::string& out_path) {
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, STDOUT_FILENO, out_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&fa, STDOUT_FILENO, STDERR_FILENO);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    return rc == 0 ? pid : -1;
}

// Runs argv to its end; its exit status, or -1 when it could not start.
int run(const std::vector<std::string>& args, const std::string& out_path) {
    pid_t pid = spawn(args, out_path);
    int status = 0;
    while (pid > 0 && waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return -1;
    return pid > 0 ? decode(status) : -1;
}

// Whether root may unicast to another socket's generic netlink port here.
std::string netlink_reason() {
    int rx = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC);
    int tx = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC);
    sockaddr_nl a{AF_NETLINK, 0, 0x7fe00000u + static_cast<uint32_t>(getpid() % 0xfffff), 0};
    char probe[20] = {20};
    std::string reason;
    if (rx < 0 || tx < 0)
        reason = std::string("generic netlink sockets are not available: ") + strerror(errno);
    else if (bind(rx, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
        reason = std::string("cannot bind a generic netlink socket: ") + strerror(errno);
    else if (sendto(tx, probe, sizeof probe, 0, reinterpret_cast<sockaddr*>(&a), sizeof a) < 0)
        reason = std::string("generic netlink unicast between sockets is refused: ") + strerror(errno);
    for (int fd : {rx, tx})
        if (fd >= 0) close(fd);
    return reason;
}

}  // namespace

// ZOR_E2E_SERVICE in the environment runs another build of the service.
const char* e2e_paths::service() {
    const char* other = std::getenv("ZOR_E2E_SERVICE");
    return other && *other ? other : ZOR_E2E_SERVICE;
}
const char* e2e_paths::kernsim() { return ZOR_E2E_KERNSIM; }
const char* e2e_paths::world_script() { return ZOR_E2E_WORLD_SCRIPT; }
const char* e2e_paths::world_shell() { return ZOR_E2E_WORLD_SHELL; }
const char* e2e_paths::zorctl() { return ZOR_E2E_ZORCTL; }
const char* e2e_paths::xdbc() { return ZOR_E2E_XDBC; }

std::string sim_world::unsupported_reason() {
    static const std::string reason = [] {
        if (geteuid() != 0) return std::string("the simulated world needs root");
        if (run({"/usr/bin/unshare", "-m", "--propagation", "private", "/bin/true"}, "/dev/null") != 0)
            return std::string("mount namespaces are not permitted here (unshare -m failed)");
        return netlink_reason();
    }();
    return reason;
}

sim_world::sim_world() {
    char tmpl[] = "/tmp/zor_e2e_XXXXXX";
    if (mkdtemp(tmpl)) dir_ = tmpl;
}

sim_world::~sim_world() {
    stop();
    std::error_code ec;
    if (dir_.empty()) return;
    if (std::getenv("ZOR_E2E_KEEP")) fprintf(stderr, "sim_world: kept %s\n", dir_.c_str());
    else std::filesystem::remove_all(dir_, ec);
}

bool sim_world::start(const world_config& cfg, std::string& err) {
    if (dir_.empty()) {
        err = "no temporary directory";
        return false;
    }
    std::filesystem::create_directories(root());
    std::ofstream(root() + "/zor.ko") << "not a real module\n";
    std::ofstream ini(dir_ + "/zor.ini");
    ini << "[zor]\nauth_id = e2e-account\nauth_pwd = e2e-password\nhost = e2e-host\nproduct = e2e-product\n"
        << "root = " << root() << "\nwritable_root = " << dir_ << "/run\nserver = " << cfg.server
        << "\nlog_level = 6\n";
    if (!cfg.xdb.empty()) ini << "xdb = " << cfg.xdb << "\n";
    for (const std::string& l : cfg.ini_lines) ini << l << "\n";
    ini.close();
    std::vector<std::string> args = {"/bin/bash", e2e_paths::world_script()};
    for (const std::string& m : cfg.preloaded) args.insert(args.end(), {"-m", m});
    args.insert(args.end(), {"-s", e2e_paths::world_shell(), dir_, e2e_paths::service(), "-i",
                             dir_ + "/zor.ini", "-l", dir_ + "/log"});
    args.insert(args.end(), cfg.service_args.begin(), cfg.service_args.end());
    if ((pid_ = spawn(args, dir_ + "/service.out")) < 0) {
        err = "cannot spawn world.sh";
        return false;
    }
    // The service loads the module last: once zor is loaded, everything is up.
    bool up = wait_for([&] {
        auto m = lines_of("modules");
        return std::any_of(m.begin(), m.end(), [](auto& l) { return l.rfind("zor ", 0) == 0; }) ||
               wait_exit(0ms).has_value();
    });
    if (status_ && !cfg.may_exit)
        err = "the service ended at start with status " + std::to_string(*status_) + "; its output: " +
              service_output();
    else if (!up)
        err = "the service did not load its module; its output: " + service_output();
    else
        return true;
    return false;
}

std::vector<std::string> sim_world::commands() const { return lines_of("commands.log"); }
std::vector<std::string> sim_world::ctrl_lines() const { return lines_of("ctrl.log"); }
std::vector<std::string> sim_world::lines_of(const std::string& name) const {
    std::vector<std::string> out;
    std::istringstream in(slurp(dir_ + "/" + name));
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}
std::string sim_world::service_log() const { return slurp(dir_ + "/log/zorsrv.log"); }
std::string sim_world::service_output() const { return slurp(dir_ + "/service.out"); }
bool sim_world::ctrl_file_exists() const {
    struct stat st;
    return stat((dir_ + "/zor/ctrl").c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool sim_world::wait_for(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    for (auto deadline = std::chrono::steady_clock::now() + timeout;; std::this_thread::sleep_for(20ms)) {
        if (done()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
    }
}

bool sim_world::wait_ctrl(const std::string& line, std::chrono::milliseconds timeout) const {
    return wait_for([&] {
        auto lines = ctrl_lines();
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }, timeout);
}

size_t sim_world::ctrl_count(const std::string& prefix) const {
    auto lines = ctrl_lines();
    return std::count_if(lines.begin(), lines.end(), [&](auto& l) { return l.rfind(prefix, 0) == 0; });
}

bool sim_world::wait_ctrl_count(const std::string& prefix, size_t n, std::chrono::milliseconds timeout) const {
    return wait_for([&] { return ctrl_count(prefix) >= n; }, timeout);
}

int sim_world::kernsim(const std::vector<std::string>& args) const {
    std::vector<std::string> argv = {e2e_paths::kernsim(), "-p", std::to_string(pid_), "-w", "5"};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv, dir_ + "/kernsim.out");
}

int sim_world::zorctl(const std::vector<std::string>& args) const {
    std::vector<std::string> argv = {e2e_paths::zorctl(), "-i", dir_ + "/zor.ini", "-t", "10"};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv, dir_ + "/zorctl.out");
}

int sim_world::xdbc_build(const std::string& source, const std::string& out) {
    return run({e2e_paths::xdbc(), "build", source, out}, out + ".log");
}

bool sim_world::announce(std::string& err) {
    if (int rc = kernsim({"announce"}); rc != 0)
        err = "kernsim announce failed with " + std::to_string(rc) + ": " + slurp(dir_ + "/kernsim.out");
    else if (!wait_ctrl("env server_port " + std::to_string(pid_)))
        err = "the service never told the kernel its port";
    else
        return true;
    return false;
}

std::optional<int> sim_world::wait_exit(std::chrono::milliseconds timeout) {
    if (!status_ && pid_ > 0) {
        wait_for([&] {
            int status = 0;
            pid_t r = waitpid(pid_, &status, WNOHANG);
            if (r == pid_) status_ = decode(status);
            return r == pid_ || (r < 0 && errno != EINTR);
        }, timeout);
    }
    return status_;
}

std::optional<int> sim_world::stop() {
    if (pid_ < 0 || status_) return status_;
    kill(pid_, SIGTERM);
    if (auto s = wait_exit(5s)) return s;
    kill(pid_, SIGKILL);
    return wait_exit(5s);
}
