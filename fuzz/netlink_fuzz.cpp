// Datagrams on the generic-netlink channel come from the kernel, and the
// names in its reports come from whatever the clients on the LAN look up:
// the channel takes any datagram, learns the family id only from a sound
// controller reply (telling the module our port each time), and hands an
// event to the event handler only when all of its data lies inside the
// datagram. The handler and the event workers behind it (category file,
// verdict cache, pending queries) then take any report: every one is
// finished, and only u2k and verdict lines reach the shell.
//
// The workers run as in the service, with a small category file and the
// verdict cache; the cloud session is absent, so pending queries are
// dropped. After each input the worker is waited for, the pending queries
// are sent off and the cache is emptied, so the next input starts afresh.
//
// Input: datagrams, each as a little-endian 16-bit length and that many
// bytes (the last one takes what is left), fed in order to one channel.
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fuzz_support.h"
#include "qmx_db.h"
#include "qmx_nlu.h"
#include "qmx_server.h"
#include "qmxsrv_ctx.h"
#include "util/clock.h"
#include "util/timing.h"
#include "xdb.h"
#include "xdb_reference.h"
#include "zor_ctrl.h"

namespace {

constexpr size_t kMaxInput = 1 << 14;
constexpr size_t kMaxDatagrams = 16;
constexpr uint32_t kPort = 4242;
constexpr size_t kEventData = 36;  // offset of an event's text
constexpr auto kWorkerLimit = std::chrono::seconds(5);
constexpr int32_t kStart = 1700000000;
constexpr uint32_t kBuckets = 512;
constexpr uint32_t kBucketsPerPass = 200;

constexpr char kCategories[] =
    ".example.com 0x304\n"
    "example.com 0x304\n"
    "ads.example.net 0x901\n"
    "198.51.100.7 0x703\n"
    "203.0.113.0/24 0x704\n";

size_t g_datagram_len = 0;  // length of the datagram being handled
size_t g_events = 0;
int32_t g_now = kStart;

int64_t fuzz_clock() { return g_now; }

void on_event(const nl_event* ev) {
    ++g_events;
    fuzz::check(kEventData + ev->data_len <= g_datagram_len, "event data runs past its datagram");
    qmx_srv_handle_event(ev);
}

struct ctx_closer {
    void operator()(nlu_ctx* c) const { nlu_close(c); }
};

void load_category_file() {
    std::string error;
    const std::vector<uint8_t> image = xdbref::build_source(kCategories, error);
    if (image.empty()) fuzz::fail("category file not built", error);
    static fuzz::scratch_file file;
    file.write(image.data(), image.size());
    if (xdb_init(file.path()) != 0) fuzz::fail("category file not loaded");
}

// Waits until the worker has finished `target` reports in all.
void wait_for_worker(uint64_t target) {
    const auto limit = std::chrono::steady_clock::now() + kWorkerLimit;
    while (qmx_srv_finished_events() < target) {
        if (std::chrono::steady_clock::now() > limit) fuzz::fail("event worker did not finish its reports");
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
}

// Empties the pending-query list the way the service does: a report with
// flag bit 0 wakes the query sender, which takes batches until none is left
// (and, without a cloud session, drops them). Returns the reports added.
uint64_t drain_pending_queries(uint64_t finished) {
    if (qmx_srv_pending_queries() == 0) return 0;
    const nl_event wake{1, 0, 0};
    qmx_srv_handle_event(&wake);
    wait_for_worker(finished + 1);
    const auto limit = std::chrono::steady_clock::now() + kWorkerLimit;
    while (qmx_srv_pending_queries() != 0) {
        if (std::chrono::steady_clock::now() > limit) fuzz::fail("query sender did not take the pending keys");
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    return 1;
}

bool has(const std::string& line, std::string_view verb) {
    return line.find(std::string("echo \"") + std::string(verb)) != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::setup();
    clock_set_source(fuzz_clock);
    timing_set({.cache_clean = std::chrono::hours(1), .query_trigger = std::chrono::hours(1)});
    db_init();
    load_category_file();
    qmxsrv_ctx.pid = getpid();
    qmxsrv_ctx.running = 1;
    qmxsrv_ctx.cloud_enabled = 1;
    if (qmx_srv_start() != 1) fuzz::fail("event workers not started");
    atexit([] {
        qmx_srv_release();
        db_release();
        xdb_release();
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) return 0;
    std::unique_ptr<nlu_ctx, ctx_closer> ctx(nlu_open_detached(kPort, on_event));
    fuzz::check(ctx != nullptr, "no channel");
    const std::string port_line = zor_ctrl_shell_line("env server_port " + std::to_string(kPort));
    fuzz::take_lines();
    g_events = 0;
    const uint64_t finished_before = qmx_srv_finished_events();

    size_t at = 0;
    size_t datagrams = 0;
    for (; datagrams < kMaxDatagrams && at + 2 <= size; ++datagrams) {
        size_t len = data[at] | static_cast<size_t>(data[at + 1]) << 8;
        at += 2;
        if (len > size - at) len = size - at;
        // A buffer of exactly the datagram's size: any read past it is caught.
        std::vector<uint8_t> dgram(data + at, data + at + len);
        at += len;
        const uint32_t fid_before = nlu_family_id(ctx.get());
        const size_t events_before = g_events;
        g_datagram_len = len;
        nlu_handle_datagram(ctx.get(), dgram.data(), dgram.size());
        const uint32_t fid = nlu_family_id(ctx.get());
        fuzz::check(fid <= 0xFFFF, "family id wider than 16 bits");
        if (g_events != events_before)
            fuzz::check(fid != 0 && fid == fid_before, "event handed over without a known family");
    }
    // Every report handed over is finished, none is lost.
    wait_for_worker(finished_before + g_events);
    drain_pending_queries(finished_before + g_events);

    size_t ports = 0, u2k = 0, updates = 0;
    for (const std::string& l : fuzz::take_lines()) {
        if (l == port_line) {
            ++ports;
        } else if (has(l, "db key2group u2k ")) {
            ++u2k;
        } else if (has(l, "db key2group update 2 ") || has(l, "db key2group update 1 ")) {
            ++updates;
        } else {
            fuzz::fail("a line no datagram asks for", l);
        }
    }
    fuzz::check(ports <= datagrams, "more port announcements than datagrams");
    fuzz::check(u2k <= g_events && updates <= g_events, "more kernel lines than reports");

    // A day and more later every cache entry is idle: a full round of
    // cleaner passes removes them all.
    g_now += 2 * 86400;
    for (uint32_t swept = 0; swept < kBuckets + kBucketsPerPass; swept += kBucketsPerPass) db_clean_pass();
    fuzz::check(db_count() == 0, "idle entries survived the cleaner");
    g_now = kStart;
    return 0;
}
