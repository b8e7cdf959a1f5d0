#include "cloudsim.h"

#include <cjson/cJSON.h>
#include <httplib.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>

#include "sim_crypto.h"
#include "tls_server.h"

namespace cloudsim {

namespace {

constexpr size_t kMaxLog = 4096;
constexpr size_t kMaxTokens = 1024;

enum endpoint { ep_login = 0, ep_ping = 1, ep_query = 2 };
const char* const kEndpointNames[] = {"login", "ping", "query"};

// What an endpoint does with one request.
struct action {
    enum class kind { ok, error, raw, sealed, garble, omit } what = kind::ok;
    int delay_ms = 0;
    int status = 200;
    int code = 0;
    std::string body;
    std::vector<std::string> omit;
};

// One-shot actions are used up first, in order; then the standing one.
struct rule_set {
    std::deque<action> once;
    action standing;
};

struct category {
    int group = 0;
    int sub = 0;
    int ttl_hours = 24;
};

struct token_info {
    std::string token;
    payload_key key;
    int64_t expires = 0;
};

struct json_deleter {
    void operator()(cJSON* j) const { cJSON_Delete(j); }
};
using json_ptr = std::unique_ptr<cJSON, json_deleter>;

std::string print_json(cJSON* j) {
    char* text = cJSON_PrintUnformatted(j);
    std::string out = text ? text : "";
    cJSON_free(text);
    return out;
}

std::string error_body(int code, const char* message) {
    json_ptr root(cJSON_CreateObject());
    cJSON* err = cJSON_AddObjectToObject(root.get(), "error");
    cJSON_AddNumberToObject(err, "code", code);
    cJSON_AddStringToObject(err, "message", message);
    return print_json(root.get());
}

int64_t now_seconds() {
    return static_cast<int64_t>(time(nullptr));
}

// Splits a script line into words, remembering where each starts so that a
// raw body can take the rest of the line as it stands.
struct words {
    std::vector<std::string> w;
    std::vector<size_t> at;
    std::string line;

    explicit words(const std::string& l) : line(l) {
        size_t i = 0;
        while (i < line.size()) {
            while (i < line.size() && isspace(static_cast<unsigned char>(line[i]))) i++;
            if (i >= line.size()) break;
            size_t s = i;
            while (i < line.size() && !isspace(static_cast<unsigned char>(line[i]))) i++;
            w.push_back(line.substr(s, i - s));
            at.push_back(s);
        }
    }
    std::string rest(size_t k) const { return k < w.size() ? line.substr(at[k]) : std::string(); }
};

bool to_int(const std::string& s, long lo, long hi, long* out) {
    if (s.empty()) return false;
    char* end = nullptr;
    errno = 0;
    long v = strtol(s.c_str(), &end, 10);
    if (errno || *end || v < lo || v > hi) return false;
    *out = v;
    return true;
}

// Parses ACTION starting at word k; the action must end the line.
bool parse_action(const words& ws, size_t k, endpoint ep, action* a, std::string* why) {
    if (k >= ws.w.size()) {
        *why = "missing action";
        return false;
    }
    const std::string& verb = ws.w[k];
    size_t used = 1;  // words the action takes
    long v = 0, c = 0;
    if (verb == "ok") {
        a->what = action::kind::ok;
    } else if (verb == "delay") {
        if (k + 1 >= ws.w.size() || !to_int(ws.w[k + 1], 0, 600000, &v)) {
            *why = "delay needs milliseconds";
            return false;
        }
        a->delay_ms = static_cast<int>(v);
        if (k + 2 < ws.w.size()) return parse_action(ws, k + 2, ep, a, why);
        a->what = action::kind::ok;
        used = 2;
    } else if (verb == "error") {
        if (k + 2 >= ws.w.size() || !to_int(ws.w[k + 1], 100, 599, &v) ||
            !to_int(ws.w[k + 2], -1000000, 1000000, &c)) {
            *why = "error needs a status and a code";
            return false;
        }
        a->what = action::kind::error;
        a->status = static_cast<int>(v);
        a->code = static_cast<int>(c);
        used = 3;
    } else if (verb == "raw") {
        if (k + 1 >= ws.w.size() || !to_int(ws.w[k + 1], 100, 599, &v)) {
            *why = "raw needs a status";
            return false;
        }
        a->what = action::kind::raw;
        a->status = static_cast<int>(v);
        a->body = ws.rest(k + 2);  // the rest of the line, as it stands
        return true;
    } else if (verb == "sealed") {
        if (ep == ep_login) {
            *why = "sealed is for ping and query";
            return false;
        }
        a->what = action::kind::sealed;
        a->body = ws.rest(k + 1);  // the rest of the line, enciphered as it stands
        return true;
    } else if (verb == "garble") {
        a->what = action::kind::garble;
    } else if (verb == "omit") {
        if (ep != ep_login || k + 1 >= ws.w.size()) {
            *why = "omit is for login and needs field names";
            return false;
        }
        a->what = action::kind::omit;
        std::stringstream fields(ws.w[k + 1]);
        for (std::string f; std::getline(fields, f, ',');)
            if (!f.empty()) a->omit.push_back(f);
        used = 2;
    } else {
        *why = "unknown action '" + verb + "'";
        return false;
    }
    if (k + used < ws.w.size()) {
        *why = "unexpected words after the action";
        return false;
    }
    return true;
}

}  // namespace

struct simulator::impl {
    options opts;

