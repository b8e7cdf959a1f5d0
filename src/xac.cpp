// Domain and address matcher: the automaton run over a loaded xac block,
// the domain boundary filter and the IPv4 prefix walk.
#include "xac.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace {

constexpr uint32_t kTargetBits = 0x3FFFFFFFu;
constexpr uint32_t kOutputBit = 0x80000000u;  // the transition reports outputs
constexpr uint32_t kDownBit = 0x40000000u;    // so do states down its failure chain
constexpr uint32_t kChainBit = 0x80000000u;   // the next pattern record belongs to this output

// The fields one automaton step needs, kept in registers.
struct automaton {
    const uint32_t* words;
    uint32_t count;  // T
    uint32_t mask;
    uint32_t shift;

    explicit automaton(const xac_tables& tb)
        : words(tb.trans), count(tb.trans_count), mask(tb.check_mask), shift(tb.state_shift) {}

    uint32_t target(uint32_t x) const { return (x & kTargetBits) >> shift; }
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
    const uint32_t len = w1 >> 24;
    if (at < len) return tb.postfix[(w1 & 0xFFFFFF) + at];
    return tb.suffix[((w0 >> 20) & 0x7F) * tb.suffix_unit + (at - len)];
}

uint32_t tail_length(const xac_tables& tb, uint32_t w0, uint32_t w1) {
    return (w1 >> 24) + (((w0 >> 20) & 0x7F) ? tb.suffix_unit : 0);
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

// Confirms one record against the text after the key ending at p and hands
// it to the handler.
unsigned try_record(xac_scanner* sc, const uint8_t* t, uint32_t n, uint32_t rec, uint32_t p) {
    const xac_tables& tb = *sc->tables;
    const uint32_t w0 = tb.patterns[2 * size_t{rec}], w1 = tb.patterns[2 * size_t{rec} + 1];
    const uint32_t len = w1 >> 24;
    const uint32_t rem = n - p;
    if (len > rem) {
        if (sc->streaming) keep_pending(sc, rec, t + p, rem);
        return 0;
    }
    if (len && std::memcmp(t + p, tb.postfix.get() + (w1 & 0xFFFFFF), len) != 0) return 0;
    uint32_t end = p + len;
    const uint32_t k = (w0 >> 20) & 0x7F;
    if (k) {
        const uint32_t unit = tb.suffix_unit;
        if (rem - len < unit) {
            if (sc->streaming) keep_pending(sc, rec, t + p, rem);
            return 0;
        }
        if (unit && std::memcmp(t + end, tb.suffix.get() + size_t{k} * unit, unit) != 0) return 0;
        end += unit;
    }
    const int match_len = static_cast<int>((w0 >> 27 & 7) + (end - p));
    return static_cast<unsigned>(sc->handler(reinterpret_cast<const char*>(t), static_cast<int>(n),
                                             w0 & 0xFFFFF, end, match_len, 0, sc->arg));
}

// The output-hash search, bounded by the longest probe the loader measured.
bool hash_find(const xac_tables& tb, uint32_t i, uint32_t& value) {
    const uint32_t home = static_cast<uint32_t>(i * 107u) % tb.hash_modulus;
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
    for (;; ++rec) {
        if (unsigned r = try_record(sc, t, n, rec, p)) return r;
        if (!(tb.patterns[2 * size_t{rec}] & kChainBit)) return 0;
    }
}

// A transition x from s on c that reports outputs or has outputs below it:
// report them down the failure chain and settle the next state.
[[gnu::noinline]] unsigned walk_outputs(xac_scanner* sc, const automaton& a, const uint8_t* t, uint32_t n,
                                        uint32_t s, uint32_t c, uint32_t x, uint32_t p, uint32_t& state) {
    uint32_t target = a.target(x);
    state = target < a.count ? target : 0;
    for (;;) {
        if (x & kOutputBit) {
            if (unsigned r = report_outputs(sc, a, t, n, s + c, p)) return r;
        }
        if (state == 0) {
            // Came through a leaf: the first real state down the chain
            // becomes the state, whatever the flags say.
            target = a.target(x);
            if (target != 0 && target < a.count) state = target;
        } else if (!(x & kDownBit)) {
            return 0;
        }
        do {
            if (s == 0) return 0;
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
            const int match_len = static_cast<int>((w0 >> 27 & 7) + need);
            unsigned r = static_cast<unsigned>(sc->handler(reinterpret_cast<const char*>(t), static_cast<int>(n),
                                                           w0 & 0xFFFFF, j, match_len, 0, sc->arg));
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

template <bool Anchored>
unsigned run(xac_scanner* sc, const uint8_t* t, uint32_t n) {
    const automaton a(*sc->tables);
    const uint16_t* symbols = sc->tables->symbols;
    uint32_t state = sc->state;
    unsigned r = 0;
    for (uint32_t pos = 0; pos < n; ++pos) {
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
        if (!(x & (kOutputBit | kDownBit))) {
            state = x >> a.shift;
            continue;
        }
        if ((r = walk_outputs(sc, a, t, n, s, c, x, pos + 1, state)) != 0) break;
    }
    sc->state = state;
    return r;
}

struct filter_target {
    xac_match_fn handler;
    void* arg;
};

// A domain match must sit on label boundaries: the whole name, or a piece
// whose outer ends that touch the rest of the name are dots.
int domain_filter(const char* t, int n, uint32_t id, uint32_t e, int m, int zero, void* arg) {
    if (m <= 0 || e < static_cast<uint32_t>(m)) return 0;
    const uint32_t um = static_cast<uint32_t>(m), un = static_cast<uint32_t>(n);
    bool accepted;
    if (um == un) {
        accepted = true;
    } else if (e == un) {
        accepted = t[e - um] == '.';
    } else if (e == um) {
        accepted = t[e - 1] == '.';
    } else {
        accepted = t[e - 1] == '.' && t[e - um] == '.';
    }
    if (!accepted) return 0;
    auto* to = static_cast<filter_target*>(arg);
    if (to->handler) to->handler(t, n, id, e, m, zero, to->arg);
    return 1;
}

// An address match must start at the first byte.
int prefix_filter(const char* t, int n, uint32_t id, uint32_t e, int m, int zero, void* arg) {
    if (m <= 0 || e != static_cast<uint32_t>(m)) return 0;
    auto* to = static_cast<filter_target*>(arg);
    if (to->handler) to->handler(t, n, id, e, m, zero, to->arg);
    return 1;
}

}  // namespace

void xac_scanner_init(xac_scanner* sc, const xac_tables* tables, xac_match_fn handler, void* arg,
                      int streaming) {
    *sc = xac_scanner{};
    sc->tables = tables;
    sc->handler = handler;
    sc->arg = arg;
    sc->streaming = streaming != 0;
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

unsigned category_db_match_domain(const category_db* db, const char* name, size_t len, xac_match_fn handler,
                                  void* arg) {
    if (!db || !db->tables || !name) return 0;
    filter_target to{handler, arg};
    xac_scanner sc;
    xac_scanner_init(&sc, db->tables.get(), domain_filter, &to, 0);
    return xac_scan(&sc, name, len);
}

int xdb_ipv4_prefixes(uint32_t addr, uint32_t out[25]) {
    int count = 0;
    for (uint32_t k = 0; k <= 24; ++k) {
        addr &= ~((uint32_t{1} << k) - 1);
        if (k == 24 || (addr >> k & 1)) out[count++] = addr;
    }
    return count;
}

int category_db_match_ipv4(const category_db* db, const char* text, xac_match_fn handler, void* arg) {
    if (!db || !db->tables) return 0;
    uint8_t b[4] = {0, 0, 0, 0};
    if (!text || inet_pton(AF_INET, text, b) != 1) std::memset(b, 0, sizeof b);
    const uint8_t* filter = db->prefilter.get();
    if (!filter || !(filter[b[0] >> 3] & (0x80 >> (b[0] & 7)))) return 0;

    filter_target to{handler, arg};
    xac_scanner sc;
    xac_scanner_init(&sc, db->tables.get(), prefix_filter, &to, 0);
    uint32_t values[25];
    const int count = xdb_ipv4_prefixes(uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3],
                                        values);
    for (int k = 0; k < count; ++k) {
        const char v[4] = {static_cast<char>(values[k] >> 24), static_cast<char>(values[k] >> 16),
                           static_cast<char>(values[k] >> 8), static_cast<char>(values[k])};
        if (unsigned r = xac_scan(&sc, v, sizeof v)) return static_cast<int>(r);
    }
    return 0;
}

unsigned xdb_match_domain(const char* name, size_t len, xac_match_fn handler, void* arg) {
    return category_db_match_domain(xdb_get(), name, len, handler, arg);
}

int xdb_match_ipv4(const char* text, xac_match_fn handler, void* arg) {
    return category_db_match_ipv4(xdb_get(), text, handler, arg);
}
