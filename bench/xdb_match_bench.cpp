// Domain lookups against a category file of 100,000 label-boundary suffix
// patterns (".label.tld"), compared with two alternatives:
// - a std::unordered_set<std::string> of the same patterns probed with every
//   dot-suffix of the name, once with string_view lookups (no copies) and
//   once as most code writes it (a std::string per probe);
// - when the build found Hyperscan, its block mode on the same patterns,
//   once as a regular-expression set that carries the label-boundary rule
//   itself (anchors) and once as a literal set whose match callback applies
//   the rule (the library's own fastest path for plain strings).
// All answer the same question; the setup checks that they agree on every
// name. Also reports the heap the loaded file takes against its size, and
// the size of each Hyperscan database. Single thread; data generation takes
// about a second, the Hyperscan compiles longer.
//
//   build/bench/xdb_match_bench
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "xac.h"
#include "xdb.h"
#include "xdbc.h"

#ifdef ZOR_HAVE_HYPERSCAN
#include <hs.h>

#include <memory>
#endif

namespace {

constexpr size_t kPatterns = 100'000;
constexpr size_t kNames = 1'000'000;
constexpr uint32_t kHitOneIn = 5;

struct rng {
    uint64_t s;
    uint64_t next() {
        uint64_t z = (s += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(next() % n); }
};

// Labels are one to three pseudo-syllables (onset, vowel, coda) drawn with
// a skewed frequency, so that common beginnings recur the way brand and
// word prefixes do in real host names (the patterns have about 70,000
// distinct seven-byte keys).
const char* const kOnsets[] = {"",   "",   "",   "",   "b",  "c",  "d",  "f",  "g",  "h",  "j",  "k",  "l",
                               "m",  "n",  "p",  "r",  "s",  "t",  "v",  "w",  "y",  "z",  "bl", "br", "cl",
                               "cr", "dr", "fl", "fr", "gl", "gr", "pl", "pr", "sc", "sk", "sl", "sp", "st",
                               "tr", "ch", "sh", "th"};
const char* const kVowels[] = {"a", "e", "i", "o", "u", "a", "e", "i", "o", "a", "e", "ai", "ea", "ee", "oo", "ou",
                               "ie", "io"};
const char* const kCodas[] = {"", "", "", "", "", "", "", "", "n", "r", "s", "t", "l", "m", "x", "ck", "ng", "st",
                              "nt", "rd"};
const char* const kTlds[] = {"com", "com", "com", "com", "net", "net", "org", "io",
                             "de",  "co.uk", "cn", "ru", "info", "fr", "jp", "tv"};
const char* const kHosts[] = {"www", "cdn", "api", "img", "static", "m", "mail", "ads", "t", "s3"};

std::vector<std::string> make_syllables(rng& r) {
    std::vector<std::string> out;
    for (const char* o : kOnsets)
        for (const char* v : kVowels)
            for (const char* c : kCodas) out.push_back(std::string(o) + v + c);
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    for (size_t i = out.size() - 1; i > 0; --i) std::swap(out[i], out[r.below(static_cast<uint32_t>(i + 1))]);
    return out;
}

std::string label(rng& r, const std::vector<std::string>& syllables) {
    std::string s;
    const uint32_t parts = 1 + r.below(3);
    for (uint32_t i = 0; i < parts; ++i) {
        const double u = static_cast<double>(r.next() >> 11) * 0x1.0p-53;
        s += syllables[static_cast<size_t>(static_cast<double>(syllables.size()) * std::pow(u, 1.6))];
    }
    if (r.below(8) == 0) s += std::to_string(r.below(100));
    return s;
}

struct transparent_hash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
};
using pattern_set = std::unordered_set<std::string, transparent_hash, std::equal_to<>>;

// The same walk as most code would write it: the default hash, and a
// std::string made for each suffix looked up.
bool plain_set_walk(const std::unordered_set<std::string>& set, std::string_view name) {
    for (size_t i = name.find('.'); i != std::string_view::npos; i = name.find('.', i + 1))
        if (set.count(std::string(name.substr(i)))) return true;
    return false;
}

bool set_walk(const pattern_set& set, std::string_view name) {
    for (size_t i = name.find('.'); i != std::string_view::npos; i = name.find('.', i + 1))
        if (set.find(name.substr(i)) != set.end()) return true;
    return false;
}

#ifdef ZOR_HAVE_HYPERSCAN
// The category file's domain rule: a match is the whole name, or a piece
// whose ends that touch the rest of the name are dots.
bool on_label_boundaries(std::string_view t, size_t e, size_t m) {
    const size_t n = t.size();
    if (m == 0 || e < m) return false;
    if (m == n) return true;
    if (e == n) return t[e - m] == '.';
    if (e == m) return t[e - 1] == '.';
    return t[e - 1] == '.' && t[e - m] == '.';
}

// The same rule as a regular expression: a pattern that starts with a dot
// may end the name, one that ends with a dot may start it, one with both
// may stand anywhere, any other only for the whole name. Bytes other than
// letters and digits are written as escapes.
std::string boundary_regex(std::string_view p) {
    const bool lead = p.front() == '.', trail = p.back() == '.';
    std::string re = lead ? "" : "\\A";
    for (char c : p) {
        if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'))) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
            re += hex;
        } else {
            re += c;
        }
    }
    if (!trail) re += "\\z";
    return re;
}