    mutable std::mutex lock;  // covers every field below up to `server`
    std::condition_variable wake;
    bool stopping = false;
    std::map<std::pair<int, int>, rule_set> rules;  // (endpoint, node); login uses node -1
    long token_ttl = 3600;
    std::optional<std::string> fixed_key;
    std::optional<std::vector<std::string>> server_list;  // "@n" names node n
    std::vector<std::pair<std::string, std::string>> accounts;
    std::map<std::string, category> categories;
    std::optional<category> unknown = category{};
    std::deque<token_info> tokens;
    std::deque<request_record> log;
    uint64_t seq = 0;
    std::unique_ptr<FILE, int (*)(FILE*)> log_file{nullptr, fclose};

    std::unique_ptr<httplib::SSLServer> server;  // set up and torn down by start/stop only
    std::thread listener;
    int port = 0;
    std::string cert_pem;

    explicit impl(options o) : opts(std::move(o)) {}

    std::string node_url(int n) const {
        return "https://" + opts.bind + ":" + std::to_string(port) + "/node" + std::to_string(n);
    }

    // ---- script ---------------------------------------------------------

    void reset_locked() {
        rules.clear();
        token_ttl = 3600;
        fixed_key.reset();
        server_list.reset();
        accounts.clear();
        unknown = category{};
    }

    void add_rule_locked(endpoint ep, int node, long times, const action& a) {
        rule_set& rs = rules[{ep, node}];
        if (times == 0) {
            rs.standing = a;
            rs.once.clear();
        } else {
            for (long i = 0; i < times; i++) rs.once.push_back(a);
        }
    }

    bool apply_line(const std::string& line, std::string* why) {
        words ws(line);
        if (ws.w.empty() || ws.w[0][0] == '#') return true;
        const std::string& d = ws.w[0];
        long v = 0;
        std::lock_guard<std::mutex> g(lock);
        if (d == "reset" && ws.w.size() == 1) {
            reset_locked();
        } else if (d == "token_ttl" && ws.w.size() == 2 && to_int(ws.w[1], -1000000000, 1000000000, &v)) {
            token_ttl = v;
        } else if (d == "key" && ws.w.size() == 2) {
            if (ws.w[1] == "random")
                fixed_key.reset();
            else
                fixed_key = ws.w[1];
        } else if (d == "account" && ws.w.size() == 3) {
            accounts.emplace_back(ws.w[1], ws.w[2]);
        } else if (d == "servers") {
            if (ws.w.size() == 2 && ws.w[1] == "default") {
                server_list.reset();
            } else {
                server_list.emplace(ws.w.begin() + 1, ws.w.end());
            }
        } else if (d == "unknown" && ws.w.size() == 2 && ws.w[1] == "omit") {
            unknown.reset();
        } else if (d == "unknown" && ws.w.size() == 4) {
            category c;
            long g2 = 0, s = 0, t = 0;
            if (!to_int(ws.w[1], 0, 255, &g2) || !to_int(ws.w[2], 0, 255, &s) ||
                !to_int(ws.w[3], 0, 1000000, &t)) {
                *why = "unknown needs group, sub-group and ttl hours";
                return false;
            }
            c.group = static_cast<int>(g2);
            c.sub = static_cast<int>(s);
            c.ttl_hours = static_cast<int>(t);
            unknown = c;
        } else if (d == "category") {
            return parse_category_locked(ws, 1, why);
        } else if (d == "login" || d == "ping" || d == "query") {
            return parse_rule_locked(ws, why);
        } else {
            *why = "unknown or malformed directive";
            return false;
        }
        return true;
    }

