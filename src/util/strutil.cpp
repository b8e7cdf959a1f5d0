#include "util/strutil.h"

#include <cctype>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Makes room for `need` more bytes plus the terminator. Returns false (and
// leaves the buffer as it was) when the size cannot be represented or the
// reallocation fails.
// Sums in 64 bits: a 32-bit size_t (MIPS32, ARM32) would wrap.
bool grow_for(strbuf_t* sb, size_t need) {
    if (need > UINT32_MAX) return false;
    const uint64_t wanted = static_cast<uint64_t>(sb->length) + need + 1;
    if (wanted < sb->capacity) return true;  // an exact fit still grows
    const uint64_t size = static_cast<uint64_t>(sb->length) + need + 256;
    if (size > UINT32_MAX) return false;
    char* data = static_cast<char*>(realloc(sb->data, static_cast<size_t>(size)));
    if (!data) return false;
    sb->data = data;
    sb->capacity = static_cast<uint32_t>(size);
    return true;
}

unsigned char fold(unsigned char c) { return static_cast<unsigned char>(tolower(c)); }

bool bytes_equal(const unsigned char* a, const unsigned char* b, size_t n, bool ignore_case) {
    if (!ignore_case) return memcmp(a, b, n) == 0;
    for (size_t i = 0; i < n; ++i)
        if (fold(a[i]) != fold(b[i])) return false;
    return true;
}

// Value of one hexadecimal digit, or -1.
int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The one saved position of str_tok; shared by every caller.
char* tok_saved = nullptr;

}  // namespace

char* str_dup(const char* s) { return s ? mem_dup(s, strlen(s)) : nullptr; }

char* mem_dup(const void* p, size_t n) {
    if (!p || n == SIZE_MAX) return nullptr;
    char* copy = static_cast<char*>(malloc(n + 1));
    if (!copy) return nullptr;
    memcpy(copy, p, n);
    copy[n] = '\0';
    return copy;
}

int str_cmp_safe(const char* a, const char* b) {
    if (!a || !b) return a == b ? 0 : 1;
    return strcmp(a, b);
}

int str_cmp_nocase(const char* a, const char* b) {
    if (!a || !b) return a == b ? 0 : 1;
    return strcasecmp(a, b);
}

int str_is_digits(const char* s) {
    if (!s) return 0;
    for (; *s; ++s)
        if (!is_digit_char(static_cast<unsigned char>(*s))) return 0;
    return 1;
}

int is_digit_char(int c) { return c >= '0' && c <= '9'; }

void strbuf_append(strbuf_t* sb, const void* p, size_t n) {
    if (!sb || !p || n == 0 || !grow_for(sb, n)) return;
    memcpy(sb->data + sb->length, p, n);
    sb->length += static_cast<uint32_t>(n);
    sb->data[sb->length] = '\0';
}

void strbuf_append_strs(strbuf_t* sb, const char* s, ...) {
    va_list ap;
    va_start(ap, s);
    for (const char* piece = s; piece; piece = va_arg(ap, const char*))
        strbuf_append(sb, piece, strlen(piece));
    va_end(ap);
}

// Grows by a fixed 256 bytes over the current capacity, unlike the other
// appenders; a byte-at-a-time writer thus reallocates once per 256 bytes.
char* strbuf_putc(strbuf_t* sb, char c) {
    if (!sb) return nullptr;
    if (sb->capacity < static_cast<uint64_t>(sb->length) + 2) {
        if (sb->capacity > UINT32_MAX - 256) return sb->data;
        char* data = static_cast<char*>(realloc(sb->data, sb->capacity + 256u));
        if (!data) return sb->data;
        sb->data = data;
        sb->capacity += 256;
    }
    sb->data[sb->length++] = c;
    sb->data[sb->length] = '\0';
    return sb->data;
}