struct hs_database_deleter {
    void operator()(hs_database_t* d) const { hs_free_database(d); }
};
struct hs_scratch_deleter {
    void operator()(hs_scratch_t* s) const { hs_free_scratch(s); }
};

// One compiled Hyperscan database with the scratch space a scan needs.
struct hs_matcher {
    std::unique_ptr<hs_database_t, hs_database_deleter> db;
    std::unique_ptr<hs_scratch_t, hs_scratch_deleter> scratch;
    size_t bytes = 0;
    double compile_seconds = 0;
};

void hs_finish(hs_matcher& m, hs_database_t* db, hs_compile_error_t* err, hs_error_t rc, const char* what) {
    if (rc != HS_SUCCESS) {
        std::fprintf(stderr, "hyperscan %s compile failed: %s\n", what, err ? err->message : "?");
        hs_free_compile_error(err);
        std::exit(1);
    }
    m.db.reset(db);
    hs_scratch_t* scratch = nullptr;
    if (hs_alloc_scratch(db, &scratch) != HS_SUCCESS) std::exit(1);
    m.scratch.reset(scratch);
    hs_database_size(db, &m.bytes);
}

// The rule carried by anchors in every expression.
hs_matcher hs_compile_regex_set(const std::vector<std::string>& patterns) {
    std::vector<std::string> exprs;
    std::vector<const char*> ptrs;
    std::vector<unsigned> flags(patterns.size(), HS_FLAG_SINGLEMATCH), ids;
    for (size_t i = 0; i < patterns.size(); ++i) {
        exprs.push_back(boundary_regex(patterns[i]));
        ids.push_back(static_cast<unsigned>(i));
    }
    for (const std::string& e : exprs) ptrs.push_back(e.c_str());
    hs_matcher m;
    hs_database_t* db = nullptr;
    hs_compile_error_t* err = nullptr;
    const auto start = std::chrono::steady_clock::now();
    const hs_error_t rc = hs_compile_multi(ptrs.data(), flags.data(), ids.data(), static_cast<unsigned>(ptrs.size()),
                                           HS_MODE_BLOCK, nullptr, &db, &err);
    m.compile_seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    hs_finish(m, db, err, rc, "regex set");
    return m;
}

// Plain literals; the match callback applies the rule.
hs_matcher hs_compile_literal_set(const std::vector<std::string>& patterns) {
    std::vector<const char*> ptrs;
    std::vector<size_t> lens;
    std::vector<unsigned> flags(patterns.size(), 0), ids;
    for (size_t i = 0; i < patterns.size(); ++i) {
        ptrs.push_back(patterns[i].data());
        lens.push_back(patterns[i].size());
        ids.push_back(static_cast<unsigned>(i));
    }
    hs_matcher m;
    hs_database_t* db = nullptr;
    hs_compile_error_t* err = nullptr;
    const auto start = std::chrono::steady_clock::now();
    const hs_error_t rc = hs_compile_lit_multi(ptrs.data(), flags.data(), ids.data(), lens.data(),
                                               static_cast<unsigned>(ptrs.size()), HS_MODE_BLOCK, nullptr, &db, &err);
    m.compile_seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    hs_finish(m, db, err, rc, "literal set");
    return m;
}

