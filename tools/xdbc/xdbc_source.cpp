// Source text -> rules -> patterns: parsing of the rule lines, the values
// that stand for an IPv4 network in the address lookup, and the order of
// records that share a key.
#include <algorithm>
#include <bit>
#include <cctype>
#include <cstdio>
#include <string>

#include "xdbc.h"

namespace xdbc {
namespace {

std::string at_line(int line) { return "line " + std::to_string(line) + ": "; }

bool all_digits(std::string_view s, bool hex) {
    if (s.empty()) return false;
    for (char ch : s)
        if (!(hex ? std::isxdigit(static_cast<unsigned char>(ch)) : std::isdigit(static_cast<unsigned char>(ch))))
            return false;
    return true;
}

bool parse_id(std::string_view s, uint32_t& id) {
    const bool hex = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
    if (hex) s.remove_prefix(2);
    if (!all_digits(s, hex) || s.size() > 8) return false;
    const unsigned long v = std::stoul(std::string(s), nullptr, hex ? 16 : 10);
    if (v > kMaxId) return false;
    id = static_cast<uint32_t>(v);
    return true;
}

enum class addr_parse { not_address, ok, bad };

// d.d.d.d or d.d.d.d/len; anything without that shape is a domain pattern.
addr_parse parse_ipv4(std::string_view s, uint32_t& network, int& prefix, std::string& why) {
    std::string_view addr = s, len;
    if (auto slash = s.find('/'); slash != std::string_view::npos) {
        addr = s.substr(0, slash);
        len = s.substr(slash + 1);
    }
    uint32_t value = 0;
    int parts = 0;
    size_t at = 0;
    while (at <= addr.size()) {
        size_t dot = addr.find('.', at);
        if (dot == std::string_view::npos) dot = addr.size();
        const std::string_view part = addr.substr(at, dot - at);
        if (!all_digits(part, false) || part.size() > 3 || ++parts > 4) return addr_parse::not_address;
        const int octet = std::stoi(std::string(part));
        if (octet > 255) {
            why = "address octet above 255";
            return addr_parse::bad;
        }
        value = value << 8 | static_cast<uint32_t>(octet);
        at = dot + 1;
    }
    if (parts != 4) return addr_parse::not_address;
    prefix = 32;
    if (s.find('/') != std::string_view::npos) {
        if (!all_digits(len, false) || len.size() > 2 || std::stoi(std::string(len)) < 8 ||
            std::stoi(std::string(len)) > 32) {
            why = "prefix length must be 8 to 32";
            return addr_parse::bad;
        }
        prefix = std::stoi(std::string(len));
    }
    network = value & (~0u << (32 - prefix));
    return addr_parse::ok;
}

std::string dotted(uint32_t v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", v >> 24, v >> 16 & 255, v >> 8 & 255, v & 255);
    return buf;
}

// The network a lone value stands for: the lookup reaches it from every
// address that agrees with it above its lowest one bit (at most 24 bits).
int natural_prefix(uint32_t value) {
    const int low = value ? std::countr_zero(value) : 32;
    return 32 - std::min(low, 24);
}

}  // namespace

bool parse_source(std::string_view text, std::vector<rule>& rules, std::string& error) {
    int line_no = 0;
    while (!text.empty()) {
        ++line_no;
        size_t nl = text.find('\n');
        std::string_view line = text.substr(0, nl);
        text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
        if (size_t hash = line.find('#'); hash != std::string_view::npos) line = line.substr(0, hash);

        std::vector<std::string_view> words;
        size_t at = 0;
        while (at < line.size()) {
            while (at < line.size() && (line[at] == ' ' || line[at] == '\t' || line[at] == '\r')) ++at;
            size_t end = at;
            while (end < line.size() && line[end] != ' ' && line[end] != '\t' && line[end] != '\r') ++end;
            if (end > at) words.push_back(line.substr(at, end - at));
            at = end;
        }
        if (words.empty()) continue;
        if (words.size() != 2) {
            error = at_line(line_no) + "expected a pattern and a category id";
            return false;
        }
        rule r;
        r.line = line_no;
        if (!parse_id(words[1], r.id)) {
            error = at_line(line_no) + "bad category id \"" + std::string(words[1]) +
                    "\" (decimal or 0x hex, at most 0xFFFFF)";
            return false;
        }
        std::string why;
        switch (parse_ipv4(words[0], r.network, r.prefix, why)) {
        case addr_parse::bad:
            error = at_line(line_no) + why;
            return false;
        case addr_parse::ok:
            r.is_ipv4 = true;
            break;
        case addr_parse::not_address:
            for (char ch : words[0])
                if (static_cast<unsigned char>(ch) < 0x20 || ch == 0x7F) {
                    error = at_line(line_no) + "control byte in pattern";
                    return false;
                }
            r.text = std::string(words[0]);
            break;
        }
        rules.push_back(std::move(r));
    }
    return true;
}

std::vector<uint32_t> ipv4_values(uint32_t network, int prefix) {
    network &= ~0u << (32 - prefix);
    // One value covers the network exactly when its last prefix bit is one
    // (or the lookup's /8 floor stops it); otherwise one value per host bit,
    // each covering the addresses whose highest host one bit is that bit.
    if (prefix == 32 || prefix == 8 || (network >> (32 - prefix) & 1)) return {network};
    std::vector<uint32_t> values;
    for (int b = 31 - prefix; b >= 0; --b) values.push_back(network | 1u << b);
    return values;
}

bool build(const options& opt, const std::vector<rule>& rules, compiled& out, std::string& error,
           std::vector<std::string>& warnings) {
    std::vector<pattern> pats;
    std::array<bool, 256> prefilter{};
    std::vector<const rule*> addrs;
    for (const rule& r : rules) {
        if (r.is_ipv4) {
            addrs.push_back(&r);
            prefilter[r.network >> 24] = true;
        } else {
            pats.push_back({r.text, r.id, r.line});
        }
    }
    // Records of one value are tried in order: the most specific rule first.
    std::stable_sort(addrs.begin(), addrs.end(), [](const rule* a, const rule* b) { return a->prefix > b->prefix; });
    for (const rule* r : addrs) {
        if (r->prefix == 32 && natural_prefix(r->network) < 32)
            warnings.push_back(at_line(r->line) + dotted(r->network) + " also covers " + dotted(r->network) + "/" +
                               std::to_string(natural_prefix(r->network)) +
                               " (an address ending in zero bits stands for the network above it)");
        for (uint32_t v : ipv4_values(r->network, r->prefix)) {
            const char bytes[4] = {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
                                   static_cast<char>(v)};
            pats.push_back({std::string(bytes, 4), r->id, r->line});
        }
    }
    for (const rule& r : rules) {
        if (r.is_ipv4 || r.text.size() > 4) continue;
        uint8_t first = static_cast<uint8_t>(r.text[0]);
        const bool other_case = opt.fold_case && std::isalpha(first);
        if (prefilter[first] || (other_case && prefilter[first ^ 0x20]))
            warnings.push_back(at_line(r.line) + "pattern \"" + r.text + "\" is short enough to match addresses in " +
                               std::to_string(prefilter[first] ? first : first ^ 0x20) + ".0.0.0/8 too");
    }
    return compile(opt, pats, prefilter, out, error);
}

}  // namespace xdbc
