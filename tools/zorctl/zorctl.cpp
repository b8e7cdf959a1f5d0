// zorctl: the control client of zor_service. Sends one command over the
// service's Unix socket and prints what the reply means, for a person or, with
// --json, as one JSON object for a router's web interface.
//
// Several commands' replies carry stale bytes by design (the service never
// clears its reply record), so each command reads only the reply fields that
// its command actually writes; see docs/zorctl.md.

#include <cjson/cJSON.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ini.h"
#include "ipc/ipc_server.h"
#include "util/c_ptr.h"
#include "util/unique_fd.h"
#include "zorctl_stats.h"

namespace {

enum exit_code {
    EXIT_DONE = 0,         // the service did what was asked
    EXIT_REFUSED = 1,      // the service answered that the command failed
    EXIT_USAGE = 2,        // bad command line or configuration file
    EXIT_UNREACHABLE = 3,  // no socket, connection refused or not possible
    EXIT_NO_REPLY = 4,     // connected, but no complete reply came back
};

constexpr int kDefaultTimeoutSeconds = 30;

struct options {
    std::string socket_path;
    std::string ini_path;
    bool json = false;
    bool prometheus = false;  // stats in the Prometheus text format
    int timeout_s = kDefaultTimeoutSeconds;
    std::vector<std::string> words;
};

// What one run ends with: the exit code, the human text and the JSON object.
struct outcome {
    int code = EXIT_DONE;
    std::string text;
    json_ptr object{cJSON_CreateObject()};
};

outcome make_outcome(const std::string& command) {
    outcome o;
    if (!command.empty()) cJSON_AddStringToObject(o.object.get(), "command", command.c_str());
    return o;
}

outcome failure(const std::string& command, int code, const std::string& message) {
    outcome o = make_outcome(command);
    o.code = code;
    o.text = "zorctl: " + message;
    cJSON_AddBoolToObject(o.object.get(), "ok", false);
    cJSON_AddStringToObject(o.object.get(), "error", message.c_str());
    return o;
}

outcome success(const std::string& command, const std::string& text) {
    outcome o = make_outcome(command);
    o.text = text;
    cJSON_AddBoolToObject(o.object.get(), "ok", true);
    return o;
}

void print_outcome(const outcome& o, bool json) {
    if (json) {
        std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(o.object.get()),
                                                          cJSON_free);
        if (text) printf("%s\n", text.get());
        return;
    }
    FILE* out = o.code == EXIT_DONE ? stdout : stderr;
    fprintf(out, "%s\n", o.text.c_str());
}

const char kUsage[] =
    "usage: zorctl [-s SOCKET | -i INI] [--json | --prometheus] [-t SECONDS] COMMAND\n"
    "commands:\n"
    "  exit                 stop the service\n"
    "  cloud on|off         switch cloud category lookups\n"
    "  pc on|off            switch parental control\n"
    "  pc rule FILE         set and apply the parental-control rule file\n"
    "  pc clear             forget the rule file and empty the kernel rule table\n"
    "  status               cloud switch, login state, login and expiry times, account\n"
    "  query NAME TYPE A B  send one query to the cloud service by hand\n"
    "  db show              write the verdict cache listing to the service log\n"
    "  db add JSON          feed a cloud reply object to the verdict cache\n"
    "  reload               re-read the category file, re-apply the rule file, reopen the log\n"
    "  stats                the service's counters (--prometheus: for a textfile collector)\n";

// --- command line -----------------------------------------------------------

std::optional<long long> parse_integer(const std::string& text, long long lo, long long hi) {
    if (text.empty()) return std::nullopt;
    errno = 0;
    char* end = nullptr;
    long long v = strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < lo || v > hi) return std::nullopt;
    return v;
}

