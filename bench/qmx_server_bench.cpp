// Events per second through the event workers: the netlink handler (u2k and
// queueing) on the benchmark thread, the event worker on its own, with the
// command runner replaced by a no-op so only the service's own work counts.
// Three kinds of report: keys the category file knows, keys the verdict
// cache knows, and keys nobody knows (a cache entry and a pending query
// each; every 50th report carries flag bit 0 so the sender drains the
// pending keys, dropping them as the cloud is disabled). One more run of the
// cache hits lets the real shell run the command lines, which is what bounds
// the rate in service.
//
// Run: build/bench/qmx_server_bench
// The category file of the first kind is compiled with the xdbc library.
#include <benchmark/benchmark.h>
#include <unistd.h>

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
#include "xdb.h"
#include "xdb_reference.h"

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

// Starts the cache and the workers with a no-op runner; stops them at the end.
class world {
public:
    explicit world(bool real_shell = false) {
        cmd_runner noop;
        noop.run = [](const std::string&) { return 0; };
        noop.capture = [](const std::string&) -> std::optional<std::string> { return ""; };
        if (!real_shell) cmd_set_runner(noop);
        qmxsrv_ctx.pid = getpid();
        qmxsrv_ctx.cloud_enabled = 0;
        qmxsrv_ctx.db_capacity = 2000;
        db_set_clean_interval(std::chrono::hours(1));
        (void)db_init();
        ok_ = qmx_srv_start() == 1;
    }
    ~world() {
        qmx_srv_release();
        db_release();
        cmd_reset_runner();
    }
    bool ok() const { return ok_; }

private:
    bool ok_ = false;
};

// Feeds `events` in batches the queue can hold and waits for the worker.
void feed(benchmark::State& state, const std::vector<raw_event>& events, bool reset_cache) {
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
        feed(state, events, false);
    }
    xdb_release();
}
BENCHMARK(BM_CategoryFileHit)->UseRealTime();

void BM_CacheHit(benchmark::State& state) {
    world w(state.range(0) != 0);
    if (!w.ok()) return state.SkipWithError("workers did not start");
    std::vector<raw_event> events;
    for (int i = 0; i < kKeySpace; ++i) {
        std::string key = "host" + std::to_string(i) + ".cached.example";
        db_put(db_get_or_add(20, key.c_str(), 1));
        events.push_back(make_event(20, key, 0));
    }
    feed(state, events, false);
}
// Argument 1: the real shell runs every line (u2k and the verdict, each a
// /bin/sh whose guard fails here as no module is loaded), for comparison.
BENCHMARK(BM_CacheHit)->Arg(0)->UseRealTime();
BENCHMARK(BM_CacheHit)->Arg(1)->Iterations(3)->UseRealTime();

void BM_Miss(benchmark::State& state) {
    world w;
    if (!w.ok()) return state.SkipWithError("workers did not start");
    std::vector<raw_event> events;
    for (int i = 0; i < kKeySpace; ++i) {
        std::string key = "host" + std::to_string(i) + ".unknown.example";
        events.push_back(make_event(20, key, i % 50 == 49 ? 1u : 0u));
    }
    feed(state, events, true);
}
BENCHMARK(BM_Miss)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
