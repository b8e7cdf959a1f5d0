// Domain and address matcher: the automaton run over a loaded xac block,
// the domain boundary filter and the IPv4 prefix walk.
#include "xac.h"

#include <arpa/inet.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

namespace {

// The fields one automaton step needs, kept in registers.
struct automaton {
    const uint32_t* words;
    uint32_t count;  // T
    uint32_t mask;
    uint32_t shift;

    explicit automaton(const xac_tables& tb)
        : words(tb.trans), count(tb.trans_count), mask(tb.check_mask), shift(tb.state_shift) {}

    uint32_t target(uint32_t x) const { return xac_trans_target(x, shift); }
    // The transition of state s on symbol c into x; false when there is none.
    bool step(uint32_t s, uint32_t c, uint32_t& x) const {
        const uint32_t i = s + c;
        if (i >= count) return false;
        x = words[i] ^ c;
        return (x & mask) == 0;
    }
    uint32_t failure(uint32_t s) const {
        const uint32_t w = words[s];
        return (w & mask) ? 0 : target(w);
    }
};

// The byte at `at` of a record's postfix followed by its suffix.
uint8_t tail_byte(const xac_tables& tb, uint32_t w0, uint32_t w1, uint32_t at) {
    const uint32_t len = xac_rec_postfix_len(w1);
    if (at < len) return tb.postfix[xac_rec_postfix_at(w1) + at];
    return tb.suffix[xac_rec_suffix(w0) * tb.suffix_unit + (at - len)];
}

uint32_t tail_length(const xac_tables& tb, uint32_t w0, uint32_t w1) {
    return xac_rec_postfix_len(w1) + (xac_rec_suffix(w0) ? tb.suffix_unit : 0);
}

// Streaming mode: keep a record whose tail ran past the end of the text if
// the bytes that were there agree with it.
void keep_pending(xac_scanner* sc, uint32_t rec, const uint8_t* t, uint32_t avail) {
    const xac_tables& tb = *sc->tables;
    const uint32_t w0 = tb.patterns[2 * size_t{rec}], w1 = tb.patterns[2 * size_t{rec} + 1];
    for (uint32_t j = 0; j < avail; ++j)
        if (t[j] != tail_byte(tb, w0, w1, j)) return;
    if (sc->pending_count < XAC_MAX_PENDING) sc->pending[sc->pending_count++] = {rec, avail};
}

// The domain lookup's acceptance rule for a match of length m ending at e:
// the whole name, or a piece whose ends that touch the rest of the name are
// dots.
bool on_label_boundaries(const uint8_t* t, uint32_t n, uint32_t e, uint32_t m) {
    if (m == 0 || e < m) return false;
    if (m == n) return true;
    if (e == n) return t[e - m] == '.';
    if (e == m) return t[e - 1] == '.';
    return t[e - 1] == '.' && t[e - m] == '.';
}

// A record that fits the text and may pass the lookup's rule: the rest of
// the rule, then its postfix and suffix texts, then the handler.
template <xac_accept Rule>
unsigned confirm_record(xac_scanner* sc, const uint8_t* t, uint32_t n, uint32_t w0, uint32_t w1, uint32_t p,
                        uint32_t end) {
    const xac_tables& tb = *sc->tables;
    const uint32_t len = xac_rec_postfix_len(w1);
    const uint32_t match_len = xac_rec_key_len(w0) + (end - p);
    if (Rule == xac_accept::label_boundaries && !on_label_boundaries(t, n, end, match_len)) return 0;
    // Records of one key mostly differ early: the first byte inline.
    if (len) {
        const uint8_t* post = tb.postfix.get() + xac_rec_postfix_at(w1);
        if (t[p] != post[0] || std::memcmp(t + p + 1, post + 1, len - 1) != 0) return 0;
    }
    if (const uint32_t unit = end - p - len) {
        const uint32_t k = xac_rec_suffix(w0);
        if (std::memcmp(t + p + len, tb.suffix.get() + size_t{k} * unit, unit) != 0) return 0;
    }
    return static_cast<unsigned>(sc->handler(reinterpret_cast<const char*>(t), static_cast<int>(n), xac_rec_id(w0),
                                             end, static_cast<int>(match_len), 0, sc->arg));
}

// The records of one output, from `rec` while the chain bit says the next
// one belongs to it: each is confirmed against its postfix and suffix after
// the key ending at p and handed to the handler. A lookup's own acceptance
// rule is tested first: it needs only the record's lengths, and a record it
// refuses never reaches the caller, so its texts need not be read.
template <xac_accept Rule>
unsigned check_records(xac_scanner* sc, const uint8_t* t, uint32_t n, uint32_t rec, uint32_t p) {
    const xac_tables& tb = *sc->tables;
    const uint32_t* w = tb.patterns.get() + 2 * size_t{rec};
    const uint32_t suffix_unit = tb.suffix_unit;
    const uint32_t rem = n - p;
    const bool streaming = sc->streaming;
    for (;; ++rec, w += 2) {
        const uint32_t w0 = w[0], w1 = w[1];
        const uint32_t len = xac_rec_postfix_len(w1);
        const uint32_t unit = suffix_unit & (0u - static_cast<uint32_t>((w0 & XAC_REC_SUFFIX_BITS) != 0));
        const uint32_t tail = len + unit;
        const uint32_t end = p + tail;
        // Decided without branches where possible: most records fail here.
        bool maybe = tail <= rem;
        if constexpr (Rule == xac_accept::label_boundaries)
            maybe &= (end == n) | (t[(end < n ? end : n) - 1] == '.');
        if constexpr (Rule == xac_accept::from_start) maybe &= p == xac_rec_key_len(w0);
        if (maybe) {
            if (unsigned r = confirm_record<Rule>(sc, t, n, w0, w1, p, end)) return r;
        }
        if (streaming && tail > rem) keep_pending(sc, rec, t + p, rem);
        if (!xac_rec_chained(w0)) return 0;
    }
}

// The output-hash search, bounded by the longest probe the loader measured.
bool hash_find(const xac_tables& tb, uint32_t i, uint32_t& value) {
    const uint32_t home = xac_hash_home(i, tb.hash_modulus);
    const uint64_t last = std::min<uint64_t>(uint64_t{home} + tb.hash_probe_limit + 1, tb.hash_slots);
    for (uint64_t q = home; q < last; ++q) {
        if (tb.hash[2 * q] == i) {
            value = tb.hash[2 * q + 1];
            return true;
        }
    }
    return false;
}

// The outputs of transition index i, whose key ends just before p.
unsigned report_outputs(xac_scanner* sc, const automaton& a, const uint8_t* t, uint32_t n, uint32_t i,
                        uint32_t p) {
    const xac_tables& tb = *sc->tables;
    const uint32_t v = a.target(a.words[i]);
    uint32_t rec;
    if (v >= a.count) {
        rec = v - a.count;
    } else if (!hash_find(tb, i, rec)) {
        return 0;
    }
    if (!tb.has_patterns)
        return static_cast<unsigned>(
            sc->handler(reinterpret_cast<const char*>(t), static_cast<int>(n), rec, p, 0, 0, sc->arg));
    switch (sc->rule) {
    case xac_accept::label_boundaries: return check_records<xac_accept::label_boundaries>(sc, t, n, rec, p);
    case xac_accept::from_start: return check_records<xac_accept::from_start>(sc, t, n, rec, p);
    default: return check_records<xac_accept::anything>(sc, t, n, rec, p);
    }
}

// Outputs found but not yet reported. Outside streaming mode a scan reads
// ahead before reporting: it asks for an output's first pattern record at
// once and reports a few outputs later (at the latest at the end of the
// text), in the same order as it would have at once, so the first match
// accepted is the same while the record load overlaps the scan.
struct deferred_outputs {
    static constexpr uint32_t kMax = 4;
    uint32_t index[kMax];  // transition indexes
    uint32_t end[kMax];    // where their keys end
    uint32_t count = 0;
};

unsigned report_deferred(xac_scanner* sc, const automaton& a, const uint8_t* t, uint32_t n, deferred_outputs& q) {
    for (uint32_t k = 0; k < q.count; ++k) {
        if (unsigned r = report_outputs(sc, a, t, n, q.index[k], q.end[k])) return r;
    }
    q.count = 0;
    return 0;
}

unsigned defer_output(xac_scanner* sc, const automaton& a, const uint8_t* t, uint32_t n, deferred_outputs& q,
                      uint32_t i, uint32_t p) {
    if (sc->streaming) return report_outputs(sc, a, t, n, i, p);
    if (q.count == deferred_outputs::kMax) {
        if (unsigned r = report_deferred(sc, a, t, n, q)) return r;
    }
    const uint32_t v = a.target(a.words[i]);
    if (v >= a.count && sc->tables->has_patterns)
        __builtin_prefetch(sc->tables->patterns.get() + 2 * size_t{v - a.count});
    q.index[q.count] = i;
    q.end[q.count++] = p;
    return 0;
}

struct walk_result {
    unsigned handler_result;
    uint32_t state;
};

// A transition x from s on c that reports outputs or has outputs below it:
// queue them down the failure chain and settle the next state. (The state
// travels by value so the byte loop keeps it in a register.)
[[gnu::noinline]] walk_result walk_outputs(xac_scanner* sc, deferred_outputs& q, const uint8_t* t, uint32_t n,
                                           uint32_t s, uint32_t c, uint32_t x, uint32_t p) {
    const automaton a(*sc->tables);
    uint32_t target = a.target(x);
    uint32_t state = target < a.count ? target : 0;
    for (;;) {
        if (x & XAC_TRANS_OUTPUT) {
            if (unsigned r = defer_output(sc, a, t, n, q, s + c, p)) return {r, state};
        }
        if (state == 0) {
            // Came through a leaf: the first real state down the chain
            // becomes the state, whatever the flags say.
            target = a.target(x);
            if (target != 0 && target < a.count) state = target;
        } else if (!(x & XAC_TRANS_DOWN)) {
            return {0, state};
        }
        do {
            if (s == 0) return {0, state};
            s = a.failure(s);
        } while (!a.step(s, c, x));
    }
}

// Streaming mode: finish the records the previous text cut short.
unsigned finish_pending(xac_scanner* sc, const uint8_t* t, uint32_t n) {
    const xac_tables& tb = *sc->tables;
    uint32_t kept = 0;
    for (uint32_t k = 0; k < sc->pending_count; ++k) {
        xac_pending pend = sc->pending[k];
        const uint32_t w0 = tb.patterns[2 * size_t{pend.record}], w1 = tb.patterns[2 * size_t{pend.record} + 1];
        const uint32_t need = tail_length(tb, w0, w1);
        uint32_t j = 0;
        while (pend.done < need && j < n && t[j] == tail_byte(tb, w0, w1, pend.done)) ++pend.done, ++j;
        if (pend.done == need) {
            const int match_len = static_cast<int>(xac_rec_key_len(w0) + need);
            unsigned r = static_cast<unsigned>(sc->handler(reinterpret_cast<const char*>(t), static_cast<int>(n),
                                                           xac_rec_id(w0), j, match_len, 0, sc->arg));
            if (r) {
                sc->pending_count = 0;
                return r;
            }
        } else if (j == n) {
            sc->pending[kept++] = pend;  // still agrees; the text ended again
        }
    }
    sc->pending_count = kept;
    return 0;
}

// The first position at or after `pos` holding `b`, or n. Eight bytes at a
// time; names and their labels are too short for memchr to pay off.
uint32_t find_byte(const uint8_t* t, uint32_t pos, uint32_t n, uint8_t b) {
    constexpr uint64_t ones = 0x0101010101010101ull, highs = 0x8080808080808080ull;
    const uint64_t pattern = ones * b;
    for (; pos + 8 <= n; pos += 8) {
        uint64_t w;
        std::memcpy(&w, t + pos, 8);
        w ^= pattern;  // zero bytes where t holds b
        if (const uint64_t hit = (w - ones) & ~w & highs) {
            if constexpr (std::endian::native == std::endian::little) return pos + std::countr_zero(hit) / 8;
            else break;
        }
    }
    while (pos < n && t[pos] != b) ++pos;
    return pos;
}

template <bool Anchored>
unsigned run(xac_scanner* sc, const uint8_t* t, uint32_t n) {
    const automaton a(*sc->tables);
    const uint16_t* symbols = sc->tables->symbols;
    const uint8_t* stays = sc->tables->root_stays;
    const int single = sc->tables->root_single_start;
    uint32_t state = sc->state;
    unsigned r = 0;
    deferred_outputs queued;
    for (uint32_t pos = 0; pos < n; ++pos) {
        if (!Anchored && state == 0) {
            // At the root most bytes lead nowhere: pass them without
            // touching the automaton (a word at a time when one byte
            // alone starts every key).
            if (single >= 0) {
                pos = find_byte(t, pos, n, static_cast<uint8_t>(single));
                if (pos == n) break;
            } else {
                while (pos < n && stays[t[pos]]) ++pos;
                if (pos == n) break;
            }
        }
        const uint32_t c = symbols[t[pos]];
        if (c == 0) {
            if (Anchored) break;
            state = 0;
            continue;
        }
        uint32_t s = state, x;
        if (!a.step(s, c, x)) {
            if (Anchored) break;
            bool found = false;
            while (s != 0) {
                s = a.failure(s);
                if (a.step(s, c, x)) {
                    found = true;
                    break;
                }
            }
            if (!found) {
                state = 0;
                continue;
            }
        }
        if (!(x & (XAC_TRANS_OUTPUT | XAC_TRANS_DOWN))) {
            state = x >> a.shift;
            continue;
        }
        const walk_result w = walk_outputs(sc, queued, t, n, s, c, x, pos + 1);
        state = w.state;
        if ((r = w.handler_result) != 0) break;
    }
    if (r == 0 && queued.count) r = report_deferred(sc, a, t, n, queued);
    sc->state = state;
    return r;
}

// The lookups' filters: the first record the rule accepts is kept and ends
// the scan.
struct filter_target {
    std::optional<xdb_match> found;
    uint32_t value = 0;  // address lookup: the prefix being scanned
};

int domain_filter(const char* t, int n, uint32_t id, uint32_t e, int m, int, void* arg) {
    if (m <= 0 || !on_label_boundaries(reinterpret_cast<const uint8_t*>(t), static_cast<uint32_t>(n), e,
                                       static_cast<uint32_t>(m)))
        return 0;
    static_cast<filter_target*>(arg)->found = xdb_match{id, e, m, 0};
    return 1;
}

// An address match must start at the first byte.
int prefix_filter(const char*, int, uint32_t id, uint32_t e, int m, int, void* arg) {
    if (m <= 0 || e != static_cast<uint32_t>(m)) return 0;
    auto* to = static_cast<filter_target*>(arg);
    to->found = xdb_match{id, e, m, to->value};
    return 1;
}

}  // namespace

