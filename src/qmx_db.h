// Verdict cache: what the cloud said about each key (a domain name or an
// address text with its key type), aged out by a cleaner thread. All calls
// are thread-safe; entries handed out carry a reference that the caller
// returns with db_put(). An entry with a reference is never aged out.
//
// Entries live in a 512-bucket table hashed by their key text. Every mutable
// field of an entry is covered by the lock of its bucket; the accessors below
// take it. The cleaner runs every 5 s (or at once after db_wake) under the
// cache mutex, visiting 200 buckets a pass and removing idle entries, harder
// as the cache fills towards qmxsrv_ctx.db_capacity.
//
// Threads: the event worker (find, add, should-query, put), the query sender
// and the IPC thread (db_add_reply, db_show), the cleaner, and the main thread
// (init, release). db_release runs only after every user has stopped.
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
// Null when the key is unknown or the cache is stopped.
[[nodiscard]] verdict_entry* db_find(uint32_t type, const char* key);
// Finds or inserts the entry for (type, key), taking a reference that is kept
// when keep_ref is non-zero. Null for a null key, a stopped cache, on
// allocation failure, or for a new key while the cache holds 8 times its
// capacity (qmxsrv_ctx.db_capacity). With keep_ref 0 the result only tells that the entry
// existed or was made: the cleaner may free it at any moment.
verdict_entry* db_get_or_add(uint32_t type, const char* key, int keep_ref);
// Returns the reference taken by db_find or db_get_or_add. Null-safe.
void db_put(verdict_entry* entry);
// Bit 1 of the entry's flags (1 or 0).
int db_flag_bit1(const verdict_entry* entry);
// 1 when a cloud query is due for the entry (and marks it queried: flags
// become exactly 1, query_time now), else 0.
int db_should_query(verdict_entry* entry);
// Stores a deciphered cloud reply ({"r":{"<key>":[type,v,x,ttl_hours,group,
// sub_group],...}}) into the entries that already exist, and writes each
// stored verdict to the kernel. Returns 40 when the cache is stopped, 5 for
// empty input, 3 for text that is not JSON, 0 otherwise.
int db_add_reply(const char* text);
// The listing of every entry ("[<type>]<key>\n" each), or nullopt when there
// is none.
std::optional<std::string> db_show();

// The stored verdict of a referenced entry, read under its bucket lock.
struct db_verdict {
    int32_t ttl = 0;  // seconds
    int32_t group = 0;
    int32_t sub_group = 0;
};
db_verdict db_entry_verdict(const verdict_entry* entry);

// Number of entries (unlocked sum of the bucket counts).
uint32_t db_count();

// Every operation that stamps or ages an entry reads util/clock.h; the
// cleaner's period is zor_timing::cache_clean (util/timing.h), taken at init.
// Runs one cleaner pass (200 buckets from the persistent cursor) on the
// calling thread, under the cache mutex like the cleaner's own passes.
void db_clean_pass();
