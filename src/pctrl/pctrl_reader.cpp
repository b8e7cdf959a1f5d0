#include "pctrl/pctrl_reader.h"

#include <cjson/cJSON.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "log.h"
#include "util/c_ptr.h"
#include "util/clock.h"
#include "util/strutil.h"

namespace {

using text_ptr = malloc_ptr<char>;

std::mutex mktime_lock;            // held around every pctrl_mktime

enum class read_status { ok, empty, too_large };

// Reads the open file whole in 1024-byte chunks into one terminated text.
read_status read_whole(FILE* f, text_ptr* out) {
    strbuf_t sb{};
    char chunk[1024];
    size_t n;
    read_status status = read_status::ok;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) {
        if (sb.length + n > PCTRL_RULE_FILE_MAX) {
            status = read_status::too_large;
            break;
        }
        strbuf_append(&sb, chunk, n);
    }
    uint32_t length = 0;
    text_ptr data(strbuf_detach(&sb, &length));  // zero-terminated after every append
    if (status != read_status::ok) return status;
    if (data == nullptr || length == 0) return read_status::empty;
    *out = std::move(data);
    return read_status::ok;
}

// A JSON number as the reader sees it: the double truncated to int, held
// inside the int range.
int json_int(const cJSON* item) {
    double v = item->valuedouble;
    if (std::isnan(v)) return 0;
    if (v >= static_cast<double>(INT_MAX)) return INT_MAX;
    if (v <= static_cast<double>(INT_MIN)) return INT_MIN;
    return static_cast<int>(v);
}

// Scanned calendar numbers are held to a range where tm arithmetic cannot
// overflow; anything that far out converts to no sensible date anyway.
int calendar_field(long long v) {
    constexpr long long bound = 10'000'000;
    if (v > bound) return static_cast<int>(bound);
    if (v < -bound) return static_cast<int>(-bound);
    return static_cast<int>(v);
}

// "%d-%d-%d %d:%d" into a record zeroed here. Returns the count of values.
int scan_date_time(const char* text, struct tm* tm) {
    long long y = 0, mon = 0, d = 0, h = 0, min = 0;
    int n = sscanf(text, "%lld-%lld-%lld %lld:%lld", &y, &mon, &d, &h, &min);
    *tm = {};
    tm->tm_year = calendar_field(y) - 1900;
    tm->tm_mon = calendar_field(mon) - 1;
    tm->tm_mday = calendar_field(d);
    tm->tm_hour = calendar_field(h);
    tm->tm_min = calendar_field(min);
    tm->tm_isdst = -1;  // the zone's own rule for that date
    return n;
}

// "%d:%d" into the hour and minute of `tm`. Returns the count of values.
int scan_hour_minute(const char* text, struct tm* tm) {
    long long h = 0, min = 0;
    int n = sscanf(text, "%lld:%lld", &h, &min);
    if (n >= 1) tm->tm_hour = calendar_field(h);
    if (n >= 2) tm->tm_min = calendar_field(min);
    tm->tm_isdst = -1;
    return n;
}

time_t to_epoch(struct tm tm) { return pctrl_mktime(&tm); }

// The low 32 bits of an epoch value, as the rule record keeps it.
int32_t epoch32(time_t t) { return static_cast<int32_t>(static_cast<uint32_t>(t)); }

// What the validation of one rule decided.
struct rule_times {
    bool due = false;
    time_t from = 0;
    time_t to = 0;
};

rule_times check_range(const char* id, const cJSON* from, const cJSON* to, const struct tm& today) {
    rule_times r;
    struct tm tm;
    if (scan_date_time(from->valuestring, &tm) != 5) {
        LOG_D("The Schedule from time format is invalid");
        return r;
    }
    time_t start = to_epoch(tm);
    if (scan_date_time(to->valuestring, &tm) != 5) {
        LOG_D("The Schedule to time format is invalid");
        return r;
    }
    time_t end = to_epoch(tm);

    struct tm day = today;
    day.tm_hour = day.tm_min = day.tm_sec = 0;
    day.tm_isdst = -1;
    time_t midnight = to_epoch(day);
    day.tm_hour = 23;
    day.tm_min = day.tm_sec = 59;
    day.tm_isdst = -1;
    time_t last = to_epoch(day);

    bool spans_midnight = start <= midnight && end > midnight;
    bool starts_today = midnight <= start && start < last;
    if (!spans_midnight && !starts_today) {
        LOG_D("The range schedule id %s is not today", id);
        return r;
    }
    r.due = true;
    r.from = start;
    r.to = end;
    return r;
}