void xac_scanner_init(xac_scanner* sc, const xac_tables* tables, xac_match_fn handler, void* arg,
                      int streaming) {
    // Field by field: the pending slots are only read below pending_count.
    sc->tables = tables;
    sc->state = 0;
    sc->handler = handler;
    sc->arg = arg;
    sc->streaming = streaming != 0;
    sc->rule = xac_accept::anything;
    sc->pending_count = 0;
}

xac_scanner_ptr xac_scanner_new(const xac_tables* tables, xac_match_fn handler, void* arg, int streaming) {
    xac_scanner_ptr sc(new (std::nothrow) xac_scanner);
    if (sc) xac_scanner_init(sc.get(), tables, handler, arg, streaming);
    return sc;
}

void xac_scanner_free(xac_scanner* scanner) { delete scanner; }

unsigned xac_scan(xac_scanner* sc, const char* text, size_t len) {
    if (!sc || !sc->tables || !text || len == 0) return 0;
    // Texts are names and addresses; anything longer is scanned in part.
    const uint32_t n = len > UINT32_MAX / 2 ? UINT32_MAX / 2 : static_cast<uint32_t>(len);
    const auto* t = reinterpret_cast<const uint8_t*>(text);
    if (!sc->streaming) {
        sc->state = 0;
    } else if (sc->pending_count) {
        if (unsigned r = finish_pending(sc, t, n)) return r;
    }
    return sc->tables->anchored ? run<true>(sc, t, n) : run<false>(sc, t, n);
}

