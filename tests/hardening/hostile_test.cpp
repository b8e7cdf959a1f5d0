// Hostile input, end to end: the real zor_service in the simulated world
// gets keys of every byte value and shell syntax, malformed netlink
// datagrams, garbage on its command socket, broken cloud replies and rule
// files with the wrong types everywhere. After each group it must still
// answer zorctl status and its private memory must stay within a fixed bound
// of what it was before; at the end every command the kernel module received
// and every command line the service ran must have one of the intended
// shapes exactly and carry only texts it was given (in the direct channel no
// shell runs for a command at all), and no injection marker file may exist.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <regex>
#include <set>
#include <thread>

#include "ctrl_text.h"
#include "ipc_client.h"
#include "sim_world.h"
#include "zor_ctrl.h"

namespace {

using namespace std::chrono_literals;

// Growth of RssAnon allowed across one group of hostile input. The service
// idles at a few MiB; what a group may legitimately leave behind is cache
// entries for a few hundred keys. Keeping any one of the multi-MiB replies
// or requests of the groups below would break it.
constexpr long kRssGrowthKb = 2048;

std::string hex(const std::string& bytes) {
    std::string out;
    char b[3];
    for (unsigned char c : bytes) out += (snprintf(b, sizeof b, "%02x", c), b);
    return out;
}

// Keys the service must never send: a space (it would add words to the
// command), control bytes, and a backslash, which some shells' echo reads
// as an escape.
bool unsendable(const std::string& key) {
    for (unsigned char c : key)
        if (c <= 0x20 || c == 0x7F || c == '\\') return true;
    return false;
}

class Hostile : public world_test {
protected:
    // Kernel commands as shell lines (ctrl_shell = 1) instead of direct writes.
    virtual bool shell() const { return false; }

    void SetUp() override {
        world_test::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        ASSERT_TRUE(start(w, {.categories = ".hit.example 0x0305\n198.51.100.0/24 0x0102\n", .session = true,
                              .ctrl_shell = shell()}));
        // One round of ordinary work first, so that what is measured after a
        // group is growth, not start-up.
        ASSERT_TRUE(verdict_arrives(send_keys({"warm.example", "www.hit.example"})));
        before_kb = w.rss_anon_kb();
        ASSERT_GT(before_kb, 0);
        mark = w.ctrl_lines().size();
    }

    void TearDown() override {
        if (IsSkipped()) return;
        // Also what a sanitizer found at exit (a leak) shows in the status.
        EXPECT_EQ(w.stop(), std::optional<int>(0)) << "no clean exit on SIGTERM:\n" << w.service_output();
        int faults = 0;
        for (const std::string& line : w.commands())
            if (std::string f = command_fault(line); !f.empty() && faults++ < 20)
                ADD_FAILURE() << "unintended command line (" << f << "): " << line;
        for (const std::string& text : w.ctrl_lines())
            if (std::string f = text_fault(text); !f.empty() && faults++ < 20)
                ADD_FAILURE() << "unintended command in the module (" << f << "): " << text;
        EXPECT_EQ(faults, 0) << "unintended commands in all";
        for (const auto& e : std::filesystem::directory_iterator(w.dir()))
            EXPECT_NE(e.path().filename().string().rfind("pwned", 0), 0u) << "injected: " << e.path();
    }

    // Why `line` (as recorded: control bytes as \xHH) is not a command line
    // the service may run; empty when it is. Besides the module tools, only
    // the shell channel runs lines: each the guarded echo of a sound text,
    // one double-quoted shell word with every ", \, $ and ` in it escaped.
    std::string command_fault(const std::string& line) const {
        if (line == "lsmod | grep -w ^zor_service" ||
            line == "[ ! -f /proc/zor/ctrl ] && insmod " + w.root() + "/zor.ko qos=0 pc=0 cloud=0 router_mode=0 ")
            return "";
        const std::optional<std::string> text = zor_test::ctrl_text_of_line(line, ZOR_CTRL_FILE);
        if (!text) return "not a command of the intended shapes";
        if (!shell()) return "a shell ran for a command in the direct channel";
        return text_fault(*text);
    }