// Returns an error message, or nullopt when the options were understood.
std::optional<std::string> parse_options(int argc, char** argv, options* opt) {
    int i = 1;
    for (; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--json") {
            opt->json = true;
        } else if (a == "--prometheus") {
            opt->prometheus = true;
        } else if (a == "-s" || a == "-i" || a == "-t") {
            if (i + 1 >= argc) return "option " + a + " needs a value";
            std::string v = argv[++i];
            if (a == "-s") opt->socket_path = v;
            if (a == "-i") opt->ini_path = v;
            if (a == "-t") {
                auto t = parse_integer(v, 1, 3600);
                if (!t) return "-t takes a number of seconds from 1 to 3600";
                opt->timeout_s = static_cast<int>(*t);
            }
        } else if (a == "--") {
            ++i;
            break;
        } else if (a.size() > 1 && a[0] == '-') {
            return "unknown option " + a;
        } else {
            break;
        }
    }
    // --json and --prometheus may also follow the command.
    for (; i < argc; ++i) {
        if (strcmp(argv[i], "--json") == 0)
            opt->json = true;
        else if (strcmp(argv[i], "--prometheus") == 0)
            opt->prometheus = true;
        else
            opt->words.emplace_back(argv[i]);
    }
    if (opt->json && opt->prometheus) return "give either --json or --prometheus, not both";
    if (opt->prometheus && !(opt->words.size() == 1 && opt->words[0] == "stats"))
        return "--prometheus is for the stats command only";
    if (!opt->socket_path.empty() && !opt->ini_path.empty())
        return "give either -s SOCKET or -i INI, not both";
    if (opt->socket_path.empty() && opt->ini_path.empty()) return "give -s SOCKET or -i INI";
    if (opt->words.empty()) return "no command given";
    return std::nullopt;
}

// The socket the service listens on, from its configuration file: the
// writable_root of section zor, as the service builds it (cut to 255 bytes).
std::optional<std::string> socket_from_ini(const std::string& path, std::string* error) {
    ini_ptr ini(ini_load(path.c_str()));
    if (!ini) {
        *error = "cannot read the configuration file " + path;
        return std::nullopt;
    }
    const char* root = ini_get_string(ini.get(), "zor", "writable_root", nullptr);
    if (root == nullptr) {
        *error = "no writable_root in section zor of " + path;
        return std::nullopt;
    }
    std::string socket = std::string(root) + "/.ipc.socket";
    if (socket.size() > 255) socket.resize(255);
    return socket;
}

// --- talking to the service -------------------------------------------------

struct exchange_result {
    bool ok = false;
    int code = EXIT_DONE;
    std::string error;
    ipc_reply reply{};
    std::vector<ipc_reply> records;  // the counter records, for stats
};

exchange_result exchange_error(int code, std::string message) {
    exchange_result r;
    r.code = code;
    r.error = std::move(message);
    return r;
}

std::string connect_error(const std::string& path, int err) {
    switch (err) {
        case ENOENT: return "no service socket at " + path + " (is zor_service running?)";
        case ECONNREFUSED:
            return "connection refused at " + path +
                   " (the socket file is left over; zor_service is not running)";
        case EACCES:
            return "permission denied on " + path +
                   ": the service serves only root, its own account and the members of its ipc_group";
        case EAGAIN:
        case ETIMEDOUT: return "the service did not accept the connection in time at " + path;
        default: return "cannot connect to " + path + ": " + strerror(err);
    }
}

