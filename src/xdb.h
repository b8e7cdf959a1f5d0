// Category file: the compiled automaton of domain patterns with its IPv4
// prefix filter, loaded once at start-up and read without locks afterwards.
#pragma once

#include <cstddef>
#include <cstdint>

// Called for an accepted match: (text, text length, 20-bit category id,
// match end, match length, 0, argument). Its result is ignored by the
// domain and address lookups, which stop at the first accepted match.
using xac_match_fn = int (*)(const char* text, int len, uint32_t id, uint32_t end, int match_len,
                             int zero, void* arg);

// Loads `path` as the process-wide category file. Returns 0, or -1 after the
// loader's messages on standard error.
[[nodiscard]] int xdb_init(const char* path);
// Frees the process-wide category file. Safe twice.
void xdb_release();

// 1 when a match was accepted (the handler has run), else 0; 0 when no file
// is loaded.
unsigned xdb_match_domain(const char* name, size_t len, xac_match_fn handler, void* arg);
int xdb_match_ipv4(const char* text, xac_match_fn handler, void* arg);
