#include "qmx_server.h"

#include <cjson/cJSON.h>
#include <inttypes.h>
#ifdef __GLIBC__
#include <malloc.h>  // malloc_trim
#endif

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <thread>

#include "cloud_link.h"
#include "log.h"
#include "qmx_db.h"
#include "qmx_nlu.h"
#include "qmxsrv_ctx.h"
#include "stats.h"
#include "util/c_ptr.h"
#include "util/clock.h"
#include "util/list.h"
#include "util/locked_queue.h"
#include "util/timing.h"
#include "xac.h"
#include "xdb.h"
#include "zor_ctrl.h"

namespace {

constexpr uint32_t kEventCap = 1025;   // queued reports; beyond it reports are dropped
constexpr int kBatchSize = 50;         // keys per cloud query
constexpr uint32_t kPendingCap = 4096; // keys waiting for a query
constexpr size_t kTrimAfterReply = 64 * 1024;  // replies larger than this are given back
constexpr uint32_t kTypeDomain = 20;
constexpr uint32_t kTypeAddr = 21;
constexpr uint32_t kTypeAddrAlt = 22;
constexpr uint32_t kDomainField = 256;
constexpr uint32_t kAddrField = 40;

// A report waiting for the announcer or the event worker; linked through its
// own node.
struct queued_event {
    list_node_t node;
    uint32_t flags = 0;
    uint32_t data_type = 0;
    uint32_t data_len = 0;
    uint64_t seq = 0;  // arrival order, from 1
    std::string text;  // the data field up to its first zero byte
};

// A key waiting for a cloud query; linked through its own node.
struct query_item {
    list_node_t node;
    int32_t data_type = 0;
    std::string key;
    int32_t zero1 = 0;  // travel with the key in the query, always 0
    int32_t zero2 = 0;
};

struct qmx_srv {
    std::atomic<bool> running{false};
    std::atomic<bool> abort_query{false};  // set by release: a cloud query in flight gives up
    nlu_ctx* nlu = nullptr;                // owned; closed by release

    locked_queue<query_item, &query_item::node> queries{kPendingCap};  // newest first
    std::thread sender_thread;

    // Reports go first to the announcer, which tells the kernel about each
    // one ("u2k") in arrival order and then hands it to the event worker.
    // The shell behind every command is slow; the netlink receive thread
    // only ever queues, so it never waits for one.
    locked_queue<queued_event, &queued_event::node> announce;  // oldest first
    std::thread announce_thread;

    locked_queue<queued_event, &queued_event::node> events;  // newest first
    std::thread event_thread;

    std::mutex trigger_lock;  // only for the trigger's sleep
    std::condition_variable trigger_cond;
    std::thread trigger_thread;
    std::chrono::milliseconds trigger_period{10000};  // immutable after start