    bool parse_category_locked(const words& ws, size_t k, std::string* why) {
        long g2 = 0, s = 0, t = 24;
        size_t n = ws.w.size() - k;
        if ((n != 3 && n != 4) || !to_int(ws.w[k + 1], 0, 255, &g2) ||
            !to_int(ws.w[k + 2], 0, 255, &s) || (n == 4 && !to_int(ws.w[k + 3], 0, 1000000, &t))) {
            *why = "a category is: name group sub_group [ttl_hours]";
            return false;
        }
        categories[ws.w[k]] = category{static_cast<int>(g2), static_cast<int>(s), static_cast<int>(t)};
        return true;
    }

    bool parse_rule_locked(const words& ws, std::string* why) {
        endpoint ep = ws.w[0] == "login" ? ep_login : ws.w[0] == "ping" ? ep_ping : ep_query;
        size_t k = 1;
        std::vector<int> nodes;
        if (ep == ep_login) {
            nodes.push_back(-1);
        } else {
            long n = 0;
            if (k >= ws.w.size()) {
                *why = "missing node";
                return false;
            }
            if (ws.w[k] == "*") {
                for (int i = 0; i < opts.nodes; i++) nodes.push_back(i);
            } else if (to_int(ws.w[k], 0, opts.nodes - 1, &n)) {
                nodes.push_back(static_cast<int>(n));
            } else {
                *why = "node must be * or 0.." + std::to_string(opts.nodes - 1);
                return false;
            }
            k++;
        }
        long times = 0;
        if (k < ws.w.size() && ws.w[k] == "times") {
            if (k + 1 >= ws.w.size() || !to_int(ws.w[k + 1], 1, 100000, &times)) {
                *why = "times needs a count of 1 or more";
                return false;
            }
            k += 2;
        }
        action a;
        if (!parse_action(ws, k, ep, &a, why)) return false;
        for (int n : nodes) add_rule_locked(ep, n, times, a);
        return true;
    }

    // ---- request log ----------------------------------------------------

    uint64_t note_arrival(endpoint ep, int node, const httplib::Request& req, const std::string& token) {
        std::lock_guard<std::mutex> g(lock);
        request_record r;
        r.seq = ++seq;
        r.time = now_seconds();
        r.endpoint = kEndpointNames[ep];
        r.node = node;
        r.method = req.method;
        r.token = token;
        log.push_back(std::move(r));
        if (log.size() > kMaxLog) log.pop_front();
        return seq;
    }

    uint64_t note_other(const httplib::Request& req) {
        std::lock_guard<std::mutex> g(lock);
        request_record r;
        r.seq = ++seq;
        r.time = now_seconds();
        r.endpoint = "other";
        r.method = req.method;
        r.detail = req.path;
        log.push_back(std::move(r));
        if (log.size() > kMaxLog) log.pop_front();
        return seq;
    }

    void note_done(uint64_t s, int status, const std::string& detail) {
        std::lock_guard<std::mutex> g(lock);
        for (auto it = log.rbegin(); it != log.rend(); ++it) {
            if (it->seq != s) continue;
            it->status = status;
            if (!detail.empty()) it->detail = detail;
            if (log_file) {
                fprintf(log_file.get(), "%llu %lld %s %d %s %d %s %s\n",
                        static_cast<unsigned long long>(it->seq), static_cast<long long>(it->time),
                        it->endpoint.c_str(), it->node, it->method.c_str(), it->status,
                        it->token.empty() ? "-" : it->token.c_str(), it->detail.c_str());
                fflush(log_file.get());
            }
            return;
        }
    }

