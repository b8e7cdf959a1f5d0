#include "sim_world.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/netlink.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "ipc_client.h"

namespace {

using namespace std::chrono_literals;

int decode(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

// Runs argv to its end, standard output and error appended to `out_path`;
// its exit status, or -1 when it could not start or did not end in time.
int run(const std::vector<std::string>& args, const std::string& out_path) {
    zor_test::service_process p;
    if (!p.start({.argv = args, .out = out_path, .append = true})) return -1;
    return p.wait_exit(kWorldWait).value_or(-1);
}

// Why root may not unicast to another socket's generic netlink port here.
std::string netlink_reason() {
    int rx = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC);
    int tx = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC);
    sockaddr_nl a{AF_NETLINK, 0, 0x7fe00000u + static_cast<uint32_t>(getpid() % 0xfffff), 0};
    char probe[20] = {20};
    std::string reason;
    if (rx < 0 || tx < 0 || bind(rx, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        sendto(tx, probe, sizeof probe, 0, reinterpret_cast<sockaddr*>(&a), sizeof a) < 0)
        reason = std::string("generic netlink unicast between sockets fails: ") + strerror(errno);
    for (int fd : {rx, tx})
        if (fd >= 0) close(fd);
    return reason;
}

}  // namespace

std::string service_binary() {
    const char* other = std::getenv("ZOR_E2E_SERVICE");
    return other && *other ? other : ZOR_E2E_SERVICE;
}

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
    if (squatter_ >= 0) close(squatter_);
    std::error_code ec;
    if (dir_.empty()) return;
    if (std::getenv("ZOR_E2E_KEEP")) fprintf(stderr, "sim_world: kept %s\n", dir_.c_str());
    else std::filesystem::remove_all(dir_, ec);
}

bool sim_world::start(const world_config& cfg, std::string& err, std::chrono::milliseconds slow) {
    if (dir_.empty()) return err = "no temporary directory", false;
    std::filesystem::create_directories(root());
    std::ofstream(root() + "/zor.ko") << "not a real module\n";
    std::string xdb = cfg.xdb;
    if (!cfg.categories.empty()) {
        xdb = dir_ + "/categories.xdb";
        if (!build_categories(cfg.categories, err)) return false;
    }
    std::ofstream ini(dir_ + "/zor.ini");
    ini << "[zor]\nauth_id = e2e-account\nauth_pwd = e2e-password\nhost = e2e-host\nproduct = e2e-product\n"
        << "root = " << root() << "\nwritable_root = " << dir_ << "/run\nserver = " << cfg.server
        << "\nlog_level = 6\n" << (xdb.empty() ? "" : "xdb = " + xdb + "\n")
        << (cfg.ctrl_shell ? "ctrl_shell = 1\n" : "")
        << (cfg.ca_file.empty() ? "" : "ca_file = " + cfg.ca_file + "\n") << cfg.extra_ini;
    ini.close();
    std::vector<std::string> args = {"/bin/bash", ZOR_E2E_WORLD_SCRIPT};
    for (const std::string& m : cfg.preloaded) args.insert(args.end(), {"-m", m});
    if (cfg.devlog) args.push_back("-L");
    args.insert(args.end(), {"-s", ZOR_E2E_WORLD_SHELL, dir_, cfg.service.empty() ? service_binary() : cfg.service,
                             "-i", dir_ + "/zor.ini", "-l", dir_ + "/log"});
    args.insert(args.end(), cfg.service_args.begin(), cfg.service_args.end());
    if (!service_.start({.argv = args, .out = dir_ + "/service.out", .append = true}))
        return err = "cannot start world.sh", false;
    port_ = static_cast<uint32_t>(pid());
    if (cfg.squat) {
        // Before the service opens its channel: world.sh has a namespace to
        // build first.
        squatter_ = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_GENERIC);
        sockaddr_nl a{AF_NETLINK, 0, port_, 0};
        if (squatter_ < 0 || bind(squatter_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
            return err = std::string("cannot squat the port: ") + strerror(errno), false;
    }
    // The service loads the module last: once zor is loaded, everything is up.
    bool up = zor_test::eventually([&] {
        auto m = lines_of("modules");
        return std::any_of(m.begin(), m.end(), [](auto& l) { return l.rfind("zor ", 0) == 0; }) ||
               wait_exit(0ms).has_value();
    }, slow);
    if (up && cfg.squat) {
        static const std::regex bound("netlink port ([0-9]+) bound instead of ([0-9]+)");
        std::smatch m;
        const std::string log = service_log();
        if (std::regex_search(log, m, bound) && m[2].str() == std::to_string(pid()))
            port_ = static_cast<uint32_t>(std::stoul(m[1].str()));
    }
    const std::optional<int> ended = service_.wait_exit(0ms);
    if (ended && !cfg.may_exit)
        err = "the service ended at start with status " + std::to_string(*ended) + "; its output: " +
              service_output();
    else if (!up)
        err = "the service did not load its module; its output: " + service_output();
    else if (cfg.session && kernsim({"announce"}) != 0)
        err = "kernsim announce failed: " + zor_test::read_file(dir_ + "/kernsim.out");
    else if (cfg.session && !wait_ctrl(port_line(), slow))
        err = "the service never told the kernel its port";
    // Keys sent before the login is held would be dropped with their batch.
    else if (cfg.session && !zor_test::eventually([&] { return logged_in(); }, slow))
        err = "no cloud login; the log:\n" + service_log();
    else
        return true;
    return false;
}

bool sim_world::build_categories(const std::string& source, std::string& err) const {
    std::ofstream(dir_ + "/categories.src") << source;
    const std::string next = dir_ + "/categories.xdb.new";
    if (run({ZOR_E2E_XDBC, "build", dir_ + "/categories.src", next}, dir_ + "/xdbc.out") != 0)
        return err = "xdbc failed: " + zor_test::read_file(dir_ + "/xdbc.out"), false;
    if (std::rename(next.c_str(), (dir_ + "/categories.xdb").c_str()) != 0)
        return err = std::string("cannot rename the category file: ") + strerror(errno), false;
    return true;
}

std::string sim_world::port_line() const {
    return "env server_port " + std::to_string(static_cast<int32_t>(port_));
}

bool sim_world::squatter_received() const {
    char b[64];
    return squatter_ >= 0 && recv(squatter_, b, sizeof b, MSG_DONTWAIT) >= 0;
}

std::vector<std::string> sim_world::lines_of(const std::string& name) const {
    std::vector<std::string> out;
    std::istringstream in(zor_test::read_file(dir_ + "/" + name));
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}
std::vector<std::string> sim_world::ctrl_lines() const {
    std::vector<std::string> out = lines_of("ctrl.log"), now = lines_of("zor/ctrl");
    out.insert(out.end(), now.begin(), now.end());
    return out;
}

std::string sim_world::service_log() const { return zor_test::read_file(dir_ + "/log/zorsrv.log"); }
std::string sim_world::service_output() const { return zor_test::read_file(dir_ + "/service.out"); }
size_t sim_world::ctrl_count(const std::string& prefix) const {
    auto lines = ctrl_lines();
    return std::count_if(lines.begin(), lines.end(), [&](auto& l) { return l.rfind(prefix, 0) == 0; });
}

long sim_world::rss_anon_kb() const {
    std::ifstream status("/proc/" + std::to_string(pid()) + "/status");
    long kb = -1;
    for (std::string name; status >> name;)
        if (name == "RssAnon:" && status >> kb) break;
    return kb;
}

bool sim_world::wait_ctrl(const std::string& line, std::chrono::milliseconds timeout) const {
    return zor_test::eventually([&] {
        auto lines = ctrl_lines();
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }, timeout);
}

int sim_world::kernsim(const std::vector<std::string>& args) const {
    std::vector<std::string> argv = {ZOR_E2E_KERNSIM, "-p", std::to_string(port_), "-w", "5"};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv, dir_ + "/kernsim.out");
}