// True when `array` is an array holding a number equal to `value`.
bool array_has(const cJSON* array, int value) {
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, array) {
        if (cJSON_IsNumber(item) && json_int(item) == value) return true;
    }
    return false;
}

bool nonempty_array(const cJSON* item) { return cJSON_IsArray(item) && cJSON_GetArraySize(item) > 0; }

rule_times check_period(const char* id, const cJSON* sched, const cJSON* from, const cJSON* to,
                        const struct tm& today) {
    rule_times r;
    const cJSON* weekly = cJSON_GetObjectItem(sched, "weekly");
    if (nonempty_array(weekly)) {
        if (!array_has(weekly, today.tm_wday)) {
            LOG_D("The weekly schedule id %s is not today", id);
            return r;
        }
    } else {
        const cJSON* monthly = cJSON_GetObjectItem(sched, "monthly");
        if (!nonempty_array(monthly)) {
            LOG_D("The period schedule is invalid: rule id %s", id);
            return r;
        }
        if (!array_has(monthly, today.tm_mday)) {
            LOG_D("The monthly schedule id %s is not today", id);
            return r;
        }
    }
    // Both ends lie on today's date; a window past midnight is not wrapped.
    struct tm tm = today;
    tm.tm_sec = 0;
    if (scan_hour_minute(from->valuestring, &tm) != 2) {
        LOG_D("The period from time is invalid: rule id %s", id);
        return r;
    }
    r.from = to_epoch(tm);
    if (scan_hour_minute(to->valuestring, &tm) != 2) {
        LOG_D("The period to time is invalid: rule id %s", id);
        return r;
    }
    r.to = to_epoch(tm);
    r.due = true;
    return r;
}

// Validates the "schedule" object. A rule without one is due all day.
rule_times check_schedule(const char* id, const cJSON* rule, const struct tm& today) {
    const cJSON* sched = cJSON_GetObjectItem(rule, "schedule");
    if (sched == nullptr) return rule_times{true, 0, 0};
    if (!cJSON_IsObject(sched)) {
        LOG_D("The Schedule is invalid");
        return {};
    }
    const cJSON* type = cJSON_GetObjectItem(sched, "type");
    if (!cJSON_IsNumber(type)) {
        LOG_D("The Schedule type is invalid");
        return {};
    }
    const cJSON* from = cJSON_GetObjectItem(sched, "from");
    if (!cJSON_IsString(from)) {
        LOG_D("The Schedule from time is invalid");
        return {};
    }
    const cJSON* to = cJSON_GetObjectItem(sched, "to");
    if (!cJSON_IsString(to)) {
        LOG_D("The Schedule to time is invalid");
        return {};
    }
    switch (json_int(type)) {
        case 0: return check_range(id, from, to, today);
        case 1: return check_period(id, sched, from, to, today);
        default: return {};  // unknown kinds of schedule are dropped quietly
    }
}

// The rule keeps the text cut to its field, and that is what the kernel
// gets: it must pass as well. (A long text can pass the rule on a MAC near
// its end while the cut leaves only what came before.)
bool stored_mac_valid(const char* text) {
    char field[sizeof pctrl_rule::mac];
    snprintf(field, sizeof field, "%s", text);
    return pctrl_mac_valid(field) != 0;
}

bool check_mac(const cJSON* mac) {
    if (cJSON_IsString(mac) && mac->valuestring[0] != '\0' && pctrl_mac_valid(mac->valuestring) &&
        stored_mac_valid(mac->valuestring))
        return true;
    LOG_D("The MAC is invalid");
    if (cJSON_IsString(mac)) LOG_D("MAC = %s", mac->valuestring);
    return false;
}

int32_t rule_id(const char* key) {
    long long v = strtoll(key, nullptr, 10);
    if (v > INT32_MAX) return INT32_MAX;
    return static_cast<int32_t>(v);
}

