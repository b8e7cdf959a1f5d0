#include "stats.h"

#include <chrono>

#include "qmx_db.h"

zor_stats g_stats;

namespace {

using clock_type = std::chrono::steady_clock;

// Taken while the process starts, before main.
const clock_type::time_point g_started = clock_type::now();

uint64_t uptime_s() {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::seconds>(clock_type::now() - g_started).count());
}

uint64_t cache_entries() { return db_count(); }

constexpr stat_kind C = stat_kind::counter;
constexpr stat_kind G = stat_kind::gauge;

// A value's row: where it is read from, a counter field or a function.
struct row {
    stat_info info;
    std::atomic<uint64_t> zor_stats::*field;
    uint64_t (*read)();
};

// The order is the order of every output.
const std::vector<row>& rows() {
    static const std::vector<row> table = {
        {{"reports_received", C, "reports_received", 1, "Reports received from the kernel module"}, &zor_stats::reports_received, nullptr},
        {{"reports_dropped", C, "reports_dropped", 1, "Reports dropped because 1025 were already waiting"}, &zor_stats::reports_dropped, nullptr},
        {{"reports_invalid", C, "reports_invalid", 1, "Reports neither of a domain name nor of an address, not looked up"}, &zor_stats::reports_invalid, nullptr},
        {{"u2k_lines", C, "u2k_lines", 1, "Keys announced to the kernel as being resolved (u2k)"}, &zor_stats::u2k_lines, nullptr},
        {{"verdicts_category_file", C, "verdicts_category_file", 1, "Verdicts from the local category file"}, &zor_stats::verdicts_category_file, nullptr},
        {{"verdicts_cache", C, "verdicts_cache", 1, "Verdicts from the verdict cache"}, &zor_stats::verdicts_cache, nullptr},
        {{"verdicts_cloud", C, "verdicts_cloud", 1, "Verdicts stored from cloud replies"}, &zor_stats::verdicts_cloud, nullptr},
        {{"cloud_logins", C, "cloud_logins", 1, "Cloud logins that gave a usable session record"}, &zor_stats::cloud_logins, nullptr},
        {{"cloud_pings", C, "cloud_pings", 1, "Ping requests to cloud servers"}, &zor_stats::cloud_pings, nullptr},
        {{"cloud_queries", C, "cloud_queries", 1, "Category query exchanges started with a login held"}, &zor_stats::cloud_queries, nullptr},
        {{"cloud_keys_asked", C, "cloud_keys_asked", 1, "Keys sent in category queries"}, &zor_stats::cloud_keys_asked, nullptr},
        {{"cloud_answers", C, "cloud_answers", 1, "Category queries answered with a deciphered reply"}, &zor_stats::cloud_answers, nullptr},
        {{"cloud_errors", C, "cloud_errors", 1, "Failed cloud requests of every kind"}, &zor_stats::cloud_errors, nullptr},
        {{"cloud_errors_transport", C, "cloud_errors_transport", 1, "Cloud requests that got no HTTP response"}, &zor_stats::cloud_errors_transport, nullptr},
        {{"cloud_errors_http", C, "cloud_errors_http", 1, "Cloud requests answered with a status other than 200"}, &zor_stats::cloud_errors_http, nullptr},
        {{"cloud_errors_refused", C, "cloud_errors_refused", 1, "Cloud requests whose account or token was refused"}, &zor_stats::cloud_errors_refused, nullptr},
        {{"cloud_errors_reply", C, "cloud_errors_reply", 1, "Cloud replies of status 200 that could not be used"}, &zor_stats::cloud_errors_reply, nullptr},
        {{"cloud_query_rtt_ms", G, "cloud_query_rtt_seconds", 1000, "Round trip of the last answered category query"}, &zor_stats::cloud_query_rtt_ms, nullptr},
        {{"cache_entries", G, "cache_entries", 1, "Keys in the verdict cache now"}, nullptr, cache_entries},
        {{"cache_added", C, "cache_added", 1, "Keys added to the verdict cache"}, &zor_stats::cache_added, nullptr},
        {{"cache_aged_out", C, "cache_aged_out", 1, "Verdict cache entries removed by the cleaner"}, &zor_stats::cache_aged_out, nullptr},
        {{"rule_applications", C, "rule_applications", 1, "Parental-control rule files read and applied"}, &zor_stats::rule_applications, nullptr},
        {{"rules_sent", C, "rules_sent", 1, "Parental-control rules delivered to the kernel"}, &zor_stats::rules_sent, nullptr},
        {{"commands_sent", C, "commands_sent", 1, "Kernel commands written to the control file or run as shell lines"}, &zor_stats::commands_sent, nullptr},
        {{"commands_failed", C, "commands_failed", 1, "Kernel commands whose open or write of the control file failed"}, &zor_stats::commands_failed, nullptr},
        {{"commands_refused", C, "commands_refused", 1, "Kernel commands not sent: a word unsafe to send"}, &zor_stats::commands_refused, nullptr},
        {{"commands_too_long", C, "commands_too_long", 1, "Kernel commands not sent: longer than their buffer"}, &zor_stats::commands_too_long, nullptr},
        {{"commands_no_module", C, "commands_no_module", 1, "Kernel commands not sent: no control file (module not loaded)"}, &zor_stats::commands_no_module, nullptr},
        {{"uptime_s", G, "uptime_seconds", 1, "Seconds since the service started"}, nullptr, uptime_s},
    };
    return table;
}

}  // namespace

const std::vector<stat_info>& stats_table() {
    static const std::vector<stat_info> infos = [] {
        std::vector<stat_info> v;
        for (const row& r : rows()) v.push_back(r.info);
        return v;
    }();
    return infos;
}

const stat_info* stats_find(std::string_view name) {
    for (const stat_info& info : stats_table())
        if (name == info.name) return &info;
    return nullptr;
}

std::vector<stat_value> stats_snapshot() {
    const std::vector<stat_info>& infos = stats_table();
    const std::vector<row>& table = rows();
    std::vector<stat_value> values;
    values.reserve(table.size());
    for (size_t i = 0; i < table.size(); ++i) {
        const row& r = table[i];
        const uint64_t v = r.field ? (g_stats.*r.field).load(std::memory_order_relaxed) : r.read();
        values.push_back({&infos[i], v});
    }
    return values;
}