std::optional<xdb_match> category_db_match_domain(const category_db* db, const char* name, size_t len) {
    if (!db || !db->tables || !name) return std::nullopt;
    filter_target to;
    xac_scanner sc;  // NOLINT: initialised field by field below
    xac_scanner_init(&sc, db->tables.get(), domain_filter, &to, 0);
    sc.rule = xac_accept::label_boundaries;
    xac_scan(&sc, name, len);
    return to.found;
}

int xdb_ipv4_prefixes(uint32_t addr, uint32_t out[25]) {
    int count = 0;
    for (uint32_t k = 0; k <= 24; ++k) {
        addr &= ~((uint32_t{1} << k) - 1);
        if (k == 24 || (addr >> k & 1)) out[count++] = addr;
    }
    return count;
}

std::optional<xdb_match> category_db_match_ipv4(const category_db* db, const char* text) {
    if (!db || !db->tables) return std::nullopt;
    uint8_t b[4] = {0, 0, 0, 0};
    if (!text || inet_pton(AF_INET, text, b) != 1) std::memset(b, 0, sizeof b);
    const uint8_t* filter = db->prefilter.get();
    if (!filter || !xdb_prefilter_has(filter, b[0])) return std::nullopt;

    filter_target to;
    xac_scanner sc;
    xac_scanner_init(&sc, db->tables.get(), prefix_filter, &to, 0);
    sc.rule = xac_accept::from_start;
    uint32_t values[25];
    const int count = xdb_ipv4_prefixes(uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3],
                                        values);
    for (int k = 0; k < count; ++k) {
        const char v[4] = {static_cast<char>(values[k] >> 24), static_cast<char>(values[k] >> 16),
                           static_cast<char>(values[k] >> 8), static_cast<char>(values[k])};
        to.value = values[k];
        if (xac_scan(&sc, v, sizeof v) != 0) return to.found;
    }
    return std::nullopt;
}

std::optional<xdb_match> xdb_match_domain(const char* name, size_t len) {
    const xdb_reader db = xdb_read();
    return category_db_match_domain(db.get(), name, len);
}

std::optional<xdb_match> xdb_match_ipv4(const char* text) {
    const xdb_reader db = xdb_read();
    return category_db_match_ipv4(db.get(), text);
}
