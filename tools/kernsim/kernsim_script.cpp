#include "kernsim_script.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>

namespace {

bool fail(std::string& err, std::string why) {
    err = std::move(why);
    return false;
}

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

bool parse_number(const std::string& text, uint64_t max, uint64_t& out) {
    if (text.empty() || text[0] == '-' || text[0] == '+' ||
        std::isspace(static_cast<unsigned char>(text[0])))
        return false;
    errno = 0;
    char* end = nullptr;
    unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v > max) return false;
    out = v;
    return true;
}

// Reads a double-quoted word body starting after the quote; `i` ends past
// the closing quote.
bool read_dquoted(std::string_view line, size_t& i, std::string& word, std::string& err) {
    while (i < line.size()) {
        char c = line[i++];
        if (c == '"') return true;
        if (c != '\\') {
            word += c;
            continue;
        }
        if (i >= line.size()) break;
        char e = line[i++];
        switch (e) {
            case '\\': word += '\\'; break;
            case '"': word += '"'; break;
            case 'n': word += '\n'; break;
            case 't': word += '\t'; break;
            case 'x': {
                int hi = i < line.size() ? hex_value(line[i]) : -1;
                int lo = i + 1 < line.size() ? hex_value(line[i + 1]) : -1;
                if (hi < 0 || lo < 0) {
                    err = "bad \\x escape";
                    return false;
                }
                word += static_cast<char>(hi * 16 + lo);
                i += 2;
                break;
            }
            default:
                err = std::string("unknown escape \\") + e;
                return false;
        }
    }
    err = "unterminated double quote";
    return false;
}

// Options shared by every datagram: header lies and the cut.
bool header_option(const std::string& key, const std::string& value, ks_header_opts& h,
                   bool& known, std::string& err) {
    uint64_t v = 0;
    known = true;
    if (key == "nlmsg_len") {
        if (!parse_number(value, UINT32_MAX, v)) return fail(err, "bad nlmsg_len");
        h.nlmsg_len = static_cast<uint32_t>(v);
    } else if (key == "nltype") {
        if (!parse_number(value, UINT16_MAX, v)) return fail(err, "bad nltype");
        h.nlmsg_type = static_cast<uint16_t>(v);
    } else if (key == "cmd") {
        if (!parse_number(value, UINT8_MAX, v)) return fail(err, "bad cmd");
        h.genl_cmd = static_cast<uint8_t>(v);
    } else if (key == "cut") {
        if (!parse_number(value, 65536, v)) return fail(err, "bad cut");
        h.cut = static_cast<size_t>(v);
    } else {
        known = false;
    }
    return true;
}

bool split_option(const std::string& word, std::string& key, std::string& value) {
    size_t eq = word.find('=');
    if (eq == std::string::npos || eq == 0) return false;
    key = word.substr(0, eq);
    value = word.substr(eq + 1);
    return true;
}

bool parse_announce(const std::vector<std::string>& w, ks_command& c, std::string& err) {
    c.op = ks_op::announce;
    for (size_t i = 1; i < w.size(); ++i) {
        std::string key, value;
        if (!split_option(w[i], key, value)) return fail(err, "announce: unexpected '" + w[i] + "'");
        bool known = false;
        if (!header_option(key, value, c.announce.hdr, known, err)) return false;
        if (known) continue;
        uint64_t v = 0;
        if (key == "fid") {
            if (!parse_number(value, UINT16_MAX, v)) return fail(err, "bad fid");
            c.announce.family_id = static_cast<uint16_t>(v);
            c.fid_given = true;
        } else if (key == "name") {
            c.announce.name = value;
        } else if (key == "attr") {
            if (!parse_number(value, UINT16_MAX, v)) return fail(err, "bad attr");
            c.announce.id_attr_type = static_cast<uint16_t>(v);
        } else {
            return fail(err, "announce: unknown option '" + key + "'");
        }
    }
    return true;
}

bool event_option(const std::string& key, const std::string& value, ks_command& c,
                  std::string& err) {
    bool known = false;
    if (!header_option(key, value, c.event.hdr, known, err)) return false;
    if (known) return true;
    uint64_t v = 0;
    ks_event& e = c.event;
    if (key == "text") {
        e.text = value;
        return true;
    }
    if (key != "flags" && key != "type" && key != "len" && key != "data_len" && key != "fid")
        return fail(err, "unknown option '" + key + "'");
    if (!parse_number(value, key == "fid" ? UINT16_MAX : UINT32_MAX, v))
        return fail(err, "bad " + key + " '" + value + "'");
    if (key == "flags") {
        e.flags = static_cast<uint32_t>(v);
    } else if (key == "type") {
        e.data_type = static_cast<uint32_t>(v);
    } else if (key == "len") {
        if (v > 4096) return fail(err, "len above 4096");
        e.field_size = static_cast<uint32_t>(v);
    } else if (key == "data_len") {
        e.data_len = static_cast<uint32_t>(v);
    } else {
        e.family_id = static_cast<uint16_t>(v);
        c.fid_given = true;
    }
    return true;
}

