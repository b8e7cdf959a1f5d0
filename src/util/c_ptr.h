// Owning pointers for what C libraries hand out: blocks from malloc and
// friends (released with free), cJSON trees (cJSON_Delete) and the texts
// cJSON prints (cJSON_free), and stdio streams (fclose). Header only; a
// pointer belongs to whoever holds it, like any unique_ptr, and null is
// never passed to the release function.
#pragma once

#include <cjson/cJSON.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

struct free_deleter {
    void operator()(void* p) const { std::free(p); }
};
// A block from malloc, calloc, realloc, strdup or a function documented to
// return one (str_dup, strbuf_detach, ...).
template <typename T>
using malloc_ptr = std::unique_ptr<T, free_deleter>;

struct json_deleter {
    void operator()(cJSON* j) const { cJSON_Delete(j); }
};
// A whole cJSON tree: a parse result or a built object. Items linked into
// another tree belong to that tree and are never held here.
using json_ptr = std::unique_ptr<cJSON, json_deleter>;

struct json_text_deleter {
    void operator()(char* p) const { cJSON_free(p); }
};
// The text of cJSON_Print or cJSON_PrintUnformatted.
using json_text = std::unique_ptr<char, json_text_deleter>;

struct file_closer {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
// A stream this code opened (fopen, fdopen); never stdin, stdout or stderr.
using file_ptr = std::unique_ptr<std::FILE, file_closer>;
