// Entry point of zor_service: command line, configuration, optional daemon
// start, the subsystems in their fixed start order, the kernel module, then
// a wait loop that ends in service_shutdown().
//
// Signals only record their number. SIGTERM and SIGINT are blocked from
// before the first thread starts, so every thread inherits the block and the
// main thread alone takes them, atomically unblocked inside its wait.
#include <getopt.h>
#ifdef __GLIBC__
#include <malloc.h>  // mallopt
#endif
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "base64.h"
#include "ipc/ipc_server.h"
#include "kmod.h"
#include "log.h"
#include "main.h"
#include "pctrl/pctrl_scheduler.h"
#include "qmx_curl.h"
#include "qmx_db.h"
#include "qmx_server.h"
#include "qmx_zor.h"
#include "qmxsrv_ctx.h"
#include "xdb.h"

namespace {

constexpr timespec kWaitPeriod = {1, 0};

// Set by the signal handler, read by the wait loop: a lock-free atomic, the
// one kind of shared word a handler may store to.
std::atomic<int> stop_signal{0};
static_assert(std::atomic<int>::is_always_lock_free);

struct entry_options {
    const char* ini = nullptr;      // -i
    const char* log_dir = nullptr;  // -l
    bool daemon = false;            // -d
};

void signal_handler(int signo) {
    if (signo == SIGTERM || signo == SIGKILL || signo == SIGINT) stop_signal.store(signo);
}

void install_signal_handlers() {
    struct sigaction sa = {};
    sa.sa_handler = signal_handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGKILL, &sa, nullptr);  // refused by the system; harmless
    sigaction(SIGPIPE, &sa, nullptr);
    signal(SIGINT, signal_handler);
    signal(SIGPIPE, SIG_IGN);
}

// Blocks SIGTERM and SIGINT; returns the mask to wait with (them unblocked).
sigset_t block_stop_signals() {
    sigset_t stop, previous;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    sigprocmask(SIG_BLOCK, &stop, &previous);
    sigdelset(&previous, SIGTERM);
    sigdelset(&previous, SIGINT);
    return previous;
}

// Above 20000 becomes 20000, then below 2000 becomes 2000.
int32_t clamp_caches(int32_t n) {
    if (n > 20000) n = 20000;
    if (n < 2000) n = 2000;
    return n;
}

// A number with "%d"; the setting keeps its value when there is none.
void scan_int(const char* arg, int32_t* out) {
    int v = 0;
    if (sscanf(arg, "%d", &v) == 1) *out = v;
}

// False on any option getopt rejects (it has printed why).
bool parse_options(int argc, char** argv, entry_options* o) {
    int c;
    while ((c = getopt(argc, argv, "i:l:c:f:w:q:p:m:r:d")) != -1) {
        switch (c) {
            case 'i': o->ini = optarg; break;
            case 'l': o->log_dir = optarg; break;
            case 'c': caches = clamp_caches(atoi(optarg)); break;
            case 'f': scan_int(optarg, &flows); break;
            case 'w': ifwan = optarg; break;
            case 'q': scan_int(optarg, &qos); break;
            case 'p': scan_int(optarg, &pc); break;
            case 'm': scan_int(optarg, &cloud); break;
            case 'r': router_mode = atoi(optarg); break;
            case 'd': o->daemon = true; break;
            default: return false;
        }
    }
    return true;
}

void daemonize() {
    // Nothing buffered may be written twice by parent and child.
    fflush(stdout);
    fflush(stderr);
    if (fork() != 0) _exit(0);
    setsid();
    umask(0);
}

// A configured text, or null when the key was absent.
const char* opt_str(const std::optional<std::string>& s) {
    return s ? s->c_str() : nullptr;
}

void log_start_lines() {
    const qmxsrv_ctx_t& c = qmxsrv_ctx;
    LOG_D("server_url: %s", c.server->c_str());
    LOG_D("product: %s", c.product->c_str());
    LOG_D("acount: %s", c.auth_id->c_str());
    LOG_D("host: %s", c.host->c_str());
}

// Releases every subsystem in the fixed order and ends the process. Each
// release is safe whether or not its subsystem started.
[[noreturn]] void service_shutdown(int status) {
    LOG_I("Shutdown service...");
    ipc_srv_stop();
    pctrl_sched_stop();
    qmx_srv_release();
    zor_release();
    db_release();
    xdb_release();
    log_release();
    qmxsrv_ctx_release();
    qmx_curl_release();
    exit(status);
}

[[noreturn]] void wait_loop(const sigset_t& wait_mask) {
    for (;;) {
        if (stop_signal.load() == 0) ppoll(nullptr, 0, &kWaitPeriod, &wait_mask);
        if (stop_signal.load() != 0) service_shutdown(0);
        if (qmxsrv_ctx.running == 0) service_shutdown(0);
        if (qmxsrv_ctx.auth_invalid != 0) {
            kmod_unload_modules();
            service_shutdown(0);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    // One malloc arena for every thread. The threads allocate little, and
    // most blocks go from the thread that fills them to the one that uses
    // them, so per-thread arenas would only hold freed memory apart. Other C
    // libraries (musl) keep a single heap anyway.
#ifdef __GLIBC__
    mallopt(M_ARENA_MAX, 1);
#endif
    install_signal_handlers();

    entry_options opt;
    if (!parse_options(argc, argv, &opt)) return 1;
    if (!opt.ini) {
        fputs("usage: -i <ini file>\n", stderr);
        return 1;
    }
    if (!qmxsrv_ctx_load(opt.ini)) {
        fprintf(stderr, "Error to read %s\n", opt.ini);
        return 1;
    }
    // Checked before daemonising, so the operator sees the refusal.
    if (access(qmxsrv_ctx.ipc_socket, F_OK) == 0) {
        fprintf(stderr,
                "The previous operation maybe invalid. Please:\n1. killall zor_service\n2. remove %s\n",
                qmxsrv_ctx.ipc_socket);
        service_shutdown(1);
    }
    if (opt.daemon) daemonize();
    qmxsrv_ctx.pid = getpid();

    const sigset_t wait_mask = block_stop_signals();
    if (opt.log_dir) {
        log_init(opt.log_dir, "zorsrv");
        log_set_level(qmxsrv_ctx.log_level);
    }
    log_start_lines();

    // A category file that does not load ends the process at once.
    if (qmxsrv_ctx.xdb && xdb_init(qmxsrv_ctx.xdb->c_str()) != 0) {
        LOG_E("Faild to load xdb!");
        exit(1);
    }
    if (qmx_curl_init() != 0) {
        LOG_E("Faild to initialize CURL!");
        service_shutdown(1);
    }
    qmx_curl_set_tls(qmxsrv_ctx.tls_verify != 0, opt_str(qmxsrv_ctx.ca_file));
    if (qmxsrv_ctx.tls_verify == 0) LOG_W("tls_verify = 0: the cloud's certificate is not checked");
    crypto_init();
    db_init();
    if (!zor_init(opt_str(qmxsrv_ctx.server), opt_str(qmxsrv_ctx.product), opt_str(qmxsrv_ctx.auth_id),
                  opt_str(qmxsrv_ctx.auth_pwd), opt_str(qmxsrv_ctx.host)))
        service_shutdown(1);
    if (!qmx_srv_start()) {
        LOG_E("Faild to start main server!");
        service_shutdown(1);
    }
    if (!ipc_srv_start()) {
        LOG_E("Faild to start ipc server!");
        service_shutdown(1);
    }
    LOG_I("ZOR service start up");
    kmod_load();
    wait_loop(wait_mask);
}
