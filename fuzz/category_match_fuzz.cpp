// The matcher against the plain meaning of a category file: patterns are
// compiled with the category file compiler, loaded, and every name is looked
// up both by the matcher and by brute force (the model the unit tests use,
// tests/xdb/xdb_reference.h). A file the compiler writes must
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
#include "xac.h"
#include "xdb.h"
#include "xdb_reference.h"

namespace {

constexpr size_t kMaxInput = 1 << 14;
constexpr size_t kMaxPatterns = 48;
constexpr size_t kMaxNames = 16;
constexpr size_t kMaxName = 300;


std::string describe(const std::vector<xdbref::match>& m) {
    if (m.empty()) return "no match";
    const auto [id, end, len] = m[0];
    return "id " + std::to_string(id) + " end " + std::to_string(end) + " len " + std::to_string(len);
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

    size_t names = 0;
    for (std::string_view line : fuzz::split_lines(rest.substr(zero + 1))) {
        if (names++ == kMaxNames) break;
        // Exactly the name's bytes: a read past them is caught.
        const std::vector<char> name(line.begin(), line.begin() + std::min(line.size(), kMaxName));
        const std::string_view text(name.data(), name.size());
        std::vector<xdbref::match> got;
        if (const std::optional<xdb_match> m = category_db_match_domain(db.get(), name.data(), name.size())) {
            got.emplace_back(m->id, m->end, m->len);
        }
        const std::vector<xdbref::match> want = xdbref::domain_match(xdbref::all_matches(opt, pats, out.layouts, text), text);
        if (got != want) {
            fuzz::report("name \"%.*s\": matcher %s, brute force %s\n", static_cast<int>(text.size()), text.data(),
                         describe(got).c_str(), describe(want).c_str());
            fuzz::fail("matcher and brute force disagree", text);
        }
    }
    return 0;
}
