// Category file loader: reads the xac block and the IPv4 prefilter, converts
// every table to host order and checks that the matcher can never leave the
// tables, whatever the file holds.
#include "xdb.h"

#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "util/c_ptr.h"

namespace {

// Non-regular inputs (pipes, devices) are read into memory first, up to
// this many bytes; anything beyond counts as missing.
constexpr size_t kMaxStreamBytes = size_t{256} << 20;
// Keeps state + symbol inside 32 bits in the matcher.
constexpr uint32_t kMaxTransWords = 0xFFFF0000u;

void words_to_host(uint32_t* w, size_t count) {
    if constexpr (std::endian::native == std::endian::little) {
        for (size_t i = 0; i < count; ++i) w[i] = __builtin_bswap32(w[i]);
    }
}

// Where the loader's bytes come from: an open regular file of known size or
// a block of memory. `remaining` is what can still be read, so a declared
// table size is checked before anything is allocated for it.
class byte_source {
public:
    byte_source(std::FILE* f, uint64_t size) : file_(f), remaining_(size) {}
    byte_source(const uint8_t* data, size_t len) : mem_(data), remaining_(len) {}

    bool has(uint64_t n) const { return n <= remaining_; }

    // Reads exactly n bytes; false (and nothing more to read) when short.
    bool read(void* dst, size_t n) {
        if (!has(n)) {
            remaining_ = 0;
            return false;
        }
        if (n == 0) return true;
        if (mem_) {
            std::memcpy(dst, mem_, n);
            mem_ += n;
        } else if (std::fread(dst, 1, n, file_) != n) {
            remaining_ = 0;
            return false;
        }
        remaining_ -= n;
        return true;
    }

    bool skip(uint64_t n) {
        if (!has(n)) {
            remaining_ = 0;
            return false;
        }
        if (mem_) {
            mem_ += n;
        } else if (n > 0 && std::fseek(file_, static_cast<long>(n), SEEK_CUR) != 0) {
            remaining_ = 0;
            return false;
        }
        remaining_ -= n;
        return true;
    }

private:
    std::FILE* file_ = nullptr;
    const uint8_t* mem_ = nullptr;
    uint64_t remaining_ = 0;
};

// Where the loader's messages go: standard error, or the caller's text.
class load_log {
public:
    explicit load_log(std::string* keep) : keep_(keep) {}

    void say(const char* fmt, ...) __attribute__((format(printf, 2, 3))) {
        va_list ap;
        va_start(ap, fmt);
        if (keep_) {
            char line[512];  // a path in the text is cut here
            std::vsnprintf(line, sizeof line, fmt, ap);
            keep_->append(line);
        } else {
            std::vfprintf(stderr, fmt, ap);
        }
        va_end(ap);
    }

private:
    std::string* keep_;
};

template <typename T>
std::unique_ptr<T[]> read_array(byte_source& src, uint64_t count) {
    const uint64_t bytes = count * sizeof(T);
    if (count > SIZE_MAX / sizeof(T) || !src.has(bytes)) return nullptr;
    std::unique_ptr<T[]> table(new (std::nothrow) T[count ? count : 1]());
    if (!table || !src.read(table.get(), bytes)) return nullptr;
    return table;
}

void decode_header(xac_tables& tb) {
    const uint8_t* h = tb.header;
    tb.flags_a = h[XAC_FLAGS_A_AT];
    tb.flags_b = h[XAC_FLAGS_B_AT];
    for (int c = 0; c < 256; ++c) tb.symbols[c] = xdb_be16(h + XAC_SYMBOLS_AT + 2 * c);
    tb.check_mask = xdb_be32(h + XAC_CHECK_MASK_AT);
    tb.state_shift = xdb_be32(h + XAC_STATE_SHIFT_AT) & XAC_STATE_SHIFT_BITS;
    tb.trans_count = xdb_be32(h + XAC_TRANS_COUNT_AT);
    tb.hash_slots = xdb_be32(h + XAC_HASH_SLOTS_AT);
    tb.hash_modulus = xdb_be32(h + XAC_HASH_MODULUS_AT);
    tb.pattern_count = xdb_be32(h + XAC_PATTERN_COUNT_AT);
    tb.suffix_size = xdb_be32(h + XAC_SUFFIX_SIZE_AT);
    tb.postfix_size = xdb_be32(h + XAC_POSTFIX_SIZE_AT);
    tb.suffix_unit = xac_suffix_unit(tb.flags_a, tb.flags_b);
    tb.anchored = (tb.flags_a & XAC_A_ANCHORED) != 0;
    tb.has_patterns = (tb.flags_a & XAC_A_TABLES) != 0;
}

// Walks everything the matcher can reach and refuses what would take it
// outside the tables or round a failure cycle forever. Returns null when
// the tables are sound, else what is wrong.
class table_check {
public:
    explicit table_check(xac_tables& tb) : tb_(tb) {}

