// Category file layout: the one description of the bytes the compiler
// (tools/xdbc) writes and the loader (xdb.cpp) and matcher (xac.cpp) read.
// Constants and pure inline functions only, usable from any thread.
//
// Every integer in the file is big-endian; xdb_be16/xdb_be32 read one,
// xdb_put_be16/xdb_put_be32 write one. The word functions below take words
// already in host order (the loader converts the tables once).
//
// A file is an xac block (block header, xac header, tables) followed by an
// IPv4 prefilter block (block header, bitmap). docs/category-file.md
// describes the same layout in prose.
#pragma once

#include <cstddef>
#include <cstdint>

// ---- big-endian integers ----

inline uint16_t xdb_be16(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
inline uint32_t xdb_be32(const uint8_t* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}
inline void xdb_put_be16(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}
inline void xdb_put_be32(uint8_t* p, uint32_t v) {
    xdb_put_be16(p, v >> 16);
    xdb_put_be16(p + 2, v);
}

// ---- block header: byte 0 the type, bytes 4-7 the payload size ----

inline constexpr size_t XDB_BLOCK_HEADER_SIZE = 12;
inline constexpr size_t XDB_BLOCK_TYPE_AT = 0;
inline constexpr size_t XDB_BLOCK_SIZE_AT = 4;
inline constexpr uint8_t XDB_BLOCK_XAC = 1;
inline constexpr uint8_t XDB_BLOCK_PREFILTER = 2;

// ---- IPv4 prefilter: one bit per first octet, high bit first ----

// Prefilter bytes the matcher uses (a block may carry more; they are skipped).
inline constexpr size_t XDB_PREFILTER_BYTES = 32;
inline constexpr size_t xdb_prefilter_byte(uint8_t octet) { return octet >> 3; }
inline constexpr uint8_t xdb_prefilter_bit(uint8_t octet) { return static_cast<uint8_t>(0x80 >> (octet & 7)); }
// True when addresses starting with `octet` may match; `bitmap` holds
// XDB_PREFILTER_BYTES bytes.
inline bool xdb_prefilter_has(const uint8_t* bitmap, uint8_t octet) {
    return (bitmap[xdb_prefilter_byte(octet)] & xdb_prefilter_bit(octet)) != 0;
}

// ---- xac header: offsets of the fields read, from the header's start ----

inline constexpr size_t XAC_HEADER_SIZE = 576;
inline constexpr size_t XAC_MAGIC_AT = 0;            // 16 bits
inline constexpr size_t XAC_FLAGS_A_AT = 4;          // 8 bits
inline constexpr size_t XAC_FLAGS_B_AT = 5;          // 8 bits
inline constexpr size_t XAC_SYMBOLS_AT = 16;         // 256 x 16 bits
inline constexpr size_t XAC_CHECK_MASK_AT = 528;     // 32 bits from here on
inline constexpr size_t XAC_STATE_SHIFT_AT = 532;
inline constexpr size_t XAC_TRANS_COUNT_AT = 552;    // T
inline constexpr size_t XAC_HASH_SLOTS_AT = 556;     // H
inline constexpr size_t XAC_HASH_MODULUS_AT = 560;
inline constexpr size_t XAC_PATTERN_COUNT_AT = 564;  // N: the table holds N + 1 records
inline constexpr size_t XAC_SUFFIX_SIZE_AT = 568;    // S bytes
inline constexpr size_t XAC_POSTFIX_SIZE_AT = 572;   // P bytes

inline constexpr uint16_t XAC_MAGIC = 0xE807;
inline constexpr uint32_t XAC_STATE_SHIFT_BITS = 31;  // only the low 5 bits count

// Flag byte A.
inline constexpr uint8_t XAC_A_4X = 0x40;        // refused by the loader
inline constexpr uint8_t XAC_A_ANCHORED = 0x20;  // keys match only at the start of the text
inline constexpr uint8_t XAC_A_TABLES = 0x1C;    // pattern, postfix and suffix tables present
inline constexpr uint8_t XAC_A_UNIT_HIGH = 0x03;  // the two high bits of the suffix unit
// Flag byte B.
inline constexpr uint8_t XAC_B_UNIT_LOW = 0x80;  // the low bit of the suffix unit
inline constexpr uint8_t XAC_B_S2 = 0x04;        // refused
inline constexpr uint8_t XAC_B_CATEGORY = 0x02;  // refused

// The suffix unit (0..7 bytes) the two flag bytes carry, and the flag bits
// that carry a given unit.
inline constexpr uint32_t xac_suffix_unit(uint8_t flags_a, uint8_t flags_b) {
    return static_cast<uint32_t>((flags_a & XAC_A_UNIT_HIGH) << 1 | flags_b >> 7);
}
inline constexpr uint8_t xac_unit_flags_a(uint32_t unit) { return static_cast<uint8_t>(unit >> 1 & XAC_A_UNIT_HIGH); }
inline constexpr uint8_t xac_unit_flags_b(uint32_t unit) { return static_cast<uint8_t>((unit & 1) << 7); }

// ---- transition words ----
// The word for state s and symbol c is at index s + c and is read as
// x = word ^ c; it is a transition when (x & check mask) == 0. The word at
// index s itself is the failure link of s under the same test.

inline constexpr uint32_t XAC_TRANS_OUTPUT = 0x80000000u;  // the transition reports outputs
inline constexpr uint32_t XAC_TRANS_DOWN = 0x40000000u;    // so do states down its failure chain
inline constexpr uint32_t XAC_TRANS_TARGET = 0x3FFFFFFFu;  // target << shift | check bits

// The target of x: a state when below T, else a leaf whose first pattern
// record is target - T.
inline constexpr uint32_t xac_trans_target(uint32_t x, uint32_t shift) { return (x & XAC_TRANS_TARGET) >> shift; }
inline constexpr uint32_t xac_trans_word(uint32_t flags, uint32_t target, uint32_t shift, uint32_t check) {
    return flags | target << shift | check;
}

// ---- output hash: (transition index, first record) word pairs ----
// A search for key i starts at its home slot and moves up without wrapping;
// the first slot holding i is the answer.

inline constexpr uint32_t XAC_HASH_EMPTY = 0xFFFFFFFFu;  // a slot no transition index matches
inline constexpr uint32_t xac_hash_home(uint32_t key, uint32_t modulus) {
    return static_cast<uint32_t>(key * 107u) % modulus;
}

// ---- pattern records: two words each ----
// w0: bit 31 chain (the next record belongs to the same output), bits 27-29
//     the automaton key length, bits 20-26 the suffix index (0 = none),
//     bits 0-19 the category id.
// w1: bits 24-31 the postfix length, bits 0-23 its offset in the postfix
//     table.

inline constexpr uint32_t XAC_REC_CHAIN = 0x80000000u;
inline constexpr uint32_t XAC_REC_SUFFIX_BITS = 0x07F00000u;
inline constexpr uint32_t XAC_REC_MAX_KEY = 7;
inline constexpr uint32_t XAC_REC_MAX_SUFFIX = 127;
inline constexpr uint32_t XAC_REC_MAX_ID = 0xFFFFF;
inline constexpr uint32_t XAC_REC_MAX_POSTFIX = 255;
inline constexpr uint32_t XAC_POSTFIX_TABLE_LIMIT = 1u << 24;  // offsets fit 24 bits

inline constexpr bool xac_rec_chained(uint32_t w0) { return (w0 & XAC_REC_CHAIN) != 0; }
inline constexpr uint32_t xac_rec_key_len(uint32_t w0) { return w0 >> 27 & XAC_REC_MAX_KEY; }
inline constexpr uint32_t xac_rec_suffix(uint32_t w0) { return (w0 >> 20) & XAC_REC_MAX_SUFFIX; }
inline constexpr uint32_t xac_rec_id(uint32_t w0) { return w0 & XAC_REC_MAX_ID; }
inline constexpr uint32_t xac_rec_postfix_len(uint32_t w1) { return w1 >> 24; }
inline constexpr uint32_t xac_rec_postfix_at(uint32_t w1) { return w1 & (XAC_POSTFIX_TABLE_LIMIT - 1); }

// The words of a record; every field must be within its maximum.
inline constexpr uint32_t xac_rec_word0(bool chained, uint32_t key_len, uint32_t suffix, uint32_t id) {
    return (chained ? XAC_REC_CHAIN : 0) | key_len << 27 | suffix << 20 | id;
}
inline constexpr uint32_t xac_rec_word1(uint32_t postfix_len, uint32_t postfix_at) {
    return postfix_len << 24 | postfix_at;
}
