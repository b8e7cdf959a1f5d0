// zorctl run as a separate process against the command server of this
// process: what it sends, what it prints and how it exits.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <cjson/cJSON.h>

#include <cstdlib>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "ipc_client.h"
#include "qmxsrv_ctx.h"
#include "stats.h"
#include "util/c_ptr.h"
#include "test_util.h"
#include "zorctl_run.h"

namespace {

using zor_test::write_file;

class Zorctl : public zor_test::ipc_server_fixture {
protected:
    zorctl_result ctl(std::vector<std::string> args) {
        args.insert(args.begin(), {"-s", sock_});
        return run_zorctl(args, dir_.path());
    }
};

TEST_F(Zorctl, EachCommandPrintsItsResultAndReachesTheService) {
    const std::string rules = dir_.file("rules.json"), missing = dir_.file("gone.json");
    ASSERT_TRUE(write_file(rules, R"({"2": {"mac": "aabbccddeeff", "dn": "x.example"}})"));
    struct {
        std::vector<std::string> args;
        int status;
        std::string out, err;
        const std::atomic<int32_t>* word;  // a context word the command sets
        int32_t value;
    } cases[] = {
        {{"status"}, 0, "cloud:      on\nlogged in:  no\nlogin time: -\nexpires:    -\naccount:    -\n", "", nullptr, 0},
        {{"cloud", "off"}, 0, "Cloud category lookups are off.\n", "", &qmxsrv_ctx.cloud_enabled, 0},
        {{"cloud", "on"}, 0, "Cloud category lookups are on.\n", "", &qmxsrv_ctx.cloud_enabled, 1},
        {{"pc", "on"}, 0, "Parental control is on: the rules due today are in force and are renewed at every midnight.\n",
         "", &qmxsrv_ctx.pctrl_enabled, 1},
        {{"pc", "off"}, 0, "Parental control is off.\n", "", &qmxsrv_ctx.pctrl_enabled, 0},
        // A relative rule file is sent as an absolute path.
        {{"pc", "rule", "rules.json"}, 0,
         "Rule file " + rules + " set and applied. Rules it rejects are skipped and named in the service log.\n", "",
         nullptr, 0},
        {{"pc", "clear"}, 0, "Rule file forgotten and the kernel rule table emptied.\n", "", nullptr, 0},
        {{"pc", "rule", missing}, 1, "", "zorctl: The file " + missing + " does not exist.\n", nullptr, 0},
        {{"query", "example.net", "20", "7", "-3"}, 0,
         "Query for example.net handed to the cloud service; its answer goes to the service log, not to this reply.\n",
         "", nullptr, 0},
        {{"db", "show"}, 0, "The verdict cache listing was written to the service log.\n", "", nullptr, 0},
        {{"db", "add", R"({"r":{}})"}, 0,
         "Reply handed to the verdict cache; the service does not say whether it took any verdict from it.\n", "",
         nullptr, 0},
        {{"exit"}, 0, "zor_service is shutting down.\n", "", &qmxsrv_ctx.running, 0},
    };
    const uint64_t applied = g_stats.rule_applications.load(), rules_sent = g_stats.rules_sent.load();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args[0] + (c.args.size() > 1 ? " " + c.args[1] : ""));
        zorctl_result r = ctl(c.args);
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, c.err);
        if (c.word) {
            EXPECT_EQ(c.word->load(), c.value);
        }
    }
    EXPECT_EQ(rec_.count_with("pc rule add 2 aabbccddeeff x.example 0 0"), 1u);
    // Only the rule file named by "pc rule" was applied ("pc on" had none).
    EXPECT_EQ(g_stats.rule_applications.load() - applied, 1u);
    EXPECT_EQ(g_stats.rules_sent.load() - rules_sent, 1u);
    EXPECT_EQ(qmxsrv_ctx_pc_rule(), "");
    EXPECT_TRUE(log_.contains(R"(Send: {"q":[[20,"example.net",7,-3]]})"));
    EXPECT_TRUE(log_.contains("[D] Receive command: show database"));
}