    // ---- behaviour ------------------------------------------------------

    action next_action(endpoint ep, int node) {
        std::lock_guard<std::mutex> g(lock);
        rule_set& rs = rules[{ep, node}];
        if (rs.once.empty()) return rs.standing;
        action a = rs.once.front();
        rs.once.pop_front();
        return a;
    }

    // Sleeps for the action's delay; false when the simulator is stopping.
    bool delay(const action& a) {
        if (a.delay_ms <= 0) return true;
        std::unique_lock<std::mutex> g(lock);
        wake.wait_for(g, std::chrono::milliseconds(a.delay_ms), [&] { return stopping; });
        return !stopping;
    }

    static std::string bearer_token(const httplib::Request& req) {
        std::string h = req.get_header_value("Authorization");
        const std::string prefix = "Bearer ";
        return h.compare(0, prefix.size(), prefix) == 0 ? h.substr(prefix.size()) : std::string();
    }

    std::optional<payload_key> key_of(const std::string& token) {
        std::lock_guard<std::mutex> g(lock);
        int64_t now = now_seconds();
        for (const token_info& t : tokens)
            if (t.token == token && now < t.expires) return t.key;
        return std::nullopt;
    }

    static void send(httplib::Response& res, int status, const std::string& body, const char* type) {
        res.status = status;
        res.set_content(body, type);
    }

    // Returns the status answered and sets *detail for the log.
    int serve_login(const httplib::Request& req, httplib::Response& res, std::string* detail) {
        if (req.is_multipart_form_data()) {
            auto field = [&](const char* f) { return req.has_file(f) ? req.get_file_value(f).content : ""; };
            *detail = "id=" + field("id") + ",product=" + field("product") + ",host=" + field("host");
        }
        action a = next_action(ep_login, -1);
        if (!delay(a)) return 503;
        if (a.what == action::kind::error) {
            send(res, a.status, error_body(a.code, "refused by script"), "application/json");
            return a.status;
        }
        if (a.what == action::kind::raw) {
            send(res, a.status, a.body, "application/json");
            return a.status;
        }
        if (req.method != "POST" || !req.is_multipart_form_data()) {
            send(res, 400, error_body(2, "multipart form expected"), "application/json");
            return 400;
        }
        for (const char* f : {"id", "password", "product", "host"}) {
            if (!req.has_file(f)) {
                send(res, 400, error_body(2, "missing form field"), "application/json");
                return 400;
            }
        }
        const std::string id = req.get_file_value("id").content;
        const std::string pwd = req.get_file_value("password").content;

        std::string token = random_hex(16);
        json_ptr root(cJSON_CreateObject());
        {
            std::lock_guard<std::mutex> g(lock);
            if (!accounts.empty() &&
                std::find(accounts.begin(), accounts.end(), std::make_pair(id, pwd)) == accounts.end()) {
                send(res, 401, error_body(5, "unknown account"), "application/json");
                return 401;
            }
            std::string pass = fixed_key ? *fixed_key : random_hex(16);
            tokens.push_back(token_info{token, derive_key(pass), now_seconds() + token_ttl});
            if (tokens.size() > kMaxTokens) tokens.pop_front();
            cJSON_AddStringToObject(root.get(), "token", token.c_str());
            cJSON_AddNumberToObject(root.get(), "token_ttl", static_cast<double>(token_ttl));
            cJSON_AddStringToObject(root.get(), "key", pass.c_str());
            cJSON* list = cJSON_AddArrayToObject(root.get(), "servers");
            std::vector<std::string> names;
            if (server_list) {
                names = *server_list;
            } else {
                for (int i = 0; i < opts.nodes; i++) names.push_back("@" + std::to_string(i));
            }
            for (const std::string& n : names) {
                long idx = 0;
                std::string url = n.size() > 1 && n[0] == '@' && to_int(n.substr(1), 0, 1 << 20, &idx)
                                      ? node_url(static_cast<int>(idx))
                                      : n;
                cJSON_AddItemToArray(list, cJSON_CreateString(url.c_str()));
            }
        }
        for (const std::string& f : a.omit) cJSON_DeleteItemFromObjectCaseSensitive(root.get(), f.c_str());
        std::string body = print_json(root.get());
        if (a.what == action::kind::garble) body = body.substr(0, body.size() / 2);
        send(res, 200, body, "application/json");
        return 200;
    }