    // Why `text` is not a command the module may receive carrying only
    // texts the test gave it; empty when it is. A key or rule text that
    // carried a space would show as a key never sent.
    std::string text_fault(const std::string& text) const {
        static const std::regex u2k("db key2group u2k (?:20|21|22) (.*)"), add("pc rule add [12] (.*) [0-9]{1,10} [0-9]{1,10}"),
            update("db key2group update [12] (?:20|21|22) (.*) -?[0-9]{1,10} [0-9]{1,10} [0-9]{1,10}");
        if (text.size() >= ZOR_CTRL_WRITE_MAX) return "longer than a command";
        if (text == w.port_line() || text == "pc rule clean") return "";
        std::smatch m;
        if (std::regex_match(text, m, u2k) || std::regex_match(text, m, update))
            return keys.count(m[1]) ? "" : "a key never sent: " + m[1].str();
        if (std::regex_match(text, m, add)) return rule_pairs.count(m[1]) ? "" : "a rule never given: " + m[1].str();
        return "not an intended control command";
    }

    // A file the shell would create if a text ever ran as a command.
    std::string marker(const std::string& tag) const { return w.dir() + "/pwned-" + tag; }

    // Reports each key (as `verb`: domain or addr), then a fence key of its
    // own with bit 0 set; returns the fence. Only keys that may be sent are
    // allowed on a command line.
    std::string send_keys(const std::vector<std::string>& sent, const char* verb = "domain") {
        std::vector<std::string> args;
        for (const std::string& k : sent) {
            args.insert(args.end(), {verb, k, ";"});
            if (!unsendable(k)) keys.insert(k);
        }
        const std::string fence = "fence" + std::to_string(++fences) + ".example";
        keys.insert(fence);
        args.insert(args.end(), {"domain", fence, "flags=1"});
        EXPECT_EQ(w.kernsim(args), 0) << w.lines_of("kernsim.out").size();
        return fence;
    }

    // Polls `done`, asking the service to send its pending queries (a
    // report with bit 0 only) between polls: the worker takes reports
    // newest first, so a flagged one can be handled before older keys are
    // pending.
    bool with_wakes(const std::function<bool()>& done) {
        auto deadline = std::chrono::steady_clock::now() + kWorldWait;
        while (!done()) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            EXPECT_EQ(w.kernsim({"wake"}), 0);
            std::this_thread::sleep_for(250ms);
        }
        return true;
    }

    // Waits (with wakes) until `key` had its verdict from the cloud.
    bool verdict_arrives(const std::string& key) {
        return with_wakes([&] { return w.ctrl_count("db key2group update 1 20 " + key + " ") > 0; });
    }

    // What the kernel module received since the set-up, of lines starting
    // with `prefix`.
    std::vector<std::string> new_ctrl(const std::string& prefix) const {
        std::vector<std::string> out;
        auto all = w.ctrl_lines();
        for (size_t i = mark; i < all.size(); ++i)
            if (all[i].rfind(prefix, 0) == 0) out.push_back(all[i]);
        return out;
    }

    void check_alive_and_bounded(const char* after) {
        ASSERT_FALSE(w.wait_exit(0ms).has_value()) << "the service died after " << after << ":\n"
                                                   << w.service_output();
        EXPECT_EQ(w.zorctl({"status"}), 0) << "no status after " << after;
#ifndef ZOR_SANITIZED
        const long now_kb = w.rss_anon_kb();
        EXPECT_LE(now_kb, before_kb + kRssGrowthKb)
            << "RssAnon grew from " << before_kb << " KiB to " << now_kb << " KiB after " << after;
#endif
    }

    void keys_of_every_byte();

    std::set<std::string> keys;        // key texts that may reach the kernel
    std::set<std::string> rule_pairs;  // "MAC CONTENT" of rules that may be added
    long before_kb = -1;
    size_t mark = 0;
    int fences = 0;
};

class HostileShell : public Hostile {
protected:
    bool shell() const override { return true; }
};