// A reload applies the rule file again only while parental control is on,
// and fails with the loader's words, outside bytes escaped, when the
// category file does not load, or names the rule file that did not read.
TEST_F(Zorctl, ReloadReappliesTheRulesAndFailsWithTheLoaderMessage) {
    const std::string rules = dir_.file("rules.json"), garbage = dir_.file("garbage.xdb"),
                      broken = dir_.file("broken.json");
    ASSERT_TRUE(write_file(rules, R"({"2": {"mac": "aabbccddeeff", "dn": "x.example"}})"));
    ASSERT_TRUE(write_file(garbage, "not a category file"));
    ASSERT_TRUE(write_file(broken, R"({"2": {"mac": )"));
    const std::string done = "Reloaded: the category file was read again, the rule file applied again when "
                             "parental control is on, and the log file reopened.\n",
                      failed = "zorctl: reload failed, the previous category file stays: ",
                      rules_kept = "zorctl: reload: the category file is in force, but the kernel's rules stay "
                                   "as they were: rule file " + broken + " not read (the service log says why)\n";
    const struct {
        std::optional<std::string> xdb;
        std::string rule_file;
        int32_t pctrl;
        int status;
        std::string out, err;
        size_t rules_sent;  // "pc rule add" lines so far
    } cases[] = {
        {std::nullopt, rules, 1, 0, done, "", 1},
        {std::nullopt, rules, 0, 0, done, "", 1},
        {dir_.file("gone\x01.xdb"), rules, 0, 1, "", failed + "Failed to open file, " + dir_.file("gone\\x01.xdb") + "!\n", 1},
        {garbage, rules, 1, 1, "", failed + "This is not xac block! Failed to load xdb!\n", 2},
        {std::nullopt, broken, 1, 1, "", rules_kept, 2},
        {std::nullopt, broken, 0, 0, done, "", 2},
        {garbage, broken, 1, 1, "", failed + "This is not xac block! Failed to load xdb!\n", 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.xdb.value_or("no category file"));
        // The context is read-only while the command thread runs: set it
        // between threads, as the service does before it starts them.
        ipc_srv_stop();
        qmxsrv_ctx.xdb = c.xdb;
        qmxsrv_ctx_set_pc_rule(c.rule_file.c_str());
        ASSERT_EQ(ipc_srv_start(), 1);
        qmxsrv_ctx.pctrl_enabled = c.pctrl;
        zorctl_result r = ctl({"reload"});
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(rec_.count_with("pc rule add 2 aabbccddeeff x.example 0 0"), c.rules_sent);
    }
    ipc_srv_stop();
    qmxsrv_ctx.xdb.reset();
    EXPECT_TRUE(log_.contains("Reload: category file " + garbage +
                              " not loaded, the previous one stays: This is not xac block! Failed to load xdb!"));
}