int sim_world::zorctl(const std::vector<std::string>& args) const {
    std::vector<std::string> argv = {ZOR_E2E_ZORCTL, "-i", dir_ + "/zor.ini", "-t", "10"};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv, dir_ + "/zorctl.out");
}

int sim_world::zorctl_as(uid_t uid, const std::vector<std::string>& args) const {
    std::vector<std::string> words = {ZOR_E2E_ZORCTL, "-s", dir_ + "/run/.ipc.socket", "-t", "10"};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (const std::string& a : words) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const int out = open((dir_ + "/zorctl.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        // System calls only: the test process runs threads.
        if (dup2(out, STDOUT_FILENO) < 0 || dup2(out, STDERR_FILENO) < 0 || setgroups(0, nullptr) != 0 ||
            setgid(uid) != 0 || setuid(uid) != 0)
            _exit(126);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out);
    int status = 0;
    while (pid > 0 && waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return -1;
    return pid > 0 ? decode(status) : -1;
}

bool sim_world::logged_in() const {
    auto out = zorctl({"--json", "status"}) == 0 ? lines_of("zorctl.out") : std::vector<std::string>{};
    return !out.empty() && out.back().find("\"logged_in\":true") != std::string::npos;
}

std::optional<std::string> sim_world::ipc_raw(const std::string& bytes, std::chrono::milliseconds wait,
                                              bool half_close, size_t chunk) const {
    zor_test::ipc_socket conn(dir_ + "/run/.ipc.socket");
    const int fd = conn.fd();
    if (!conn.ok()) return std::nullopt;
    for (size_t off = 0; off < bytes.size();) {
        ssize_t n = send(fd, bytes.data() + off, std::min(chunk ? chunk : bytes.size(), bytes.size() - off), MSG_NOSIGNAL);
        if (n <= 0) break;  // the service may close early: that is its right
        off += static_cast<size_t>(n);
        if (chunk > 0) std::this_thread::sleep_for(20ms);
    }
    if (half_close) shutdown(fd, SHUT_WR);
    const long ms = std::max<long>(wait.count(), 1);
    timeval tv{ms / 1000, ms % 1000 * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    std::string reply;
    char buf[1024];
    for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0;) reply.append(buf, static_cast<size_t>(n));
    return reply;
}

std::optional<int> sim_world::wait_exit(std::chrono::milliseconds timeout) { return service_.wait_exit(timeout); }

std::optional<int> sim_world::stop() { return service_.stop(5s); }

std::string ipc_request_bytes(int32_t cmd, int32_t type, const std::string& text) {
    const ipc_request r = zor_test::make_request(cmd, text, type);
    return std::string(reinterpret_cast<const char*>(&r), sizeof r);
}

void world_test::SetUp() {
    std::string why = sim_world::unsupported_reason();
    if (!why.empty()) GTEST_SKIP() << "no simulated world here: " << why;
    ASSERT_TRUE(cloud.start(&why)) << why;
}

testing::AssertionResult world_test::start(sim_world& world, world_config cfg, std::chrono::milliseconds slow) {
    cfg.server = cloud.address();
    if (cfg.ca_file.empty() && !cfg.system_trust) {
        cfg.ca_file = world.dir() + "/cloud.pem";
        if (!cloud.save_certificate(cfg.ca_file)) return testing::AssertionFailure() << "cannot write " << cfg.ca_file;
    }
    std::string err;
    if (world.start(cfg, err, slow)) return testing::AssertionSuccess();
    return testing::AssertionFailure() << err;
}