    // Shared front of ping and query: the scripted action, then the token.
    // Returns 0 and the session key when normal handling is to follow.
    int serve_front(endpoint ep, int node, const httplib::Request& req, httplib::Response& res,
                    action* a, payload_key* key) {
        *a = next_action(ep, node);
        if (!delay(*a)) return 503;
        if (a->what == action::kind::error) {
            send(res, a->status, error_body(a->code, "refused by script"), "application/json");
            return a->status;
        }
        if (a->what == action::kind::raw) {
            send(res, a->status, a->body, "text/plain");
            return a->status;
        }
        std::optional<payload_key> k = key_of(bearer_token(req));
        if (!k) {
            send(res, 401, error_body(101, "token invalid"), "application/json");
            return 401;
        }
        *key = *k;
        return 0;
    }

    // A reply enciphered so that the session's key cannot decipher it.
    static std::string seal_for(const action& a, const payload_key& key, const std::string& plain) {
        if (a.what != action::kind::garble) return seal(key, plain);
        return seal(derive_key("not the session key"), plain);
    }

    int serve_ping(int node, const httplib::Request& req, httplib::Response& res) {
        action a;
        payload_key key;
        if (req.method != "GET") {
            send(res, 405, error_body(2, "GET expected"), "application/json");
            return 405;
        }
        if (int st = serve_front(ep_ping, node, req, res, &a, &key)) return st;
        if (a.what == action::kind::sealed) {
            send(res, 200, seal(key, a.body), "text/plain");
            return 200;
        }
        json_ptr root(cJSON_CreateObject());
        cJSON_AddNumberToObject(root.get(), "time", static_cast<double>(now_seconds()));
        send(res, 200, seal_for(a, key, print_json(root.get())), "text/plain");
        return 200;
    }

    int serve_query(int node, const httplib::Request& req, httplib::Response& res, std::string* detail) {
        action a;
        payload_key key;
        if (req.method != "POST") {
            send(res, 405, error_body(2, "POST expected"), "application/json");
            return 405;
        }
        if (int st = serve_front(ep_query, node, req, res, &a, &key)) return st;
        std::optional<std::string> plain = open(key, req.body);
        if (!plain) {
            send(res, 400, error_body(3, "query does not decipher"), "application/json");
            return 400;
        }
        *detail = *plain;
        if (a.what == action::kind::sealed) {
            send(res, 200, seal(key, a.body), "text/plain");
            return 200;
        }
        json_ptr q(cJSON_Parse(plain->c_str()));
        cJSON* list = q ? cJSON_GetObjectItemCaseSensitive(q.get(), "q") : nullptr;
        if (!cJSON_IsArray(list)) {
            send(res, 400, error_body(4, "query has no q array"), "application/json");
            return 400;
        }
        json_ptr reply(cJSON_CreateObject());
        cJSON* r = cJSON_AddObjectToObject(reply.get(), "r");
        cJSON* item = nullptr;
        cJSON_ArrayForEach(item, list) {
            cJSON* type = cJSON_GetArrayItem(item, 0);
            cJSON* name = cJSON_GetArrayItem(item, 1);
            if (!cJSON_IsNumber(type) || !cJSON_IsString(name)) continue;
            std::optional<category> c = lookup(name->valuestring);
            if (!c) continue;
            const double v[6] = {type->valuedouble, 0, 0, static_cast<double>(c->ttl_hours),
                                 static_cast<double>(c->group), static_cast<double>(c->sub)};
            cJSON* entry = cJSON_CreateArray();
            for (double x : v) cJSON_AddItemToArray(entry, cJSON_CreateNumber(x));
            cJSON_DeleteItemFromObjectCaseSensitive(r, name->valuestring);
            cJSON_AddItemToObject(r, name->valuestring, entry);
        }
        send(res, 200, seal_for(a, key, print_json(reply.get())), "text/plain");
        return 200;
    }

