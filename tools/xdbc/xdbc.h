// Category file compiler: turns domain patterns and IPv4 prefixes with their
// category ids into the file the service loads (see src/xdb_format.h). Single
// threaded; every call is self-contained and reports problems as text.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "xdb_format.h"

namespace xdbc {

inline constexpr uint32_t kMaxKey = XAC_REC_MAX_KEY;          // automaton bytes per pattern
inline constexpr uint32_t kMaxPostfix = XAC_REC_MAX_POSTFIX;  // postfix bytes per pattern
inline constexpr uint32_t kMaxSuffixes = XAC_REC_MAX_SUFFIX;
inline constexpr uint32_t kMaxId = XAC_REC_MAX_ID;

struct options {
    bool fold_case = false;    // the automaton part matches either letter case
    bool anchored = false;     // patterns match only at the start of the text
    uint32_t suffix_unit = 0;  // shared suffix length in bytes, 0 (none) to 7
};

// One automaton pattern: bytes matched literally (domain text or the four
// bytes of an address value). Patterns whose keys are equal keep their
// order in the file, so the earlier one is reported first.
struct pattern {
    std::string text;
    uint32_t id = 0;
    int line = 0;  // source line for messages, 0 when none
};

// How a pattern was split: key_len bytes for the automaton, then the
// postfix, then (when has_suffix) the shared suffix of suffix_unit bytes.
struct layout {
    uint32_t key_len = 0;
    uint32_t postfix_len = 0;
    bool has_suffix = false;
};

struct compiled {
    std::vector<uint8_t> file;
    std::vector<layout> layouts;  // one per input pattern, same order
    uint32_t states = 0;          // automaton states placed in the table
    uint32_t trans_words = 0;
    uint32_t hash_slots = 0;
    uint32_t records = 0;
};

// Compiles `patterns`; `prefilter` says which first octets the address
// lookup may scan. False with `error` set when the patterns cannot be
// expressed in the file format.
bool compile(const options& opt, const std::vector<pattern>& patterns,
             const std::array<bool, 256>& prefilter, compiled& out, std::string& error);

// A source rule: a domain pattern, or an IPv4 network (host order, host bits
// cleared) with its prefix length.
struct rule {
    bool is_ipv4 = false;
    std::string text;
    uint32_t network = 0;
    int prefix = 32;
    uint32_t id = 0;
    int line = 0;
};

// Reads the source text: one rule per line, "#" starts a comment. False
// with `error` naming the first bad line.
bool parse_source(std::string_view text, std::vector<rule>& rules, std::string& error);

// The four-byte values that stand for network/prefix in the address lookup
// (see docs/category-file.md for which addresses each covers).
std::vector<uint32_t> ipv4_values(uint32_t network, int prefix);

// Builds the file from parsed rules: address rules become their values
// (most specific first within one value), domain rules stay in source
// order. Notes about rules that match more or less than they say go to
// `warnings`.
bool build(const options& opt, const std::vector<rule>& rules, compiled& out, std::string& error,
           std::vector<std::string>& warnings);

}  // namespace xdbc
