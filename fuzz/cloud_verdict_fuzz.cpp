// Deciphered cloud replies ({"r":{"<key>":[type,v,x,ttl_hours,group,sub],..}})
// are imported into the verdict cache by db_add_reply, which also reaches the
// IPC command that adds a reply by hand. Any text is taken; only verdicts for
// keys the cache already holds are stored, each written to the kernel with
// one update line that is safe for the shell.
//
// Every key the reply names is made known to the cache first (and a few
// fixed ones), so the store path sees arbitrary keys. After each input the
// clock moves on past the idle limit and cleaner passes empty the cache, so
// nothing carries over.
#include <cjson/cJSON.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "qmx_db.h"
#include "util/c_ptr.h"
#include "util/clock.h"
#include "util/timing.h"

namespace {

constexpr size_t kMaxInput = 1 << 16;

constexpr uint32_t kBuckets = 512;
constexpr uint32_t kBucketsPerPass = 200;
constexpr int32_t kStart = 1700000000;
int32_t g_now = kStart;

int64_t fuzz_clock() { return g_now; }

// Adds (type, key) for every member of "r" whose first element is a number
// and whose key could come from the kernel (a 256-byte field with its zero).
// Returns the number of members.
size_t make_keys_known(const std::string& text) {
    json_ptr root(cJSON_Parse(text.c_str()));
    const cJSON* r = cJSON_IsObject(root.get()) ? cJSON_GetObjectItemCaseSensitive(root.get(), "r") : nullptr;
    if (!cJSON_IsObject(r)) return 0;
    size_t members = 0;
    for (const cJSON* m = r->child; m; m = m->next, ++members) {
        const cJSON* first = cJSON_IsArray(m) ? m->child : nullptr;
        if (m->string && cJSON_IsNumber(first) && strlen(m->string) < 256)
            db_get_or_add(static_cast<uint32_t>(first->valueint), m->string, 0);
    }
    return members;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::setup();
    clock_set_source(fuzz_clock);
    // The cleaner thread itself waits for an hour; passes run on this thread.
    timing_set({.cache_clean = std::chrono::hours(1)});
    db_init();
    atexit(db_release);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);
    db_get_or_add(20, "example.com", 0);
    db_get_or_add(21, "192.0.2.1", 0);
    db_get_or_add(20, "a\"$`\\b.example", 0);
    const size_t members = make_keys_known(text);
    fuzz::take_lines();

    const int rc = db_add_reply(text.c_str());
    const std::vector<std::string> lines = fuzz::take_lines();
    if (text.c_str()[0] == '\0') {
        fuzz::check(rc == 5, "empty reply not refused");
    } else {
        fuzz::check(rc == 0 || rc == 3, "unexpected import result");
    }
    fuzz::check(lines.size() <= members, "more kernel lines than verdicts");
    for (const std::string& line : lines)
        fuzz::check(line.find("echo \"db key2group update 1 ") != std::string::npos,
                    "import ran something other than a verdict update", line);

    // The listing the IPC command logs, over whatever keys are held now.
    const std::optional<std::string> listing = db_show();
    fuzz::check(listing.has_value() == (db_count() > 0), "listing and count disagree");

    // A day and more later every entry is idle: a full round of passes
    // removes them all.
    g_now += 2 * 86400;
    for (uint32_t swept = 0; swept < kBuckets + kBucketsPerPass; swept += kBucketsPerPass) db_clean_pass();
    fuzz::check(db_count() == 0, "idle entries survived the cleaner");
    g_now = kStart;
    return 0;
}
