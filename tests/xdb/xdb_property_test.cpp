// The matcher against brute force (xdb_reference.h) on random pattern and
// address sets: every confirmed record in the documented report order, the
// first match the domain filter accepts, address rules against plain prefix
// matching, and every file scanned by a reader that does no bounds checks.
// Then what the comparison does not reach: the handed-over value.
#include <random>

#include "xdb_test_util.h"

using namespace xdbtest;

namespace {

struct rng {
    std::mt19937_64 next;
    uint32_t below(size_t n) { return static_cast<uint32_t>(next() % n); }
    bool chance(uint32_t one_in) { return below(one_in) == 0; }
    std::string text(const std::string& alphabet, size_t len) {
        std::string s;
        while (s.size() < len) s += alphabet[below(alphabet.size())];
        return s;
    }
    std::string maybe_flip_case(std::string s) {
        for (char& ch : s)
            if (std::isalpha(static_cast<unsigned char>(ch)) && chance(12)) ch ^= 0x20;
        return s;
    }
};

// Stems shared between patterns, chained records on one key, duplicates,
// long postfixes, common endings, dotted labels, mixed case.
std::vector<xdbc::pattern> random_patterns(rng& r, const std::string& alphabet) {
    const char* const endings[] = {".com", ".net", "e.org", "-cdn"};
    std::string stems[3];
    for (auto& s : stems) s = r.text(alphabet, 1 + r.below(9));
    std::vector<xdbc::pattern> pats;
    for (const uint32_t count = 1 + r.below(12); pats.size() < count;) {
        const std::string& stem = stems[r.below(3)];
        const std::string earlier = pats.empty() ? "" : pats[r.below(pats.size())].text;
        std::string t;
        switch (r.below(7)) {
        case 0: t = r.text(alphabet, 1 + r.below(6)); break;
        case 1: t = stem + r.text(alphabet, r.below(20)); break;
        case 2: t = earlier.empty() ? "" : earlier.substr(0, 7) + r.text(alphabet, r.below(6)); break;
        case 3: t = stem + r.text(alphabet, r.below(8)) + endings[r.below(4)]; break;
        case 4: t = stem + r.text(alphabet, r.chance(8) ? 200 + r.below(55) : 8 + r.below(30)); break;
        case 5: t = earlier; break;
        default: t = "." + stem + "."; break;
        }
        if (!t.empty() && t.size() <= xdbc::kMaxKey + xdbc::kMaxPostfix)
            pats.push_back({r.maybe_flip_case(t), r.below(xdbc::kMaxId + 1), 0});
    }
    return pats;
}

// Near misses: pattern texts (whole, cut short, case-flipped) and stray bytes
// glued with dots.
std::string random_name(rng& r, const std::vector<xdbc::pattern>& pats, const std::string& alphabet) {
    std::string s;
    for (uint32_t i = 0, pieces = 1 + r.below(4); i < pieces; ++i) {
        std::string t = r.chance(3) ? r.text(alphabet + "!", 1 + r.below(5)) : pats[r.below(pats.size())].text;
        if (r.chance(4)) t.resize(r.below(t.size()) + 1);
        s += (i && r.chance(2) ? "." : "") + r.maybe_flip_case(t);
    }
    return s.substr(0, 300);
}

uint32_t mask_of(int prefix) { return ~0u << (32 - prefix); }

// A reader that trusts the file: it takes word s + c for state s and symbol
// c without a bounds check. Walks every state such a reader can reach (by
// transitions and failure links) with every symbol of the map, and returns
// the highest word index it would read and the transition word count T.
std::pair<uint64_t, uint32_t> unchecked_reach(const std::vector<uint8_t>& f) {
    auto be = [&f](size_t at, size_t n) {
        uint32_t v = 0;
        for (size_t i = 0; i < n; ++i) v = v << 8 | f.at(at + i);
        return v;
    };
    const size_t xac = 12, words = xac + 576;
    const uint32_t mask = be(xac + 528, 4), shift = be(xac + 532, 4) & 31, T = be(xac + 552, 4);
    std::vector<uint32_t> symbols;
    for (size_t b = 0; b < 256; ++b)
        if (uint32_t c = be(xac + 16 + 2 * b, 2)) symbols.push_back(c);
    std::vector<bool> seen(T);
    std::vector<uint32_t> queue;
    uint64_t reach = 0;
    auto visit = [&](uint64_t s) {
        if (s < T && !seen[s]) seen[s] = true, queue.push_back(static_cast<uint32_t>(s));
    };
    if (T) visit(0);
    for (size_t h = 0; h < queue.size(); ++h) {
        const uint32_t s = queue[h];
        if (s && !(be(words + 4 * size_t{s}, 4) & mask)) visit((be(words + 4 * size_t{s}, 4) & 0x3FFFFFFF) >> shift);
        for (uint32_t c : symbols) {
            reach = std::max(reach, uint64_t{s} + c);
            if (s + c >= T) continue;
            const uint32_t x = be(words + 4 * (size_t{s} + c), 4) ^ c;
            if (!(x & mask)) visit((x & 0x3FFFFFFF) >> shift);
        }
    }
    return {reach, T};
}

std::string dotted(uint32_t v) {
    return std::to_string(v >> 24) + "." + std::to_string(v >> 16 & 255) + "." + std::to_string(v >> 8 & 255) + "." +
           std::to_string(v & 255);
}

}  // namespace

