// Pattern set -> category file: splits each pattern into key, postfix and
// shared suffix, builds the keyword automaton with its failure links, packs
// the states into one transition table whose words carry their own check
// bits, and writes the output hash, pattern records and the IPv4 prefilter.
#include <algorithm>
#include <bit>
#include <cctype>
#include <cstdio>
#include <map>
#include <unordered_map>

#include "xdbc.h"

namespace xdbc {
namespace {


struct node {
    std::vector<std::pair<uint16_t, uint32_t>> kids;  // (symbol, node), sorted by symbol
    uint32_t first_pat = UINT32_MAX;                  // patterns ending here, linked in input order
    uint32_t last_pat = UINT32_MAX;
    uint32_t pat_count = 0;
    uint32_t fail = 0;
    uint32_t base = 0;  // state index once placed
    uint32_t first_rec = 0;
    bool leaf = false;  // reported through its target; not placed as a state
    bool down = false;  // a shorter key down the failure chain also ends here
};

std::string line_prefix(int line) { return line > 0 ? "line " + std::to_string(line) + ": " : ""; }

void put32(std::vector<uint8_t>& out, uint32_t v) {
    uint8_t b[4];
    xdb_put_be32(b, v);
    out.insert(out.end(), b, b + 4);
}

// A block header of the given type and payload size.
void put_block_header(std::vector<uint8_t>& out, uint8_t type, uint32_t size) {
    uint8_t b[XDB_BLOCK_HEADER_SIZE] = {};
    b[XDB_BLOCK_TYPE_AT] = type;
    xdb_put_be32(b + XDB_BLOCK_SIZE_AT, size);
    out.insert(out.end(), b, b + sizeof b);
}

class compiler {
public:
    compiler(const options& opt, const std::vector<pattern>& pats) : opt_(opt), pats_(pats) {}

    bool run(const std::array<bool, 256>& prefilter, compiled& out, std::string& error) {
        if (opt_.suffix_unit > 7) return fail(error, "suffix unit must be 0 to 7");
        choose_suffixes();
        if (!split(error) || !make_alphabet(error)) return false;
        build_trie();
        link_failures();
        if (!number_records(error)) return false;
        place_states();
        if (!write_transitions(error)) return false;
        write_hash();
        serialise(prefilter, out);
        return true;
    }

private:
    static bool fail(std::string& error, std::string text) {
        error = std::move(text);
        return false;
    }

    // The most common endings of patterns long enough to keep a full key
    // become shared suffixes; an ending used once saves nothing.
    void choose_suffixes() {
        const uint32_t unit = opt_.suffix_unit;
        if (unit == 0) return;
        std::map<std::string, uint32_t> counts;
        for (const pattern& p : pats_)
            if (p.text.size() >= kMaxKey + unit) ++counts[p.text.substr(p.text.size() - unit)];
        std::vector<std::pair<uint32_t, std::string>> ranked;
        for (auto& [tail, n] : counts)
            if (n >= 2) ranked.emplace_back(n, tail);
        std::stable_sort(ranked.begin(), ranked.end(),
                         [](const auto& a, const auto& b) { return a.first > b.first; });
        if (ranked.size() > kMaxSuffixes) ranked.resize(kMaxSuffixes);
        for (auto& [n, tail] : ranked) {
            suffix_index_[tail] = static_cast<uint32_t>(suffixes_.size() + 1);
            suffixes_.push_back(tail);
        }
    }

    bool split(std::string& error) {
        const uint32_t unit = opt_.suffix_unit;
        layouts_.resize(pats_.size());
        for (size_t j = 0; j < pats_.size(); ++j) {
            const std::string& t = pats_[j].text;
            if (t.empty()) return fail(error, line_prefix(pats_[j].line) + "empty pattern");
            if (pats_[j].id > kMaxId)
                return fail(error, line_prefix(pats_[j].line) + "category id above 0xFFFFF");
            layout& l = layouts_[j];
            l.has_suffix = unit && t.size() >= kMaxKey + unit && suffix_index_.count(t.substr(t.size() - unit));
            l.key_len = static_cast<uint32_t>(std::min<size_t>(kMaxKey, t.size()));
            const size_t rest = t.size() - l.key_len - (l.has_suffix ? unit : 0);
            if (rest > kMaxPostfix)
                return fail(error, line_prefix(pats_[j].line) + "pattern too long (" + std::to_string(t.size()) +
                                       " bytes; at most " + std::to_string(kMaxKey + kMaxPostfix) + ")");
            l.postfix_len = static_cast<uint32_t>(rest);
        }
        return true;
    }

    static uint8_t fold(uint8_t b) { return (b >= 'A' && b <= 'Z') ? static_cast<uint8_t>(b + 32) : b; }

