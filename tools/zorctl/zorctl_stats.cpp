#include "zorctl_stats.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

bool valid_name(std::string_view name) {
    if (name.empty() || name.size() > STAT_NAME_MAX) return false;
    for (char c : name)
        if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_')) return false;
    return true;
}

std::optional<uint64_t> parse_value(std::string_view text) {
    if (text.empty() || text.size() > 20) return std::nullopt;
    for (char c : text)
        if (c < '0' || c > '9') return std::nullopt;
    const std::string copy(text);
    errno = 0;
    const unsigned long long v = strtoull(copy.c_str(), nullptr, 10);
    if (errno == ERANGE) return std::nullopt;
    return static_cast<uint64_t>(v);
}

// Reads one "NAME VALUE" line into `found` (indexed like the table).
std::optional<std::string> parse_line(std::string_view line, std::vector<std::optional<uint64_t>>* found) {
    const size_t space = line.find(' ');
    const std::string_view name = line.substr(0, space);
    const std::optional<uint64_t> value =
        space == std::string_view::npos ? std::nullopt : parse_value(line.substr(space + 1));
    if (!valid_name(name) || !value) return "unexpected counter line: " + std::string(line);
    const stat_info* info = stats_find(name);
    if (!info) return std::nullopt;  // a newer service's value
    auto& slot = (*found)[static_cast<size_t>(info - stats_table().data())];
    if (slot) return "counter " + std::string(name) + " sent twice";
    slot = *value;
    return std::nullopt;
}

std::string decimal(uint64_t value, uint32_t divisor) {
    char buf[48];
    if (divisor == 1000) {
        snprintf(buf, sizeof buf, "%llu.%03llu", static_cast<unsigned long long>(value / 1000),
                 static_cast<unsigned long long>(value % 1000));
    } else {
        snprintf(buf, sizeof buf, "%llu", static_cast<unsigned long long>(value / (divisor ? divisor : 1)));
    }
    return buf;
}

}  // namespace

std::optional<std::string> stats_parse(const std::vector<ipc_reply>& records, std::vector<stat_value>* out) {
    const std::vector<stat_info>& table = stats_table();
    std::vector<std::optional<uint64_t>> found(table.size());
    for (const ipc_reply& r : records) {
        const std::string_view text(r.msg, strnlen(r.msg, sizeof r.msg));
        for (size_t at = 0; at < text.size();) {
            size_t end = text.find('\n', at);
            if (end == std::string_view::npos) end = text.size();
            if (auto err = parse_line(text.substr(at, end - at), &found)) return err;
            at = end + 1;
        }
    }
    out->clear();
    for (size_t i = 0; i < table.size(); ++i) {
        if (!found[i]) return std::string("the reply lacks counter ") + table[i].name;
        out->push_back({&table[i], *found[i]});
    }
    return std::nullopt;
}

std::string stats_text(const std::vector<stat_value>& values) {
    std::string text;
    for (const stat_value& v : values) {
        char line[96];
        snprintf(line, sizeof line, "%-*s %llu\n", static_cast<int>(STAT_NAME_MAX) - 16, v.info->name,
                 static_cast<unsigned long long>(v.value));
        text += line;
    }
    if (!text.empty()) text.pop_back();  // the caller ends the last line
    return text;
}

void stats_json(cJSON* object, const std::vector<stat_value>& values) {
    for (const stat_value& v : values) {
        // Raw decimal text: exact beyond the 53 bits a JSON number keeps in cJSON.
        cJSON_AddRawToObject(object, v.info->name, decimal(v.value, 1).c_str());
    }
}

std::string stats_prometheus(const std::vector<stat_value>& values) {
    std::string text;
    for (const stat_value& v : values) {
        const bool counter = v.info->kind == stat_kind::counter;
        const std::string name = std::string("zor_") + v.info->metric + (counter ? "_total" : "");
        text += "# HELP " + name + " " + v.info->help + "\n";
        text += "# TYPE " + name + (counter ? " counter\n" : " gauge\n");
        text += name + " " + decimal(v.value, v.info->metric_divisor) + "\n";
    }
    if (!text.empty()) text.pop_back();  // the caller ends the last line
    return text;
}
