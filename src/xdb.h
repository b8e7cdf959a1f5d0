// Category file: the compiled automaton of domain patterns with its IPv4
// prefix filter, loaded at start-up and replaced in one step by a reload.
//
// The main thread loads the file (xdb_init) before any worker runs and frees
// it (xdb_release) after the workers are joined. A reload (xdb_reload, from
// the main thread on SIGHUP or from the command thread; the caller
// serialises them) loads and checks the new file completely before it takes
// the old one's place. Lookups hold the file through an xdb_reader, which
// takes no lock (util/grace_slot.h): one that started before a reload
// finishes on the old file, which is freed once the last of them is done.
// A loaded file's tables are immutable and any number of threads may match
// against them at once. The loader converts every table to host byte order
// and refuses a file whose tables could make the matcher read outside them,
// so the matcher trusts the invariants listed on xac_tables. The lookups are
// declared in xac.h, the byte layout in xdb_format.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "util/grace_slot.h"

#include "xdb_format.h"

// One loaded xac block. Everything here is immutable once xdb_load returns.
// Invariants established by the loader (the matcher relies on them):
// - every state reachable from the root (through valid transitions and
//   failure links) is below trans_count, and its failure chain reaches the
//   root without a cycle;
// - a valid transition that reports no output targets a state;
// - every pattern index reachable from a leaf target or from an output-hash
//   slot the search can stop at lies in the pattern table, and the chain
//   from it ends inside the table;
// - every such record's postfix lies inside the postfix table and its suffix
//   inside the suffix table.
struct xac_tables {
    uint8_t header[XAC_HEADER_SIZE] = {};  // as read, unexamined bytes kept

    // Header fields, host order.
    uint16_t symbols[256] = {};  // input byte -> automaton symbol, 0 = not in the alphabet
    uint32_t check_mask = 0;
    uint32_t state_shift = 0;  // already reduced to 0..31
    uint32_t trans_count = 0;  // T
    uint32_t hash_slots = 0;   // H
    uint32_t hash_modulus = 0;
    uint32_t pattern_count = 0;  // N; the pattern table holds N + 1 records
    uint32_t suffix_size = 0;    // S
    uint32_t postfix_size = 0;   // P
    uint8_t flags_a = 0;
    uint8_t flags_b = 0;
    uint32_t suffix_unit = 0;  // U, 0..7
    bool anchored = false;
    bool has_patterns = false;  // flag A carries any of 0x1C

    // Longest distance from a key's home slot to the slot that holds it:
    // an output-hash search never looks further.
    uint32_t hash_probe_limit = 0;
    // 1 for an input byte that leaves the root where it is (no symbol, or
    // no valid root transition): unanchored scans pass such bytes quickly.
    uint8_t root_stays[256] = {};
    // The one byte that leaves the root, or -1 when there are more or none.
    int16_t root_single_start = -1;

    // The five tables. `trans` and `hash` share one allocation (`area`);
    // hash slots are (key, value) word pairs. Pattern records are two words
    // each. A table the file does not carry is null.
    std::unique_ptr<uint32_t[]> area;
    const uint32_t* trans = nullptr;
    const uint32_t* hash = nullptr;
    std::unique_ptr<uint8_t[]> suffix;
    std::unique_ptr<uint32_t[]> patterns;
    std::unique_ptr<uint8_t[]> postfix;
};

// A loaded category file: its xac block and the IPv4 prefilter (null when
// the file carried no usable prefilter block).
struct category_db {
    std::unique_ptr<xac_tables> tables;
    std::unique_ptr<uint8_t[]> prefilter;  // XDB_PREFILTER_BYTES bytes
};

// Frees the tables in the file's own order, then the prefilter and `db`.
// Null is ignored.
void category_db_free(category_db* db);

struct category_db_deleter {
    void operator()(category_db* db) const { category_db_free(db); }
};
using category_db_ptr = std::unique_ptr<category_db, category_db_deleter>;

// Reads `path` as a category file. Returns null after its messages, one
// line each, on standard error or, when `messages` is given, appended there
// instead. Reads nothing past what the headers declare.
[[nodiscard]] category_db_ptr xdb_load(const char* path, std::string* messages = nullptr);
// The same over bytes already in memory (used by tests and fuzzing).
[[nodiscard]] category_db_ptr xdb_load_mem(const void* data, size_t len);

// Loads `path` as the process-wide category file. Returns 0 after
// "Success to load xdb." on standard output, or -1 after the loader's
// messages on standard error (nothing is loaded then).
[[nodiscard]] int xdb_init(const char* path);
// Loads `path` and, once it has loaded, puts it in place of the
// process-wide file; returns after the last lookup of the old file, which
// it frees. Returns 0, or -1 with the old file kept. The loader's messages
// are appended to `messages` either way. Never called while the calling
// thread holds an xdb_reader.
[[nodiscard]] int xdb_reload(const char* path, std::string* messages);
// Frees the process-wide category file. Safe twice.
void xdb_release();

// Holds the process-wide category file from xdb_read() to its own end;
// get() is null when none is loaded. Keep one for one lookup only: a reload
// waits for it.
using xdb_reader = grace_slot<category_db, category_db_deleter>::reader;
[[nodiscard]] xdb_reader xdb_read();