// Keys of every byte value 0x01-0xFF, shell syntax of every kind, and names
// at and past the length a kernel command can carry. What the kernel module
// receives (written directly, or by the real shell running the line) is the
// key itself, as u2k in arrival order and, after a round trip through the
// cloud, as a verdict. A key with a space, a control byte or a backslash
// reaches it not at all.
void Hostile::keys_of_every_byte() {
    std::vector<std::string> names, addresses;
    for (unsigned b = 1; b <= 0xFF; ++b) {
        const std::string c(1, static_cast<char>(b)), tag = hex(c);
        names.push_back("b" + tag + "-" + c + "-x.example");
        addresses.push_back("10.0." + c + "." + tag);
    }
    // Shell syntax, one or two of each kind (every single byte is in the
    // names above).
    names.insert(names.end(), {
        "a.com\";touch${IFS}" + marker("dq") + ";\"", "$(touch${IFS}" + marker("subst") + ")",
        "`touch${IFS}" + marker("backq") + "`",     "x\\\";touch${IFS}" + marker("bsdq") + "#",
        "';touch${IFS}" + marker("sq") + ";'",      "a&&touch${IFS}" + marker("and") + "|tee${IFS}a>b",
        "${IFS}touch${IFS}" + marker("ifs"),        "evil\\npc rule clean",
        "$((1+1))$$$!$?$#$@$*$0",                   "a\\c",
        "~root/*?[a]{b,c}!%s%n-n",                  "victim.example 86400 0 0",
    });
    // The longest key whose u2k command fits (text and newline in 256 bytes;
    // the shell line in 256); one byte more, a 255-byte name and a field with
    // no terminator at all (read as its 256 bytes) reach the kernel not at
    // all.
    const std::string head = "db key2group u2k 20 ";
    const size_t room = 255 - (shell() ? zor_ctrl_shell_line(head) : head).size();
    const std::string fits(room, 'f'), unterminated(256, 'u');
    std::vector<std::string> sent = names;
    sent.insert(sent.end(), {fits, std::string(room + 1, 'c'), std::string(255, 'n'), unterminated + "uuuu"});
    keys.insert(unterminated);
    const std::string fence1 = send_keys(sent), fence2 = send_keys(addresses, "addr");
    ASSERT_TRUE(w.wait_ctrl("db key2group u2k 20 " + fence2)) << w.service_log().substr(0, 2000);

    std::vector<std::string> u2k;
    std::set<std::string> verdicts;
    size_t dropped = 0;
    auto expect = [&](const char* type, const std::vector<std::string>& ks, bool verdict = true) {
        for (const std::string& k : ks) {
            if (unsendable(k)) { ++dropped; continue; }
            u2k.push_back(std::string("db key2group u2k ") + type + " " + k);
            if (verdict) verdicts.insert(std::string("db key2group update 1 ") + type + " " + k + " 86400 0 0");
        }
    };
    expect("20", names);
    expect("20", {fits}, false);  // its verdict is longer than a command
    expect("20", {fence1});
    expect("21", addresses);
    expect("20", {fence2});
    ASSERT_EQ(dropped, 2 * 34u + 4);  // 0x01-0x20, 0x7F and 0x5C of both kinds; four shell keys
    EXPECT_EQ(new_ctrl("db key2group u2k "), u2k);
    EXPECT_TRUE(with_wakes([&] {
        for (const std::string& l : new_ctrl("db key2group update ")) verdicts.erase(l);
        return verdicts.empty();
    })) << verdicts.size() << " verdicts missing, e.g. " << (verdicts.empty() ? "" : *verdicts.begin());
    check_alive_and_bounded("hostile keys");
}

TEST_F(Hostile, KeysOfEveryByteAndShellSyntaxReachTheKernelAsText) { keys_of_every_byte(); }
TEST_F(HostileShell, KeysOfEveryByteAndShellSyntaxReachTheKernelAsText) { keys_of_every_byte(); }

// Datagrams no kernel module would send (the netlink fuzz target tries
// many more against the parser): cut short, lying about their lengths,
// records too long for the receive buffer or of unknown types, broken
// controller replies, and random bytes with and without a plausible header.
// They are dropped; the valid events between them still get through, once
// each, and only while the family is known.
TEST_F(Hostile, MalformedDatagramsAreDropped) {
    const std::string script = w.dir() + "/malformed.ks";
    std::ofstream s(script);
    for (const char* line :
         {"domain header.bad cut=16", "domain record.bad cut=35", "domain liar.bad nlmsg_len=17",
          "domain donetype.bad nltype=3", "domain biglen.bad data_len=0xffffffff", "domain past.bad data_len=257",
          "event type=20 len=4096 text=huge.bad", "event type=0xffffffff len=40 text=type.bad", "event type=21 len=0",
          "domain valid1.example", "announce attr=2", "domain ignored.bad", "announce name=zor_notif",
          "announce cut=24", "raw 24000000100000000000000000000000010100000c00010000000000", "announce",
          "domain valid2.example"})
        s << line << "\n";
    std::mt19937 rng(20240607);
    for (int i = 0; i < 300; ++i) {  // every other one headed as an event, a third of those lying about its length
        std::string d(24 + rng() % 1100, '\0');
        for (char& c : d) c = static_cast<char>(rng());
        const uint32_t head[2] = {static_cast<uint32_t>(d.size() + (i % 3 ? 0 : 8)), 40};  // length; type 40, the family
        if (i % 2) memcpy(&d[0], head, sizeof head), d[16] = 1;
        s << "raw " << hex(d) << "\n";
    }
    s << "announce\ndomain valid3.example\n";
    s.close();
    keys.insert({"valid1.example", "valid2.example", "valid3.example"});
    ASSERT_EQ(w.kernsim({"-s", script}), 0) << w.lines_of("kernsim.out").size();
    ASSERT_TRUE(w.wait_ctrl("db key2group u2k 20 valid3.example")) << w.service_log();
    EXPECT_EQ(new_ctrl("db key2group u2k "),
              (std::vector<std::string>{"db key2group u2k 20 valid1.example", "db key2group u2k 20 valid2.example",
                                        "db key2group u2k 20 valid3.example"}));
    check_alive_and_bounded("malformed datagrams");
}

