// Randomised comparison of the compiled automaton with brute force: every
// confirmed record in the documented report order, the first match the
// domain filter accepts, and address rules against plain prefix matching.
#include <algorithm>

#include "xdb_test_util.h"

using namespace xdbtest;

namespace {

struct rng {
    uint64_t s;
    uint64_t next() {
        uint64_t z = (s += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(next() % n); }
    bool chance(uint32_t one_in) { return below(one_in) == 0; }
};

uint8_t fold(uint8_t b) { return (b >= 'A' && b <= 'Z') ? static_cast<uint8_t>(b + 32) : b; }

// Straight from the definition of a match: a key ending at p (anywhere, or
// only at the start when anchored), equal symbol by symbol, followed by its
// exact postfix and suffix. Order: p ascending, longer keys first, then
// source order.
struct reference {
    const xdbc::options& opt;
    const std::vector<xdbc::pattern>& pats;
    const std::vector<xdbc::layout>& lay;

    bool key_at(size_t j, const std::string& text, size_t p) const {
        const size_t k = lay[j].key_len;
        for (size_t i = 0; i < k; ++i) {
            const auto a = static_cast<uint8_t>(text[p - k + i]), b = static_cast<uint8_t>(pats[j].text[i]);
            if (opt.fold_case ? fold(a) != fold(b) : a != b) return false;
        }
        return true;
    }

    std::vector<match> all(const std::string& text) const {
        std::vector<match> out;
        for (size_t p = 1; p <= text.size(); ++p) {
            std::vector<size_t> hits;
            for (size_t j = 0; j < pats.size(); ++j) {
                const size_t k = lay[j].key_len;
                if (k > p || (opt.anchored && p != k) || !key_at(j, text, p)) continue;
                hits.push_back(j);
            }
            std::stable_sort(hits.begin(), hits.end(),
                             [&](size_t a, size_t b) { return lay[a].key_len > lay[b].key_len; });
            for (size_t j : hits) {
                const std::string tail = pats[j].text.substr(lay[j].key_len);
                if (text.compare(p, tail.size(), tail) != 0) continue;
                out.push_back({pats[j].id, static_cast<uint32_t>(p + tail.size()),
                               static_cast<int>(pats[j].text.size()), ""});
            }
        }
        return out;
    }

