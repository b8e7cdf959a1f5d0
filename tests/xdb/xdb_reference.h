// Category file helpers without a test framework, shared by the unit tests,
// the fuzz targets and the benchmarks: building a file from source text the
// way the xdbc command does, and the plain meaning of a domain match that the
// matcher is compared with.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "xdbc.h"

namespace xdbref {

// The file image, or empty with the reason in `error`.
inline std::vector<uint8_t> build_source(std::string_view source, std::string& error, xdbc::options opt = {}) {
    std::vector<xdbc::rule> rules;
    std::vector<std::string> warnings;
    xdbc::compiled out;
    if (!xdbc::parse_source(source, rules, error) || !xdbc::build(opt, rules, out, error, warnings)) return {};
    return std::move(out.file);
}

using match = std::tuple<uint32_t, uint32_t, int>;  // id, end, length

inline uint8_t fold(uint8_t b) { return (b >= 'A' && b <= 'Z') ? static_cast<uint8_t>(b + 32) : b; }

// Every record a text holds, straight from the definition: a key (the first
// key_len bytes) ending at p, anywhere or only at the start when anchored,
// equal symbol by symbol (folded when the file folds case), then the exact
// rest of the pattern. Order: p ascending, longer keys first, then source
// order.
inline std::vector<match> all_matches(const xdbc::options& opt, const std::vector<xdbc::pattern>& pats,
                                      const std::vector<xdbc::layout>& lay, std::string_view text) {
    std::vector<match> out;
    for (size_t p = 1; p <= text.size(); ++p) {
        std::vector<size_t> hits;
        for (size_t j = 0; j < pats.size(); ++j) {
            const size_t k = lay[j].key_len;
            bool eq = k <= p && (!opt.anchored || p == k);
            for (size_t i = 0; eq && i < k; ++i) {
                const auto a = static_cast<uint8_t>(text[p - k + i]), b = static_cast<uint8_t>(pats[j].text[i]);
                eq = opt.fold_case ? fold(a) == fold(b) : a == b;
            }
            if (eq) hits.push_back(j);
        }
        std::stable_sort(hits.begin(), hits.end(), [&](size_t a, size_t b) { return lay[a].key_len > lay[b].key_len; });
        for (size_t j : hits) {
            const std::string_view tail = std::string_view(pats[j].text).substr(lay[j].key_len);
            if (text.substr(p, tail.size()) == tail)
                out.emplace_back(pats[j].id, p + tail.size(), static_cast<int>(pats[j].text.size()));
        }
    }
    return out;
}

// A domain match covers whole labels: it starts the name or with a dot, and
// ends the name or with a dot.
inline bool on_boundaries(std::string_view t, const match& m) {
    const auto [id, end, len] = m;
    return len > 0 && end >= static_cast<uint32_t>(len) && (end == static_cast<uint32_t>(len) || t[end - len] == '.') &&
           (end == t.size() || t[end - 1] == '.');
}

// What the domain lookup must report: the first record on label boundaries.
inline std::vector<match> domain_match(const std::vector<match>& all, std::string_view name) {
    const auto first = std::find_if(all.begin(), all.end(), [&](const match& m) { return on_boundaries(name, m); });
    return std::vector<match>(first, first == all.end() ? first : first + 1);
}

}  // namespace xdbref