    // Reports accepted and not yet taken by the event worker, wherever they
    // wait: the 1025 cap applies to this count. Only the receive thread adds.
    std::atomic<uint32_t> queued{0};
    std::atomic<uint64_t> received{0};  // reports handed over while running; numbers them
    std::atomic<uint64_t> finished{0};
};

std::atomic<qmx_srv*> g_srv{nullptr};

bool is_domain(uint32_t type, uint32_t len) { return type == kTypeDomain && len == kDomainField; }

bool is_address(uint32_t type, uint32_t len) {
    return (type == kTypeAddr || type == kTypeAddrAlt) && len == kAddrField;
}

// ---- event worker ----

// Tells the kernel the category the file gave the report's key.
void announce_match(qmx_srv* s, const queued_event& ev, const xdb_match& m) {
    const int group = static_cast<int>((m.id >> 8) & 0xFF);
    const int sub_group = static_cast<int>(m.id & 0xFF);
    LOG_D("  *match4 -> text: %s (%d), id:%d(%d, %d), match: %u / %d\n", ev.text.c_str(),
          static_cast<int>(ev.text.size()),
          static_cast<int>(m.id), group, sub_group, m.end, m.len);
    const uint32_t type = ev.data_type;
    if (s->running.load() && type >= kTypeDomain && type <= kTypeAddrAlt) {
        stat_add(g_stats.verdicts_category_file);
        zor_notify_db_group(2, static_cast<int>(type), ev.text.c_str(), 86400, group, sub_group);
    }
}

// Queues a cloud query for the key when the cache says one is due.
void queue_query(qmx_srv* s, const queued_event& ev, verdict_entry* e) {
    // A full list leaves the entry unmarked, so the key is asked for when the
    // kernel reports it again.
    if (s->queries.full()) return;
    if (!db_should_query(e) || !s->running.load()) return;
    std::unique_ptr<query_item> item(new (std::nothrow) query_item);
    if (!item) return;
    try {
        item->key = ev.text;
    } catch (const std::bad_alloc&) {
        return;
    }
    item->data_type = static_cast<int32_t>(ev.data_type);
    s->queries.push_front(std::move(item));
}

// Cache step: true when a stored verdict answered the report.
bool answer_from_cache(qmx_srv* s, const queued_event& ev) {
    const char* key = ev.text.c_str();
    verdict_entry* e = db_find(ev.data_type, key);
    if (e && db_flag_bit1(e) == 0) {
        db_verdict v = db_entry_verdict(e);
        if (v.group >= 0 && v.sub_group >= 0) stat_add(g_stats.verdicts_cache);  // else not sent
        zor_notify_db_group(1, static_cast<int>(ev.data_type), key, v.ttl, v.group, v.sub_group);
        db_put(e);
        return true;
    }
    if (!e) e = db_get_or_add(ev.data_type, key, 1);
    if (e) {
        queue_query(s, ev, e);
        db_put(e);
    }
    return false;
}

// Looks the report up; true when it asks for the pending keys to go out now
// (flag bit 0 on a report no verdict answered).
bool process_event(qmx_srv* s, const queued_event& ev) {
    const int64_t now = clock_now();
    const int type = static_cast<int>(ev.data_type);
    std::optional<xdb_match> m;
    bool known = true;
    if (is_domain(ev.data_type, ev.data_len)) {
        LOG_D("[%" PRId64 "] %d dn %s", now, type, ev.text.c_str());
        m = xdb_match_domain(ev.text.c_str(), ev.text.size());
    } else if (is_address(ev.data_type, ev.data_len)) {
        LOG_D("[%" PRId64 "] %d ip %s", now, type, ev.text.c_str());
        m = xdb_match_ipv4(ev.text.c_str());
    } else {
        known = false;
    }
    if (m) {
        announce_match(s, ev, *m);
        return false;
    }
    if (known && answer_from_cache(s, ev)) return false;
    return (ev.flags & 1u) != 0;
}

// True while a report that arrived before report `seq` still waits for the
// worker. The announcer hands reports over in arrival order, so when report
// `seq` is taken every earlier one is either done or in the list, the oldest
// at its tail.
bool earlier_waiting(qmx_srv* s, uint64_t seq) {
    return s->events.back_matches([seq](const queued_event& oldest) { return oldest.seq < seq; });
}

// Reports are taken newest first, so a flagged report may be looked up
// before reports that arrived ahead of it and whose keys it is meant to send.
// Its wake of the sender waits until none of those is left.
void event_main(qmx_srv* s) {
    LOG_D("Start thread: receive data from netlink");
    uint64_t flush_after = 0;  // newest flagged report whose wake is held; 0: none
    for (;;) {
        if (!s->events.wait_if_empty() || !s->running.load()) return;
        while (s->running.load()) {
            std::unique_ptr<queued_event> ev = s->events.pop_front();
            if (!ev) break;
            s->queued.fetch_sub(1);
            if (process_event(s, *ev)) flush_after = std::max(flush_after, ev->seq);
            s->finished.fetch_add(1);
            if (flush_after != 0 && !earlier_waiting(s, flush_after)) {
                flush_after = 0;
                if (s->running.load()) s->queries.wake();
            }
        }
    }
}

// ---- announcer ----

bool valid_report(const queued_event& ev) {
    return is_domain(ev.data_type, ev.data_len) || is_address(ev.data_type, ev.data_len);
}

void announce_main(qmx_srv* s) {
    for (;;) {
        if (!s->announce.wait() || !s->running.load()) return;
        while (s->running.load()) {
            std::unique_ptr<queued_event> ev = s->announce.pop_front();
            if (!ev) break;
            if (valid_report(*ev)) {
                stat_add(g_stats.u2k_lines);
                zor_notify_u2k(static_cast<int>(ev->data_type), ev->text.c_str());
            } else {
                stat_add(g_stats.reports_invalid);
            }
            s->events.push_front(std::move(ev));
            s->events.wake();
        }
    }
}

// ---- query sender ----

// Takes up to kBatchSize keys, newest first, into "q".
int take_batch(qmx_srv* s, cJSON* q) {
    int n = 0;
    while (n < kBatchSize) {
        std::unique_ptr<query_item> item = s->queries.pop_front();
        if (!item) break;
        cJSON* row = cJSON_CreateArray();
        if (!row) continue;
        cJSON_AddItemToArray(row, cJSON_CreateNumber(item->data_type));
        cJSON_AddItemToArray(row, cJSON_CreateString(item->key.c_str()));
        cJSON_AddItemToArray(row, cJSON_CreateNumber(item->zero1));
        cJSON_AddItemToArray(row, cJSON_CreateNumber(item->zero2));
        cJSON_AddItemToArray(q, row);
        ++n;
    }
    return n;
}

void send_batch(qmx_srv* s) {
    json_ptr root(cJSON_CreateObject());
    cJSON* q = root ? cJSON_AddArrayToObject(root.get(), "q") : nullptr;
    if (!q) return;
    int n = take_batch(s, q);
    // A disabled cloud or a session that is not ready drops the batch;
    // nothing is retried here.
    if (n == 0 || qmxsrv_ctx.cloud_enabled.load() == 0 || !cloud_ready()) return;
    json_text text(cJSON_PrintUnformatted(root.get()));
    if (!text) return;
    stat_add(g_stats.cloud_keys_asked, static_cast<uint64_t>(n));
    LOG_D("Send query: %s", text.get());
    size_t reply_size = 0;
    {
        std::optional<std::string> reply = cloud_query(text.get(), &s->abort_query);
        LOG_D("Query plain text: %s", reply ? reply->c_str() : "(null)");
        if (reply) {
            reply_size = reply->size();
            db_add_reply(reply->c_str());
        }
    }
    // A large reply leaves its parse tree's many small blocks free inside the
    // heap, where glibc's malloc would keep them for good; they go back at
    // once. Other C libraries (musl) return freed pages by themselves.
#ifdef __GLIBC__
    if (reply_size > kTrimAfterReply) malloc_trim(0);
#else
    (void)reply_size;
#endif
}

void sender_main(qmx_srv* s) {
    LOG_D("Start thread: send query to talvo");
    // The list was empty when the workers started: keys queued before this
    // thread first ran still wait for a wake, as if it had started at once.
    bool first = true;
    for (;;) {
        const bool go = first ? s->queries.wait() : s->queries.wait_if_empty();
        first = false;
        if (!go || !s->running.load()) return;
        send_batch(s);
    }
}

// ---- trigger ----

// Sleeps one period; false when the workers are stopping.
bool trigger_sleep(qmx_srv* s) {
    std::unique_lock<std::mutex> lk(s->trigger_lock);
    return !s->trigger_cond.wait_for(lk, s->trigger_period, [&] { return !s->running.load(); });
}

void trigger_main(qmx_srv* s) {
    LOG_D("Start thread: routine trigger to query worker per %d seconds",
          static_cast<int>(s->trigger_period.count() / 1000));
    if (!trigger_sleep(s)) return;
    LOG_D("[%" PRId64 "] trigger -> talvo query", clock_now());
    while (s->running.load()) {
        // Only while nothing is pending: kept as the product has always
        // behaved; pending keys go out on a flagged report instead.
        if (s->queries.size() == 0) s->queries.wake();
        if (!trigger_sleep(s)) return;
        LOG_D("[%" PRId64 "] trigger -> talvo query", clock_now());
    }
}

// ---- start and release ----

void join(std::thread& t) {
    if (t.joinable()) t.join();
}

// Stops everything the record holds, in order, and frees it.
void destroy(qmx_srv* s) {
    s->running.store(false);
    s->abort_query.store(true);
    nlu_close(s->nlu);  // no report is handed over after this
    s->nlu = nullptr;
    if (g_stats.reports_received.load() != 0) {
        LOG_I("netlink reports: %llu received, %llu dropped with the queue full",
              static_cast<unsigned long long>(g_stats.reports_received.load()),
              static_cast<unsigned long long>(g_stats.reports_dropped.load()));
    }
    const zor_ctrl_counts c = zor_ctrl_counters();
    if (c.refused + c.too_long + c.failed != 0) {
        LOG_I("kernel commands: %llu sent, %llu refused (words), %llu too long, %llu failed",
              static_cast<unsigned long long>(c.sent), static_cast<unsigned long long>(c.refused),
              static_cast<unsigned long long>(c.too_long), static_cast<unsigned long long>(c.failed));
    }
    s->announce.stop();
    join(s->announce_thread);
    s->events.stop();
    join(s->event_thread);
    {
        std::lock_guard<std::mutex> g(s->trigger_lock);  // a trigger about to sleep sees running
    }
    s->trigger_cond.notify_all();
    join(s->trigger_thread);
    s->queries.stop();
    join(s->sender_thread);
    delete s;  // reports and keys still queued go with their queues
}

template <class Fn>
bool start_thread(std::thread& t, Fn fn, qmx_srv* s, const char* failure) {
    try {
        t = std::thread(fn, s);
        return true;
    } catch (const std::system_error&) {
        LOG_D("%s", failure);
        return false;
    }
}

}  // namespace