    const char* run() {
        if (tb_.trans_count > kMaxTransWords) return "transition table too large";
        collect_alphabet();
        if (const char* why = check_hash()) return why;
        if (tb_.trans_count == 0) return nullptr;  // the root has no slot to read
        mark_.assign(tb_.trans_count, 0);
        if (const char* why = walk_states()) return why;
        return check_failure_chains();
    }

private:
    enum : uint8_t { kSeen = 1, kOnPath = 2, kDone = 4 };

    uint32_t target(uint32_t word) const { return xac_trans_target(word, tb_.state_shift); }
    uint32_t failure_of(uint32_t s) const {
        const uint32_t w = tb_.trans[s];
        return (w & tb_.check_mask) ? 0 : target(w);
    }

    void collect_alphabet() {
        for (uint16_t sym : tb_.symbols)
            if (sym) alphabet_.push_back(sym);
        std::sort(alphabet_.begin(), alphabet_.end());
        alphabet_.erase(std::unique(alphabet_.begin(), alphabet_.end()), alphabet_.end());
    }

    // A search for key i starts at its home slot and stops at the first slot
    // holding i, so only slots at or after their key's home slot can be
    // found; their values must be sound and their distance bounds every
    // later search.
    const char* check_hash() {
        const uint32_t mod = tb_.hash_modulus;
        if (mod == 0) return nullptr;  // refused later only if a lookup needs it
        for (uint32_t q = 0; q < tb_.hash_slots; ++q) {
            const uint32_t key = tb_.hash[2 * size_t{q}];
            if (key >= tb_.trans_count) continue;  // no transition index reaches it
            const uint32_t home = xac_hash_home(key, mod);
            if (home > q) continue;
            tb_.hash_probe_limit = std::max(tb_.hash_probe_limit, q - home);
            if (const char* why = check_chain(tb_.hash[2 * size_t{q} + 1])) return why;
        }
        return nullptr;
    }

    const char* check_record(uint32_t rec) const {
        const uint32_t w0 = tb_.patterns[2 * size_t{rec}];
        const uint32_t w1 = tb_.patterns[2 * size_t{rec} + 1];
        const uint32_t len = xac_rec_postfix_len(w1);
        const uint32_t off = xac_rec_postfix_at(w1);
        if (len && uint64_t{off} + len > tb_.postfix_size) return "postfix outside its table";
        const uint32_t k = xac_rec_suffix(w0);
        const uint64_t unit = tb_.suffix_unit;
        if (k && unit && (uint64_t{k} + 1) * unit > tb_.suffix_size) return "suffix outside its table";
        return nullptr;
    }

    const char* check_chain(uint32_t first) {
        if (!tb_.has_patterns) return nullptr;  // the index is handed out as an id
        const uint64_t records = uint64_t{tb_.pattern_count} + 1;
        if (first >= records) return "pattern index outside its table";
        if (record_seen_.empty()) record_seen_.assign(records, 0);
        for (uint64_t rec = first;; ++rec) {
            if (rec >= records) return "pattern chain runs past its table";
            if (record_seen_[rec]) return nullptr;  // its chain was checked before
            record_seen_[rec] = 1;
            if (const char* why = check_record(static_cast<uint32_t>(rec))) return why;
            if (!xac_rec_chained(tb_.patterns[2 * rec])) return nullptr;
        }
    }

    const char* check_outputs(uint32_t i) {
        const uint32_t v = target(tb_.trans[i]);
        if (v >= tb_.trans_count) return check_chain(v - tb_.trans_count);
        if (tb_.hash_modulus == 0) return "output hash without a modulus";
        return nullptr;  // found slots were checked; a missing key reports nothing
    }

    void enqueue(uint32_t s) {
        if (!(mark_[s] & kSeen)) {
            mark_[s] |= kSeen;
            queue_.push_back(s);
        }
    }

