// Helpers shared by the category file tests: compiling pattern lists,
// locating the tables inside a file image, capturing a standard stream and
// recording matches.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "xac.h"
#include "xdb.h"
#include "xdbc.h"

namespace xdbtest {

using pattern_list = std::vector<std::pair<std::string, uint32_t>>;

inline xdbc::compiled compile_patterns(const pattern_list& list, xdbc::options opt = {},
                                       std::vector<uint8_t> first_octets = {}) {
    std::vector<xdbc::pattern> pats;
    for (auto& [text, id] : list) pats.push_back({text, id, 0});
    std::array<bool, 256> prefilter{};
    for (uint8_t o : first_octets) prefilter[o] = true;
    xdbc::compiled out;
    std::string error;
    EXPECT_TRUE(xdbc::compile(opt, pats, prefilter, out, error)) << error;
    return out;
}

// Compiles a source text the way the xdbc command does.
inline std::vector<uint8_t> build_source(const std::string& source, xdbc::options opt = {}) {
    std::vector<xdbc::rule> rules;
    std::vector<std::string> warnings;
    xdbc::compiled out;
    std::string error;
    EXPECT_TRUE(xdbc::parse_source(source, rules, error)) << error;
    EXPECT_TRUE(xdbc::build(opt, rules, out, error, warnings)) << error;
    return out.file;
}

inline category_db_ptr load(const std::vector<uint8_t>& file) { return xdb_load_mem(file.data(), file.size()); }

inline uint32_t get32(const std::vector<uint8_t>& f, size_t at) {
    return uint32_t{f[at]} << 24 | uint32_t{f[at + 1]} << 16 | uint32_t{f[at + 2]} << 8 | f[at + 3];
}
inline void put32(std::vector<uint8_t>& f, size_t at, uint32_t v) {
    f[at] = static_cast<uint8_t>(v >> 24);
    f[at + 1] = static_cast<uint8_t>(v >> 16);
    f[at + 2] = static_cast<uint8_t>(v >> 8);
    f[at + 3] = static_cast<uint8_t>(v);
}

// Byte offsets of the parts of a file image, from its own header.
struct file_layout {
    static constexpr size_t header = 12;            // xac header
    static constexpr size_t flag_a = header + 4;
    static constexpr size_t flag_b = header + 5;
    static constexpr size_t trans_count = header + 552;
    static constexpr size_t hash_slots = header + 556;
    static constexpr size_t hash_modulus = header + 560;
    static constexpr size_t pattern_count = header + 564;
    static constexpr size_t suffix_size = header + 568;
    static constexpr size_t postfix_size = header + 572;
    static constexpr size_t trans = header + 576;

    size_t hash = 0, patterns = 0, postfix = 0, suffix = 0, prefilter = 0;
    uint32_t T = 0, H = 0, N = 0, S = 0, P = 0;

    explicit file_layout(const std::vector<uint8_t>& f) {
        T = get32(f, trans_count);
        H = get32(f, hash_slots);
        N = get32(f, pattern_count);
        S = get32(f, suffix_size);
        P = get32(f, postfix_size);
        hash = trans + 4 * size_t{T};
        patterns = hash + 8 * size_t{H};
        postfix = patterns + 8 * (size_t{N} + 1);
        suffix = postfix + P;
        prefilter = suffix + S;
    }
    size_t word(uint32_t i) const { return trans + 4 * size_t{i}; }
    size_t record(uint32_t r) const { return patterns + 8 * size_t{r}; }
};

// Redirects one standard stream (1 or 2) into a temporary file while alive.
class capture {
public:
    explicit capture(int fd) : fd_(fd) {
        std::fflush(nullptr);
        char path[] = "/tmp/xdb_capture_XXXXXX";
        tmp_ = mkstemp(path);
        unlink(path);
        saved_ = dup(fd_);
        dup2(tmp_, fd_);
    }
    ~capture() { restore(); }
    std::string text() {
        restore();
        std::string out;
        lseek(tmp_, 0, SEEK_SET);
        char buf[4096];
        ssize_t n;
        while ((n = read(tmp_, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
        return out;
    }

private:
    void restore() {
        if (saved_ < 0) return;
        std::fflush(nullptr);
        dup2(saved_, fd_);
        close(saved_);
        saved_ = -1;
    }
    int fd_;
    int tmp_ = -1;
    int saved_ = -1;
};

struct match {
    uint32_t id;
    uint32_t end;
    int len;
    std::string text;
    bool operator==(const match& o) const { return id == o.id && end == o.end && len == o.len; }
};

inline std::ostream& operator<<(std::ostream& os, const match& m) {
    return os << "{id " << m.id << ", end " << m.end << ", len " << m.len << "}";
}

// Records every call; returns `result` to the scanner.
struct recorder {
    std::vector<match> calls;
    int result = 0;

    static int handler(const char* t, int n, uint32_t id, uint32_t end, int len, int zero, void* arg) {
        auto* self = static_cast<recorder*>(arg);
        self->calls.push_back({id, end, len, std::string(t, static_cast<size_t>(n))});
        EXPECT_EQ(zero, 0);
        return self->result;
    }
};

// Every record the automaton confirms in the first `len` bytes of `buffer`
// (all of it by default), in report order. Bytes past `len` must not count.
inline std::vector<match> scan_all(const category_db& db, const std::string& buffer, size_t len = std::string::npos) {
    recorder rec;
    xac_scanner sc;
    xac_scanner_init(&sc, db.tables.get(), recorder::handler, &rec, 0);
    EXPECT_EQ(xac_scan(&sc, buffer.data(), std::min(len, buffer.size())), 0u);
    return rec.calls;
}

inline std::vector<match> match_domain(const category_db& db, const std::string& buffer,
                                       size_t len = std::string::npos) {
    recorder rec;
    const unsigned r =
        category_db_match_domain(&db, buffer.data(), std::min(len, buffer.size()), recorder::handler, &rec);
    EXPECT_EQ(r, rec.calls.empty() ? 0u : 1u);
    return rec.calls;
}

inline std::vector<match> match_ipv4(const category_db& db, const std::string& address) {
    recorder rec;
    const int r = category_db_match_ipv4(&db, address.c_str(), recorder::handler, &rec);
    EXPECT_EQ(r, rec.calls.empty() ? 0 : 1);
    return rec.calls;
}

}  // namespace xdbtest