int qmx_srv_start() {
    if (g_srv.load()) return 1;
    auto* s = new (std::nothrow) qmx_srv;
    if (!s) return 0;
    s->trigger_period = timing_get().query_trigger;
    s->running.store(true);
    bool ok = start_thread(s->sender_thread, sender_main, s,
                           "Failed to create worker: send request to query talvo");
    ok &= start_thread(s->trigger_thread, trigger_main, s,
                       "Failed to create wakeup worker: routine trigger to query worker");
    ok &= start_thread(s->event_thread, event_main, s,
                       "Failed to create worker: receive data from netlink");
    ok &= start_thread(s->announce_thread, announce_main, s,
                       "Failed to create worker: announce reports to the kernel");
    s->nlu = nlu_open(static_cast<uint32_t>(qmxsrv_ctx.pid), qmx_srv_handle_event);
    if (!s->nlu) {
        LOG_E("Fail to create socket: netlink generic");
        ok = false;
    }
    if (!ok) {
        destroy(s);
        return 0;
    }
    g_srv.store(s);
    return 1;
}

void qmx_srv_release() {
    LOG_D("qmx_srv_release");
    qmx_srv* s = g_srv.exchange(nullptr);
    if (s) destroy(s);
}

void qmx_srv_handle_event(const nl_event* event) {
    qmx_srv* s = g_srv.load();
    if (!s || !s->running.load() || !event) return;
    const uint64_t seq = s->received.fetch_add(1) + 1;
    stat_add(g_stats.reports_received);
    const uint32_t count = s->queued.load();
    LOG_D("get f=0x%08X, data_type=%d, data_len=%d, now count = %d", event->flags,
          static_cast<int>(event->data_type), static_cast<int>(event->data_len),
          static_cast<int>(count));
    if (count >= kEventCap) {
        stat_add(g_stats.reports_dropped);
        return;
    }
    std::unique_ptr<queued_event> q(new (std::nothrow) queued_event);
    if (!q) return;
    try {
        q->text.assign(event->data(), strnlen(event->data(), event->data_len));
    } catch (const std::bad_alloc&) {
        return;
    }
    q->flags = event->flags;
    q->data_type = event->data_type;
    q->data_len = event->data_len;
    q->seq = seq;
    s->queued.fetch_add(1);
    s->announce.push_back(std::move(q));
    s->announce.wake();
}

uint32_t qmx_srv_queued_events() {
    qmx_srv* s = g_srv.load();
    return s ? s->queued.load() : 0;
}

uint32_t qmx_srv_lookup_events() {
    qmx_srv* s = g_srv.load();
    return s ? s->events.size() : 0;
}

uint64_t qmx_srv_finished_events() {
    qmx_srv* s = g_srv.load();
    return s ? s->finished.load() : 0;
}

uint32_t qmx_srv_pending_queries() {
    qmx_srv* s = g_srv.load();
    return s ? s->queries.size() : 0;
}
