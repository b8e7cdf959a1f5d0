// INI reader: loads a configuration file into sections of key/value pairs.
// Sections and their keys live on locked lists (util/list.h), newest first:
// every new section or key is pushed at the head, so the last new name of the
// file comes first. Names are compared case-sensitively; the unnamed section
// (keys before the first header) has a null name.
//
// An ini_t belongs to one thread at a time: the lists lock their own edits,
// but lookups and dumps walk them without a lock. The parser is reentrant
// (all scratch space is on the caller's stack).
//
// Parser bounds: a physical line is read into a 1024-byte buffer (longer
// lines arrive in pieces, each counted as a line); a line ending in '\' is
// joined with the next one without the backslash; trimmed lines, keys and
// values fit 1025-byte work buffers. Only '#' starts a comment. Values are
// literal. Parse problems are reported on standard error:
//   "iniparser: syntax error in %s (%d):\n" "-> %s\n" "iniparser: failure at line %d\n"
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "util/list.h"

// Owns a list_t whose node data are T objects allocated with new.
template <class T>
struct ini_list_deleter {
    void operator()(list_t* list) const {
        list_clear(list, [](void* p) { delete static_cast<T*>(p); });
        list_free(list);
    }
};
template <class T>
using ini_list = std::unique_ptr<list_t, ini_list_deleter<T>>;

struct ini_key_t {
    std::string key;
    std::optional<std::string> value;  // nullopt only when ini_set was given null
};

struct ini_section_t {
    std::optional<std::string> name;  // nullopt: the unnamed section
    ini_list<ini_key_t> keys;         // newest first, one record per key
};

// Closes a stream the reader opened itself; standard input is left open.
struct ini_file_closer {
    void operator()(FILE* fp) const {
        if (fp && fp != stdin) fclose(fp);
    }
};

struct ini_t {
    ini_list<ini_section_t> sections;  // newest first; the unnamed one always present
    int32_t dirty = 0;                 // set by ini_set
    std::optional<std::string> path;   // nullopt when reading standard input
    std::string run_name;              // "/run/" + path with every '/' turned into '-'
    std::unique_ptr<FILE, ini_file_closer> fp;
};

// Opens `path` with mode "r" (standard input when null) and parses it.
// Returns the loaded file, or null on any failure (after the parser's
// messages). Free with ini_free.
[[nodiscard]] ini_t* ini_load(const char* path);
// As ini_load; mode 'r' opens with "r", 'w' with "r+" (for later saving),
// any other mode fails.
[[nodiscard]] ini_t* ini_open(const char* path, char mode);
// Closes the stream (unless it is standard input) and frees everything.
// Null-safe.
void ini_free(ini_t* ini);

struct ini_deleter {
    void operator()(ini_t* ini) const { ini_free(ini); }
};
using ini_ptr = std::unique_ptr<ini_t, ini_deleter>;

// Lookups in `section` (null: the unnamed section). Each returns `def` when
// ini or key is null, or when nothing matches.
// The stored value itself (not a copy); valid until the key changes.
const char* ini_get_string(const ini_t* ini, const char* section, const char* key, const char* def);
// strtol of the value with base 0 (0x10 is 16, 010 is 8).
long ini_get_int(const ini_t* ini, const char* section, const char* key, long def);
// First character upper-cased: 'Y', '1', 'T' give 1; 'N', '0', 'F' give 0;
// anything else gives `def`.
int ini_get_bool(const ini_t* ini, const char* section, const char* key, int def);

// The same with one "section:key" string split at its first ':'. A leading
// ':' names the unnamed section; no ':' or nothing after it gives `def`.
const char* ini_lookup_string(const ini_t* ini, const char* section_key, const char* def);
long ini_lookup_int(const ini_t* ini, const char* section_key, long def);
int ini_lookup_bool(const ini_t* ini, const char* section_key, int def);

// Adds or replaces `key` in `section` (created when missing) and marks the
// file dirty. Returns 0 on success; 1 for a null key or a failed allocation.
[[nodiscard]] int ini_set(ini_t* ini, const char* section, const char* key, const char* value);

// "[%s]\n" (not for the unnamed section), then "%-30s = %s\n" per key,
// newest first. Nothing when the section does not exist.
void ini_dump_section(const ini_t* ini, FILE* out, const char* section);
// Every section in list order.
void ini_dump(const ini_t* ini, FILE* out);
// Without a key: every named section's name ("%s\n"). With a key: the names
// of the named sections where that key holds exactly `value`.
void ini_print_sections(const ini_t* ini, FILE* out, const char* key, const char* value);
// The value of `key` ("%s\n") in each named section that has it.
void ini_print_values(const ini_t* ini, FILE* out, const char* key);