// Bytes on the command socket that zorctl would never send (the IPC fuzz
// target tries many more against the request handler): truncated requests,
// oversized ones, unknown commands, texts without a terminator or of shell
// syntax, a rule file that never ends, a slow dribble and a client that says
// nothing. The service answers each with at most one reply record and keeps
// serving.
TEST_F(Hostile, CommandSocketGarbageIsSurvived) {
    const std::string fifo = w.dir() + "/rules.fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::mt19937 rng(7);
    std::string noise(65536, '\0');
    for (char& c : noise) c = static_cast<char>(rng());
    const std::string subst = "$(touch " + marker("ipc") + ")", status = ipc_request_bytes(70, 0, "");
    struct row { const char* what; std::string bytes; size_t chunk = 0; };
    const std::vector<row> rows = {
        {"263 bytes", status.substr(0, 263)},
        {"64 KiB of random bytes", noise},
        {"negative command", ipc_request_bytes(-1, -1, "x")},
        {"query without terminator", ipc_request_bytes(100, 20, std::string(256, 'q'))},
        {"query of shell syntax and huge numbers", ipc_request_bytes(100, 20, subst + " 99999999999999999999 -9")},
        {"rule file that is a FIFO", ipc_request_bytes(42, 0, fifo)},
        {"rule file of shell syntax", ipc_request_bytes(42, 0, subst)},
        {"cache import of deep JSON", ipc_request_bytes(201, 0, std::string(128, '[') + std::string(127, ']'))},
        {"status dribbled a byte at a time", status, 1},
        {"two requests in one write", status + ipc_request_bytes(1, 0, "")},
    };
    for (const row& r : rows) {
        auto reply = w.ipc_raw(r.bytes, 15s, true, r.chunk);
        ASSERT_TRUE(reply.has_value()) << r.what << ": no connection";
        EXPECT_TRUE(reply->empty() || reply->size() == 260u) << r.what << ": " << reply->size() << " bytes back";
        ASSERT_FALSE(w.wait_exit(0ms).has_value()) << "died on " << r.what << ":\n" << w.service_output();
    }
    // A client that connects and says nothing is closed at the request
    // time-out (5 s), not held until it gives up (30 s here); meanwhile a
    // burst of clients that leave at once is served, and so is zorctl.
    zor_test::ipc_socket silent(w.dir() + "/run/.ipc.socket");
    ASSERT_TRUE(silent.ok());
    const auto since = std::chrono::steady_clock::now();
    for (int i = 0; i < 50; ++i) w.ipc_raw("", 0ms, true);
    EXPECT_EQ(w.zorctl({"status"}), 0) << "the channel stayed blocked";
    const timeval give_up{30, 0};
    ASSERT_EQ(setsockopt(silent.fd(), SOL_SOCKET, SO_RCVTIMEO, &give_up, sizeof give_up), 0);
    EXPECT_NE(silent.read_to_end(), "<receive error>") << "the silent client was never closed";
    EXPECT_LT(std::chrono::steady_clock::now() - since, 20s) << "the silent client was held";
    check_alive_and_bounded("command socket garbage");
}