TEST(XdbProperty, AutomatonAgreesWithBruteForceOnRandomPatternSets) {
    rng r{std::mt19937_64(0x5EED0001)};
    int compared = 0, domain_hits = 0;
    for (int set = 0; set < 1500; ++set) {
        xdbc::options opt;
        opt.fold_case = r.chance(2);
        opt.anchored = r.chance(4);
        opt.suffix_unit = r.chance(2) ? 0 : 1 + r.below(7);
        const std::string alphabet = r.chance(3) ? "ab.cAB-" : "ab.c";
        const std::vector<xdbc::pattern> pats = random_patterns(r, alphabet);
        const xdbc::compiled out = compile_patterns(pats, opt);
        category_db_ptr db = load(out.file);
        ASSERT_TRUE(db) << "set " << set;
        const auto [reach, T] = unchecked_reach(out.file);
        ASSERT_LT(reach, T) << "set " << set << ": an unchecked reader leaves the transition table";
        for (int k = 0; k < 30; ++k, ++compared) {
            const std::string name = random_name(r, pats, alphabet);
            const std::vector<match> want = xdbref::all_matches(opt, pats, out.layouts, name);
            // Scanned as the front of a longer buffer: what follows must not count.
            const std::string buffer = name + pats[r.below(pats.size())].text;
            ASSERT_EQ(scan_all(*db, buffer, name.size()), want) << "set " << set << " text \"" << name << "\"";
            const std::vector<match> accepted = xdbref::domain_match(want, name);
            ASSERT_EQ(match_domain(*db, buffer, name.size()), accepted) << "set " << set << " name \"" << name << "\"";
            domain_hits += !accepted.empty();
        }
    }
    EXPECT_GT(domain_hits, compared / 10);  // the generator does produce matches
}

// The documented reach of an address rule: its network, except the network
// address itself when the rule had to be spread over one value per host bit.
TEST(XdbProperty, AddressRulesMatchTheMostSpecificCoveringNetwork) {
    struct cidr {
        uint32_t network;
        int prefix;
        uint32_t id;
        bool covers(uint32_t a) const {
            const bool spread = !(prefix == 8 || prefix == 32 || (network >> (32 - prefix) & 1));
            return (a & mask_of(prefix)) == network && !(spread && a == network);
        }
    };
    rng r{std::mt19937_64(0x5EED0002)};
    const uint32_t firsts[] = {10, 11, 200};
    int hits = 0, checked = 0;
    for (int set = 0; set < 600; ++set) {
        std::vector<cidr> rules;
        std::string source;
        for (uint32_t i = 0, count = 1 + r.below(10); i < count; ++i) {
            int prefix = 8 + static_cast<int>(r.below(25));
            uint32_t base = firsts[r.below(3)] << 24 | static_cast<uint32_t>(r.next() & 0xFFFFFF);
            if (!rules.empty() && r.chance(2)) {  // nest inside an earlier rule
                const cidr& outer = rules[r.below(rules.size())];
                base = outer.network | (static_cast<uint32_t>(r.next()) & ~mask_of(outer.prefix));
                prefix = std::min(32, outer.prefix + static_cast<int>(r.below(10)));
            }
            if (r.chance(3)) base &= ~0u << r.below(20);  // many trailing zeros
            if (prefix == 32) base |= 1;                   // a lone address needs its last bit
            rules.push_back({base & mask_of(prefix), prefix, 1 + r.below(xdbc::kMaxId)});
            source += dotted(base) + "/" + std::to_string(prefix) + " " + std::to_string(rules.back().id) + "\n";
        }
        const std::vector<uint8_t> file = build_source(source);
        category_db_ptr db = load(file);
        ASSERT_TRUE(db) << source;
        const auto [reach, T] = unchecked_reach(file);
        ASSERT_LT(reach, T) << "an unchecked reader leaves the transition table\n" << source;
        std::vector<uint32_t> probes;
        for (int k = 0; k < 5; ++k) probes.push_back(firsts[r.below(3)] << 24 | static_cast<uint32_t>(r.next() & 0xFFFFFF));
        for (const cidr& c : rules) {
            const uint32_t last = c.network | ~mask_of(c.prefix), inside = static_cast<uint32_t>(r.next()) & ~mask_of(c.prefix);
            probes.insert(probes.end(), {c.network, c.network + 1, last, last + 1, c.network - 1, c.network | inside});
        }
        for (uint32_t a : probes) {
            const cidr* best = nullptr;
            for (const cidr& c : rules)
                if (c.covers(a) && (!best || c.prefix > best->prefix)) best = &c;
            const std::vector<match> want = best ? std::vector<match>{{best->id, 4, 4}} : std::vector<match>{};
            ASSERT_EQ(match_ipv4(*db, dotted(a)).calls, want)
                << dotted(a) << "\n" << source;
            hits += best != nullptr;
            ++checked;
        }
    }
    EXPECT_GT(hits, checked / 3);
}

// The address lookup scans at most 25 values and hands over the 4-byte value
// it matched; an unparsable address is looked up as 0.0.0.0.
TEST(XdbProperty, AddressLookupHandsOverTheMatchedValue) {
    uint32_t values[25];
    EXPECT_EQ(xdb_ipv4_prefixes(0xFFFFFFFFu, values), 25);
    EXPECT_EQ(xdb_ipv4_prefixes(0x0A000000u, values), 1);
    category_db_ptr db = load(build_source("10.0.0.0/8 1\n0.0.0.0/8 9\n"));
    ASSERT_TRUE(db);
    const recorder rec = match_ipv4(*db, "10.200.0.1");
    EXPECT_EQ(rec.calls, (std::vector<match>{{1, 4, 4}}));
    EXPECT_EQ(rec.texts, std::vector<std::string>{std::string("\x0a\0\0\0", 4)});
    EXPECT_EQ(match_ipv4(*db, "no.such.address").calls, (std::vector<match>{{9, 4, 4}}));
}
