#include "qmx_db.h"

#include <cjson/cJSON.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>

#include "log.h"
#include "qmxsrv_ctx.h"
#include "stats.h"
#include "util/c_ptr.h"
#include "util/clock.h"
#include "util/timing.h"
#include "zor_ctrl.h"

struct verdict_entry : hash_entry_t {
    // Immutable after insertion.
    std::string key_store;      // owned copy of the key text
    const char* key = nullptr;  // key_store's text; the caller's text in a lookup probe
    size_t key_len = 0;
    uint32_t type = 0;
    uint32_t bucket = 0;  // index of the bucket whose lock covers the fields below

    // Covered by the bucket lock.
    int32_t group = 0;
    int32_t sub_group = 0;
    int32_t ttl = 0;     // seconds
    uint32_t flags = 0;  // bit 0: a query was decided; bit 1: never set here
    int32_t seen_time = 0;
    int32_t query_time = 0;
    int32_t verdict_time = 0;
};

namespace {

constexpr uint32_t kBuckets = 512;
constexpr uint32_t kBucketsPerPass = 200;
constexpr int32_t kDefaultCapacity = 2000;
// The cleaner ages entries out by their idle time, at most a pass over 200
// buckets every 5 s, so a flood of new keys would grow the cache by its rate
// times half a minute or more. Beyond this many times the capacity no key is
// added (an entry costs about 150 bytes); the kernel reports it again.
constexpr int64_t kHardCapFactor = 8;
constexpr int64_t kRequeryAge = 86401;

struct cache_state {
    std::mutex lock;  // the cache mutex: cleaner wait, db_wake, cursor, thread handle
    std::condition_variable cond;
    bool wake = false;      // covered by lock
    uint32_t cursor = 0;    // covered by lock
    std::thread cleaner;    // covered by lock (started by init, joined by release)
    std::atomic<bool> running{false};  // written under lock, read anywhere
    std::atomic<hash_t*> table{nullptr};
};

cache_state& state() {
    static cache_state s;
    return s;
}

int32_t now() { return static_cast<int32_t>(clock_now()); }

const verdict_entry* as_entry(const void* item) {
    return static_cast<const verdict_entry*>(static_cast<const hash_entry_t*>(item));
}

uint32_t entry_hash(const void* item) { return hash_string(as_entry(item)->key); }

int entry_equal(const void* key, const void* stored) {
    const verdict_entry* a = as_entry(key);
    const verdict_entry* b = as_entry(stored);
    return a->type == b->type && a->key_len == b->key_len &&
           memcmp(a->key, b->key, a->key_len) == 0;
}

void entry_free(void* item) { delete static_cast<verdict_entry*>(static_cast<hash_entry_t*>(item)); }

// A lookup key shaped like an entry, pointing at the caller's text.
verdict_entry make_probe(uint32_t type, const char* key) {
    verdict_entry probe;
    probe.type = type;
    probe.key = key;
    probe.key_len = strlen(key);
    return probe;
}

std::mutex& bucket_lock(const verdict_entry* e) {
    return state().table.load()->buckets[e->bucket]->lock;
}

int32_t age_since(int32_t then, int32_t at) {
    return then < at ? static_cast<int32_t>(static_cast<int64_t>(at) - then) : 0;
}

// Idle age beyond which an unused entry goes, by fill percentage.
int32_t max_idle_for(int64_t fill) {
    if (fill < 71) return 86400;
    if (fill <= 80) return 300;
    if (fill <= 90) return 150;
    return 30;
}

bool is_stale(const verdict_entry* e, int32_t at, int32_t max_idle) {
    if (e->refs != 0) return false;
    if (age_since(e->seen_time, at) > max_idle) return true;
    return (e->flags & 2u) != 0 && age_since(e->verdict_time, at) > e->ttl;
}

// One pass over kBucketsPerPass buckets; the cache mutex is held.
void clean_pass_locked(cache_state& s) {
    hash_t* table = s.table.load();
    if (!table) return;
    int32_t capacity = qmxsrv_ctx.db_capacity > 0 ? qmxsrv_ctx.db_capacity : kDefaultCapacity;
    int64_t fill = static_cast<int64_t>(hash_count(table)) * 100 / capacity;
    int32_t max_idle = max_idle_for(fill);
    int32_t at = now();
    for (uint32_t i = 0; i < kBucketsPerPass; ++i) {
        uint32_t index = (s.cursor + i) % table->bucket_count;
        hash_visit_bucket(table, index, [&](hash_entry_t* h) {
            if (!is_stale(static_cast<verdict_entry*>(h), at, max_idle)) return 0;
            stat_add(g_stats.cache_aged_out);
            return 1;
        });
    }
    s.cursor = (s.cursor + kBucketsPerPass) % table->bucket_count;
}

void cleaner_main(std::chrono::milliseconds period) {
    cache_state& s = state();
    std::unique_lock<std::mutex> lk(s.lock);
    for (;;) {
        auto deadline = std::chrono::steady_clock::now() + period;
        s.cond.wait_until(lk, deadline, [&] { return !s.running.load() || s.wake; });
        s.wake = false;
        if (!s.running.load()) return;
        clean_pass_locked(s);
    }
}

int32_t clamp_seconds(int64_t seconds) {
    if (seconds > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
    if (seconds < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(seconds);
}

// Stores one member of a reply's "r" object when it is well formed and its
// key is already cached.
void store_member(const cJSON* member) {
    if (!cJSON_IsArray(member) || cJSON_GetArraySize(member) != 6 || member->string == nullptr) {
        return;
    }
    const cJSON* v[6];
    int n = 0;
    for (const cJSON* item = member->child; item && n < 6; item = item->next) v[n++] = item;
    if (n != 6) return;
    for (int i : {1, 3, 4, 5}) {
        if (!cJSON_IsNumber(v[i])) return;
    }
    int type = v[0]->valueint;
    int second = v[1]->valueint;
    int third = v[2]->valueint;
    int group = v[4]->valueint;
    int sub_group = v[5]->valueint;
    if (second >= 0x10000) return;
    int32_t ttl = clamp_seconds(static_cast<int64_t>(v[3]->valueint) * 3600);
    LOG_D("db add(%d,%d,%d,%d,%d,%d)", type, second, third, group, sub_group, ttl);

    const char* key = member->string;
    verdict_entry* e = db_find(static_cast<uint32_t>(type), key);
    if (!e) return;  // only keys the workers asked about are filled
    {
        std::lock_guard<std::mutex> g(bucket_lock(e));
        e->sub_group = sub_group;
        e->ttl = ttl;
        e->group = group;
        e->verdict_time = now();
    }
    if (group >= 0 && sub_group >= 0) stat_add(g_stats.verdicts_cloud);  // else not sent
    zor_notify_db_group(1, type, key, ttl, group, sub_group);
    db_put(e);
}

}  // namespace

int db_init() {
    cache_state& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    if (s.running.load()) return 0;
    if (!s.table.load()) {
        hash_t* table = hash_create(kBuckets, entry_hash, entry_equal, entry_free);
        if (!table) LOG_E("verdict cache: no memory for the table");
        s.table.store(table);
    }
    s.running.store(true);
    s.wake = false;
    try {
        s.cleaner = std::thread(cleaner_main, timing_get().cache_clean);
    } catch (const std::system_error& e) {
        LOG_E("verdict cache: cleaner not started: %s", e.what());
    }
    return 0;
}

void db_release() {
    LOG_D("_Hn3Vb8kTq2Lw5R_");
    cache_state& s = state();
    std::thread cleaner;
    {
        std::lock_guard<std::mutex> g(s.lock);
        if (!s.running.load()) return;
        s.running.store(false);
        cleaner = std::move(s.cleaner);
    }
    s.cond.notify_all();
    if (cleaner.joinable()) cleaner.join();
    hash_t* table = s.table.exchange(nullptr);
    hash_clear(table);
    hash_free(table);
}

void db_wake() {
    cache_state& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    if (!s.running.load()) return;
    s.wake = true;
    s.cond.notify_all();
}

verdict_entry* db_find(uint32_t type, const char* key) {
    hash_t* table = state().table.load();
    if (!table || !key) return nullptr;
    verdict_entry probe = make_probe(type, key);
    auto* e = static_cast<verdict_entry*>(hash_find(table, static_cast<hash_entry_t*>(&probe), 1));
    if (e) {
        std::lock_guard<std::mutex> g(bucket_lock(e));
        e->seen_time = now();
    }
    return e;
}

verdict_entry* db_get_or_add(uint32_t type, const char* key, int keep_ref) {
    hash_t* table = state().table.load();
    if (!table || !key) return nullptr;
    const int64_t capacity = qmxsrv_ctx.db_capacity > 0 ? qmxsrv_ctx.db_capacity : kDefaultCapacity;
    if (hash_count(table) >= capacity * kHardCapFactor) {
        verdict_entry* known = db_find(type, key);
        if (known && !keep_ref) db_put(known);
        return known;
    }
    std::unique_ptr<verdict_entry> fresh(new (std::nothrow) verdict_entry);
    if (!fresh) return nullptr;
    try {
        fresh->key_store = key;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    fresh->key = fresh->key_store.c_str();
    fresh->key_len = fresh->key_store.size();
    fresh->type = type;
    fresh->seen_time = now();
    fresh->bucket = hash_bucket_index(table, static_cast<hash_entry_t*>(fresh.get()));
    auto* stored = static_cast<verdict_entry*>(hash_get_or_add(table, fresh.get(), 1));
    if (stored == fresh.get()) {
        fresh.release();  // the table owns it now
        stat_add(g_stats.cache_added);
    }
    if (!keep_ref) hash_unref(table, stored);
    return stored;
}

void db_put(verdict_entry* entry) {
    hash_t* table = state().table.load();
    if (entry && table) hash_unref(table, entry);
}

int db_flag_bit1(const verdict_entry* entry) {
    if (!entry) return 0;
    std::lock_guard<std::mutex> g(bucket_lock(entry));
    return (entry->flags >> 1) & 1u;
}

int db_should_query(verdict_entry* e) {
    if (!e) return 0;
    std::lock_guard<std::mutex> g(bucket_lock(e));
    int32_t at = now();
    bool due;
    if ((e->flags & 1u) == 0) {
        due = true;  // never asked
    } else if ((e->flags & 2u) == 0 && e->query_time < at &&
               static_cast<int64_t>(at) - e->query_time >= kRequeryAge) {
        due = true;  // asked a day ago and still no verdict flag
    } else {
        // Deliberately verdict_time - now, not an age: a held verdict is not
        // asked for again while the clock runs forward.
        int32_t ahead = e->verdict_time > at
                            ? static_cast<int32_t>(static_cast<int64_t>(e->verdict_time) - at)
                            : 0;
        due = e->ttl < ahead;
    }
    if (due) {
        e->flags = 1;
        e->query_time = at;
    }
    return due ? 1 : 0;
}

int db_add_reply(const char* text) {
    if (!state().running.load()) return 40;
    if (!text || !*text) return 5;
    json_ptr root(cJSON_Parse(text));
    if (!root) {
        LOG_E("QMX_WRONG_JSON");
        return 3;
    }
    const cJSON* r =
        cJSON_IsObject(root.get()) ? cJSON_GetObjectItemCaseSensitive(root.get(), "r") : nullptr;
    if (!r) {
        LOG_E("response has no r key");
        return 0;
    }
    if (!cJSON_IsObject(r)) {
        LOG_E("response is not object");
        return 0;
    }
    for (const cJSON* member = r->child; member; member = member->next) store_member(member);
    return 0;
}

std::optional<std::string> db_show() {
    hash_t* table = state().table.load();
    if (!table) return std::nullopt;
    std::string out;
    for (uint32_t i = 0; i < table->bucket_count; ++i) {
        hash_visit_bucket(table, i, [&](hash_entry_t* h) {
            const auto* e = static_cast<const verdict_entry*>(h);
            char line[512];
            snprintf(line, sizeof line, "[%d]%s\n", static_cast<int>(e->type), e->key);
            out += line;
            return 0;
        });
    }
    if (out.empty()) return std::nullopt;
    return out;
}

db_verdict db_entry_verdict(const verdict_entry* entry) {
    if (!entry) return {};
    std::lock_guard<std::mutex> g(bucket_lock(entry));
    return {entry->ttl, entry->group, entry->sub_group};
}

uint32_t db_count() { return hash_count(state().table.load()); }

void db_clean_pass() {
    cache_state& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    clean_pass_locked(s);
}