bool send_all(int fd, const void* data, size_t n) {
    const char* p = static_cast<const char*>(data);
    while (n > 0) {
        ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

// Reads up to `n` bytes until the peer closes; returns the count or -1.
ssize_t recv_all(int fd, void* data, size_t n) {
    char* p = static_cast<char*>(data);
    size_t got = 0;
    while (got < n) {
        ssize_t r = recv(fd, p + got, n - got, 0);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return got > 0 ? static_cast<ssize_t>(got) : -1;
        if (r == 0) break;
        got += static_cast<size_t>(r);
    }
    return static_cast<ssize_t>(got);
}

const char kClosedUnanswered[] =
    "the service closed the connection without a reply (it refuses accounts other than root, its own "
    "and the members of its ipc_group)";

// Reads one whole reply record into `reply`; an error result otherwise.
std::optional<exchange_result> read_record(int fd, int timeout_s, ipc_reply* reply) {
    ssize_t n = recv_all(fd, reply, sizeof *reply);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return exchange_error(EXIT_NO_REPLY, "no reply within " + std::to_string(timeout_s) + " s");
    if (n <= 0) return exchange_error(EXIT_NO_REPLY, kClosedUnanswered);
    if (static_cast<size_t>(n) < sizeof *reply)
        return exchange_error(EXIT_NO_REPLY, "short reply of " + std::to_string(n) + " bytes");
    reply->msg[sizeof reply->msg - 1] = '\0';
    return std::nullopt;
}

// Reads counter records up to the one flagged last: the first says how many
// follow and each next one counts down by one, at most IPC_STATS_MAX_RECORDS.
exchange_result read_records(int fd, int timeout_s) {
    exchange_result r;
    for (;;) {
        ipc_reply rec{};
        if (auto err = read_record(fd, timeout_s, &rec)) return *err;
        const int32_t want = r.records.empty() ? rec.result : r.records.back().result - 1;
        if (rec.result < 0 || rec.result >= static_cast<int32_t>(IPC_STATS_MAX_RECORDS) || rec.result != want)
            return exchange_error(EXIT_NO_REPLY, "the reply is not a sequence of counter records");
        r.records.push_back(rec);
        if (rec.result == 0) break;
    }
    r.ok = true;
    return r;
}

exchange_result exchange(const std::string& path, int timeout_s, const ipc_request& req) {
    sockaddr_un addr{};
    if (path.size() >= sizeof addr.sun_path)
        return exchange_error(EXIT_USAGE, "socket path longer than 107 bytes: " + path);
    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) return exchange_error(EXIT_UNREACHABLE, std::string("socket: ") + strerror(errno));
    timeval tv{};
    tv.tv_sec = timeout_s;
    setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.data(), path.size());
    if (connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
        return exchange_error(EXIT_UNREACHABLE, connect_error(path, errno));
    if (!send_all(fd.get(), &req, sizeof req)) {
        // Closed at once: how the service turns away an account it does not serve.
        if (errno == EPIPE || errno == ECONNRESET) return exchange_error(EXIT_NO_REPLY, kClosedUnanswered);
        return exchange_error(EXIT_NO_REPLY, std::string("cannot send the request: ") + strerror(errno));
    }
    if (req.cmd == IPC_CMD_STATS) return read_records(fd.get(), timeout_s);
    exchange_result r;
    if (auto err = read_record(fd.get(), timeout_s, &r.reply)) return *err;
    r.ok = true;
    return r;
}

// --- commands ---------------------------------------------------------------

// One command: the request to send and how to read its reply.
struct command {
    std::string name;  // as the user typed it, e.g. "pc rule"
    ipc_request req{};
    outcome (*read)(const command&, const ipc_reply&) = nullptr;
    std::string arg;  // the path, name or JSON the command carries
    bool prometheus = false;  // stats: the exposition format instead of text
};

bool set_buf(ipc_request* req, const std::string& text) {
    if (text.size() >= sizeof req->buf) return false;
    memcpy(req->buf, text.c_str(), text.size() + 1);
    return true;
}

outcome read_exit(const command& c, const ipc_reply& r) {
    if (r.result != 0) return failure(c.name, EXIT_REFUSED, "the service refused to stop");
    return success(c.name, "zor_service is shutting down.");
}

outcome read_cloud(const command& c, const ipc_reply& r) {
    bool on = c.req.cmd == IPC_CMD_CLOUD_ENABLE;
    if (r.result != 0) return failure(c.name, EXIT_REFUSED, "the service refused the command");
    outcome o = success(c.name, on ? "Cloud category lookups are on." : "Cloud category lookups are off.");
    cJSON_AddBoolToObject(o.object.get(), "cloud", on);
    return o;
}

outcome read_pc_switch(const command& c, const ipc_reply& r) {
    bool on = c.req.cmd == IPC_CMD_PC_ENABLE;
    if (r.result != 0) return failure(c.name, EXIT_REFUSED, "the service refused the command");
    outcome o = success(c.name, on ? "Parental control is on: the rules due today are in force and "
                                     "are renewed at every midnight."
                                   : "Parental control is off.");
    cJSON_AddBoolToObject(o.object.get(), "parental_control", on);
    return o;
}

outcome read_pc_rule(const command& c, const ipc_reply& r) {
    if (r.result != 0) {
        // The service sets the text only for a missing file.
        std::string why = r.msg[0] != '\0' ? r.msg : "the service refused the rule file";
        outcome o = failure(c.name, EXIT_REFUSED, why);
        cJSON_AddStringToObject(o.object.get(), "file", c.arg.c_str());
        return o;
    }
    outcome o = success(c.name, "Rule file " + c.arg +
                                    " set and applied. Rules it rejects are skipped and named in "
                                    "the service log.");
    cJSON_AddStringToObject(o.object.get(), "file", c.arg.c_str());
    return o;
}

outcome read_pc_clear(const command& c, const ipc_reply&) {
    // The service does not write this reply: its arrival is the answer.
    return success(c.name, "Rule file forgotten and the kernel rule table emptied.");
}

std::string local_date(time_t t) {
    struct tm tm;
    if (localtime_r(&t, &tm) == nullptr) return std::to_string(static_cast<long long>(t));
    char buf[64];
    strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S %Z", &tm);
    return buf;
}

outcome read_status(const command& c, const ipc_reply& r) {
    // Only msg is written: "<cloud> <login> <login time> <expiry> <account>".
    char cloud = 0;
    char login = 0;
    unsigned long long start = 0;
    unsigned long long expiry = 0;
    int used = 0;
    if (sscanf(r.msg, "%c %c %llu %llu%n", &cloud, &login, &start, &expiry, &used) != 4 ||
        (cloud != '0' && cloud != '1') || (login != '0' && login != '1'))
        return failure(c.name, EXIT_NO_REPLY, std::string("unexpected status text: ") + r.msg);
    std::string account = r.msg + used;
    if (!account.empty() && account[0] == ' ') account.erase(0, 1);
    // The service widens 32-bit times; their low 32 bits are the epoch seconds.
    time_t login_time = static_cast<uint32_t>(start);
    time_t expiry_time = static_cast<uint32_t>(expiry);
    bool held = login == '1';

    std::string text;
    text += std::string("cloud:      ") + (cloud == '1' ? "on" : "off") + "\n";
    text += std::string("logged in:  ") + (held ? "yes" : "no") + "\n";
    text += "login time: " + (held ? local_date(login_time) : std::string("-")) + "\n";
    text += "expires:    " + (held ? local_date(expiry_time) : std::string("-")) + "\n";
    text += "account:    " + (held ? account : std::string("-"));
    outcome o = success(c.name, text);
    cJSON* obj = o.object.get();
    cJSON_AddBoolToObject(obj, "cloud", cloud == '1');
    cJSON_AddBoolToObject(obj, "logged_in", held);
    cJSON_AddNumberToObject(obj, "login_time", static_cast<double>(login_time));
    cJSON_AddNumberToObject(obj, "expiry_time", static_cast<double>(expiry_time));
    cJSON_AddStringToObject(obj, "account", account.c_str());
    return o;
}

outcome read_query(const command& c, const ipc_reply& r) {
    // The reply is the name echoed over the whole record, no status.
    const char* echo = reinterpret_cast<const char*>(&r);
    size_t n = strnlen(echo, sizeof r);
    if (std::string(echo, n) != c.arg)
        return failure(c.name, EXIT_NO_REPLY, "the service did not take the query");
    outcome o = success(c.name, "Query for " + c.arg +
                                    " handed to the cloud service; its answer goes to the service "
                                    "log, not to this reply.");
    cJSON_AddStringToObject(o.object.get(), "name", c.arg.c_str());
    return o;
}

outcome read_db_show(const command& c, const ipc_reply& r) {
    if (r.result != 0) return failure(c.name, EXIT_REFUSED, "the service refused the command");
    return success(c.name, "The verdict cache listing was written to the service log.");
}

outcome read_stats(const command& c, const std::vector<ipc_reply>& records) {
    std::vector<stat_value> values;
    if (auto err = stats_parse(records, &values)) return failure(c.name, EXIT_NO_REPLY, *err);
    if (c.prometheus) return success(c.name, stats_prometheus(values));
    outcome o = success(c.name, stats_text(values));
    stats_json(o.object.get(), values);
    return o;
}

outcome read_db_add(const command& c, const ipc_reply&) {
    return success(c.name, "Reply handed to the verdict cache; the service does not say whether "
                           "it took any verdict from it.");
}

outcome read_reload(const command& c, const ipc_reply& r) {
    if (r.result != 0) {
        std::string why = r.msg[0] != '\0' ? r.msg : "the service refused the command";
        if (r.result == 2)
            return failure(c.name, EXIT_REFUSED,
                           "reload: the category file is in force, but the kernel's rules stay as they were: " + why);
        return failure(c.name, EXIT_REFUSED, "reload failed, the previous category file stays: " + why);
    }
    return success(c.name, "Reloaded: the category file was read again, the rule file applied again "
                           "when parental control is on, and the log file reopened.");
}

// Builds the command from the words, or returns a usage error.
std::optional<std::string> build_command(const std::vector<std::string>& w, command* c) {
    auto is = [&](std::initializer_list<const char*> words) {
        if (w.size() < words.size()) return false;
        size_t i = 0;
        for (const char* word : words)
            if (w[i++] != word) return false;
        return true;
    };
    auto simple = [&](const char* name, int32_t code, outcome (*read)(const command&, const ipc_reply&),
                      size_t count) -> std::optional<std::string> {
        if (w.size() != count) return std::string("usage: ") + name;
        c->name = name;
        c->req.cmd = code;
        c->read = read;
        return std::nullopt;
    };
    if (is({"exit"})) return simple("exit", IPC_CMD_EXIT, read_exit, 1);
    if (is({"cloud", "on"})) return simple("cloud on", IPC_CMD_CLOUD_ENABLE, read_cloud, 2);
    if (is({"cloud", "off"})) return simple("cloud off", IPC_CMD_CLOUD_DISABLE, read_cloud, 2);
    if (is({"pc", "on"})) return simple("pc on", IPC_CMD_PC_ENABLE, read_pc_switch, 2);
    if (is({"pc", "off"})) return simple("pc off", IPC_CMD_PC_DISABLE, read_pc_switch, 2);
    if (is({"pc", "clear"})) return simple("pc clear", IPC_CMD_PC_CLEAR_RULE, read_pc_clear, 2);
    if (is({"status"})) return simple("status", IPC_CMD_STATUS, read_status, 1);
    if (is({"db", "show"})) return simple("db show", IPC_CMD_SHOW_DB, read_db_show, 2);
    if (is({"reload"})) return simple("reload", IPC_CMD_RELOAD, read_reload, 1);
    if (is({"stats"})) return simple("stats", IPC_CMD_STATS, nullptr, 1);
    if (is({"pc", "rule"})) {
        if (simple("pc rule", IPC_CMD_PC_SET_RULE, read_pc_rule, 3)) return "usage: pc rule FILE";
        std::string path = w[2];
        if (path.empty()) return "usage: pc rule FILE";
        // The service resolves the name in its own working directory.
        if (path[0] != '/') {
            char cwd[PATH_MAX];
            if (getcwd(cwd, sizeof cwd) == nullptr) return "cannot find the current directory";
            path = std::string(cwd) + "/" + path;
        }
        if (!set_buf(&c->req, path)) return "rule file path longer than 255 bytes: " + path;
        c->arg = path;
        return std::nullopt;
    }
    if (is({"query"})) {
        if (simple("query", IPC_CMD_QUERY, read_query, 5)) return "usage: query NAME TYPE A B";
        const std::string& name = w[1];
        if (name.empty() || name.find_first_of(" \t\n\v\f\r") != std::string::npos)
            return "the query NAME must be one word";
        auto type = parse_integer(w[2], INT32_MIN, INT32_MAX);
        auto a = parse_integer(w[3], INT32_MIN, INT32_MAX);
        auto b = parse_integer(w[4], INT32_MIN, INT32_MAX);
        if (!type || !a || !b) return "query TYPE, A and B must be 32-bit integers";
        c->req.type = static_cast<int32_t>(*type);
        if (!set_buf(&c->req, name + " " + std::to_string(*a) + " " + std::to_string(*b)))
            return "query text longer than 255 bytes";
        c->arg = name;
        return std::nullopt;
    }
    if (is({"db", "add"})) {
        if (simple("db add", IPC_CMD_DB_ADD, read_db_add, 3)) return "usage: db add JSON";
        json_ptr parsed(cJSON_Parse(w[2].c_str()));
        if (!parsed || !cJSON_IsObject(parsed.get())) return "db add takes one JSON object";
        if (!set_buf(&c->req, w[2])) return "JSON text longer than 255 bytes";
        c->arg = w[2];
        return std::nullopt;
    }
    return "unknown command: " + w[0];
}

int run(int argc, char** argv) {
    if (argc == 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
        fputs(kUsage, stdout);
        return EXIT_DONE;
    }
    options opt;
    bool json = false;
    for (int i = 1; i < argc; ++i)
        if (strcmp(argv[i], "--json") == 0) json = true;
    if (auto err = parse_options(argc, argv, &opt)) {
        outcome o = failure("", EXIT_USAGE, *err);
        print_outcome(o, json);
        if (!json) fputs(kUsage, stderr);
        return o.code;
    }
    command c;
    if (auto err = build_command(opt.words, &c)) {
        outcome o = failure(c.name, EXIT_USAGE, *err);
        print_outcome(o, opt.json);
        return o.code;
    }
    std::string socket_path = opt.socket_path;
    if (!opt.ini_path.empty()) {
        std::string err;
        auto s = socket_from_ini(opt.ini_path, &err);
        if (!s) {
            outcome o = failure(c.name, EXIT_USAGE, err);
            print_outcome(o, opt.json);
            return o.code;
        }
        socket_path = *s;
    }
    c.prometheus = opt.prometheus;
    exchange_result x = exchange(socket_path, opt.timeout_s, c.req);
    outcome o = !x.ok                         ? failure(c.name, x.code, x.error)
                : c.req.cmd == IPC_CMD_STATS ? read_stats(c, x.records)
                                             : c.read(c, x.reply);
    print_outcome(o, opt.json);
    return o.code;
}

}  // namespace

int main(int argc, char** argv) { return run(argc, argv); }
