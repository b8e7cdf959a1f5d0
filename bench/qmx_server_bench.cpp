// Events per second through the event workers: the netlink handler
// (queueing) on the benchmark thread, the announcer (u2k) and the event
// worker on their own. Three kinds of report: keys the category file knows,
// keys the verdict cache knows, and keys nobody knows (a cache entry and a
// pending query each; every 50th report carries flag bit 0 so the sender
// drains the pending keys, dropping them as the cloud is disabled).
//
// Kernel commands go one of three ways: built as shell lines and given to a
// no-op command runner, so only the service's own work counts (all three
// kinds); written straight into a control file that is a regular file (the
// default channel; cache hits); or run by the real shell, into the same file
// (ctrl_shell = 1; cache hits).
//
// Run: build/bench/qmx_server_bench
// The category file of the first kind is compiled with the xdbc library.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "qmx_db.h"
#include "qmx_nlu.h"
#include "qmx_server.h"
#include "qmxsrv_ctx.h"
#include "util/cmd_runner.h"
#include "util/timing.h"
#include "xdb.h"
#include "xdb_reference.h"
#include "zor_ctrl.h"

namespace {

constexpr int kBatch = 1000;  // below the 1025-report queue, so nothing is dropped
// Distinct keys per kind: the cache's capacity, the size it is kept near in
// service (its 512 buckets then hold about four entries each).
constexpr int kKeySpace = 2000;

struct raw_event {
    nl_event ev;
    char data[256];
};

raw_event make_event(uint32_t type, const std::string& text, uint32_t flags) {
    raw_event r{};
    r.ev.flags = flags;
    r.ev.data_type = type;
    r.ev.data_len = type == 20 ? 256 : 40;
    memcpy(r.data, text.data(), std::min(text.size(), sizeof r.data - 1));
    return r;
}

// How kernel commands leave: a no-op runner, direct writes, real shells.
enum channel { kNoop = 0, kDirect = 1, kShell = 2 };

// Starts the cache and the workers with commands going the chosen way into
// a scratch control file; stops them and removes the file at the end.
class world {
public:
    explicit world(channel ch = kNoop) {
        cmd_runner noop;
        noop.run = [](const std::string&) { return 0; };
        noop.capture = [](const std::string&) -> std::optional<std::string> { return ""; };
        if (ch == kNoop) cmd_set_runner(noop);
        qmxsrv_ctx.ctrl_shell = ch == kDirect ? 0 : 1;
        int fd = mkstemp(ctrl_);
        if (fd >= 0) close(fd);
        zor_ctrl_set_file(ctrl_);
        qmxsrv_ctx.pid = getpid();
        qmxsrv_ctx.cloud_enabled = 0;
        qmxsrv_ctx.db_capacity = 2000;
        timing_set({.cache_clean = std::chrono::hours(1)});
        (void)db_init();
        ok_ = qmx_srv_start() == 1;
    }
    ~world() {
        qmx_srv_release();
        db_release();
        cmd_reset_runner();
        zor_ctrl_set_file("");
        qmxsrv_ctx.ctrl_shell = 0;
        unlink(ctrl_);
    }
    bool ok() const { return ok_; }
    // Bytes the module received so far.
    off_t received() const {
        struct stat st {};
        return stat(ctrl_, &st) == 0 ? st.st_size : -1;
    }
    // Commands the module received, in all: the file is emptied between
    // timed batches (it would grow by tens of MB a second), its lines
    // counted first.
    uint64_t commands() const { return emptied_ + count_lines(); }
    void empty_file() {
        emptied_ += count_lines();
        (void)truncate(ctrl_, 0);
    }
    void forget() {
        (void)truncate(ctrl_, 0);
        emptied_ = 0;
    }

private:
    char ctrl_[40] = "/tmp/qmx_server_bench_ctrl_XXXXXX";
    bool ok_ = false;
    uint64_t emptied_ = 0;

