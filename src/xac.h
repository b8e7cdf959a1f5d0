// Category file matcher: the domain and address lookups, and under them the
// pattern automaton scanner over a loaded xac block (see xdb.h). Any thread
// may look up at any time: the tables are shared and immutable, so a lookup
// takes no lock and allocates nothing. The process-wide lookups hold the file
// for their own length (xdb_reader), so a reload never frees it under them
// and each lookup answers from one file, old or new. A scanner belongs to one
// thread and one lookup.
//
// Matches are reported in this order: by the position where the automaton
// key ends, left to right; at one position the longest key first, then the
// shorter keys down its failure chain; for one key its pattern records in
// table order. Each record is confirmed against its postfix and suffix
// texts before the handler sees it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "xdb.h"

// Called for each match the scanner confirms: (text, text length, 20-bit
// category id, match end, match length, 0, argument). The first non-zero
// result ends the scan.
using xac_match_fn = int (*)(const char* text, int len, uint32_t id, uint32_t end, int match_len,
                             int zero, void* arg);

// ---- lookups ----

// The one match a lookup accepts.
struct xdb_match {
    uint32_t id = 0;     // 20-bit category id
    uint32_t end = 0;    // where the match ends in the scanned text
    int len = 0;         // match length
    uint32_t value = 0;  // address lookup: the prefix value that matched (host order); else 0
    bool operator==(const xdb_match&) const = default;
};

// The accepted match in the process-wide file, or none; none when no file
// is loaded.
std::optional<xdb_match> xdb_match_domain(const char* name, size_t len);
std::optional<xdb_match> xdb_match_ipv4(const char* text);

// The same lookups against a given file (null answers none).
std::optional<xdb_match> category_db_match_domain(const category_db* db, const char* name, size_t len);
std::optional<xdb_match> category_db_match_ipv4(const category_db* db, const char* text);

// The values the address lookup scans for `addr` (host order), most specific
// first: the address with 0, 1, ... 24 low bits cleared, each distinct value
// once. Returns how many were written (at most 25).
int xdb_ipv4_prefixes(uint32_t addr, uint32_t out[25]);

// ---- scanner ----

// Streaming mode only: records whose postfix or suffix ran past the end of
// a text, finished by the next call. Beyond this bound they are dropped.
inline constexpr uint32_t XAC_MAX_PENDING = 8;

struct xac_pending {
    uint32_t record;  // pattern index
    uint32_t done;    // postfix and suffix bytes already confirmed
};

// What the handler will accept, when the scanner may know it in advance:
// records that fail the rule are dropped before their texts are compared.
enum class xac_accept : uint8_t {
    anything,          // the handler decides alone
    label_boundaries,  // the domain lookup's rule
    from_start,        // the address lookup's rule: the match starts the text
};

struct xac_scanner {
    const xac_tables* tables = nullptr;
    uint32_t state = 0;  // current automaton state; 0 is the root
    xac_match_fn handler = nullptr;
    void* arg = nullptr;
    bool streaming = false;  // keep the state and pending records between calls
    xac_accept rule = xac_accept::anything;  // set by the lookups after init
    uint32_t pending_count = 0;
    xac_pending pending[XAC_MAX_PENDING];  // entries below pending_count are live
};

void xac_scanner_free(xac_scanner* scanner);
struct xac_scanner_deleter {
    void operator()(xac_scanner* s) const { xac_scanner_free(s); }
};
using xac_scanner_ptr = std::unique_ptr<xac_scanner, xac_scanner_deleter>;

// A new scanner at the root, or null when allocation fails.
[[nodiscard]] xac_scanner_ptr xac_scanner_new(const xac_tables* tables, xac_match_fn handler,
                                              void* arg, int streaming);
// Resets a caller-owned scanner (the lookups keep theirs on the stack).
void xac_scanner_init(xac_scanner* scanner, const xac_tables* tables, xac_match_fn handler,
                      void* arg, int streaming);

// Runs the automaton over text[0, len). The handler's first non-zero result
// ends the scan and is returned; 0 when the text is empty or nothing stopped
// it. Outside streaming mode every call starts at the root.
unsigned xac_scan(xac_scanner* scanner, const char* text, size_t len);