    // Symbols are given to the bytes that occur in keys, the most frequent
    // first: small symbols keep a state's busiest slots next to its own
    // (one cache line). With case folding a letter and its capital share one.
    bool make_alphabet(std::string& error) {
        std::array<uint64_t, 256> uses{};
        for (size_t j = 0; j < pats_.size(); ++j)
            for (uint32_t k = 0; k < layouts_[j].key_len; ++k) {
                const uint8_t b = static_cast<uint8_t>(pats_[j].text[k]);
                ++uses[opt_.fold_case ? fold(b) : b];
            }
        std::vector<int> bytes;
        for (int b = 0; b < 256; ++b)
            if (uses[b]) bytes.push_back(b);
        std::stable_sort(bytes.begin(), bytes.end(), [&uses](int a, int b) { return uses[a] > uses[b]; });
        uint32_t count = 0;
        for (int b : bytes) symbols_[b] = static_cast<uint16_t>(++count);
        if (opt_.fold_case)
            for (int b = 'A'; b <= 'Z'; ++b) symbols_[b] = symbols_[b + 32];
        alphabet_ = count;
        shift_ = std::max<uint32_t>(1, std::bit_width(count));
        mask_ = (1u << shift_) - 1;
        if (shift_ >= 30) return fail(error, "alphabet too large");
        return true;
    }

    uint32_t child(uint32_t u, uint16_t c) const {
        const auto& kids = nodes_[u].kids;
        auto it = std::lower_bound(kids.begin(), kids.end(), std::make_pair(c, uint32_t{0}));
        return (it != kids.end() && it->first == c) ? it->second : 0;
    }

    void build_trie() {
        nodes_.emplace_back();
        next_pat_.assign(pats_.size(), UINT32_MAX);
        for (size_t j = 0; j < pats_.size(); ++j) {
            uint32_t u = 0;
            for (uint32_t k = 0; k < layouts_[j].key_len; ++k) {
                const uint16_t c = symbols_[static_cast<uint8_t>(pats_[j].text[k])];
                auto& kids = nodes_[u].kids;
                auto it = std::find_if(kids.begin(), kids.end(), [c](const auto& e) { return e.first == c; });
                if (it != kids.end()) {
                    u = it->second;
                } else {
                    const auto v = static_cast<uint32_t>(nodes_.size());
                    kids.emplace_back(c, v);
                    nodes_.emplace_back();
                    u = v;
                }
            }
            node& n = nodes_[u];
            if (n.pat_count++ == 0) n.first_pat = static_cast<uint32_t>(j);
            else next_pat_[n.last_pat] = static_cast<uint32_t>(j);
            n.last_pat = static_cast<uint32_t>(j);
        }
        for (node& n : nodes_) std::sort(n.kids.begin(), n.kids.end());
        order_.push_back(0);
        for (size_t h = 0; h < order_.size(); ++h)
            for (auto& [c, v] : nodes_[order_[h]].kids) order_.push_back(v);
        for (uint32_t u : order_) {
            node& n = nodes_[u];
            n.leaf = !opt_.anchored && u != 0 && n.kids.empty() && n.pat_count;
        }
    }

    // Failure link: the longest proper suffix of a node's key that is also
    // in the trie. Anchored files keep every link at the root.
    void link_failures() {
        if (opt_.anchored) return;
        for (uint32_t u : order_) {
            for (auto& [c, v] : nodes_[u].kids) {
                uint32_t f = 0;
                if (u != 0) {
                    for (uint32_t g = nodes_[u].fail;; g = nodes_[g].fail) {
                        if (uint32_t w = child(g, c)) {
                            f = w;
                            break;
                        }
                        if (g == 0) break;
                    }
                }
                node& nv = nodes_[v];
                nv.fail = f;
                nv.down = f != 0 && (nodes_[f].pat_count || nodes_[f].down);
            }
        }
    }

    // The stored failure link skips leaves: they have no transitions to try.
    uint32_t stored_failure(uint32_t u) const {
        uint32_t f = nodes_[u].fail;
        while (f != 0 && nodes_[f].leaf) f = nodes_[f].fail;
        return f;
    }