    // Exact name first, then each parent domain in turn.
    std::optional<category> lookup(const std::string& name) {
        std::lock_guard<std::mutex> g(lock);
        for (size_t at = 0;;) {
            auto it = categories.find(name.substr(at));
            if (it != categories.end()) return it->second;
            size_t dot = name.find('.', at);
            if (dot == std::string::npos) break;
            at = dot + 1;
        }
        return unknown;
    }

    // ---- routes ---------------------------------------------------------

    void route() {
        auto login = [this](const httplib::Request& req, httplib::Response& res) {
            uint64_t s = note_arrival(ep_login, -1, req, {});
            std::string detail;
            int st = serve_login(req, res, &detail);
            note_done(s, st, detail);
        };
        auto node_of = [this](const httplib::Request& req) {
            long n = -1;
            if (!to_int(req.matches[1].str(), 0, opts.nodes - 1, &n)) return -1;
            return static_cast<int>(n);
        };
        auto ping = [this, node_of](const httplib::Request& req, httplib::Response& res) {
            int node = node_of(req);
            if (node < 0) return not_found(req, res);
            uint64_t s = note_arrival(ep_ping, node, req, bearer_token(req));
            note_done(s, serve_ping(node, req, res), {});
        };
        auto query = [this, node_of](const httplib::Request& req, httplib::Response& res) {
            int node = node_of(req);
            if (node < 0) return not_found(req, res);
            uint64_t s = note_arrival(ep_query, node, req, bearer_token(req));
            std::string detail;
            int st = serve_query(node, req, res, &detail);
            note_done(s, st, detail);
        };
        auto script = [this](const httplib::Request& req, httplib::Response& res) {
            std::string error;
            if (owner_apply(req.body, &error))
                send(res, 200, "ok\n", "text/plain");
            else
                send(res, 400, error + "\n", "text/plain");
        };
        auto show_log = [this](const httplib::Request&, httplib::Response& res) {
            std::string out;
            std::lock_guard<std::mutex> g(lock);
            for (const request_record& r : log) {
                out += std::to_string(r.seq) + " " + std::to_string(r.time) + " " + r.endpoint + " " +
                       std::to_string(r.node) + " " + r.method + " " + std::to_string(r.status) + " " +
                       (r.token.empty() ? "-" : r.token) + " " + r.detail + "\n";
            }
            send(res, 200, out, "text/plain");
        };
        auto other = [this](const httplib::Request& req, httplib::Response& res) { not_found(req, res); };

        const char* login_path = "/vorteln/auth/id";
        const char* ping_path = R"(/node(\d+)/talvo-zor/api/v1/srv/ping)";
        const char* query_path = R"(/node(\d+)/talvo-zor/api/v1/srv/q)";
        server->Post(login_path, login).Get(login_path, login);
        server->Get(ping_path, ping).Post(ping_path, ping);
        server->Post(query_path, query).Get(query_path, query);
        server->Post("/_sim/script", script);
        server->Get("/_sim/log", show_log);
        server->Get(".*", other).Post(".*", other).Put(".*", other).Delete(".*", other);
    }

    void not_found(const httplib::Request& req, httplib::Response& res) {
        uint64_t s = note_other(req);
        send(res, 404, error_body(404, "no such endpoint"), "application/json");
        note_done(s, 404, {});
    }