bool parse_event(const std::vector<std::string>& w, ks_command& c, std::string& err) {
    const std::string& verb = w[0];
    c.op = ks_op::event;
    size_t first_opt = 1;
    if (verb == "domain" || verb == "addr") {
        if (w.size() < 2) return fail(err, verb + ": the key text is missing");
        c.event.text = w[1];
        c.event.data_type = verb == "domain" ? KS_TYPE_DOMAIN : KS_TYPE_ADDR;
        c.event.field_size = verb == "domain" ? KS_DOMAIN_FIELD : KS_ADDR_FIELD;
        first_opt = 2;
    } else if (verb == "wake") {
        c.event.data_type = 0;
        c.event.field_size = 0;
        c.event.flags = 1;
    }
    for (size_t i = first_opt; i < w.size(); ++i) {
        std::string key, value;
        if (!split_option(w[i], key, value)) return fail(err, verb + ": unexpected '" + w[i] + "'");
        if (!event_option(key, value, c, err)) return fail(err, verb + ": " + err);
    }
    return true;
}

bool parse_raw(const std::vector<std::string>& w, ks_command& c, std::string& err) {
    c.op = ks_op::raw;
    std::string digits;
    for (size_t i = 1; i < w.size(); ++i) digits += w[i];
    if (digits.empty() || digits.size() % 2) return fail(err, "raw: an even number of hex digits is needed");
    for (size_t i = 0; i < digits.size(); i += 2) {
        int hi = hex_value(digits[i]), lo = hex_value(digits[i + 1]);
        if (hi < 0 || lo < 0) return fail(err, "raw: not a hex digit");
        c.raw.push_back(static_cast<uint8_t>(hi * 16 + lo));
    }
    return true;
}

}  // namespace

bool ks_split_line(std::string_view line, std::vector<std::string>& words, std::string& err) {
    words.clear();
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && std::isspace(static_cast<unsigned char>(line[i]))) ++i;
        if (i >= line.size() || line[i] == '#') break;
        std::string word;
        while (i < line.size() && !std::isspace(static_cast<unsigned char>(line[i]))) {
            char c = line[i++];
            if (c == '\'') {
                size_t close = line.find('\'', i);
                if (close == std::string_view::npos) return fail(err, "unterminated single quote");
                word.append(line.substr(i, close - i));
                i = close + 1;
            } else if (c == '"') {
                if (!read_dquoted(line, i, word, err)) return false;
            } else {
                word += c;
            }
        }
        words.push_back(std::move(word));
    }
    return true;
}

std::optional<ks_command> ks_parse_command(const std::vector<std::string>& w, std::string& err) {
    if (w.empty()) {
        err = "empty command";
        return std::nullopt;
    }
    ks_command c;
    const std::string& verb = w[0];
    bool ok = false;
    if (verb == "announce") {
        ok = parse_announce(w, c, err);
    } else if (verb == "domain" || verb == "addr" || verb == "event" || verb == "wake") {
        ok = parse_event(w, c, err);
    } else if (verb == "raw") {
        ok = parse_raw(w, c, err);
    } else if (verb == "sleep") {
        uint64_t ms = 0;
        c.op = ks_op::sleep;
        ok = w.size() == 2 && parse_number(w[1], 3600000, ms);
        if (!ok) err = "sleep: one number of milliseconds is needed";
        c.sleep_ms = static_cast<unsigned>(ms);
    } else {
        err = "unknown command '" + verb + "'";
    }
    if (!ok) return std::nullopt;
    return c;
}

bool ks_parse_script(std::istream& in, const std::string& name, std::vector<ks_command>& out,
                     std::string& err) {
    std::string line;
    int number = 0;
    std::vector<std::string> words;
    while (std::getline(in, line)) {
        ++number;
        std::string why;
        if (!ks_split_line(line, words, why)) {
            err = name + ":" + std::to_string(number) + ": " + why;
            return false;
        }
        if (words.empty()) continue;
        auto c = ks_parse_command(words, why);
        if (!c) {
            err = name + ":" + std::to_string(number) + ": " + why;
            return false;
        }
        out.push_back(std::move(*c));
    }
    return true;
}

bool ks_parse_words(const std::vector<std::string>& words, std::vector<ks_command>& out,
                    std::string& err) {
    std::vector<std::string> cmd;
    auto flush = [&]() {
        if (cmd.empty()) return true;
        auto c = ks_parse_command(cmd, err);
        if (!c) return false;
        out.push_back(std::move(*c));
        cmd.clear();
        return true;
    };
    for (const std::string& w : words) {
        if (w == ";") {
            if (!flush()) return false;
        } else {
            cmd.push_back(w);
        }
    }
    return flush();
}

std::vector<uint8_t> ks_materialize(const ks_command& c, uint16_t default_fid, unsigned index,
                                    uint32_t seq) {
    switch (c.op) {
        case ks_op::announce: {
            ks_announce a = c.announce;
            if (!c.fid_given) a.family_id = default_fid;
            a.name = ks_expand(a.name, index);
            return ks_build_announce(a, seq);
        }
        case ks_op::event: {
            ks_event e = c.event;
            if (!c.fid_given) e.family_id = default_fid;
            e.text = ks_expand(e.text, index);
            return ks_build_event(e, seq);
        }
        case ks_op::raw:
            return c.raw;
        case ks_op::sleep:
            break;
    }
    return {};
}