// Cloud replies of every broken kind (the verdict fuzz target tries many
// more against the parser): empty, not base64, over the size bound, not
// deciphering, deciphering to text that is not JSON, cut short, of the wrong
// types at several levels, huge, and error replies with odd bodies. Each
// query gets one of them; the service carries on and a key with a usable
// verdict gets it.
TEST_F(Hostile, BrokenCloudRepliesAreSurvived) {
    auto member = [](const std::string& key, const std::string& value) {
        return "sealed {\"r\":{\"" + key + "\":" + value + "}}";
    };
    std::string many = "sealed {\"r\":{";
    for (int i = 0; i < 20000; ++i) many += "\"filler" + std::to_string(i) + ".example\":[20,0,0,24,1,2],";
    many += "\"c-huge.example\":[20,0,0,1,9,9]}}";
    // Key, the reply to its query, and the verdict the kernel must then get
    // (empty: none).
    struct row { std::string key, action, verdict; };
    const std::vector<row> rows = {
        {"c-empty.example", "raw 200"},
        {"c-notbase64.example", "raw 200 !!!! not base64 ~~~~"},
        {"c-toobig.example", "raw 200 " + std::string(3u << 20, 'A')},
        {"c-garble.example", "garble"},
        {"c-sealed-empty.example", "sealed"},
        {"c-notjson.example", "sealed this is not JSON"},
        {"c-cut.example", "sealed {\"r\":{\"c-cut.example\":[20,0,0,24"},
        {"c-array.example", "sealed [1,2,3]"},
        {"c-short.example", member("c-short.example", "[20,0,0,24,3]")},
        {"c-objects.example", member("c-objects.example", "[\"20\",{},[],null,true,\"4\"]")},
        {"c-huge-numbers.example", member("c-huge-numbers.example", "[20,0,0,1e308,1e308,-1e308]")},
        {"c-negative.example", member("c-negative.example", "[20,0,0,-24,3,4]"), "-86400 3 4"},
        {"c-big-group.example", member("c-big-group.example", "[20,0,0,24,4096,65536]"), "86400 4096 65536"},
        {"c-type.example", member("c-type.example", "[99,0,0,24,3,4]")},
        {"c-deep.example", "sealed " + std::string(5000, '[') + std::string(5000, ']')},
        {"c-error-html.example", "raw 503 <html><body>busy</body></html>"},
        {"c-error-type.example", "raw 401 {\"error\":{\"code\":\"101\"}}"},
        {"c-huge.example", many, "3600 9 9"},
        {"c-token.example", "error 401 101"},  // last: it brings a new login
    };
    std::string err;
    // The session is held, so only the refused token brings a login from
    // here on: none may come before its query (a wrong one would have held
    // the next query back until it was done). A login round may take more
    // than one request on a slow machine, so its own is counted as any.
    const size_t logins = cloud.count("login");
    // Each reply is scripted for the server the session's ping chose, where
    // every query starts. After an error reply the service tries the other
    // servers, possibly once the test has moved on: those get the standing
    // answer, never a later row's reply (a refused token taken that way
    // brought a login of its own), and they are not counted as the next
    // row's query. A query is counted when it arrives but takes its reply
    // only when served: one counted as served has taken it.
    std::string home = "0";
    for (const auto& r : cloud.requests())
        if (r.endpoint == "ping" && r.status == 200) home = std::to_string(r.node);
    auto answered = [&] {
        const auto reqs = cloud.requests();
        return std::count_if(reqs.begin(), reqs.end(), [&](const auto& r) {
            return r.endpoint == "query" && std::to_string(r.node) == home && r.status;
        });
    };
    for (const auto& [key, action, verdict] : rows) {
        const auto asked = answered();
        ASSERT_TRUE(cloud.apply("query " + home + " times 1 " + action, &err)) << err;
        keys.insert(key);
        ASSERT_EQ(w.kernsim({"domain", key, "flags=1"}), 0);
        ASSERT_TRUE(zor_test::eventually([&] { return answered() > asked; }, kWorldWait)) << key;
        if (&key != &rows.back().key) {
            EXPECT_EQ(cloud.count("login"), logins) << "a login before " << key;
        }
        EXPECT_TRUE(verdict.empty() || w.wait_ctrl("db key2group update 1 20 " + key + " " + verdict)) << key;
        ASSERT_FALSE(w.wait_exit(0ms).has_value()) << "died on " << key << ":\n" << w.service_output();
    }
    // The refused token (and only it: a code that is a string is no such
    // refusal, as the count before each query shows) brings a new login. A
    // batch sent before that login is held is dropped by design, so
    // ordinary work resumes once it is.
    ASSERT_TRUE(zor_test::eventually([&] { return cloud.count("login") > logins && w.logged_in(); }, kWorldWait))
        << "no new login";
    EXPECT_TRUE(verdict_arrives(send_keys({"after-cloud.example"}))) << w.service_log().substr(0, 4000);
    check_alive_and_bounded("broken cloud replies");
}

