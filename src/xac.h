// Pattern automaton scanner over a loaded xac block (see xdb.h). A scanner
// belongs to one thread and one lookup; the tables it reads are shared and
// immutable, so scanning takes no lock and allocates nothing.
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

#include "xdb.h"

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