// Validates one member of the top-level object; returns its record when the
// rule is valid and due today, else null.
std::unique_ptr<pctrl_rule> read_rule(const cJSON* member) {
    const char* id = member->string;
    const time_t now = static_cast<time_t>(clock_now());
    struct tm today;
    if (localtime_r(&now, &today) == nullptr) {
        LOG_D("No local time for rule id %s", id);
        return nullptr;
    }
    if (!str_is_digits(id)) {
        LOG_D("The ID is invalid");
        return nullptr;
    }
    const cJSON* mac = cJSON_GetObjectItem(member, "mac");
    if (!check_mac(mac)) return nullptr;
    const cJSON* cn = cJSON_GetObjectItem(member, "cn");
    const cJSON* dn = cJSON_GetObjectItem(member, "dn");
    if (!cJSON_IsString(cn) && !cJSON_IsString(dn)) {
        LOG_D("The Content is invalid");
        return nullptr;
    }
    rule_times times = check_schedule(id, member, today);
    if (!times.due) return nullptr;

    std::unique_ptr<pctrl_rule> rule(new (std::nothrow) pctrl_rule{});
    if (rule == nullptr) return nullptr;
    rule->id = rule_id(id);
    if (cJSON_IsString(cn)) {
        rule->content = cn->valuestring;
        rule->kind = PCTRL_KIND_CONTENT;
    }
    if (cJSON_IsString(dn)) {
        rule->domain = dn->valuestring;
        rule->kind = PCTRL_KIND_DOMAIN;
    }
    rule->from = epoch32(times.from);
    rule->to = epoch32(times.to);
    snprintf(rule->mac, sizeof rule->mac, "%s", mac->valuestring);
    return rule;
}

}  // namespace

pctrl_holder::~pctrl_holder() { pctrl_free_rules(this); }

time_t pctrl_mktime(struct tm* tm) {
    std::lock_guard<std::mutex> g(mktime_lock);
    return mktime(tm);
}

int pctrl_mac_valid(const char* text) {
    if (text == nullptr) return 0;
    int n = 0;
    int g = 0;
    for (const char* p = text; *p != '\0'; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (isxdigit(c)) {
            ++n;
        } else if (c == ':' || c == '-') {
            if (n == 0) return 0;
            if (n / 2 - 1 != g) break;  // a separator out of place ends the scan
            g = n / 2;
        } else {
            g = -1;
        }
    }
    return n == 12 && (g == 0 || g == 5);
}

namespace {

// Opens a regular file for reading. Anything else (a FIFO without a writer,
// a device) could block the caller for ever or never end, so it is refused;
// the open itself never waits.
file_ptr open_regular(const char* path) {
    if (path == nullptr) return nullptr;
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat st;
    FILE* f = nullptr;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) f = fdopen(fd, "r");
    if (f == nullptr) close(fd);
    return file_ptr(f);
}

}  // namespace

int pctrl_read_rules(const char* path, pctrl_holder* holder) {
    if (holder == nullptr) return -1;
    file_ptr f = open_regular(path);
    if (!f) {
        LOG_E("Open file error: %s", path != nullptr ? path : "(null)");
        return -1;
    }
    text_ptr text;
    read_status status = read_whole(f.get(), &text);
    f.reset();
    pctrl_free_rules(holder);
    if (status == read_status::too_large) {
        LOG_E("Rule file %s is larger than %zu bytes", path, PCTRL_RULE_FILE_MAX);
        return -1;
    }
    if (status == read_status::empty) return -1;

    json_ptr root(cJSON_Parse(text.get()));
    if (!root) {
        LOG_E("The following rule string is not JSON format:\n%s", text.get());
        return -1;
    }
    std::unique_ptr<pctrl_rule_list> list(new (std::nothrow) pctrl_rule_list);
    if (list == nullptr) return -1;
    // Members are rules in file order; an array's elements carry no key and
    // end the walk at once.
    for (const cJSON* member = root->child; member != nullptr && member->string != nullptr;
         member = member->next) {
        list->push_back(read_rule(member));
    }
    holder->list = std::move(list);
    return 0;
}

void pctrl_dump_rules(const pctrl_holder* holder) {
    if (holder == nullptr) {
        LOG_D("Parental control does not initialize.");
        return;
    }
    if (holder->list == nullptr) {
        LOG_D("Parental control has no rule input.");
        return;
    }
    LOG_D("ID\tMAC\t\t\tSTART\tEND\tCONTENT\tDOMAIN NAME");
    holder->list->for_each([](const pctrl_rule& rule) {
        LOG_D("%d\t%s\t%ld\t%ld\t%s\t%s", rule.id, rule.mac, static_cast<long>(rule.from),
              static_cast<long>(rule.to), rule.content ? rule.content->c_str() : "NULL",
              rule.domain ? rule.domain->c_str() : "NULL");
    });
}

void pctrl_free_rules(pctrl_holder* holder) {
    if (holder != nullptr) holder->list.reset();
}