TEST_F(Zorctl, BadCommandLinesAreRefusedBeforeSending) {
    const struct {
        std::vector<std::string> args;
        const char* message;
    } cases[] = {
        {{}, "give -s SOCKET or -i INI"},
        {{"-s", "/x"}, "no command given"},
        {{"-s", "/x", "-q", "status"}, "unknown option -q"},
        {{"-s", "/x", "reboot"}, "unknown command: reboot"},
        {{"-s", "/x", "pc", "rule", "/" + std::string(300, 'p')}, "longer than 255 bytes"},
        {{"-s", "/x", "query", "a", "99999999999", "1", "2"}, "32-bit integers"},
        {{"-s", "/x", "db", "add", "{broken"}, "one JSON object"},
        {{"-s", "/" + std::string(107, 's'), "status"}, "socket path longer than 107 bytes"},
        {{"-s", "/x", "--json", "stats", "--prometheus"}, "either --json or --prometheus"},
        {{"-s", "/x", "--prometheus", "status"}, "for the stats command only"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        zorctl_result r = run_zorctl(c.args);
        EXPECT_EQ(r.status, 2);
        // With --json the error is the JSON object on standard output.
        EXPECT_NE((r.err + r.out).find(c.message), std::string::npos) << r.err << r.out;
    }
    EXPECT_FALSE(log_.contains("Receive command"));
}

// Checks `text` against the Prometheus text exposition grammar: comment
// lines are "# HELP name text" or "# TYPE name counter|gauge", given once
// per name and before its sample; names match [a-zA-Z_:][a-zA-Z0-9_:]*;
// counters end in _total; each sample is "name value" with a numeric value.
// Returns the samples by name.
std::map<std::string, double> parse_exposition(const std::string& text) {
    static const std::regex name_re("[a-zA-Z_:][a-zA-Z0-9_:]*");
    std::map<std::string, std::string> types;
    std::set<std::string> helped;
    std::map<std::string, double> samples;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        SCOPED_TRACE(line);
        std::istringstream words(line);
        std::string first, name;
        words >> first;
        if (first == "#") {
            std::string keyword, rest;
            words >> keyword >> name;
            std::getline(words, rest);
            EXPECT_TRUE(std::regex_match(name, name_re));
            EXPECT_EQ(samples.count(name), 0u) << "comment after the sample";
            if (keyword == "HELP") {
                EXPECT_TRUE(helped.insert(name).second) << "HELP twice";
                EXPECT_GT(rest.size(), 1u) << "empty HELP";
            } else {
                EXPECT_EQ(keyword, "TYPE");
                EXPECT_TRUE(rest == " counter" || rest == " gauge") << rest;
                EXPECT_TRUE(types.emplace(name, rest.substr(1)).second) << "TYPE twice";
            }
            continue;
        }
        std::string value, extra;
        words >> value >> extra;
        EXPECT_TRUE(std::regex_match(first, name_re));
        EXPECT_EQ(first.rfind("zor_", 0), 0u);
        EXPECT_EQ(extra, "") << "more than name and value";
        EXPECT_EQ(helped.count(first), 1u) << "no HELP before the sample";
        EXPECT_EQ(types.count(first), 1u) << "no TYPE before the sample";
        if (types[first] == "counter") {
            EXPECT_TRUE(first.size() > 6 && first.substr(first.size() - 6) == "_total");
        }
        char* end = nullptr;
        const double v = strtod(value.c_str(), &end);
        EXPECT_TRUE(!value.empty() && *end == '\0') << "value " << value;
        EXPECT_TRUE(samples.emplace(first, v).second) << "sample twice";
    }
    return samples;
}

