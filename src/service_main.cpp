// The body of zor_service: command line, configuration, optional daemon
// start, the subsystems of kSubsystems in table order, the kernel module,
// then a wait loop that ends in service_shutdown(), which walks the same
// table back.
//
// Signals only record their number. SIGTERM, SIGINT and SIGHUP are blocked
// from before the first thread starts, so every thread inherits the block
// and the main thread alone takes them, atomically unblocked inside its
// wait. SIGHUP asks for a reload (reload.h), which the main thread runs.
//
// The file's name ends in "main" so that its log lines carry the tag main/
// (log.h takes the four characters before the extension).
#include <getopt.h>
#ifdef __GLIBC__
#include <malloc.h>  // mallopt
#endif
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>

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
#include "reload.h"
#include "service_main.h"
#include "xdb.h"

namespace {

// Set by the signal handler, read by the wait loop: a lock-free atomic, the
// one kind of shared word a handler may store to.
std::atomic<int> stop_signal{0};
std::atomic<int> reload_signal{0};  // 1 once SIGHUP came, until the reload runs
static_assert(std::atomic<int>::is_always_lock_free);

struct entry_options {
    const char* ini = nullptr;      // -i
    const char* log_dir = nullptr;  // -l
    bool daemon = false;            // -d
};

void signal_handler(int signo) {
    if (signo == SIGTERM || signo == SIGKILL || signo == SIGINT) stop_signal.store(signo);
    if (signo == SIGHUP) reload_signal.store(1);
}

void install_signal_handlers() {
    struct sigaction sa = {};
    sa.sa_handler = signal_handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
    sigaction(SIGKILL, &sa, nullptr);  // refused by the system; harmless
    sigaction(SIGPIPE, &sa, nullptr);
    signal(SIGINT, signal_handler);
    signal(SIGPIPE, SIG_IGN);
}

// The signals only the main thread takes, in its wait.
constexpr int kWaitSignals[] = {SIGTERM, SIGINT, SIGHUP};

// Blocks kWaitSignals; returns the mask to wait with (them unblocked).
sigset_t block_wait_signals() {
    sigset_t blocked, previous;
    sigemptyset(&blocked);
    for (int signo : kWaitSignals) sigaddset(&blocked, signo);
    sigprocmask(SIG_BLOCK, &blocked, &previous);
    for (int signo : kWaitSignals) sigdelset(&previous, signo);
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

// The start calls, each as its module defines it; main() walks them in the
// table below.

// Log files only with -l, the syslog copy only with syslog = 1; the start
// lines go out either way (with neither they are dropped).
int start_log(const entry_options& o) {
    if (o.log_dir) log_init(o.log_dir, "zorsrv");
    if (qmxsrv_ctx.log_syslog) log_set_syslog(1);
    log_set_level(qmxsrv_ctx.log_level);
    log_start_lines();
    return 0;
}

int start_category_file(const entry_options&) {
    return qmxsrv_ctx.xdb ? xdb_init(qmxsrv_ctx.xdb->c_str()) : 0;
}

int start_transport(const entry_options&) {
    if (const int rc = qmx_curl_init(); rc != 0) return rc;
    qmx_curl_set_tls(qmxsrv_ctx.tls_verify != 0, opt_str(qmxsrv_ctx.ca_file));
    if (qmxsrv_ctx.tls_verify == 0) LOG_W("tls_verify = 0: the cloud's certificate is not checked");
    return 0;
}

int start_cipher(const entry_options&) {
    crypto_init();
    return 0;
}

int start_cache(const entry_options&) { return db_init(); }

int start_session(const entry_options&) {
    const qmxsrv_ctx_t& c = qmxsrv_ctx;
    return zor_init(opt_str(c.server), opt_str(c.product), opt_str(c.auth_id), opt_str(c.auth_pwd),
                    opt_str(c.host));
}

int start_workers(const entry_options&) { return qmx_srv_start(); }
int start_commands(const entry_options&) { return ipc_srv_start(); }

// How a start call tells success from failure.
enum class start_result {
    one_is_ok,          // 1 started, 0 failed
    zero_is_ok,         // 0 loaded, -1 failed
    zero_or_curl_code,  // 0 ready, else a libcurl code
    cannot_fail,        // always 0
};

// The one place where those conventions are read.
bool started(start_result convention, int rc) {
    switch (convention) {
        case start_result::one_is_ok: return rc != 0;
        case start_result::zero_is_ok:
        case start_result::zero_or_curl_code: return rc == 0;
        case start_result::cannot_fail: return true;
    }
    return false;
}

enum class on_failure {
    shutdown,  // release everything, status 1
    exit_now,  // status 1 at once, nothing released
};

enum class release_at {
    reverse_of_start,  // its stop runs in the reverse walk of the table
    after_all,         // its stop runs after every other one
};

struct subsystem {
    const char* name;
    int (*start)(const entry_options&);  // null: started elsewhere (see its row)
    start_result convention;
    const char* failure_text;  // logged at E when the start fails; null: nothing
    on_failure failure;
    void (*stop)();  // null: nothing to release; safe unstarted and twice
    release_at release;
};

// Start-up runs down this table; shutdown runs back up it, then the
// after_all rows. Every stop is called on every shutdown, also after a
// partial start, because each one is safe when its subsystem never started.
constexpr subsystem kSubsystems[] = {
    // Loaded by main() before the stale-socket check and the daemon start.
    {"service context", nullptr, start_result::cannot_fail, nullptr, on_failure::shutdown,
     qmxsrv_ctx_release, release_at::reverse_of_start},
    {"logging", start_log, start_result::cannot_fail, nullptr, on_failure::shutdown, log_release,
     release_at::reverse_of_start},
    // A category file that does not load ends the process at once.
    {"category file", start_category_file, start_result::zero_is_ok, "Faild to load xdb!",
     on_failure::exit_now, xdb_release, release_at::reverse_of_start},
    // Released last, not in reverse order: the transport goes when every
    // other subsystem is gone, so no request can still be in flight.
    {"HTTP transport", start_transport, start_result::zero_or_curl_code, "Faild to initialize CURL!",
     on_failure::shutdown, qmx_curl_release, release_at::after_all},
    {"payload cipher", start_cipher, start_result::cannot_fail, nullptr, on_failure::shutdown, nullptr,
     release_at::reverse_of_start},
    {"verdict cache", start_cache, start_result::cannot_fail, nullptr, on_failure::shutdown, db_release,
     release_at::reverse_of_start},
    // zor_init logs its own reasons.
    {"cloud session", start_session, start_result::one_is_ok, nullptr, on_failure::shutdown, zor_release,
     release_at::reverse_of_start},
    {"event workers", start_workers, start_result::one_is_ok, "Faild to start main server!",
     on_failure::shutdown, qmx_srv_release, release_at::reverse_of_start},
    // Started by the command that enables parental control; stopped right
    // after the command server, so no command can start it again.
    {"rule scheduler", nullptr, start_result::cannot_fail, nullptr, on_failure::shutdown, pctrl_sched_stop,
     release_at::reverse_of_start},
    {"command server", start_commands, start_result::one_is_ok, "Faild to start ipc server!",
     on_failure::shutdown, ipc_srv_stop, release_at::reverse_of_start},
};

// Releases every subsystem and ends the process.
[[noreturn]] void service_shutdown(int status) {
    LOG_I("Shutdown service...");
    for (auto s = std::rbegin(kSubsystems); s != std::rend(kSubsystems); ++s)
        if (s->stop && s->release == release_at::reverse_of_start) s->stop();
    for (const subsystem& s : kSubsystems)
        if (s.stop && s.release == release_at::after_all) s.stop();
    exit(status);
}

// Starts each subsystem in table order; the first failure ends the process.
void start_subsystems(const entry_options& o) {
    for (const subsystem& s : kSubsystems) {
        if (!s.start || started(s.convention, s.start(o))) continue;
        if (s.failure_text) LOG_E("%s", s.failure_text);
        if (s.failure == on_failure::exit_now) exit(1);
        service_shutdown(1);
    }
}

// `period` as the time-out of ppoll.
timespec wait_period(std::chrono::milliseconds period) {
    const auto s = std::chrono::duration_cast<std::chrono::seconds>(period);
    return {static_cast<time_t>(s.count()),
            static_cast<long>(std::chrono::nanoseconds(period - s).count())};
}

[[noreturn]] void wait_loop(const sigset_t& wait_mask, std::chrono::milliseconds period) {
    const timespec wait = wait_period(period);
    for (;;) {
        if (stop_signal.load() == 0 && reload_signal.load() == 0) ppoll(nullptr, 0, &wait, &wait_mask);
        if (stop_signal.load() != 0) service_shutdown(0);
        if (reload_signal.exchange(0) != 0) {
            std::string message;  // already logged
            (void)service_reload("SIGHUP", &message);
        }
        if (qmxsrv_ctx.running == 0) service_shutdown(0);
        if (qmxsrv_ctx.auth_invalid != 0) {
            kmod_unload_modules();
            service_shutdown(0);
        }
    }
}

}  // namespace

int zor_service_run(int argc, char** argv, const zor_timing& timing) {
    timing_set(timing);
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

    const sigset_t wait_mask = block_wait_signals();
    start_subsystems(opt);
    LOG_I("ZOR service start up");
    kmod_load();
    wait_loop(wait_mask, timing_get().stop_check);
}