    bool owner_apply(const std::string& script, std::string* error) {
        std::istringstream in(script);
        int n = 0;
        for (std::string line; std::getline(in, line);) {
            n++;
            if (!line.empty() && line.back() == '\r') line.pop_back();
            std::string why;
            if (!apply_line(line, &why)) {
                if (error) *error = "line " + std::to_string(n) + ": " + why + ": " + line;
                return false;
            }
        }
        return true;
    }
};

simulator::simulator(options opts) : p_(std::make_unique<impl>(std::move(opts))) {}

simulator::~simulator() {
    stop();
}

bool simulator::start(std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error) *error = why;
        return false;
    };
    if (p_->server) return fail("already started");
    if (p_->opts.nodes < 1 || p_->opts.nodes > 1000) return fail("nodes must be 1..1000");
    if (!p_->opts.categories_file.empty()) {
        std::string why;
        if (!load_categories(p_->opts.categories_file, &why)) return fail(why);
    }
    if (!p_->opts.log_file.empty()) {
        p_->log_file.reset(fopen(p_->opts.log_file.c_str(), "a"));
        if (!p_->log_file) return fail("cannot open " + p_->opts.log_file);
    }
    pkey_ptr key;
    x509_ptr cert;
    if (!make_certificate(&key, &cert)) return fail("cannot make a certificate");
    p_->cert_pem = certificate_to_pem(cert.get());
    p_->server = make_tls_server(cert.get(), key.get());
    if (!p_->server->is_valid()) {
        p_->server.reset();
        return fail("TLS set-up failed");
    }
    int threads = std::max(2, p_->opts.threads);
    p_->server->new_task_queue = [threads] { return new httplib::ThreadPool(static_cast<size_t>(threads)); };
    p_->route();
    if (p_->opts.port == 0) {
        p_->port = p_->server->bind_to_any_port(p_->opts.bind);
    } else if (p_->server->bind_to_port(p_->opts.bind, p_->opts.port)) {
        p_->port = p_->opts.port;
    } else {
        p_->port = -1;
    }
    if (p_->port <= 0) {
        p_->server.reset();
        return fail("cannot listen on " + p_->opts.bind + ":" + std::to_string(p_->opts.port));
    }
    {
        std::lock_guard<std::mutex> g(p_->lock);
        p_->stopping = false;
    }
    p_->listener = std::thread([s = p_->server.get()] { s->listen_after_bind(); });
    // The listener's stop() does nothing until it runs: wait for it, so that
    // a stop right after start cannot be lost.
    while (!p_->server->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return true;
}

void simulator::stop() {
    if (!p_->server) return;
    {
        std::lock_guard<std::mutex> g(p_->lock);
        p_->stopping = true;
    }
    p_->wake.notify_all();
    p_->server->stop();
    if (p_->listener.joinable()) p_->listener.join();
    p_->server.reset();
}

int simulator::port() const {
    return p_->port;
}

std::string simulator::address() const {
    return p_->opts.bind + ":" + std::to_string(p_->port);
}

std::string simulator::node_url(int n) const {
    return p_->node_url(n);
}

std::string simulator::certificate_pem() const {
    return p_->cert_pem;
}

bool simulator::save_certificate(const std::string& path) const {
    const std::string pem = certificate_pem();
    std::ofstream out(path, std::ios::trunc);
    out << pem;
    return !pem.empty() && static_cast<bool>(out.flush());
}

bool simulator::apply(const std::string& script, std::string* error) {
    return p_->owner_apply(script, error);
}

bool simulator::load_categories(const std::string& path, std::string* error) {
    std::ifstream in(path);
    if (!in) {
        if (error) *error = "cannot read " + path;
        return false;
    }
    int n = 0;
    std::lock_guard<std::mutex> g(p_->lock);
    for (std::string line; std::getline(in, line);) {
        n++;
        words ws(line);
        if (ws.w.empty() || ws.w[0][0] == '#') continue;
        std::string why;
        if (!p_->parse_category_locked(ws, 0, &why)) {
            if (error) *error = path + ":" + std::to_string(n) + ": " + why;
            return false;
        }
    }
    return true;
}

std::vector<request_record> simulator::requests() const {
    std::lock_guard<std::mutex> g(p_->lock);
    return {p_->log.begin(), p_->log.end()};
}

size_t simulator::count(const std::string& endpoint, int node) const {
    std::lock_guard<std::mutex> g(p_->lock);
    return static_cast<size_t>(std::count_if(p_->log.begin(), p_->log.end(), [&](const request_record& r) {
        return r.endpoint == endpoint && (node < 0 || r.node == node);
    }));
}

void simulator::clear_requests() {
    std::lock_guard<std::mutex> g(p_->lock);
    p_->log.clear();
}

std::vector<std::string> simulator::tokens() const {
    std::lock_guard<std::mutex> g(p_->lock);
    std::vector<std::string> out;
    for (const auto& t : p_->tokens) out.push_back(t.token);
    return out;
}

}  // namespace cloudsim