    bool number_records(std::string& error) {
        for (uint32_t u : order_) {
            node& n = nodes_[u];
            if (!n.pat_count) continue;
            n.first_rec = record_count_;
            record_count_ += n.pat_count;
        }
        std::unordered_map<std::string, uint32_t> postfix_at;
        records_.assign(2 * (size_t{record_count_} + 1), 0);
        for (uint32_t u : order_) {
            const node& n = nodes_[u];
            uint32_t rec = n.first_rec;
            for (uint32_t j = n.first_pat, left = n.pat_count; left; j = next_pat_[j], --left, ++rec) {
                const layout& l = layouts_[j];
                const std::string& t = pats_[j].text;
                const std::string post = t.substr(l.key_len, l.postfix_len);
                uint32_t off = 0;
                if (!post.empty()) {
                    auto [it, fresh] = postfix_at.emplace(post, static_cast<uint32_t>(postfix_.size()));
                    if (fresh) postfix_.insert(postfix_.end(), post.begin(), post.end());
                    off = it->second;
                }
                if (postfix_.size() > XAC_POSTFIX_TABLE_LIMIT) return fail(error, "postfix texts exceed 16 MiB");
                const uint32_t suffix = l.has_suffix ? suffix_index_.at(t.substr(t.size() - opt_.suffix_unit)) : 0;
                records_[2 * size_t{rec}] = xac_rec_word0(left > 1, l.key_len, suffix, pats_[j].id);
                records_[2 * size_t{rec} + 1] = xac_rec_word1(l.postfix_len, off);
            }
        }
        return true;
    }

    // First-fit placement: a state at base b owns slot b (its failure link)
    // and b + c for each of its symbols c. The search start skips regions
    // that are nearly full. The table is then padded so that b + c stays
    // inside it for every symbol of the alphabet, not only the state's own:
    // a reader may index the word of any symbol without a bounds check.
    void place_states() {
        std::vector<uint8_t> used(alphabet_ + 2, 0);
        auto claim = [&used](size_t at) {
            if (used.size() <= at) used.resize(std::max(at + 1, used.size() * 2), 0);
            used[at] = 1;
        };
        auto taken = [&used](size_t at) { return at < used.size() && used[at]; };
        claim(0);
        for (auto& [c, v] : nodes_[0].kids) claim(c);
        size_t next_check = 1, last_base = 0;
        for (uint32_t u : order_) {
            node& n = nodes_[u];
            if (u == 0 || n.leaf) continue;
            const uint32_t first = n.kids.empty() ? 0 : n.kids.front().first;
            size_t pos = std::max<size_t>(next_check, first + 1);
            size_t busy = 0;
            bool seen_free = false;
            for (;; ++pos) {
                if (taken(pos)) {
                    ++busy;
                    continue;
                }
                if (!seen_free) {
                    next_check = pos;
                    seen_free = true;
                }
                const size_t b = pos - first;
                if (taken(b)) continue;
                bool fits = true;
                for (auto& [c, v] : n.kids)
                    if (taken(b + c)) {
                        fits = false;
                        break;
                    }
                if (fits) break;
            }
            const size_t b = pos - first;
            n.base = static_cast<uint32_t>(b);
            last_base = std::max(last_base, b);
            claim(b);
            for (auto& [c, v] : n.kids) claim(b + c);
            if (busy * 20 >= (pos - next_check + 1) * 19) next_check = pos;
            ++states_;
        }
        ++states_;  // the root
        size_t top = used.size();
        while (top > 0 && !used[top - 1]) --top;
        trans_count_ = static_cast<uint32_t>(std::max(top, last_base + alphabet_ + 1));
    }

    bool write_transitions(std::string& error) {
        const uint64_t limit = uint64_t{1} << (30 - shift_);
        if (uint64_t{trans_count_} + record_count_ >= limit)
            return fail(error, "too many patterns for one file (" + std::to_string(trans_count_) +
                                   " table words and " + std::to_string(record_count_) + " records; at most " +
                                   std::to_string(limit - 1) + " together)");
        trans_.assign(trans_count_, 0);
        for (uint32_t u : order_) {
            const node& n = nodes_[u];
            if (n.leaf) continue;
            if (u != 0 && !opt_.anchored) trans_[n.base] = nodes_[stored_failure(u)].base << shift_;
            for (auto& [c, v] : n.kids) {
                const node& nv = nodes_[v];
                const uint32_t idx = n.base + c;
                const uint32_t target = nv.leaf ? trans_count_ + nv.first_rec : nv.base;
                const uint32_t flags = (nv.pat_count ? XAC_TRANS_OUTPUT : 0) | (nv.down ? XAC_TRANS_DOWN : 0);
                trans_[idx] = xac_trans_word(flags, target, shift_, c);
                if (!nv.leaf && nv.pat_count) hashed_.emplace_back(idx, nv.first_rec);
            }
        }
        return true;
    }

    // Linear probing without wrap-around: a key that runs off the end of
    // the table gets a new slot appended.
    void write_hash() {
        if (hashed_.empty()) return;
        std::sort(hashed_.begin(), hashed_.end());
        const auto keys = static_cast<uint32_t>(hashed_.size());
        modulus_ = keys + keys / 2 + 1;
        slots_.assign(modulus_, {XAC_HASH_EMPTY, 0});
        for (auto& [key, rec] : hashed_) {
            size_t q = xac_hash_home(key, modulus_);
            while (q < slots_.size() && slots_[q].first != XAC_HASH_EMPTY) ++q;
            if (q == slots_.size()) slots_.emplace_back(XAC_HASH_EMPTY, 0);
            slots_[q] = {key, rec};
        }
    }