// Any match stops the scan: the first accepted one answers the lookup.
int hs_stop_at_first(unsigned, unsigned long long, unsigned long long, unsigned, void*) { return 1; }

bool hs_regex_lookup(const hs_matcher& m, std::string_view name) {
    return hs_scan(m.db.get(), name.data(), static_cast<unsigned>(name.size()), 0, m.scratch.get(), hs_stop_at_first,
                   nullptr) == HS_SCAN_TERMINATED;
}

struct literal_scan {
    std::string_view name;
    const std::vector<uint32_t>* lengths;
};

int hs_literal_filter(unsigned id, unsigned long long, unsigned long long to, unsigned, void* arg) {
    const auto* s = static_cast<const literal_scan*>(arg);
    return on_label_boundaries(s->name, static_cast<size_t>(to), (*s->lengths)[id]) ? 1 : 0;
}

bool hs_literal_lookup(const hs_matcher& m, const std::vector<uint32_t>& lengths, std::string_view name) {
    literal_scan s{name, &lengths};
    return hs_scan(m.db.get(), name.data(), static_cast<unsigned>(name.size()), 0, m.scratch.get(), hs_literal_filter,
                   &s) == HS_SCAN_TERMINATED;
}
#endif

struct fixture {
    std::vector<std::string> patterns;
    std::string name_bytes;
    std::vector<uint32_t> name_at;  // kNames + 1 offsets into name_bytes
    pattern_set set;
    std::unordered_set<std::string> plain_set;
    size_t file_bytes = 0;
    size_t loaded_bytes = 0;
#ifdef ZOR_HAVE_HYPERSCAN
    hs_matcher hs_regex;
    hs_matcher hs_literal;
    std::vector<uint32_t> lengths;  // pattern lengths by id, for the literal callback
#endif

    std::string_view name(size_t i) const { return {name_bytes.data() + name_at[i], name_at[i + 1] - name_at[i]}; }

    fixture() {
        rng r{20240611};
        const std::vector<std::string> syllables = make_syllables(r);
        patterns.reserve(kPatterns);
        set.reserve(kPatterns);
        while (patterns.size() < kPatterns) {
            std::string p = "." + label(r, syllables) + "." + kTlds[r.below(std::size(kTlds))];
            if (set.insert(p).second) patterns.push_back(std::move(p));
        }

        name_bytes.reserve(kNames * 24);
        name_at.reserve(kNames + 1);
        for (size_t i = 0; i < kNames; ++i) {
            name_at.push_back(static_cast<uint32_t>(name_bytes.size()));
            const uint32_t hosts = r.below(3);
            for (uint32_t h = 0; h < hosts; ++h) {
                name_bytes += r.below(2) ? kHosts[r.below(std::size(kHosts))] : label(r, syllables);
                name_bytes += '.';
            }
            if (hosts == 0) name_bytes += "www.";
            if (r.below(kHitOneIn) == 0) {
                name_bytes.append(patterns[r.below(kPatterns)], 1);
            } else {
                // A miss: a registrable name that is not in the set.
                std::string tail;
                do {
                    tail = "." + label(r, syllables) + "." + kTlds[r.below(std::size(kTlds))];
                } while (set.count(tail));
                name_bytes.append(tail, 1);
            }
        }
        name_at.push_back(static_cast<uint32_t>(name_bytes.size()));
        plain_set.reserve(kPatterns);
        plain_set.insert(patterns.begin(), patterns.end());
        std::printf("xdb_match_bench: %zu patterns, %zu names\n", kPatterns, kNames);
        std::fflush(stdout);  // its buffer is allocated now, not while the file loads
        load_file();
#ifdef ZOR_HAVE_HYPERSCAN
        hs_regex = hs_compile_regex_set(patterns);
        hs_literal = hs_compile_literal_set(patterns);
        for (const std::string& p : patterns) lengths.push_back(static_cast<uint32_t>(p.size()));
#endif
        check_agreement();
    }