    uint64_t count_lines() const {
        std::ifstream in(ctrl_, std::ios::binary);
        uint64_t n = 0;
        char buf[1 << 16];
        while (in.read(buf, sizeof buf) || in.gcount() > 0)
            n += static_cast<uint64_t>(std::count(buf, buf + in.gcount(), '\n'));
        return n;
    }
};

// Feeds `events` in batches the queue can hold and waits for the worker.
void feed(benchmark::State& state, world& w, const std::vector<raw_event>& events, bool reset_cache) {
    size_t next = 0;
    for (auto _ : state) {
        const uint64_t target = qmx_srv_finished_events() + kBatch;
        for (int i = 0; i < kBatch; ++i) {
            qmx_srv_handle_event(&events[next].ev);
            next = (next + 1) % events.size();
        }
        // Polled with short sleeps: spinning would take a core from the worker.
        while (qmx_srv_finished_events() < target) std::this_thread::sleep_for(std::chrono::microseconds(20));
        if (reset_cache && next < static_cast<size_t>(kBatch)) {
            // Misses stay misses: the key space starts over with an empty cache.
            state.PauseTiming();
            qmx_srv_release();
            db_release();
            (void)db_init();
            if (qmx_srv_start() != 1) state.SkipWithError("workers did not restart");
            state.ResumeTiming();
        }
        if (w.received() > (64 << 20)) {
            state.PauseTiming();
            w.empty_file();
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

// Loads a category file with one domain rule and one address network.
bool load_category_file() {
    std::string error;
    const std::vector<uint8_t> image = xdbref::build_source(".cat.example 0x1234\n10.20.0.0/16 0x5678\n", error);
    if (image.empty()) return false;
    char path[] = "/tmp/qmx_server_bench_XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) return false;
    close(fd);
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(image.data()), static_cast<std::streamsize>(image.size()));
    bool ok = xdb_init(path) == 0;
    unlink(path);
    return ok;
}

void BM_CategoryFileHit(benchmark::State& state) {
    if (!load_category_file()) return state.SkipWithError("category file not loaded");
    {
        world w;
        if (!w.ok()) return state.SkipWithError("workers did not start");
        std::vector<raw_event> events;
        for (int i = 0; i < kKeySpace; ++i) {
            if (i % 2 == 0) {
                events.push_back(make_event(20, "host" + std::to_string(i) + ".cat.example", 0));
            } else {
                events.push_back(make_event(
                    21, "10.20." + std::to_string(i / 256 % 256) + "." + std::to_string(i % 256), 0));
            }
        }
        feed(state, w, events, false);
    }
    xdb_release();
}
BENCHMARK(BM_CategoryFileHit)->UseRealTime();

// Cache hits with a stored verdict, so every report sends a u2k and an
// update; with direct writes the module must have received both for every
// report, or the benchmark fails instead of reporting a rate.
void BM_CacheHit(benchmark::State& state) {
    const auto ch = static_cast<channel>(state.range(0));
    world w(ch);
    if (!w.ok()) return state.SkipWithError("workers did not start");
    std::vector<raw_event> events;
    for (int i = 0; i < kKeySpace; ++i) {
        std::string key = "host" + std::to_string(i) + ".cached.example";
        db_put(db_get_or_add(20, key.c_str(), 1));
        events.push_back(make_event(20, key, 0));
    }
    const char* verdict = R"({"r":{"host0.cached.example":[20,1,0,1,3,4]}})";
    if (db_add_reply(verdict) != 0) return state.SkipWithError("no verdict stored");
    for (int i = 1; i < kKeySpace; ++i) {
        std::string reply = R"({"r":{"host)" + std::to_string(i) + R"(.cached.example":[20,1,0,1,3,4]}})";
        (void)db_add_reply(reply.c_str());
    }
    w.forget();
    feed(state, w, events, false);
    // Each shell line replaces the file's content (">"), so only the direct
    // channel's count is checked.
    const uint64_t want = 2 * static_cast<uint64_t>(state.iterations()) * kBatch;
    if (ch == kDirect && w.commands() != want)
        state.SkipWithError(("the module received " + std::to_string(w.commands()) + " commands, not " +
                             std::to_string(want)).c_str());
}
// The no-op runner (lines built, nothing run), direct writes to a regular
// file, and the real shell per line (u2k and the verdict each a /bin/sh).
BENCHMARK(BM_CacheHit)->Arg(kNoop)->UseRealTime();
BENCHMARK(BM_CacheHit)->Arg(kDirect)->UseRealTime();
BENCHMARK(BM_CacheHit)->Arg(kShell)->Iterations(3)->UseRealTime();

void BM_Miss(benchmark::State& state) {
    world w;
    if (!w.ok()) return state.SkipWithError("workers did not start");
    std::vector<raw_event> events;
    for (int i = 0; i < kKeySpace; ++i) {
        std::string key = "host" + std::to_string(i) + ".unknown.example";
        events.push_back(make_event(20, key, i % 50 == 49 ? 1u : 0u));
    }
    feed(state, w, events, true);
}
BENCHMARK(BM_Miss)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