// Rule files with extreme numbers, dates and times, wrong types (the rule
// file fuzz target tries many more against the reader), texts of shell
// syntax (a MAC text may carry any tail after twelve digits), and files that
// are not rule files at all. Only valid rules reach the kernel, as text.
TEST_F(Hostile, RuleFilesWithWrongTypesEverywhere) {
    // Texts of shell syntax; only the quotes of `cn` need escaping in JSON.
    // A text with a space (the MAC check lets any tail after twelve digits
    // through) is refused when the rule is applied: it would add words.
    const std::string mac_tail = "aabbccddeeff:$(touch${IFS}" + marker("rule") + ")", dn = "`touch${IFS}" + marker("dn") + "`";
    const std::string cn = "\";touch${IFS}" + marker("cn") + ";\"", cn_json = "\\\";touch${IFS}" + marker("cn") + ";\\\"";
    const std::string spaced_mac = "aabbccddeeff- 1 ff:ff:ff:ff:ff:ff";
    const std::string sched = R"({"1":{"mac":"aabbccddeeff","cn":"1","schedule":{)";
    const std::vector<std::string> bodies = {
        "\"rules\"", R"({"1":{"mac":["aabbccddeeff"],"cn":{}}})",
        R"({"99999999999999999999":{"mac":"aabbccddeeff","cn":"1"},"-1":{"mac":"aabbccddeeff","cn":"1"},"1e5":{"mac":"aabbccddeeff","cn":"1"}})",
        R"({"1":{"mac":")" + mac_tail + R"(","cn":")" + cn_json + R"("},"2":{"mac":"aa:bb:cc:dd:ee:ff","dn":")" + dn +
            R"(","schedule":{"type":1,"from":"0:00","to":"23:59","weekly":[0,1,2,3,4,5,6]}},"3":{"mac":")" +
            std::string(300, 'a') + R"(","cn":"x"},"4":{"mac":"001122334455","cn":")" + std::string(500, 'L') + R"("}})",
        R"({"1":{"mac":"001122334455","cn":")" "\x01" R"(ctl"}})", R"({"1":{"mac":"001122334455","cn":"a\\nb"}})",
        R"({"1":{"mac":")" + spaced_mac + R"(","cn":"7"},"2":{"mac":"001122334455","dn":"two words.example"}})",
        std::string(5000, '{'), "\xff\xfe{\"1\":{}}", std::string(3u << 20, ' '),
        sched + R"("type":1e300,"from":"0:00","to":"1:00"}}})",
        sched + R"("type":0,"from":"99999999999-99999999999-1 0:0","to":"x"}}})",
        sched + R"("type":1,"from":"99999999999:99999999999","to":"-5:-5","weekly":[0,1,2,3,4,5,6]}}})",
        sched + R"("type":1,"from":"0:00","to":"1:00","weekly":[1e300,-1e300,[0],{}]}}})",
        sched + R"("type":1,"from":"0:00","to":"1:00","monthly":[1e300,null,"1"]}}})",
    };
    // The valid rules above, as the kernel may see them ("MAC CONTENT").
    rule_pairs = {"aabbccddeeff 1", mac_tail.substr(0, 31) + " " + cn, "aa:bb:cc:dd:ee:ff " + dn};
    for (size_t n = 0; n < bodies.size(); ++n) {
        const std::string path = w.dir() + "/rules" + std::to_string(n) + ".json";
        std::ofstream(path, std::ios::binary) << bodies[n];
        EXPECT_EQ(w.zorctl({"pc", "rule", path}), 0) << bodies[n].substr(0, 200);
        ASSERT_FALSE(w.wait_exit(0ms).has_value()) << "died on " << bodies[n].substr(0, 200) << "\n" << w.service_output();
    }
    EXPECT_EQ(w.zorctl({"pc", "on"}), 0);
    EXPECT_EQ(w.zorctl({"pc", "off"}), 0);
    EXPECT_GT(w.ctrl_count("pc rule add 1 aabbccddeeff 1 "), 0u) << "no valid rule was ever applied";
    EXPECT_GT(w.ctrl_count("pc rule add 2 aa:bb:cc:dd:ee:ff " + dn + " "), 0u) << "the rule of shell syntax never arrived as text";
    EXPECT_EQ(w.ctrl_count("pc rule add 1 " + spaced_mac), 0u) << "a MAC with spaces added words";
    check_alive_and_bounded("hostile rule files");
}

}  // namespace
