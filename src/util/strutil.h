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

[[nodiscard]] char* str_dup(const char* s);
[[nodiscard]] char* mem_dup(const void* p, size_t n);
int str_cmp_safe(const char* a, const char* b);
int str_cmp_nocase(const char* a, const char* b);
int str_is_digits(const char* s);
int is_digit_char(int c);

void strbuf_append(strbuf_t* sb, const void* p, size_t n);
// The argument list ends with a null pointer.
void strbuf_append_strs(strbuf_t* sb, const char* s, ...) __attribute__((sentinel));
char* strbuf_putc(strbuf_t* sb, char c);
void strbuf_printf(strbuf_t* sb, const char* fmt, ...) ZOR_PRINTF(2, 3);
// Hands the data block to the caller (who frees it) and zeroes the buffer.
[[nodiscard]] char* strbuf_detach(strbuf_t* sb, uint32_t* length_out);

// Library helpers the service itself does not call.
int str_to_int(const char* s);
void int_to_str(int value, char* buf, size_t size);
size_t str_span(const char* s, const char* set);
char* str_pbrk(const char* s, const char* set);
char* str_tok(char* s, const char* delim);
char* str_tok_r(char* s, const char* delim, char** save);
const char* str_nth_str(const char* haystack, const char* needle, int n);
const void* mem_find(const void* range, size_t range_len, const void* pat, size_t pat_len);
const void* mem_rfind(const void* range, size_t range_len, const void* pat, size_t pat_len);
const void* mem_find_nocase(const void* range, size_t range_len, const void* pat, size_t pat_len);
const char* str_find_nocase(const char* s, const char* pat);
const void* mem_find_partial(const void* range, const void* pat, size_t range_len, size_t pat_len,
                             size_t* matched_len, int ignore_case);
const char* str_rchr(const char* s, int c);
char* str_trim(char* s);
int hex_decode(const char* text, unsigned char** out);
int hex_encode(const void* data, size_t n, int colons, char** out);
int hex_byte(const char* two_digits);
void mem_tolower(void* p, size_t n);
int str_has_char(const char* s, int c);
const char* str_find_char(const char* s, int c, int from_end);
