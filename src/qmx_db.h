// Verdict cache: what the cloud said about each key (a domain name or an
// address text with its key type), aged out by a cleaner thread. All calls
// are thread-safe; entries handed out carry a reference that the caller
// returns with db_put().
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "util/hash.h"

struct verdict_entry;

// Starts the cache and its cleaner when stopped. Returns 0.
int db_init();
// Stops and joins the cleaner, frees every entry. Safe twice and before init.
void db_release();
// Runs the cleaner at once.
void db_wake();

// Finds the entry for (type, key) and takes a reference; touches seen_time.
// Null when the key is unknown.
verdict_entry* db_find(uint32_t type, const char* key);
// Finds or inserts the entry for (type, key), taking a reference that is kept
// when keep_ref is non-zero. Null for a null key or on allocation failure.
verdict_entry* db_get_or_add(uint32_t type, const char* key, int keep_ref);
// Returns the reference taken by db_find or db_get_or_add. Null-safe.
void db_put(verdict_entry* entry);
// Bit 1 of the entry's flags (1 or 0).
int db_flag_bit1(const verdict_entry* entry);
// 1 when a cloud query is due for the entry (and marks it queried), else 0.
int db_should_query(verdict_entry* entry);
// Stores a deciphered cloud reply. Returns 40 when the cache is stopped, 5
// for empty input, 3 for text that is not JSON, 0 otherwise.
int db_add_reply(const char* text);
// The listing of every entry, or nullopt when there is none.
std::optional<std::string> db_show();
