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

struct lookup {
    std::string_view text;
    bool ipv4 = false;
    int calls = 0;
};

// Every accepted match is one the lookup's rule allows.
int on_match(const char* t, int n, uint32_t id, uint32_t end, int m, int zero, void* arg) {
    auto* l = static_cast<lookup*>(arg);
    ++l->calls;
    fuzz::check(id <= kMaxId, "category id wider than 20 bits");
    fuzz::check(zero == 0, "sixth argument");
    fuzz::check(m >= 1 && static_cast<int64_t>(end) <= n && static_cast<int64_t>(end) >= m, "match outside the text");
    if (l->ipv4) {
        fuzz::check(n == 4 && static_cast<int>(end) == m, "address match not at the start of its value");
        return 0;
    }
    fuzz::check(t == l->text.data() && n == static_cast<int>(l->text.size()), "domain match on another text");
    const auto* s = reinterpret_cast<const unsigned char*>(t);
    const uint32_t len = static_cast<uint32_t>(m);
    const bool whole = len == static_cast<uint32_t>(n);
    // Otherwise each end of the piece that touches the rest of the name is a dot.
    const bool left = end == len || s[end - len] == '.';
    const bool right = end == static_cast<uint32_t>(n) || s[end - 1] == '.';
    fuzz::check(whole || (left && right), "domain match not on label boundaries", l->text);
    return 0;
}

void look_up(const category_db* db, std::string_view query) {
    // A kernel report's text ends at its first zero byte.
    const std::string text(query.substr(0, query.find('\0')));
    lookup dn{text, false};
    const unsigned r = category_db_match_domain(db, text.data(), text.size(), on_match, &dn);
    fuzz::check(r == (dn.calls ? 1u : 0u) && dn.calls <= 1, "domain result and matches disagree", text);

    lookup ip{text, true};
    const int a = category_db_match_ipv4(db, text.c_str(), on_match, &ip);
    fuzz::check(a == (ip.calls ? 1 : 0) && ip.calls <= 1, "address result and matches disagree", text);
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