    const char* walk_states() {
        const uint32_t T = tb_.trans_count;
        enqueue(0);
        for (size_t head = 0; head < queue_.size(); ++head) {
            const uint32_t s = queue_[head];
            if (s != 0) {
                const uint32_t f = failure_of(s);
                if (f >= T) return "failure link outside the transition table";
                enqueue(f);
            }
            for (uint32_t c : alphabet_) {
                const uint32_t i = s + c;
                if (i >= T) break;
                const uint32_t x = tb_.trans[i] ^ c;
                if (x & tb_.check_mask) continue;
                const uint32_t t = target(x);
                if (t < T) {
                    enqueue(t);
                } else if (!(x & (XAC_TRANS_OUTPUT | XAC_TRANS_DOWN))) {
                    return "transition target outside the transition table";
                }
                if (x & XAC_TRANS_OUTPUT) {
                    if (const char* why = check_outputs(i)) return why;
                }
            }
        }
        return nullptr;
    }

    const char* check_failure_chains() {
        std::vector<uint32_t> path;
        mark_[0] |= kDone;
        for (uint32_t s : queue_) {
            path.clear();
            uint32_t u = s;
            while (!(mark_[u] & kDone)) {
                if (mark_[u] & kOnPath) return "failure links form a cycle";
                mark_[u] |= kOnPath;
                path.push_back(u);
                u = failure_of(u);
            }
            for (uint32_t p : path) mark_[p] = static_cast<uint8_t>((mark_[p] & ~kOnPath) | kDone);
        }
        return nullptr;
    }

    xac_tables& tb_;
    std::vector<uint32_t> alphabet_;
    std::vector<uint8_t> mark_;
    std::vector<uint32_t> queue_;
    std::vector<uint8_t> record_seen_;
};

void mark_root_stays(xac_tables& tb) {
    int leaving = 0;
    for (int b = 0; b < 256; ++b) {
        const uint32_t c = tb.symbols[b];
        tb.root_stays[b] = c == 0 || c >= tb.trans_count || ((tb.trans[c] ^ c) & tb.check_mask) != 0;
        if (!tb.root_stays[b] && leaving++ == 0) tb.root_single_start = static_cast<int16_t>(b);
    }
    if (leaving != 1) tb.root_single_start = -1;
}

// The automaton block: its block header, the 576-byte header and the flags
// this matcher supports, then the transition and hash area, the pattern,
// postfix and suffix tables, and a check of every table against the others.
// Says what failed in `log`.
bool load_xac(byte_source& src, xac_tables& tb, load_log& log) {
    uint8_t block[XDB_BLOCK_HEADER_SIZE];
    if (!src.read(block, sizeof block)) {
        log.say("Failed to read xac header!\n");
        return false;
    }
    if (block[XDB_BLOCK_TYPE_AT] != XDB_BLOCK_XAC) {
        log.say("This is not xac block!\n");
        return false;
    }
    if (!src.read(tb.header, sizeof tb.header)) {
        log.say("Failed to check file size!\n");
        return false;
    }
    decode_header(tb);
    if (xdb_be16(tb.header + XAC_MAGIC_AT) != XAC_MAGIC) {
        log.say("Failed to check magic!\n");
        return false;
    }
    if (tb.flags_a & XAC_A_4X) {
        log.say("This xac file is %s format!\n", "4x");
        return false;
    }
    if (tb.flags_b & XAC_B_S2) {
        log.say("This scanner doesn't support S2!\n");
        return false;
    }
    if (tb.flags_b & XAC_B_CATEGORY) {
        log.say("This scanner doesn't support category field!\n");
        return false;
    }

    const uint64_t area_words = 2 * uint64_t{tb.hash_slots} + tb.trans_count;
    tb.area = read_array<uint32_t>(src, area_words);
    if (!tb.area) {
        log.say("Failed to load tran table, %ld!\n", static_cast<long>(area_words * 4));
        return false;
    }
    words_to_host(tb.area.get(), area_words);
    tb.trans = tb.area.get();
    tb.hash = tb.area.get() + tb.trans_count;

    if (tb.has_patterns) {
        const uint64_t records = uint64_t{tb.pattern_count} + 1;
        tb.patterns = read_array<uint32_t>(src, records * 2);
        if (!tb.patterns) {
            log.say("Failed to load pattern table, %ld!\n", static_cast<long>(records * 8));
            return false;
        }
        words_to_host(tb.patterns.get(), records * 2);
        if (tb.postfix_size) {
            tb.postfix = read_array<uint8_t>(src, tb.postfix_size);
            if (!tb.postfix) {
                log.say("Failed to load postfix table, %d!\n", static_cast<int>(tb.postfix_size));
                return false;
            }
        }
        if (tb.suffix_size) {
            tb.suffix = read_array<uint8_t>(src, tb.suffix_size);
            if (!tb.suffix) {
                log.say("Failed to load suffix table, %d!\n", static_cast<int>(tb.suffix_size));
                return false;
            }
        }
    }

    if (const char* why = table_check(tb).run()) {
        log.say("Invalid xac tables, %s!\n", why);
        return false;
    }
    mark_root_stays(tb);
    return true;
}

// The IPv4 prefilter block after the automaton. Failures leave the file
// without one. Only the bytes the matcher uses are kept; the rest is read
// past.
void load_prefilter(byte_source& src, category_db& db, load_log& log) {
    uint8_t block[XDB_BLOCK_HEADER_SIZE];
    if (!src.read(block, sizeof block)) {
        log.say("Failed to read ip prefilter header!\n");
        return;
    }
    if (block[XDB_BLOCK_TYPE_AT] != XDB_BLOCK_PREFILTER) {
        log.say("This is not ip prefilter block!\n");
        return;
    }
    const uint32_t size = xdb_be32(block + XDB_BLOCK_SIZE_AT);
    std::unique_ptr<uint8_t[]> bitmap(new (std::nothrow) uint8_t[XDB_PREFILTER_BYTES]());
    if (!bitmap) {
        log.say("Failed to allocate memory, L%d!\n", 113);
        return;
    }
    const uint32_t kept = std::min<uint32_t>(size, XDB_PREFILTER_BYTES);
    if (!src.read(bitmap.get(), kept) || !src.skip(size - kept)) {
        log.say("Failed to load table, %d!\n", static_cast<int>(size));
        return;
    }
    db.prefilter = std::move(bitmap);
}

category_db_ptr load_from(byte_source& src, load_log& log) {
    category_db_ptr db(new (std::nothrow) category_db);
    std::unique_ptr<xac_tables> tb(new (std::nothrow) xac_tables);
    if (!db || !tb || !load_xac(src, *tb, log)) {
        log.say("Failed to load xdb!\n");
        return nullptr;
    }
    db->tables = std::move(tb);
    load_prefilter(src, *db, log);
    return db;
}

grace_slot<category_db, category_db_deleter> g_db;

}  // namespace

