// End to end: the real zor_service in the simulated world, fed by kernsim,
// with the cloud simulator as its cloud. Every assertion is about what a
// kernel module would have seen (the lines written into its control file,
// the modules loaded), what the shell ran, or what the cloud was asked.
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <map>
#include <regex>
#include <thread>

#include "ctrl_text.h"
#include "sim_world.h"
#include "syslog_sink.h"
#include "util/c_ptr.h"
#include "zor_ctrl.h"

namespace {

using namespace std::chrono_literals;
using lines = std::vector<std::string>;
// The rows of a cloud query {"q":[[...],[...]]}, sorted.
lines rows_of(const std::string& query) {
    lines rows;
    for (size_t at = query.find("[["); at != std::string::npos; at = query.find(",[", at)) {
        ++at;
        rows.push_back(query.substr(at, query.find(']', at) - at + 1));
    }
    std::sort(rows.begin(), rows.end());
    return rows;
}

// `zorctl --json stats` of the world's service: its integer members by key,
// empty when zorctl failed or printed something else.
std::map<std::string, long long> stats_of(const sim_world& w) {
    std::map<std::string, long long> m;
    const lines out = w.zorctl({"--json", "stats"}) == 0 ? w.lines_of("zorctl.out") : lines{};
    json_ptr doc(out.empty() ? nullptr : cJSON_Parse(out.back().c_str()));  // zorctl.out gathers every run
    for (const cJSON* item = doc ? doc->child : nullptr; item; item = item->next) {
        if (cJSON_IsNumber(item) && item->valuedouble == static_cast<double>(static_cast<long long>(item->valuedouble)))
            m[item->string] = static_cast<long long>(item->valuedouble);
    }
    return m;
}

class EndToEnd : public world_test {
protected:
    void keys_are_answered(bool shell);
};

// The announcement is answered with the service's port and events are
// reported back as being resolved, in order. A key the category file knows
// is answered with source 2 and a day's ttl; bit 0 on an event sends the
// pending keys in one query, and the verdicts come back with
// source 1 and the ttl in seconds (none known: a day). A key asked again is
// answered from the cache: the next query holds only the key after it.
//
// The module receives the same commands in both channels: by default no
// shell runs for any of them; with ctrl_shell = 1 each one is the guarded
// echo line, run by the shell.
void EndToEnd::keys_are_answered(bool shell) {
    std::string err;
    ASSERT_TRUE(cloud.apply("category news.example 3 4 2\ncategory 192.0.2.10 7 1 5\n", &err)) << err;
    ASSERT_TRUE(start(w, {.categories = "# pattern id\n.local.example 0x0305\n198.51.100.7 0x0102\n",
                                  .session = true, .ctrl_shell = shell}));
    const lines keys = {"20 www.news.example", "21 192.0.2.10", "20 www.local.example", "21 198.51.100.7",
                        "20 nobody.example", "20 www.news.example", "20 fence.example"};
    ASSERT_EQ(w.kernsim({"domain", "www.news.example", ";", "addr", "192.0.2.10", ";", "domain", "www.local.example",
                         ";", "addr", "198.51.100.7", ";", "domain", "nobody.example", "flags=1"}),
              0);
    const lines verdicts = {"db key2group update 1 20 www.news.example 7200 3 4",
                            "db key2group update 1 21 192.0.2.10 18000 7 1",
                            "db key2group update 2 20 www.local.example 86400 3 5",
                            "db key2group update 2 21 198.51.100.7 86400 1 2",
                            "db key2group update 1 20 nobody.example 86400 0 0"};
    for (const std::string& v : verdicts) EXPECT_TRUE(w.wait_ctrl(v)) << v << "\n" << testing::PrintToString(w.ctrl_lines());
    ASSERT_EQ(w.kernsim({"domain", "www.news.example", "flags=1"}), 0);
    ASSERT_TRUE(zor_test::eventually([&] { return w.ctrl_count(verdicts[0]) == 2; }, kWorldWait)) << testing::PrintToString(w.ctrl_lines());
    ASSERT_EQ(w.kernsim({"domain", "fence.example", "flags=1"}), 0);
    ASSERT_TRUE(w.wait_ctrl("db key2group update 1 20 fence.example 86400 0 0")) << testing::PrintToString(w.ctrl_lines());
    // The order inside a query is the order the worker took the reports
    // in, which depends on how many were waiting for it at once.
    std::vector<lines> queries;
    for (const auto& r : cloud.requests())
        if (r.endpoint == "query") queries.push_back(rows_of(r.detail));
    EXPECT_EQ(queries, (std::vector<lines>{{R"([20,"nobody.example",0,0])", R"([20,"www.news.example",0,0])",
                                            R"([21,"192.0.2.10",0,0])"},
                                           {R"([20,"fence.example",0,0])"}}));
    lines want = {"env server_port " + std::to_string(w.pid())}, got;
    for (const std::string& k : keys) want.push_back("db key2group u2k " + k);
    for (const std::string& l : w.ctrl_lines())
        if (l.rfind("db key2group update", 0) != 0) got.push_back(l);
    EXPECT_EQ(got, want);
    EXPECT_EQ(w.ctrl_count("db key2group update 2"), 2u);

    // The counters match what was sent: seven reports, each announced; two
    // verdicts from the category file, one from the cache and four from the
    // two cloud queries; the four keys the cache took. Every command the
    // module received was counted (the last may be counted just after it
    // arrived).
    const std::map<std::string, long long> counted = {
        {"reports_received", 7}, {"reports_dropped", 0}, {"reports_invalid", 0}, {"u2k_lines", 7},
        {"verdicts_category_file", 2}, {"verdicts_cache", 1}, {"verdicts_cloud", 4},
        {"cloud_queries", 2}, {"cloud_keys_asked", 4}, {"cloud_answers", 2}, {"cloud_errors", 0},
        {"cache_entries", 4}, {"cache_added", 4}, {"commands_refused", 0}, {"commands_failed", 0}};
    std::map<std::string, long long> stats;
    EXPECT_TRUE(zor_test::eventually([&] {
        stats = stats_of(w);
        return stats.count("commands_sent") && stats["commands_sent"] == static_cast<long long>(w.ctrl_lines().size());
    }, kWorldWait)) << testing::PrintToString(stats) << "\n" << testing::PrintToString(w.ctrl_lines());
    for (const auto& [key, value] : counted) EXPECT_EQ(stats.count(key) ? stats.at(key) : -1, value) << key;
    EXPECT_GE(stats["cloud_logins"], 1);
    EXPECT_TRUE(stats.count("uptime_s"));
    EXPECT_EQ(w.stop(), 0) << "a clean stop on SIGTERM\n" << w.service_output();

    const lines module_tools = {"lsmod | grep -w ^zor_service",
                                "[ ! -f /proc/zor/ctrl ] && insmod " + w.root() + "/zor.ko qos=0 pc=0 cloud=0 router_mode=0 "};
    lines ran = w.commands(), sent = w.ctrl_lines(), echoed;
    ASSERT_GE(ran.size(), 2u);
    EXPECT_EQ(lines(ran.begin(), ran.begin() + 2), module_tools);
    for (auto it = ran.begin() + 2; it != ran.end(); ++it)
        echoed.push_back(zor_test::ctrl_text_of_line(*it, ZOR_CTRL_FILE).value_or("not an echo: " + *it));
    if (!shell) {
        EXPECT_EQ(echoed, lines{}) << "a shell ran for a command in the direct channel";
        return;
    }
    // Shells of different threads may finish in another order than they
    // started: the same commands, each once.
    std::sort(echoed.begin(), echoed.end());
    std::sort(sent.begin(), sent.end());
    EXPECT_EQ(echoed, sent);
}

TEST_F(EndToEnd, KeysAreAnsweredFromTheCategoryFileTheCloudAndTheCache) { keys_are_answered(false); }
TEST_F(EndToEnd, KeysAreAnsweredThroughShellLinesWithCtrlShell) { keys_are_answered(true); }

// With syslog = 1 the service's log lines reach the system log socket too:
// facility daemon, ident zor_service with the service's pid, the file's
// text after its time stamp, at the level's priority. A rule file that is
// not JSON is logged with its bytes: those from the file shown as \xHH, the
// message's own line break a blank, one record.
TEST_F(EndToEnd, LogLinesReachTheSystemLogWithSyslog) {
    zor_test::syslog_sink sink(w.dir() + "/devlog");
    ASSERT_TRUE(sink.ok());
    sink.start_reader();  // the service waits whenever the socket's short queue is full
    ASSERT_TRUE(start(w, {.extra_ini = "syslog = 1\n", .devlog = true}));
    const std::string rules = w.dir() + "/rules.json";
    ASSERT_TRUE(zor_test::write_file(rules, "not json\x1b[2J\r\nforged"));
    ASSERT_EQ(w.zorctl({"pc", "rule", rules}), 0) << zor_test::read_file(w.dir() + "/zorctl.out");
    const std::regex refused(
        R"(^ader/\d{3,}\[E\] The following rule string is not JSON format: not json\\x1B\[2J\\x0D\\x0Aforged$)");
    auto has_refusal = [&](const std::vector<zor_test::syslog_record>& got) {
        return std::any_of(got.begin(), got.end(), [&](auto& r) {
            return r.priority == 3 * 8 + 3 && std::regex_match(r.message, refused);
        });
    };
    EXPECT_TRUE(sink.wait_for(has_refusal, kWorldWait)) << w.service_log();
    EXPECT_EQ(w.stop(), 0) << w.service_output();
    // Every record is the service's, and each one is a line of its file
    // (up to the line ends the message itself carries).
    const std::string file = w.service_log();
    auto in_file = [&](const std::string& text) {
        for (size_t at = 0; (at = file.find(" " + text, at)) != std::string::npos; ++at)
            if (file.compare(at + 1 + text.size(), 1, "\r") == 0 || file.compare(at + 1 + text.size(), 1, "\n") == 0)
                return true;
        return false;
    };
    const std::vector<zor_test::syslog_record> got = sink.records();
    ASSERT_FALSE(got.empty());
    for (const zor_test::syslog_record& r : got) {
        EXPECT_EQ(r.ident + "[" + std::to_string(r.pid) + "]", "zor_service[" + std::to_string(w.pid()) + "]") << r.raw;
        EXPECT_TRUE(r.priority >= 3 * 8 && r.priority <= 3 * 8 + 6) << r.raw;
        EXPECT_TRUE(r.message.find("JSON") != std::string::npos || in_file(r.message)) << r.message;
    }
}

// Category file source giving every name under alpha.example the category
// `id`; the module sees its two bytes as the group pair.
std::string alpha_categories(const char* id) { return std::string(".alpha.example ") + id + "\n"; }

// The category file is replaced and put in force by SIGHUP, then again by
// `zorctl reload`, while reports stream in from another thread. Every
// streamed key is answered exactly once, from one of the three files, and
// the later files' verdicts appear; keys sent after the last reload get
// its verdict. A cloud verdict cached before the reloads still answers
// from the cache. A damaged file keeps the one in force: SIGHUP logs why
// and the service runs on, `zorctl reload` fails with the loader's words.
// An outside rename of the log file is followed: the reload's lines go to
// a new file.
TEST_F(EndToEnd, ReloadSwapsTheCategoryFileUnderStreamingReportsAndKeepsTheCache) {
    std::string err;
    ASSERT_TRUE(cloud.apply("category news.example 3 4 2\n", &err)) << err;
    ASSERT_TRUE(start(w, {.categories = alpha_categories("0x0305"), .session = true}));
    const std::string cached = "db key2group update 1 20 www.news.example 7200 3 4";
    ASSERT_EQ(w.kernsim({"domain", "www.news.example", "flags=1"}), 0);
    ASSERT_TRUE(w.wait_ctrl(cached)) << testing::PrintToString(w.ctrl_lines());

    std::atomic<bool> stop{false};
    std::atomic<int> batches{0}, failed_sends{0};
    constexpr int kBatch = 20;
    std::thread stream([&] {
        while (!stop.load()) {
            const std::string name = "b" + std::to_string(batches.load()) + "k{n}.alpha.example";
            if (w.kernsim({"-n", std::to_string(kBatch), "-r", "200", "domain", name}) != 0) ++failed_sends;
            ++batches;
        }
    });
    auto batches_pass = [&](int more) {
        const int until = batches.load() + more;
        return zor_test::eventually([&] { return batches.load() >= until; }, kWorldWait);
    };
    const std::string xdb = w.dir() + "/categories.xdb", log = w.dir() + "/log/zorsrv.log";
    auto log_has = [&](const std::string& text) {
        return zor_test::eventually([&] { return w.service_log().find(text) != std::string::npos; }, kWorldWait);
    };
    const std::string update = "db key2group update 2 20 ";
    // Some streamed key answered with `tail` ("86400 G S").
    auto verdict_seen = [&](const std::string& tail) {
        return zor_test::eventually([&] {
            const std::vector<std::string> lines = w.ctrl_lines();
            return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) {
                return l.rfind(update, 0) == 0 && l.size() > tail.size() && l.ends_with(" " + tail);
            });
        }, kWorldWait);
    };
    EXPECT_TRUE(verdict_seen("86400 3 5"));
    ASSERT_EQ(std::rename(log.c_str(), (log + ".1").c_str()), 0);
    ASSERT_TRUE(w.build_categories(alpha_categories("0x0407"), err)) << err;
    ASSERT_TRUE(w.signal(SIGHUP));
    EXPECT_TRUE(log_has("Reload: category file " + xdb + " in force")) << w.service_log();
    EXPECT_NE(w.service_log().find("Reload (SIGHUP)"), std::string::npos) << "the reload's lines in a new log file";
    EXPECT_TRUE(verdict_seen("86400 4 7"));
    ASSERT_TRUE(w.build_categories(alpha_categories("0x0509"), err)) << err;
    EXPECT_EQ(w.zorctl({"reload"}), 0) << zor_test::read_file(w.dir() + "/zorctl.out");
    EXPECT_TRUE(batches_pass(2));
    stop.store(true);
    stream.join();
    EXPECT_EQ(failed_sends.load(), 0);
    ASSERT_EQ(w.kernsim({"-n", std::to_string(kBatch), "domain", "last{n}.alpha.example"}), 0);

    // Every key once, with one of the files' verdicts.
    std::vector<std::string> keys;
    for (int b = 0; b < batches.load(); ++b)
        for (int n = 0; n < kBatch; ++n) keys.push_back("b" + std::to_string(b) + "k" + std::to_string(n) + ".alpha.example");
    for (int n = 0; n < kBatch; ++n) keys.push_back("last" + std::to_string(n) + ".alpha.example");
    auto answered = [&] {
        std::map<std::string, std::vector<std::string>> verdicts;
        for (const std::string& l : w.ctrl_lines())
            if (l.rfind(update, 0) == 0) {
                const size_t key_end = l.find(' ', update.size());
                verdicts[l.substr(update.size(), key_end - update.size())].push_back(l.substr(key_end + 1));
            }
        return verdicts;
    };
    ASSERT_TRUE(zor_test::eventually([&] { return answered().size() >= keys.size(); }, kWorldWait))
        << answered().size() << " of " << keys.size() << " keys answered";
    std::map<std::string, int> per_verdict;
    const std::map<std::string, std::vector<std::string>> verdicts = answered();
    for (const std::string& k : keys) {
        const auto v = verdicts.find(k);
        if (v == verdicts.end() || v->second.size() != 1) {
            ADD_FAILURE() << k << " answered " << (v == verdicts.end() ? 0 : v->second.size()) << " times";
            continue;
        }
        ++per_verdict[v->second[0]];
        if (k.rfind("last", 0) == 0) {
            EXPECT_EQ(v->second[0], "86400 5 9") << k;
        }
        EXPECT_EQ(w.ctrl_count("db key2group u2k 20 " + k), 1u) << k;
    }
    EXPECT_EQ(verdicts.size(), keys.size()) << "answers for keys never sent";
    EXPECT_GT(per_verdict["86400 3 5"], 0);
    EXPECT_GT(per_verdict["86400 4 7"], 0);
    EXPECT_GT(per_verdict["86400 5 9"], kBatch);
    EXPECT_EQ(per_verdict.size(), 3u) << testing::PrintToString(per_verdict);

    // The cache outlived both reloads: no new query for the cached key.
    ASSERT_EQ(w.kernsim({"domain", "www.news.example", "flags=1"}), 0);
    EXPECT_TRUE(zor_test::eventually([&] { return w.ctrl_count(cached) == 2; }, kWorldWait));
    size_t asked = 0;
    for (const auto& r : cloud.requests())
        asked += r.endpoint == "query" && r.detail.find("www.news.example") != std::string::npos;
    EXPECT_EQ(asked, 1u);

    // A damaged file: the one in force stays, by SIGHUP and by command.
    ASSERT_TRUE(zor_test::write_file(xdb + ".new", "not a category file"));
    ASSERT_EQ(std::rename((xdb + ".new").c_str(), xdb.c_str()), 0);
    ASSERT_TRUE(w.signal(SIGHUP));
    const std::string why = "This is not xac block! Failed to load xdb!";
    EXPECT_TRUE(log_has("Reload: category file " + xdb + " not loaded, the previous one stays: " + why));
    EXPECT_EQ(w.zorctl({"reload"}), 1);
    const std::vector<std::string> printed = w.lines_of("zorctl.out");
    EXPECT_EQ(printed.empty() ? "" : printed.back(), "zorctl: reload failed, the previous category file stays: " + why);
    ASSERT_EQ(w.kernsim({"domain", "after.alpha.example"}), 0);
    EXPECT_TRUE(w.wait_ctrl(update + "after.alpha.example 86400 5 9")) << testing::PrintToString(w.ctrl_lines());
    EXPECT_FALSE(w.wait_exit(std::chrono::milliseconds(0)).has_value()) << "SIGHUP ended the service";
    EXPECT_EQ(w.stop(), 0) << w.service_output();
}

}  // namespace
