// The matcher against the plain meaning of a category file: patterns are
// compiled with the category file compiler, loaded, and every name is looked
// up both by the matcher and by brute force. A file the compiler writes must
// load, and the domain lookup must report exactly the first match that the
// brute force accepts: ordered by where the key (the first bytes of a
// pattern, the automaton's part) ends, longer keys first, then file order;
// the key compared with case folding when the file folds case, the rest of
// the pattern exactly; accepted on label boundaries.
//
// Input: one option byte (bit 0 fold case, bit 1 anchored, bits 2-4 the
// suffix unit), pattern lines up to the first zero byte (pattern i gets
// category id i + 1), then the names to look up, one per line.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_support.h"
#include "xdb.h"
#include "xdbc.h"

namespace {

constexpr size_t kMaxInput = 1 << 14;
constexpr size_t kMaxPatterns = 48;
constexpr size_t kMaxNames = 16;
constexpr size_t kMaxName = 300;

struct found {
    bool any = false;
    uint32_t id = 0;
    uint32_t end = 0;
    int len = 0;
    bool operator==(const found&) const = default;
};

uint8_t fold(uint8_t b) { return (b >= 'A' && b <= 'Z') ? static_cast<uint8_t>(b + 32) : b; }

bool on_boundaries(std::string_view t, uint32_t e, uint32_t m) {
    const size_t n = t.size();
    if (m == 0 || e < m) return false;
    if (m == n) return true;
    if (e == n) return t[e - m] == '.';
    if (e == m) return t[e - 1] == '.';
    return t[e - 1] == '.' && t[e - m] == '.';
}

struct reference {
    const xdbc::options& opt;
    const std::vector<xdbc::pattern>& pats;
    const std::vector<xdbc::layout>& lay;

    bool key_ends_at(size_t j, std::string_view t, size_t p) const {
        const size_t k = lay[j].key_len;
        if (k > p || (opt.anchored && p != k)) return false;
        for (size_t i = 0; i < k; ++i) {
            const auto a = static_cast<uint8_t>(t[p - k + i]), b = static_cast<uint8_t>(pats[j].text[i]);
            if (opt.fold_case ? fold(a) != fold(b) : a != b) return false;
        }
        return true;
    }

    found first_domain_match(std::string_view t) const {
        for (size_t p = 1; p <= t.size(); ++p) {
            std::vector<size_t> hits;
            for (size_t j = 0; j < pats.size(); ++j)
                if (key_ends_at(j, t, p)) hits.push_back(j);
            std::stable_sort(hits.begin(), hits.end(),
                             [&](size_t a, size_t b) { return lay[a].key_len > lay[b].key_len; });
            for (size_t j : hits) {
                const std::string_view tail = std::string_view(pats[j].text).substr(lay[j].key_len);
                if (t.substr(p, tail.size()) != tail) continue;
                const auto end = static_cast<uint32_t>(p + tail.size());
                const auto len = static_cast<uint32_t>(pats[j].text.size());
                if (on_boundaries(t, end, len)) return {true, pats[j].id, end, static_cast<int>(len)};
            }
        }
        return {};
    }
};

int record_match(const char*, int, uint32_t id, uint32_t end, int len, int, void* arg) {
    auto* f = static_cast<found*>(arg);
    fuzz::check(!f->any, "handler called twice for one lookup");
    *f = {true, id, end, len};
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::setup();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > kMaxInput) return 0;
    xdbc::options opt;
    opt.fold_case = data[0] & 1;
    opt.anchored = data[0] & 2;
    opt.suffix_unit = (data[0] >> 2) & 7;
    const std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
    const size_t zero = rest.find('\0');
    if (zero == std::string_view::npos) return 0;

    std::vector<xdbc::pattern> pats;
    for (std::string_view line : fuzz::split_lines(rest.substr(0, zero))) {
        if (pats.size() == kMaxPatterns) break;
        pats.push_back({std::string(line), static_cast<uint32_t>(pats.size() + 1), 0});
    }
    if (pats.empty()) return 0;
    xdbc::compiled out;
    std::string error;
    std::array<bool, 256> prefilter{};
    if (!xdbc::compile(opt, pats, prefilter, out, error)) return 0;
    category_db_ptr db = xdb_load_mem(out.file.data(), out.file.size());
    fuzz::check(db != nullptr, "the compiler's file does not load");

    const reference ref{opt, pats, out.layouts};
    size_t names = 0;
    for (std::string_view line : fuzz::split_lines(rest.substr(zero + 1))) {
        if (names++ == kMaxNames) break;
        // Exactly the name's bytes: a read past them is caught.
        const std::vector<char> name(line.begin(), line.begin() + std::min(line.size(), kMaxName));
        const std::string_view text(name.data(), name.size());
        found got;
        const unsigned r = category_db_match_domain(db.get(), name.data(), name.size(), record_match, &got);
        fuzz::check(r == (got.any ? 1u : 0u), "lookup result and handler disagree", text);
        const found want = ref.first_domain_match(text);
        if (!(got == want)) {
            fuzz::report("name \"%.*s\": matcher %d id %u end %u len %d, brute force %d id %u end %u len %d\n",
                         static_cast<int>(text.size()), text.data(), got.any, got.id, got.end, got.len,
                         want.any, want.id, want.end, want.len);
            fuzz::fail("matcher and brute force disagree", text);
        }
    }
    return 0;
}
