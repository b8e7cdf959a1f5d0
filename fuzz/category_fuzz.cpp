// The category file is a compiled table the service trusts only as far as
// its loader has checked it: a damaged or hostile file is refused, or loaded
// into tables the matcher never leaves, whatever names and addresses it is
// asked about afterwards. The loader reads the file the same way from a path
// and from memory.
//
// Input: a little-endian 16-bit length L, L bytes of names and addresses to
// look up (one per line), then the file.
#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "xac.h"
#include "xdb.h"

namespace {

constexpr size_t kMaxInput = 1 << 20;
constexpr size_t kMaxQueries = 64;
constexpr uint32_t kMaxId = 0xFFFFF;

fuzz::scratch_file& scratch() {
    static fuzz::scratch_file f;
    return f;
}

// Every accepted match is one the lookup's rule allows.
void check_match(const xdb_match& m, std::string_view text, bool ipv4) {
    const int64_t n = ipv4 ? 4 : static_cast<int64_t>(text.size());
    fuzz::check(m.id <= kMaxId, "category id wider than 20 bits");
    fuzz::check(m.len >= 1 && static_cast<int64_t>(m.end) <= n && static_cast<int64_t>(m.end) >= m.len,
                "match outside the text");
    if (ipv4) {
        fuzz::check(static_cast<int>(m.end) == m.len, "address match not at the start of its value");
        return;
    }
    fuzz::check(m.value == 0, "domain match with an address value");
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    const uint32_t len = static_cast<uint32_t>(m.len);
    const bool whole = len == static_cast<uint32_t>(n);
    // Otherwise each end of the piece that touches the rest of the name is a dot.
    const bool left = m.end == len || s[m.end - len] == '.';
    const bool right = m.end == static_cast<uint32_t>(n) || s[m.end - 1] == '.';
    fuzz::check(whole || (left && right), "domain match not on label boundaries", text);
}

void look_up(const category_db* db, std::string_view query) {
    // A kernel report's text ends at its first zero byte.
    const std::string text(query.substr(0, query.find('\0')));
    if (const std::optional<xdb_match> m = category_db_match_domain(db, text.data(), text.size())) {
        check_match(*m, text, false);
    }
    if (const std::optional<xdb_match> m = category_db_match_ipv4(db, text.c_str())) check_match(*m, text, true);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::setup();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2 || size > kMaxInput) return 0;
    size_t qlen = data[0] | static_cast<size_t>(data[1]) << 8;
    if (qlen > size - 2) qlen = size - 2;
    const std::string_view queries(reinterpret_cast<const char*>(data + 2), qlen);
    const uint8_t* file = data + 2 + qlen;
    const size_t file_len = size - 2 - qlen;

    category_db_ptr mem = xdb_load_mem(file, file_len);
    scratch().write(file, file_len);
    category_db_ptr from_path = xdb_load(scratch().path());
    fuzz::check((mem != nullptr) == (from_path != nullptr), "path and memory loads disagree");
    if (!mem) return 0;
    fuzz::check(mem->tables != nullptr, "loaded file without tables");
    fuzz::check((mem->prefilter != nullptr) == (from_path->prefilter != nullptr), "prefilter loads disagree");

    size_t n = 0;
    for (std::string_view q : fuzz::split_lines(queries)) {
        if (n++ == kMaxQueries) break;
        look_up(mem.get(), q);
    }
    return 0;
}