    void load_file() {
        std::vector<xdbc::pattern> pats;
        pats.reserve(patterns.size());
        for (size_t i = 0; i < patterns.size(); ++i) pats.push_back({patterns[i], static_cast<uint32_t>(i & 0xFFFFF), 0});
        xdbc::options opt;
        opt.suffix_unit = 4;
        xdbc::compiled out;
        std::string error;
        if (!xdbc::compile(opt, pats, {}, out, error)) {
            std::fprintf(stderr, "compile failed: %s\n", error.c_str());
            std::exit(1);
        }
        file_bytes = out.file.size();
        char path[] = "/tmp/xdb_bench_XXXXXX";
        const int fd = mkstemp(path);
        if (fd < 0 || write(fd, out.file.data(), out.file.size()) != static_cast<ssize_t>(out.file.size())) std::exit(1);
        close(fd);
        out = {};
        const size_t before = mallinfo2().uordblks;
        if (xdb_init(path) != 0) std::exit(1);
        loaded_bytes = mallinfo2().uordblks - before;
        unlink(path);
    }

    void check_agreement() {
        for (size_t i = 0; i < kNames; ++i) {
            const std::string_view n = name(i);
            const bool by_set = set_walk(set, n);
            const bool by_file = xdb_match_domain(n.data(), n.size()).has_value();
            bool agree = by_set == by_file && by_set == plain_set_walk(plain_set, n);
#ifdef ZOR_HAVE_HYPERSCAN
            agree = agree && by_set == hs_regex_lookup(hs_regex, n) && by_set == hs_literal_lookup(hs_literal, lengths, n);
#endif
            if (!agree) {
                std::fprintf(stderr, "lookups disagree on %.*s\n", static_cast<int>(n.size()), n.data());
                std::exit(1);
            }
        }
    }
};

const fixture& data() {
    static const fixture f;
    return f;
}

void report(benchmark::State& state, size_t hits) {
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kNames));
    state.counters["hit_ratio"] = static_cast<double>(hits) / static_cast<double>(state.iterations() * kNames);
}

void BM_xdb_match_domain(benchmark::State& state) {
    const fixture& f = data();
    size_t hits = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < kNames; ++i) {
            const std::string_view n = f.name(i);
            if (xdb_match_domain(n.data(), n.size())) ++hits;
        }
    }
    report(state, hits);
    state.counters["patterns"] = static_cast<double>(kPatterns);
    state.counters["file_bytes"] = static_cast<double>(f.file_bytes);
    state.counters["loaded_bytes"] = static_cast<double>(f.loaded_bytes);
    state.counters["loaded_over_file"] = static_cast<double>(f.loaded_bytes) - static_cast<double>(f.file_bytes);
}

void BM_hash_set_suffix_walk(benchmark::State& state) {
    const fixture& f = data();
    size_t hits = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < kNames; ++i) hits += set_walk(f.set, f.name(i));
    }
    report(state, hits);
}

void BM_hash_set_suffix_walk_plain(benchmark::State& state) {
    const fixture& f = data();
    size_t hits = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < kNames; ++i) hits += plain_set_walk(f.plain_set, f.name(i));
    }
    report(state, hits);
}

#ifdef ZOR_HAVE_HYPERSCAN
void hs_report(benchmark::State& state, const hs_matcher& m, size_t hits) {
    report(state, hits);
    state.counters["db_bytes"] = static_cast<double>(m.bytes);
    state.counters["compile_s"] = m.compile_seconds;
}

void BM_hyperscan_regex_set(benchmark::State& state) {
    const fixture& f = data();
    size_t hits = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < kNames; ++i) hits += hs_regex_lookup(f.hs_regex, f.name(i));
    }
    hs_report(state, f.hs_regex, hits);
}

void BM_hyperscan_literal_set(benchmark::State& state) {
    const fixture& f = data();
    size_t hits = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < kNames; ++i) hits += hs_literal_lookup(f.hs_literal, f.lengths, f.name(i));
    }
    hs_report(state, f.hs_literal, hits);
}

#endif

}  // namespace

BENCHMARK(BM_xdb_match_domain)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_hash_set_suffix_walk)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_hash_set_suffix_walk_plain)->Unit(benchmark::kMillisecond);
#ifdef ZOR_HAVE_HYPERSCAN
BENCHMARK(BM_hyperscan_regex_set)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_hyperscan_literal_set)->Unit(benchmark::kMillisecond);
#endif

BENCHMARK_MAIN();
