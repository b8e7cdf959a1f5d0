#include "ini.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "util/strutil.h"

namespace {

constexpr size_t kLineSize = 1024;  // one physical line (fgets buffer)
constexpr size_t kWorkSize = 1025;  // a trimmed line, a section name, a key, a value

const char* name_of(const std::optional<std::string>& s) { return s ? s->c_str() : nullptr; }

std::string_view trim(std::string_view s) {
    while (!s.empty() && isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
    while (!s.empty() && isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
    return s;
}

// Copies at most cap-1 bytes of `s` into `out` (which may hold `s` itself)
// and terminates it.
void copy_bounded(std::string_view s, char* out, size_t cap) {
    size_t n = s.size() < cap ? s.size() : cap - 1;
    memmove(out, s.data(), n);
    out[n] = '\0';
}

// Node data of `list` as T, head first. Unlocked: the ini_t has one owner.
template <class T, class Fn>
T* find_in(const list_t* list, Fn match) {
    if (!list) return nullptr;
    for (list_node_t* n = list_first(list); n; n = n->next) {
        auto* item = static_cast<T*>(n->data);
        if (match(*item)) return item;
    }
    return nullptr;
}

template <class T, class Fn>
void for_each_in(const list_t* list, Fn fn) {
    find_in<T>(list, [&](T& item) {
        fn(item);
        return false;
    });
}

ini_section_t* find_section(const ini_t* ini, const char* name) {
    return find_in<ini_section_t>(ini->sections.get(), [name](const ini_section_t& s) {
        return str_cmp_safe(name_of(s.name), name) == 0;
    });
}

ini_key_t* find_key(const ini_section_t* section, const char* key) {
    return find_in<ini_key_t>(section->keys.get(),
                              [key](const ini_key_t& k) { return k.key == key; });
}

// Takes ownership of `item` and pushes it at the head of `list`.
template <class T>
bool push_owned(list_t* list, T* item) {
    if (!item) return false;
    list_node_t* node = list_node_new(item);
    if (!node) {
        delete item;
        return false;
    }
    list_push_front(list, node);
    return true;
}

// A new section with an empty key list at the head of the file's sections.
ini_section_t* push_section(ini_t* ini, const char* name) {
    auto* s = new (std::nothrow) ini_section_t;
    if (!s) return nullptr;
    s->keys.reset(list_create());
    if (!s->keys) {
        delete s;
        return nullptr;
    }
    if (name) s->name = name;
    return push_owned(ini->sections.get(), s) ? s : nullptr;
}

// Adds or replaces: one record per key in each section.
bool add_or_replace(ini_t* ini, const char* section, const char* key, const char* value) {
    ini_section_t* s = find_section(ini, section);
    if (!s && !(s = push_section(ini, section))) return false;
    if (ini_key_t* k = find_key(s, key)) {
        k->value = value ? std::optional<std::string>(value) : std::nullopt;
        return true;
    }
    auto* k = new (std::nothrow) ini_key_t;
    if (!k) return false;
    k->key = key;
    if (value) k->value = value;
    return push_owned(s->keys.get(), k);
}

// A repeated header drops the keys given under the earlier one; the section
// gets a fresh list so the keys that follow are kept.
bool open_section(ini_t* ini, const char* name) {
    ini_section_t* s = find_section(ini, name);
    if (!s) return push_section(ini, name) != nullptr;
    s->keys.reset(list_create());
    return s->keys != nullptr;
}

struct parse_state {
    ini_t* ini;
    int line_no = 0;
    char section[kWorkSize] = {};  // empty: the unnamed section
};

const char* current_section(const parse_state& st) { return st.section[0] ? st.section : nullptr; }

bool add_failed(const parse_state& st) {
    fprintf(stderr, "iniparser: failure at line %d\n", st.line_no);
    return false;
}

// One complete logical line: `line` as read (trailing space stripped),
// `work` the same trimmed at both ends.
bool parse_line(parse_state& st, const char* line, const char* work) {
    size_t len = strlen(work);
    if (len == 0 || work[0] == '#') return true;

    if (len >= 2 && work[0] == '[' && work[len - 1] == ']') {
        copy_bounded(trim(std::string_view(work + 1, len - 2)), st.section, sizeof st.section);
        return open_section(st.ini, current_section(st)) || add_failed(st);
    }

    char key[kWorkSize];
    char value[kWorkSize];
    if (sscanf(work, "%1024[^=] = %1024[^\n]", key, value) == 2) {
        copy_bounded(trim(key), key, sizeof key);
        copy_bounded(trim(value), value, sizeof value);
        return add_or_replace(st.ini, current_section(st), key, value) || add_failed(st);
    }
    if (sscanf(work, "%1024[^=] =", key) == 1 && strchr(work, '=')) {
        copy_bounded(trim(key), key, sizeof key);
        return add_or_replace(st.ini, current_section(st), key, "") || add_failed(st);
    }
    fprintf(stderr, "iniparser: syntax error in %s (%d):\n", st.ini->path ? st.ini->path->c_str() : "(stdin)",
            st.line_no);
    fprintf(stderr, "-> %s\n", line);
    return add_failed(st);
}

// Strips trailing white space (the newline included); returns the new length.
size_t strip_trailing(char* line) {
    size_t len = strlen(line);
    while (len > 0 && isspace(static_cast<unsigned char>(line[len - 1]))) line[--len] = '\0';
    return len;
}

bool parse(ini_t* ini) {
    FILE* fp = ini->fp.get();
    rewind(fp);
    if (!push_section(ini, nullptr)) return false;

    parse_state st{ini};
    char line[kLineSize] = {};
    size_t fill = 0;  // where the next piece goes: after a continued line
    // End of file ends the parse; a continued line still pending is dropped.
    while (fgets(line + fill, static_cast<int>(kLineSize - fill), fp)) {
        ++st.line_no;
        size_t len = strip_trailing(line);
        if (len > 0 && line[len - 1] == '\\') {
            fill = len - 1;  // the next line overwrites the backslash
            continue;
        }
        fill = 0;
        char work[kWorkSize];
        copy_bounded(trim(line), work, sizeof work);
        if (!parse_line(st, line, work)) return false;
    }
    return true;
}

std::string make_run_name(const char* path) {
    std::string name = "/run/";
    for (const char* p = path; *p; ++p) name.push_back(*p == '/' ? '-' : *p);
    return name;
}

// Splits "section:key" at the first ':'. False when there is no ':' or no key.
bool split_lookup(const char* section_key, std::string* section, const char** key) {
    if (!section_key) return false;
    const char* colon = strchr(section_key, ':');
    if (!colon || colon[1] == '\0') return false;
    section->assign(section_key, colon);
    *key = colon + 1;
    return true;
}

template <class T, class Get>
T lookup(const ini_t* ini, const char* section_key, T def, Get get) {
    std::string section;
    const char* key = nullptr;
    if (!split_lookup(section_key, &section, &key)) return def;
    return get(ini, section.empty() ? nullptr : section.c_str(), key, def);
}

// The stored value of (section, key), or null.
const char* find_value(const ini_t* ini, const char* section, const char* key) {
    if (!ini || !key) return nullptr;
    const ini_section_t* s = find_section(ini, section);
    const ini_key_t* k = s ? find_key(s, key) : nullptr;
    return k ? name_of(k->value) : nullptr;
}

void dump_one(const ini_section_t& s, FILE* out) {
    if (s.name) fprintf(out, "[%s]\n", s.name->c_str());
    for_each_in<ini_key_t>(s.keys.get(), [out](const ini_key_t& k) {
        fprintf(out, "%-30s = %s\n", k.key.c_str(), k.value ? k.value->c_str() : "");
    });
}

}  // namespace

ini_t* ini_open(const char* path, char mode) {
    const char* fmode = mode == 'r' ? "re" : mode == 'w' ? "r+e" : nullptr;
    if (!fmode) return nullptr;
    ini_ptr ini(new (std::nothrow) ini_t);
    if (!ini) return nullptr;
    ini->fp.reset(path ? fopen(path, fmode) : stdin);  // fmode ends in "e": close-on-exec
    if (!ini->fp) return nullptr;
    if (path) {
        ini->path = path;
        ini->run_name = make_run_name(path);
    }
    ini->sections.reset(list_create());
    if (!ini->sections || !parse(ini.get())) return nullptr;
    return ini.release();
}

ini_t* ini_load(const char* path) { return ini_open(path, 'r'); }

void ini_free(ini_t* ini) { delete ini; }

const char* ini_get_string(const ini_t* ini, const char* section, const char* key, const char* def) {
    const char* v = find_value(ini, section, key);
    return v ? v : def;
}

long ini_get_int(const ini_t* ini, const char* section, const char* key, long def) {
    const char* v = find_value(ini, section, key);
    return v ? strtol(v, nullptr, 0) : def;
}

int ini_get_bool(const ini_t* ini, const char* section, const char* key, int def) {
    const char* v = find_value(ini, section, key);
    if (!v) return def;
    switch (toupper(static_cast<unsigned char>(v[0]))) {
        case 'Y': case '1': case 'T': return 1;
        case 'N': case '0': case 'F': return 0;
        default: return def;
    }
}

const char* ini_lookup_string(const ini_t* ini, const char* section_key, const char* def) {
    return lookup(ini, section_key, def, ini_get_string);
}

long ini_lookup_int(const ini_t* ini, const char* section_key, long def) {
    return lookup(ini, section_key, def, ini_get_int);
}

int ini_lookup_bool(const ini_t* ini, const char* section_key, int def) {
    return lookup(ini, section_key, def, ini_get_bool);
}

int ini_set(ini_t* ini, const char* section, const char* key, const char* value) {
    if (!ini) return 1;
    ini->dirty = 1;
    if (!key) return 1;
    return add_or_replace(ini, section, key, value) ? 0 : 1;
}

void ini_dump_section(const ini_t* ini, FILE* out, const char* section) {
    if (!ini || !out) return;
    if (const ini_section_t* s = find_section(ini, section)) dump_one(*s, out);
}

void ini_dump(const ini_t* ini, FILE* out) {
    if (!ini || !out) return;
    for_each_in<ini_section_t>(ini->sections.get(), [out](const ini_section_t& s) { dump_one(s, out); });
}

void ini_print_sections(const ini_t* ini, FILE* out, const char* key, const char* value) {
    if (!ini || !out) return;
    for_each_in<ini_section_t>(ini->sections.get(), [&](const ini_section_t& s) {
        if (!s.name) return;
        if (key) {
            const ini_key_t* k = find_key(&s, key);
            if (!k || str_cmp_safe(name_of(k->value), value) != 0) return;
        }
        fprintf(out, "%s\n", s.name->c_str());
    });
}

void ini_print_values(const ini_t* ini, FILE* out, const char* key) {
    if (!ini || !out || !key) return;
    for_each_in<ini_section_t>(ini->sections.get(), [&](const ini_section_t& s) {
        const ini_key_t* k = s.name ? find_key(&s, key) : nullptr;
        if (k) fprintf(out, "%s\n", k->value ? k->value->c_str() : "");
    });
}