void category_db_free(category_db* db) {
    if (!db) return;
    if (xac_tables* tb = db->tables.get()) {
        tb->trans = tb->hash = nullptr;
        tb->area.reset();
        tb->patterns.reset();
        tb->postfix.reset();
        tb->suffix.reset();
        db->tables.reset();
    }
    db->prefilter.reset();
    delete db;
}

category_db_ptr xdb_load(const char* path, std::string* messages) {
    load_log log(messages);
    file_ptr f(path ? std::fopen(path, "rbe") : nullptr);
    if (!f) {
        log.say("Failed to open file, %s!\n", path ? path : "(null)");
        return nullptr;
    }
    struct stat st {};
    if (fstat(fileno(f.get()), &st) == 0 && S_ISREG(st.st_mode)) {
        byte_source src(f.get(), static_cast<uint64_t>(st.st_size));
        return load_from(src, log);
    }
    // A pipe or device has no size to check declared tables against: take
    // what it holds (bounded) and load from memory.
    std::vector<uint8_t> bytes;
    uint8_t chunk[1 << 16];
    size_t got;
    while (bytes.size() < kMaxStreamBytes && (got = std::fread(chunk, 1, sizeof chunk, f.get())) > 0)
        bytes.insert(bytes.end(), chunk, chunk + std::min(got, kMaxStreamBytes - bytes.size()));
    byte_source src(bytes.data(), bytes.size());
    return load_from(src, log);
}

category_db_ptr xdb_load_mem(const void* data, size_t len) {
    load_log log(nullptr);
    byte_source src(static_cast<const uint8_t*>(data), data ? len : 0);
    return load_from(src, log);
}

int xdb_init(const char* path) {
    category_db_ptr db = xdb_load(path);
    const bool loaded = db != nullptr;
    g_db.exchange(std::move(db));
    if (!loaded) return -1;
    std::fputs("Success to load xdb.\n", stdout);
    std::fflush(stdout);
    return 0;
}

int xdb_reload(const char* path, std::string* messages) {
    category_db_ptr db = xdb_load(path, messages);
    if (!db) return -1;
    // The old file is freed here, after the last lookup that holds it.
    g_db.exchange(std::move(db));
    return 0;
}

void xdb_release() { g_db.reset(); }

xdb_reader xdb_read() { return g_db.read(); }