void strbuf_printf(strbuf_t* sb, const char* fmt, ...) {
    if (!sb || !fmt) return;
    va_list ap;
    va_start(ap, fmt);
    char* text = nullptr;
    int rc = vasprintf(&text, fmt, ap);
    va_end(ap);
    if (rc < 0) return;  // text is unspecified then
    // Measured as a string: a formatted zero byte ends the piece.
    strbuf_append(sb, text, strlen(text));
    free(text);
}

char* strbuf_detach(strbuf_t* sb, uint32_t* length_out) {
    if (!sb) {
        if (length_out) *length_out = 0;
        return nullptr;
    }
    char* data = sb->data;
    if (length_out) *length_out = sb->length;
    *sb = strbuf_t{};
    return data;
}

int str_to_int(const char* s) {
    if (!s) return 0;
    while (*s == ' ' || *s == '\t') ++s;
    bool negative = false;
    if (*s == '+' || *s == '-') negative = *s++ == '-';
    long long value = 0;
    for (; is_digit_char(static_cast<unsigned char>(*s)); ++s) {
        value = value * 10 + (*s - '0');
        if (value > static_cast<long long>(INT_MAX) + 1) break;  // saturates below
    }
    if (negative) value = -value;
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

void int_to_str(int value, char* buf, size_t size) {
    if (!buf || size == 0) return;
    memset(buf, 0, size);
    if (value < 0) return;
    char digits[16];
    int n = snprintf(digits, sizeof digits, "%d", value);
    size_t keep = static_cast<size_t>(n) < size - 1 ? static_cast<size_t>(n) : size - 1;
    memcpy(buf, digits, keep);
}

size_t str_span(const char* s, const char* set) {
    if (!s || !set || !*s || !*set) return 0;
    return strspn(s, set);
}

char* str_pbrk(const char* s, const char* set) {
    if (!s || !set) return nullptr;
    return const_cast<char*>(strpbrk(s, set));
}

char* str_tok(char* s, const char* delim) { return str_tok_r(s, delim, &tok_saved); }

char* str_tok_r(char* s, const char* delim, char** save) {
    if (!save) return nullptr;
    if (!delim) delim = "";
    char* p = s ? s : *save;
    if (!p) return nullptr;
    p += strspn(p, delim);
    if (!*p) {
        *save = p;
        return nullptr;
    }
    char* end = p + strcspn(p, delim);
    if (*end) {
        *end = '\0';
        *save = end + 1;
    } else {
        *save = end;
    }
    return p;
}

const char* str_nth_str(const char* haystack, const char* needle, int n) {
    if (!haystack || !needle) return nullptr;
    if (n < 1) return haystack;
    const char* hit = strstr(haystack, needle);
    for (int i = 1; hit && i < n; ++i) hit = *hit ? strstr(hit + 1, needle) : nullptr;
    return hit;
}

// All searches treat an empty pattern as matching nothing.
const void* mem_find(const void* range, size_t range_len, const void* pat, size_t pat_len) {
    if (!range || !pat || pat_len == 0) return nullptr;
    return memmem(range, range_len, pat, pat_len);
}

const void* mem_rfind(const void* range, size_t range_len, const void* pat, size_t pat_len) {
    if (!range || !pat || pat_len == 0 || pat_len > range_len) return nullptr;
    const unsigned char* base = static_cast<const unsigned char*>(range);
    for (size_t at = range_len - pat_len + 1; at-- > 0;)
        if (memcmp(base + at, pat, pat_len) == 0) return base + at;
    return nullptr;
}

const void* mem_find_nocase(const void* range, size_t range_len, const void* pat, size_t pat_len) {
    size_t matched = 0;
    const void* hit = mem_find_partial(range, pat, range_len, pat_len, &matched, 1);
    return matched == pat_len ? hit : nullptr;
}

const char* str_find_nocase(const char* s, const char* pat) {
    if (!s || !pat) return nullptr;
    return static_cast<const char*>(mem_find_nocase(s, strlen(s), pat, strlen(pat)));
}

const void* mem_find_partial(const void* range, const void* pat, size_t range_len, size_t pat_len,
                             size_t* matched_len, int ignore_case) {
    if (matched_len) *matched_len = 0;
    if (!range || !pat || pat_len == 0) return nullptr;
    const unsigned char* base = static_cast<const unsigned char*>(range);
    const unsigned char* want = static_cast<const unsigned char*>(pat);
    // Positions are tried in order, so a full match always beats the
    // shorter tail matches that only the last pat_len - 1 positions allow.
    for (size_t at = 0; at < range_len; ++at) {
        size_t n = range_len - at < pat_len ? range_len - at : pat_len;
        if (bytes_equal(base + at, want, n, ignore_case != 0)) {
            if (matched_len) *matched_len = n;
            return base + at;
        }
    }
    return nullptr;
}

const char* str_rchr(const char* s, int c) {
    if (!s) return nullptr;
    const char* hit = strrchr(s, c);
    return hit ? hit : s;
}

char* str_trim(char* s) {
    if (!s) return nullptr;
    size_t start = 0;
    while (s[start] && isspace(static_cast<unsigned char>(s[start]))) ++start;
    size_t len = strlen(s + start);
    while (len > 0 && isspace(static_cast<unsigned char>(s[start + len - 1]))) --len;
    memmove(s, s + start, len);
    s[len] = '\0';
    return s;
}

// A ':' is accepted only between two complete pairs.
int hex_decode(const char* text, unsigned char** out) {
    if (!out) return -1;
    *out = nullptr;
    if (!text) return -1;
    size_t len = strlen(text);
    unsigned char* bytes = static_cast<unsigned char*>(calloc(len / 2 + 1, 1));
    if (!bytes) return -1;
    size_t count = 0;
    for (size_t i = 0; i < len;) {
        if (count > 0 && text[i] == ':' && i + 1 < len) ++i;
        int hi = hex_value(text[i]);
        int lo = i + 1 < len ? hex_value(text[i + 1]) : -1;
        if (hi < 0 || lo < 0) {
            free(bytes);
            return -1;
        }
        bytes[count++] = static_cast<unsigned char>(hi << 4 | lo);
        i += 2;
    }
    *out = bytes;
    return static_cast<int>(count);
}

int hex_encode(const void* data, size_t n, int colons, char** out) {
    if (!out) return -1;
    *out = nullptr;
    if (!data || n == 0 || n > INT_MAX / 3) return -1;
    static const char digits[] = "0123456789ABCDEF";
    size_t step = colons ? 3 : 2;
    char* text = static_cast<char*>(malloc(n * step + 1));
    if (!text) return -1;
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < n; ++i) {
        text[i * step] = digits[bytes[i] >> 4];
        text[i * step + 1] = digits[bytes[i] & 15];
        if (colons) text[i * step + 2] = ':';
    }
    size_t length = colons ? n * step - 1 : n * step;  // the last ':' becomes the end
    text[length] = '\0';
    *out = text;
    return static_cast<int>(length);
}

// Non-hex characters count as 0.
int hex_byte(const char* two_digits) {
    if (!two_digits || !two_digits[0]) return 0;
    int hi = hex_value(two_digits[0]);
    int lo = hex_value(two_digits[1]);
    return (hi < 0 ? 0 : hi) << 4 | (lo < 0 ? 0 : lo);
}

void mem_tolower(void* p, size_t n) {
    if (!p) return;
    unsigned char* bytes = static_cast<unsigned char*>(p);
    for (size_t i = 0; i < n; ++i) bytes[i] = fold(bytes[i]);
}

int str_has_char(const char* s, int c) { return str_find_char(s, c, 0) != nullptr; }

const char* str_find_char(const char* s, int c, int from_end) {
    if (!s || c == '\0') return nullptr;
    return from_end ? strrchr(s, c) : strchr(s, c);
}