// The three formats carry the service's values: JSON members are integers
// (every key of the table, the ones a web interface relies on among them),
// the exposition passes the grammar with a sample per value, the text shows
// one line per value.
TEST_F(Zorctl, StatsPrintEveryCounterInEachFormat) {
    stat_add(g_stats.verdicts_cloud, 17);
    stat_set(g_stats.cloud_query_rtt_ms, 1234);
    std::map<std::string, uint64_t> want;
    for (const stat_value& v : stats_snapshot()) want[v.info->name] = v.value;

    zorctl_result r = ctl({"stats", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    json_ptr doc(cJSON_Parse(r.out.c_str()));
    ASSERT_TRUE(cJSON_IsObject(doc.get())) << r.out;
    EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(doc.get(), "ok")));
    for (const char* key : {"reports_received", "reports_dropped", "verdicts_category_file", "verdicts_cache",
                            "verdicts_cloud", "cloud_queries", "cloud_errors", "cache_entries", "commands_sent",
                            "uptime_s"})
        EXPECT_TRUE(want.count(key)) << key;
    for (const auto& [key, value] : want) {
        const cJSON* item = cJSON_GetObjectItemCaseSensitive(doc.get(), key.c_str());
        ASSERT_TRUE(cJSON_IsNumber(item)) << key;
        EXPECT_EQ(item->valuedouble, static_cast<double>(static_cast<int64_t>(item->valuedouble))) << key;
        if (key != "uptime_s") {
            EXPECT_EQ(item->valuedouble, static_cast<double>(value)) << key;
        }
    }

    r = ctl({"--prometheus", "stats"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const std::map<std::string, double> samples = parse_exposition(r.out);
    EXPECT_EQ(samples.size(), want.size());
    EXPECT_EQ(samples.at("zor_verdicts_cloud_total"), static_cast<double>(want["verdicts_cloud"]));
    EXPECT_EQ(samples.at("zor_cloud_query_rtt_seconds"), 1.234);
    EXPECT_EQ(samples.count("zor_cache_entries"), 1u);
    EXPECT_EQ(samples.count("zor_uptime_seconds"), 1u);

    r = ctl({"stats"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::istringstream text(r.out);
    size_t lines = 0;
    for (std::string line; std::getline(text, line); ++lines) {
        std::istringstream words(line);
        std::string key, value;
        words >> key >> value;
        ASSERT_TRUE(want.count(key)) << line;
        if (key != "uptime_s") {
            EXPECT_EQ(value, std::to_string(want[key])) << line;
        }
    }
    EXPECT_EQ(lines, want.size());
}

TEST_F(Zorctl, MissingOrMuteServiceExitsThreeOrFour) {
    std::string none = dir_.file("none.socket");
    zorctl_result r = run_zorctl({"-s", none, "status"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err, "zorctl: no service socket at " + none + " (is zor_service running?)\n");

    zor_test::ipc_socket mute(dir_.file("mute.socket"), true);  // reads the request, closes
    ASSERT_TRUE(mute.ok());
    std::thread server([&] {
        int c = accept(mute.fd(), nullptr, nullptr);
        char buf[sizeof(ipc_request)];
        if (c >= 0) {
            (void)!recv(c, buf, sizeof buf, MSG_WAITALL);
            close(c);
        }
    });
    r = run_zorctl({"-s", dir_.file("mute.socket"), "cloud", "on"});
    server.join();
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.err, "zorctl: the service closed the connection without a reply (it refuses accounts other than "
                     "root, its own and the members of its ipc_group)\n");
}

// A stats reply that is not a whole counter reply (a service that does not
// know the command answers with its kept record; a sequence cut short or out
// of order) is refused with exit 4, and nothing goes to standard output.
TEST_F(Zorctl, StatsRefuseARecordSequenceThatIsNotACounterReply) {
    auto record = [](int32_t result, const std::string& msg) {
        ipc_reply r{};
        r.result = result;
        memcpy(r.msg, msg.data(), std::min(msg.size(), sizeof r.msg - 1));
        return r;
    };
    const struct {
        std::vector<ipc_reply> records;
        const char* error;
    } cases[] = {
        {{record(0, "1 0 0 0 ")}, "unexpected counter line: 1 0 0 0 "},
        {{record(0, "")}, "the reply lacks counter reports_received"},
        {{record(0, "reports_received 1\nreports_received 2\n")}, "counter reports_received sent twice"},
        {{record(0, "reports_received -1\n")}, "unexpected counter line: reports_received -1"},
        {{record(0, "reports_received 99999999999999999999\n")}, "unexpected counter line"},
        {{record(2, "reports_received 1\n"), record(0, "")}, "not a sequence of counter records"},
        {{record(1, "reports_received 1\n")}, "closed the connection without a reply"},
        {{record(16, "")}, "not a sequence of counter records"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.error);
        const std::string path = dir_.file("fake.socket");
        unlink(path.c_str());
        zor_test::ipc_socket fake(path, true);
        ASSERT_TRUE(fake.ok());
        std::thread server([&] {
            int conn = accept(fake.fd(), nullptr, nullptr);
            char buf[sizeof(ipc_request)];
            if (conn < 0) return;
            (void)!recv(conn, buf, sizeof buf, MSG_WAITALL);
            for (const ipc_reply& r : c.records) (void)!send(conn, &r, sizeof r, MSG_NOSIGNAL);
            close(conn);
        });
        zorctl_result r = run_zorctl({"-s", path, "--prometheus", "stats"});
        server.join();
        EXPECT_EQ(r.status, 4);
        EXPECT_EQ(r.out, "");
        EXPECT_NE(r.err.find(c.error), std::string::npos) << r.err;
    }
}

}  // namespace