    static bool on_boundaries(const std::string& t, const match& m) {
        const size_t e = m.end, len = static_cast<size_t>(m.len), n = t.size();
        if (len == 0 || e < len) return false;
        if (len == n) return true;
        if (e == n) return t[e - len] == '.';
        if (e == len) return t[e - 1] == '.';
        return t[e - 1] == '.' && t[e - len] == '.';
    }
};

const char* const kEndings[] = {".com", ".net", "e.org", "-cdn"};

std::string random_text(rng& r, const std::string& alphabet, size_t len) {
    std::string s;
    for (size_t i = 0; i < len; ++i) s += alphabet[r.below(static_cast<uint32_t>(alphabet.size()))];
    return s;
}

std::string flip_case(rng& r, std::string s) {
    for (char& ch : s)
        if (std::isalpha(static_cast<unsigned char>(ch)) && r.chance(3)) ch ^= 0x20;
    return s;
}

std::vector<xdbc::pattern> random_patterns(rng& r, const std::string& alphabet) {
    std::vector<std::string> stems;
    for (int i = 0; i < 3; ++i) stems.push_back(random_text(r, alphabet, 1 + r.below(9)));
    std::vector<xdbc::pattern> pats;
    const uint32_t count = 1 + r.below(12);
    while (pats.size() < count) {
        std::string t;
        switch (r.below(7)) {
        case 0: t = random_text(r, alphabet, 1 + r.below(6)); break;
        case 1: t = stems[r.below(3)] + random_text(r, alphabet, r.below(20)); break;
        case 2:  // same key as an earlier pattern, another tail: chained records
            if (pats.empty()) continue;
            t = pats[r.below(static_cast<uint32_t>(pats.size()))].text.substr(0, 7) + random_text(r, alphabet, r.below(6));
            break;
        case 3: t = stems[r.below(3)] + random_text(r, alphabet, r.below(8)) + kEndings[r.below(4)]; break;
        case 4:  // long postfix
            t = stems[r.below(3)] + random_text(r, alphabet, r.chance(8) ? 200 + r.below(55) : 8 + r.below(30));
            break;
        case 5:  // exact duplicate, new id
            if (pats.empty()) continue;
            t = pats[r.below(static_cast<uint32_t>(pats.size()))].text;
            break;
        default: t = "." + stems[r.below(3)] + "."; break;
        }
        if (t.empty() || t.size() > xdbc::kMaxKey + xdbc::kMaxPostfix) continue;
        if (r.chance(4)) t = flip_case(r, t);
        pats.push_back({t, r.below(xdbc::kMaxId + 1), 0});
    }
    return pats;
}

// Texts full of near misses: pattern texts (whole, cut short, case-flipped)
// glued with dots and random bytes.
std::string random_name(rng& r, const std::vector<xdbc::pattern>& pats, const std::string& alphabet) {
    std::string s;
    const uint32_t pieces = 1 + r.below(4);
    for (uint32_t i = 0; i < pieces; ++i) {
        if (i && r.chance(2)) s += '.';
        if (r.chance(3)) {
            s += random_text(r, alphabet + "!", 1 + r.below(5));
        } else {
            std::string t = pats[r.below(static_cast<uint32_t>(pats.size()))].text;
            if (r.chance(4)) t.resize(r.below(static_cast<uint32_t>(t.size())) + 1);
            if (r.chance(4)) t = flip_case(r, t);
            s += t;
        }
    }
    return s.substr(0, 300);
}

}  // namespace

TEST(XdbProperty, AutomatonAgreesWithBruteForceOnRandomPatternSets) {
    rng r{0x5EED0001};
    int sets = 0, compared = 0, domain_hits = 0;
    for (int set = 0; set < 3000; ++set) {
        xdbc::options opt;
        opt.fold_case = r.chance(2);
        opt.anchored = r.chance(4);
        opt.suffix_unit = r.chance(2) ? 0 : 1 + r.below(7);
        const std::string alphabet = r.chance(3) ? "ab.cAB-" : "ab.c";
        const std::vector<xdbc::pattern> pats = random_patterns(r, alphabet);

        xdbc::compiled out;
        std::string error;
        ASSERT_TRUE(xdbc::compile(opt, pats, {}, out, error)) << error;
        for (size_t j = 0; j < pats.size(); ++j) {
            const xdbc::layout& l = out.layouts[j];
            ASSERT_EQ(l.key_len + l.postfix_len + (l.has_suffix ? opt.suffix_unit : 0), pats[j].text.size());
            ASSERT_EQ(l.key_len, std::min<size_t>(7, pats[j].text.size()));
        }
        category_db_ptr db = load(out.file);
        ASSERT_TRUE(db) << "set " << set;
        const reference ref{opt, pats, out.layouts};
        ++sets;

        for (int k = 0; k < 30; ++k) {
            const std::string name = random_name(r, pats, alphabet);
            const std::vector<match> want = ref.all(name);
            // Scanned as the front of a longer buffer: what follows must not count.
            const std::string buffer = name + pats[r.below(static_cast<uint32_t>(pats.size()))].text;
            ASSERT_EQ(scan_all(*db, buffer, name.size()), want) << "set " << set << " text \"" << name << "\"";

            std::vector<match> first;
            for (const match& m : want)
                if (reference::on_boundaries(name, m)) {
                    first.push_back(m);
                    break;
                }
            ASSERT_EQ(match_domain(*db, buffer, name.size()), first) << "set " << set << " name \"" << name << "\"";
            domain_hits += !first.empty();
            ++compared;
        }
    }
    EXPECT_EQ(sets, 3000);
    EXPECT_GT(domain_hits, compared / 10);  // the generator does produce matches
}

namespace {

struct cidr {
    uint32_t network;
    int prefix;
    uint32_t id;
};

uint32_t mask_of(int prefix) { return ~0u << (32 - prefix); }

// The documented reach of an address rule: its network, except the network
// address itself when the rule had to be spread over one value per host bit.
bool covers(const cidr& c, uint32_t a) {
    if ((a & mask_of(c.prefix)) != c.network) return false;
    const bool spread = !(c.prefix == 8 || c.prefix == 32 || (c.network >> (32 - c.prefix) & 1));
    return !(spread && a == c.network);
}

std::string dotted(uint32_t v) {
    return std::to_string(v >> 24) + "." + std::to_string(v >> 16 & 255) + "." + std::to_string(v >> 8 & 255) + "." +
           std::to_string(v & 255);
}

}  // namespace

TEST(XdbProperty, AddressRulesMatchTheMostSpecificCoveringNetwork) {
    rng r{0x5EED0002};
    const uint32_t firsts[] = {10, 11, 200};
    int hits = 0, checked = 0;
    for (int set = 0; set < 600; ++set) {
        std::vector<cidr> rules;
        std::string source;
        const uint32_t count = 1 + r.below(10);
        for (uint32_t i = 0; i < count; ++i) {
            cidr c;
            c.prefix = 8 + static_cast<int>(r.below(25));
            uint32_t base = firsts[r.below(3)] << 24 | static_cast<uint32_t>(r.next() & 0xFFFFFF);
            if (!rules.empty() && r.chance(2)) {  // nest inside an earlier rule
                const cidr& outer = rules[r.below(static_cast<uint32_t>(rules.size()))];
                base = outer.network | (static_cast<uint32_t>(r.next()) & ~mask_of(outer.prefix));
                c.prefix = std::min(32, outer.prefix + static_cast<int>(r.below(10)));
            }
            if (r.chance(3)) base &= ~0u << r.below(20);  // many trailing zeros
            if (c.prefix == 32) base |= 1;                 // a lone address needs its last bit
            c.network = base & mask_of(c.prefix);
            c.id = 1 + r.below(xdbc::kMaxId);
            rules.push_back(c);
            source += dotted(base) + "/" + std::to_string(c.prefix) + " " + std::to_string(c.id) + "\n";
        }
        category_db_ptr db = load(build_source(source));
        ASSERT_TRUE(db) << source;

        std::vector<uint32_t> probes;
        for (const cidr& c : rules) {
            const uint32_t last = c.network | ~mask_of(c.prefix);
            for (uint32_t a : {c.network, c.network + 1, last, last + 1, c.network - 1,
                               c.network | (static_cast<uint32_t>(r.next()) & ~mask_of(c.prefix))})
                probes.push_back(a);
        }
        for (int k = 0; k < 5; ++k) probes.push_back(firsts[r.below(3)] << 24 | static_cast<uint32_t>(r.next() & 0xFFFFFF));

        for (uint32_t a : probes) {
            const cidr* best = nullptr;
            for (const cidr& c : rules)
                if (covers(c, a) && (!best || c.prefix > best->prefix)) best = &c;
            const std::vector<match> got = match_ipv4(*db, dotted(a));
            ++checked;
            if (!best) {
                ASSERT_TRUE(got.empty()) << dotted(a) << " matched id " << got[0].id << "\n" << source;
            } else {
                ASSERT_EQ(got.size(), 1u) << dotted(a) << " expected id " << best->id << "\n" << source;
                ASSERT_EQ(got[0].id, best->id) << dotted(a) << "\n" << source;
                ++hits;
            }
        }
    }
    EXPECT_GT(hits, checked / 3);
}
