// The configuration file is read by the INI reader: any bytes give either a
// refusal or a file whose sections have unique names, whose keys are unique
// within their section, trimmed and bounded, and every one of them is found
// by the lookups the service uses. Dumps, listings and edits work on
// whatever was loaded.
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "fuzz_support.h"
#include "ini.h"

namespace {

constexpr size_t kMaxInput = 1 << 16;
constexpr size_t kWorkMax = 1024;  // longest name, key or value

fuzz::scratch_file& scratch() {
    static fuzz::scratch_file f;
    return f;
}

FILE* sink() {
    static FILE* f = fopen("/dev/null", "w");
    return f;
}

bool trimmed(const std::string& s) {
    return s.empty() || (!isspace(static_cast<unsigned char>(s.front())) &&
                         !isspace(static_cast<unsigned char>(s.back())));
}

template <class T, class Fn>
void each(const list_t* list, Fn fn) {
    for (list_node_t* n = list_first(list); n; n = n->next) fn(*static_cast<T*>(n->data));
}

void check_key(const ini_t* ini, const ini_section_t& s, const ini_key_t& k) {
    const char* section = s.name ? s.name->c_str() : nullptr;
    fuzz::check(!k.key.empty() && k.key.size() <= kWorkMax && trimmed(k.key), "bad key", k.key);
    fuzz::check(k.key.find('=') == std::string::npos, "key holds '='", k.key);
    fuzz::check(k.value.has_value(), "loaded key without a value", k.key);
    fuzz::check(k.value->size() <= kWorkMax && trimmed(*k.value), "bad value", *k.value);
    fuzz::check(ini_get_string(ini, section, k.key.c_str(), nullptr) == k.value->c_str(),
                "key not found by its section and name", k.key);
    // The "section:key" form, where the name can be written that way.
    if (!section || !strchr(section, ':')) {
        const std::string joined = (section ? std::string(section) : std::string()) + ":" + k.key;
        fuzz::check(ini_lookup_string(ini, joined.c_str(), nullptr) == k.value->c_str(),
                    "key not found by section:key", joined);
    }
    (void)ini_get_int(ini, section, k.key.c_str(), 0);
    (void)ini_get_bool(ini, section, k.key.c_str(), -1);
}

void check_structure(const ini_t* ini) {
    std::set<std::string> names;
    int unnamed = 0;
    each<ini_section_t>(ini->sections.get(), [&](const ini_section_t& s) {
        if (!s.name) {
            ++unnamed;
        } else {
            fuzz::check(s.name->size() <= kWorkMax && trimmed(*s.name), "bad section name", *s.name);
            fuzz::check(names.insert(*s.name).second, "section twice", *s.name);
        }
        std::set<std::string> keys;
        each<ini_key_t>(s.keys.get(), [&](const ini_key_t& k) {
            fuzz::check(keys.insert(k.key).second, "key twice in a section", k.key);
            check_key(ini, s, k);
        });
    });
    fuzz::check(unnamed == 1, "not exactly one unnamed section");
}

// The keys the configuration loader reads, as it reads them.
void read_like_the_service(const ini_t* ini) {
    for (const char* key : {"auth_id", "auth_pwd", "host", "product", "root", "writable_root", "server", "xdb"})
        (void)ini_get_string(ini, "zor", key, nullptr);
    (void)ini_get_int(ini, "zor", "log_level", 3);
    (void)ini_get_int(ini, "zor", "http_mode", 0);
}

void check_edit(ini_t* ini) {
    fuzz::check(ini_set(ini, "zor", "fuzz_key", "edited") == 0, "ini_set failed");
    fuzz::check(strcmp(ini_get_string(ini, "zor", "fuzz_key", ""), "edited") == 0, "edit not seen");
    fuzz::check(ini_set(ini, nullptr, "fuzz_key", nullptr) == 0, "ini_set of a null value failed");
    fuzz::check(ini_get_string(ini, nullptr, "fuzz_key", "def") != nullptr, "lookup gave null");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::setup();
    if (!sink()) fuzz::fail("no /dev/null");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) return 0;
    scratch().write(data, size);
    ini_ptr ini(ini_load(scratch().path()));
    if (!ini) return 0;
    check_structure(ini.get());
    read_like_the_service(ini.get());
    ini_dump(ini.get(), sink());
    ini_print_sections(ini.get(), sink(), nullptr, nullptr);
    ini_print_sections(ini.get(), sink(), "auth_id", "x");
    ini_print_values(ini.get(), sink(), "server");
    check_edit(ini.get());
    return 0;
}