    void serialise(const std::array<bool, 256>& prefilter, compiled& out) {
        const uint32_t unit = opt_.suffix_unit;
        const uint32_t suffix_size = suffixes_.empty() ? 0 : static_cast<uint32_t>((suffixes_.size() + 1) * unit);
        const auto slots = static_cast<uint32_t>(slots_.size());
        const uint64_t payload = XAC_HEADER_SIZE + 4 * (uint64_t{trans_count_} + 2 * slots) + records_.size() * 4 +
                                 postfix_.size() + suffix_size;
        std::vector<uint8_t>& f = out.file;
        f.clear();
        f.reserve(payload + 2 * XDB_BLOCK_HEADER_SIZE + XDB_PREFILTER_BYTES);
        put_block_header(f, XDB_BLOCK_XAC, static_cast<uint32_t>(payload));

        uint8_t h[XAC_HEADER_SIZE] = {};
        xdb_put_be16(h + XAC_MAGIC_AT, XAC_MAGIC);
        h[XAC_FLAGS_A_AT] = (opt_.anchored ? XAC_A_ANCHORED : 0) | XAC_A_TABLES | xac_unit_flags_a(unit);
        h[XAC_FLAGS_B_AT] = xac_unit_flags_b(unit);
        for (size_t c = 0; c < symbols_.size(); ++c) xdb_put_be16(h + XAC_SYMBOLS_AT + 2 * c, symbols_[c]);
        xdb_put_be32(h + XAC_CHECK_MASK_AT, mask_);
        xdb_put_be32(h + XAC_STATE_SHIFT_AT, shift_);
        xdb_put_be32(h + XAC_TRANS_COUNT_AT, trans_count_);
        xdb_put_be32(h + XAC_HASH_SLOTS_AT, slots);
        xdb_put_be32(h + XAC_HASH_MODULUS_AT, modulus_);
        xdb_put_be32(h + XAC_PATTERN_COUNT_AT, record_count_);
        xdb_put_be32(h + XAC_SUFFIX_SIZE_AT, suffix_size);
        xdb_put_be32(h + XAC_POSTFIX_SIZE_AT, static_cast<uint32_t>(postfix_.size()));
        f.insert(f.end(), h, h + sizeof h);

        for (uint32_t w : trans_) put32(f, w);
        for (auto& [key, rec] : slots_) {
            put32(f, key);
            put32(f, rec);
        }
        for (uint32_t w : records_) put32(f, w);
        f.insert(f.end(), postfix_.begin(), postfix_.end());
        if (suffix_size) {
            f.insert(f.end(), unit, 0);  // index 0 means "no suffix"
            for (const std::string& s : suffixes_) f.insert(f.end(), s.begin(), s.end());
        }

        put_block_header(f, XDB_BLOCK_PREFILTER, XDB_PREFILTER_BYTES);
        uint8_t bitmap[XDB_PREFILTER_BYTES] = {};
        for (int octet = 0; octet < 256; ++octet)
            if (prefilter[octet])
                bitmap[xdb_prefilter_byte(static_cast<uint8_t>(octet))] |= xdb_prefilter_bit(static_cast<uint8_t>(octet));
        f.insert(f.end(), bitmap, bitmap + sizeof bitmap);

        out.layouts = layouts_;
        out.states = states_;
        out.trans_words = trans_count_;
        out.hash_slots = slots;
        out.records = record_count_;
    }

    const options& opt_;
    const std::vector<pattern>& pats_;
    std::vector<layout> layouts_;
    std::map<std::string, uint32_t> suffix_index_;
    std::vector<std::string> suffixes_;
    std::array<uint16_t, 256> symbols_{};
    uint32_t alphabet_ = 0, shift_ = 1, mask_ = 1;
    std::vector<node> nodes_;
    std::vector<uint32_t> next_pat_;
    std::vector<uint32_t> order_;  // breadth first
    uint32_t record_count_ = 0;
    std::vector<uint32_t> records_;
    std::vector<uint8_t> postfix_;
    uint32_t states_ = 0;
    uint32_t trans_count_ = 0;
    std::vector<uint32_t> trans_;
    std::vector<std::pair<uint32_t, uint32_t>> hashed_;  // (transition index, first record)
    uint32_t modulus_ = 0;
    std::vector<std::pair<uint32_t, uint32_t>> slots_;
};

}  // namespace

bool compile(const options& opt, const std::vector<pattern>& patterns, const std::array<bool, 256>& prefilter,
             compiled& out, std::string& error) {
    return compiler(opt, patterns).run(prefilter, out, error);
}

}  // namespace xdbc
