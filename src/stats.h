// Service counters: what the service has done since it started, for
// `zorctl stats`. Any thread adds to them with a relaxed atomic increment,
// so counting costs no lock on any path. Each count is exact; two counts
// read one after the other need not come from the same instant.
//
// The table in stats.cpp is the one list of every value: its key, whether it
// is a counter (only grows) or a gauge (a current value), its name in the
// Prometheus exposition and its help text. The command server sends the
// values in that order; zorctl formats them from the same table.
// docs/operations.md says what each one counts.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

struct zor_stats {
    // Netlink reports (qmx_server.cpp).
    std::atomic<uint64_t> reports_received{0};  // handed to the workers while running
    std::atomic<uint64_t> reports_dropped{0};   // of them, dropped with 1025 waiting
    std::atomic<uint64_t> reports_invalid{0};   // of them, neither a domain name nor an address
    std::atomic<uint64_t> u2k_lines{0};         // u2k commands built for valid reports
    // Verdicts given, by source.
    std::atomic<uint64_t> verdicts_category_file{0};
    std::atomic<uint64_t> verdicts_cache{0};
    std::atomic<uint64_t> verdicts_cloud{0};  // stored from a cloud reply (qmx_db.cpp)
    // Cloud client (qmx_zor.cpp, except keys asked: qmx_server.cpp).
    std::atomic<uint64_t> cloud_logins{0};
    std::atomic<uint64_t> cloud_pings{0};
    std::atomic<uint64_t> cloud_queries{0};
    std::atomic<uint64_t> cloud_keys_asked{0};
    std::atomic<uint64_t> cloud_answers{0};
    std::atomic<uint64_t> cloud_errors{0};            // the sum of the four kinds below
    std::atomic<uint64_t> cloud_errors_transport{0};  // no HTTP response
    std::atomic<uint64_t> cloud_errors_http{0};       // a status other than 200
    std::atomic<uint64_t> cloud_errors_refused{0};    // account or token refused
    std::atomic<uint64_t> cloud_errors_reply{0};      // a 200 reply that could not be used
    std::atomic<uint64_t> cloud_query_rtt_ms{0};      // gauge: the last answered query
    // Verdict cache (qmx_db.cpp); the entry count is read from the cache.
    std::atomic<uint64_t> cache_added{0};
    std::atomic<uint64_t> cache_aged_out{0};
    // Parental control (pctrl_scheduler.cpp).
    std::atomic<uint64_t> rule_applications{0};
    std::atomic<uint64_t> rules_sent{0};
    // Kernel commands (zor_ctrl.cpp), by outcome.
    std::atomic<uint64_t> commands_sent{0};
    std::atomic<uint64_t> commands_failed{0};
    std::atomic<uint64_t> commands_refused{0};
    std::atomic<uint64_t> commands_too_long{0};
    std::atomic<uint64_t> commands_no_module{0};
};

// The process's counters.
extern zor_stats g_stats;

inline void stat_add(std::atomic<uint64_t>& counter, uint64_t n = 1) {
    counter.fetch_add(n, std::memory_order_relaxed);
}
inline void stat_set(std::atomic<uint64_t>& gauge, uint64_t value) {
    gauge.store(value, std::memory_order_relaxed);
}
// One failed cloud request of the given kind: counted there and in the sum.
inline void stat_cloud_error(std::atomic<uint64_t> zor_stats::*kind) {
    stat_add(g_stats.*kind);
    stat_add(g_stats.cloud_errors);
}

enum class stat_kind { counter, gauge };

// Keys are lower-case letters, digits and '_', at most this long.
inline constexpr size_t STAT_NAME_MAX = 40;

struct stat_info {
    const char* name;          // the key zorctl prints and --json uses
    stat_kind kind;
    const char* metric;        // exposition name after "zor_" (a counter's before "_total")
    uint32_t metric_divisor;   // the exposition shows value / divisor (milliseconds: 1000)
    const char* help;          // one line of plain text
};

// Every value the service reports, in its fixed order.
const std::vector<stat_info>& stats_table();
// The row of `name`, or null.
const stat_info* stats_find(std::string_view name);

struct stat_value {
    const stat_info* info;
    uint64_t value;
};
// Every value now, in table order (the uptime from a steady clock started
// with the process, the cache's entry count from the cache).
std::vector<stat_value> stats_snapshot();
