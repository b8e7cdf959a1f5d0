// Verdict cache operations per second at its capacity of 2,000 entries
// (512 buckets, about four entries each), single thread:
// - db_find + db_put on cached keys (the event worker's cache hit);
// - db_find on unknown keys (its miss, before the insert);
// - db_get_or_add inserting 2,000 new keys into an empty cache;
// - db_add_reply importing cloud replies of 120 verdicts (the sender's batch)
//   for cached keys, each verdict written to the kernel through a no-op
//   command runner so only the cache's own work counts;
// - one cleaner pass (200 buckets) over a full cache that removes nothing.
// Keys are half domain names, half address texts, as the workers see them.
//
// Run: build/bench/qmx_db_bench
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "qmx_db.h"
#include "qmxsrv_ctx.h"
#include "util/cmd_runner.h"
#include "util/timing.h"

namespace {

constexpr int kEntries = 2000;
constexpr int kReplyBatch = 120;
constexpr uint32_t kTypeDomain = 20;
constexpr uint32_t kTypeAddr = 21;

struct key {
    uint32_t type;
    std::string text;
};

// `count` distinct keys from `seed`: even ones domain names, odd ones
// dotted addresses.
std::vector<key> make_keys(int count, uint32_t seed) {
    const char* const hosts[] = {"www", "cdn", "api", "img", "static", "m"};
    const char* const tlds[] = {"com", "net", "org", "io", "de"};
    std::vector<key> keys;
    keys.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        const uint32_t n = seed * 100003u + static_cast<uint32_t>(i);
        char text[64];
        if (i % 2 == 0) {
            std::snprintf(text, sizeof text, "%s.site%u.%s", hosts[n % 6], n, tlds[n % 5]);
            keys.push_back({kTypeDomain, text});
        } else {
            std::snprintf(text, sizeof text, "%u.%u.%u.%u", 10 + (n >> 24 & 0x7F), n >> 16 & 0xFF, n >> 8 & 0xFF,
                          n & 0xFF);
            keys.push_back({kTypeAddr, text});
        }
    }
    return keys;
}

// The cache started with a no-op runner taking the verdicts' kernel commands
// as shell lines (built, never run) and a cleaner that stays asleep (passes
// are run by hand); stopped and emptied at the end.
class cache {
public:
    cache() {
        cmd_runner noop;
        noop.run = [](const std::string&) { return 0; };
        noop.capture = [](const std::string&) -> std::optional<std::string> { return ""; };
        cmd_set_runner(noop);
        qmxsrv_ctx.ctrl_shell = 1;
        qmxsrv_ctx.db_capacity = kEntries;
        timing_set({.cache_clean = std::chrono::hours(1)});
        (void)db_init();
    }
    ~cache() {
        db_release();
        cmd_reset_runner();
        qmxsrv_ctx.ctrl_shell = 0;
    }
    static void restart() {
        db_release();
        (void)db_init();
    }
    static bool fill(const std::vector<key>& keys) {
        for (const key& k : keys) {
            if (!db_get_or_add(k.type, k.text.c_str(), 0)) return false;
        }
        return db_count() == keys.size();
    }
};

// Cloud replies naming every key once, kReplyBatch keys each.
std::vector<std::string> make_replies(const std::vector<key>& keys) {
    std::vector<std::string> replies;
    for (size_t at = 0; at < keys.size(); at += kReplyBatch) {
        std::string r = "{\"r\":{";
        for (size_t i = at; i < keys.size() && i < at + kReplyBatch; ++i) {
            char member[160];
            std::snprintf(member, sizeof member, "%s\"%s\":[%u,0,0,24,%zu,%zu]", i == at ? "" : ",",
                          keys[i].text.c_str(), keys[i].type, 1 + i % 40, i % 7);
            r += member;
        }
        replies.push_back(r + "}}");
    }
    return replies;
}

void BM_db_find_put_hit(benchmark::State& state) {
    cache c;
    const std::vector<key> keys = make_keys(kEntries, 1);
    if (!cache::fill(keys)) state.SkipWithError("fill failed");
    size_t found = 0;
    for (auto _ : state) {
        for (const key& k : keys) {
            verdict_entry* e = db_find(k.type, k.text.c_str());
            found += e != nullptr;
            db_put(e);
        }
    }
    if (found != static_cast<size_t>(state.iterations()) * keys.size()) state.SkipWithError("a cached key was not found");
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * keys.size()));
}

void BM_db_find_miss(benchmark::State& state) {
    cache c;
    const std::vector<key> cached = make_keys(kEntries, 1);
    const std::vector<key> unknown = make_keys(kEntries, 2);
    if (!cache::fill(cached)) state.SkipWithError("fill failed");
    size_t found = 0;
    for (auto _ : state) {
        for (const key& k : unknown) found += db_find(k.type, k.text.c_str()) != nullptr;
    }
    if (found != 0) state.SkipWithError("an unknown key was found");
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * unknown.size()));
}

void BM_db_get_or_add_insert(benchmark::State& state) {
    cache c;
    const std::vector<key> keys = make_keys(kEntries, 3);
    for (auto _ : state) {
        state.PauseTiming();
        cache::restart();
        state.ResumeTiming();
        for (const key& k : keys) benchmark::DoNotOptimize(db_get_or_add(k.type, k.text.c_str(), 0));
    }
    if (db_count() != keys.size()) state.SkipWithError("inserts lost");
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * keys.size()));
}

void BM_db_add_reply(benchmark::State& state) {
    cache c;
    const std::vector<key> keys = make_keys(kEntries, 4);
    const std::vector<std::string> replies = make_replies(keys);
    if (!cache::fill(keys)) state.SkipWithError("fill failed");
    for (auto _ : state) {
        for (const std::string& r : replies) {
            if (db_add_reply(r.c_str()) != 0) state.SkipWithError("reply refused");
        }
    }
    // The last import must have landed in the entries.
    verdict_entry* e = db_find(keys.back().type, keys.back().text.c_str());
    if (!e || db_entry_verdict(e).ttl != 24 * 3600) state.SkipWithError("reply not stored");
    db_put(e);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * keys.size()));
    state.counters["replies_per_second"] = benchmark::Counter(
        static_cast<double>(state.iterations() * replies.size()), benchmark::Counter::kIsRate);
}

void BM_db_clean_pass(benchmark::State& state) {
    cache c;
    const std::vector<key> keys = make_keys(kEntries, 5);
    if (!cache::fill(keys)) state.SkipWithError("fill failed");
    // At 100% fill idle entries go after 30 s; fresh ones stay.
    for (auto _ : state) db_clean_pass();
    if (db_count() != keys.size()) state.SkipWithError("the pass removed fresh entries");
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

}  // namespace

BENCHMARK(BM_db_find_put_hit);
BENCHMARK(BM_db_find_miss);
BENCHMARK(BM_db_get_or_add_insert);
BENCHMARK(BM_db_add_reply);
BENCHMARK(BM_db_clean_pass);

BENCHMARK_MAIN();
