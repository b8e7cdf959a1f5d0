// Helpers shared by the category file tests: compiling patterns or source
// text into a loaded file, and recording what the matcher reports.
#pragma once

#include <gtest/gtest.h>

#include "xac.h"
#include "xdb.h"
#include "xdb_reference.h"

namespace xdbtest {

inline category_db_ptr load(const std::vector<uint8_t>& file) { return xdb_load_mem(file.data(), file.size()); }

inline xdbc::compiled compile_patterns(const std::vector<xdbc::pattern>& pats, xdbc::options opt = {}) {
    xdbc::compiled out;
    std::string error;
    EXPECT_TRUE(xdbc::compile(opt, pats, {}, out, error)) << error;
    return out;
}

inline std::vector<uint8_t> build_source(const std::string& source, xdbc::options opt = {}) {
    std::string error;
    std::vector<uint8_t> file = xdbref::build_source(source, error, opt);
    EXPECT_EQ(error, "");
    return file;
}

using xdbref::match;

// Records every call with the text it was handed.
struct recorder {
    std::vector<match> calls;
    std::vector<std::string> texts;
    static int handler(const char* t, int n, uint32_t id, uint32_t end, int len, int zero, void* arg) {
        auto* self = static_cast<recorder*>(arg);
        self->calls.emplace_back(id, end, len);
        self->texts.emplace_back(t, static_cast<size_t>(n));
        EXPECT_EQ(zero, 0);
        return 0;
    }
};

// Every record the automaton confirms in the first `len` bytes of `buffer`,
// in report order. Bytes past `len` must not count.
inline std::vector<match> scan_all(const category_db& db, const std::string& buffer, size_t len = std::string::npos) {
    recorder rec;
    xac_scanner sc;
    xac_scanner_init(&sc, db.tables.get(), recorder::handler, &rec, 0);
    EXPECT_EQ(xac_scan(&sc, buffer.data(), std::min(len, buffer.size())), 0u);
    return rec.calls;
}

// The domain lookup's accepted match (none or one).
inline std::vector<match> match_domain(const category_db& db, const std::string& buffer, size_t len = std::string::npos) {
    const std::optional<xdb_match> m = category_db_match_domain(&db, buffer.data(), std::min(len, buffer.size()));
    if (!m) return {};
    EXPECT_EQ(m->value, 0u);
    return {match(m->id, m->end, m->len)};
}

inline recorder match_ipv4(const category_db& db, const std::string& address) {
    recorder rec;
    const std::optional<xdb_match> m = category_db_match_ipv4(&db, address.c_str());
    if (!m) return rec;
    rec.calls.emplace_back(m->id, m->end, m->len);
    const char v[4] = {static_cast<char>(m->value >> 24), static_cast<char>(m->value >> 16),
                       static_cast<char>(m->value >> 8), static_cast<char>(m->value)};
    rec.texts.emplace_back(v, sizeof v);
    return rec;
}

}  // namespace xdbtest
