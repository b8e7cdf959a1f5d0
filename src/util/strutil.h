// Text helpers and the growing text buffer strbuf_t. Allocations use
// malloc/realloc: results are released with free().
#pragma once

#include <cstddef>
#include <cstdint>

#include "log.h"  // ZOR_PRINTF

// Growing byte buffer, zero-initialised before first use. After every append
// `data` holds `length` bytes and a zero byte. A failed growth keeps the old
// contents and drops the piece.
struct strbuf_t {
    uint32_t capacity;
    uint32_t length;
    char* data;
};

// Heap copy with terminator; null for null input or failed allocation.
[[nodiscard]] char* str_dup(const char* s);
// n bytes of p plus a zero byte (n may be 0); null for null p or failure.
[[nodiscard]] char* mem_dup(const void* p, size_t n);
// 0 when both are null, 1 when exactly one is, else strcmp's result.
int str_cmp_safe(const char* a, const char* b);
// As str_cmp_safe, ignoring ASCII case.
int str_cmp_nocase(const char* a, const char* b);
// 1 when every character is a decimal digit (also for ""), else 0; 0 for null.
int str_is_digits(const char* s);
int is_digit_char(int c);

// Appends n bytes; nothing when p is null or n is 0. Grows to
// length + n + 256 whenever length + n + 1 >= capacity.
void strbuf_append(strbuf_t* sb, const void* p, size_t n);
// The argument list ends with a null pointer.
void strbuf_append_strs(strbuf_t* sb, const char* s, ...) __attribute__((sentinel));
// Appends one byte (growing by capacity + 256 when full); returns data.
char* strbuf_putc(strbuf_t* sb, char c);
// Appends the formatted text up to its first zero byte.
void strbuf_printf(strbuf_t* sb, const char* fmt, ...) ZOR_PRINTF(2, 3);
// Hands the data block to the caller (who frees it) and zeroes the buffer.
[[nodiscard]] char* strbuf_detach(strbuf_t* sb, uint32_t* length_out);

// Library helpers the service itself does not call. All are null-safe; the
// searches treat an empty pattern as matching nothing.

// Skips spaces and tabs, takes an optional sign and decimal digits; 0 when
// there are none; saturates at INT_MIN/INT_MAX.
int str_to_int(const char* s);
// Clears buf; writes 0 or a positive value with at most size - 1 (leading)
// digits; a negative value leaves buf empty.
void int_to_str(int value, char* buf, size_t size);
// strspn, but 0 when either string is empty.
size_t str_span(const char* s, const char* set);
char* str_pbrk(const char* s, const char* set);
// strtok: one saved position shared by every caller, so it is NOT
// thread-safe; threads use str_tok_r.
char* str_tok(char* s, const char* delim);
// strtok_r: the position is kept in *save.
char* str_tok_r(char* s, const char* delim, char** save);
// n-th (from 1) occurrence of needle, overlapping hits counted; n < 1 gives
// haystack.
const char* str_nth_str(const char* haystack, const char* needle, int n);
const void* mem_find(const void* range, size_t range_len, const void* pat, size_t pat_len);
// Last occurrence.
const void* mem_rfind(const void* range, size_t range_len, const void* pat, size_t pat_len);
// First occurrence ignoring ASCII case.
const void* mem_find_nocase(const void* range, size_t range_len, const void* pat, size_t pat_len);
const char* str_find_nocase(const char* s, const char* pat);
// First occurrence of pat; when there is none, the first tail of the range
// that matches the start of pat. *matched_len (optional) gets the number of
// bytes matched (0 when nothing matched).
const void* mem_find_partial(const void* range, const void* pat, size_t range_len, size_t pat_len,
                             size_t* matched_len, int ignore_case);
// Last occurrence of c, or s itself when c is absent.
const char* str_rchr(const char* s, int c);
// Removes leading and trailing white space in place; returns s.
char* str_trim(char* s);
// Hex pairs (either case, ':' allowed between pairs) into a new block of
// strlen / 2 + 1 bytes stored in *out (freed with free()). Returns the byte
// count, or -1 with *out null on any other character or an odd digit.
int hex_decode(const char* text, unsigned char** out);
// Upper-case hex of n bytes into a new string in *out, "AABB" or with
// colons "AA:BB". Returns its length, or -1 for null data, n = 0 or failure.
int hex_encode(const void* data, size_t n, int colons, char** out);
// Value of two hex digits; no validation (a non-digit counts as 0).
int hex_byte(const char* two_digits);
// ASCII lower-casing of n bytes in place.
void mem_tolower(void* p, size_t n);
// 1 when c (not the terminator) occurs in s, else 0.
int str_has_char(const char* s, int c);
// First (or with from_end the last) occurrence of c, or null.
const char* str_find_char(const char* s, int c, int from_end);
