#include "log.h"

#include "util/dir_chain.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

namespace {

constexpr const char* kTags[8] = {"G", "A", "C", "E", "W", "N", "I", "D"};
constexpr uint32_t kDefaultLevel = 6;
constexpr uint32_t kMaxSize = 0x100000;  // the file is rotated once it is larger
constexpr size_t kDumpMax = 2048;
constexpr size_t kNameMax = 128;

struct file_closer {
    void operator()(FILE* f) const { fclose(f); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

}  // namespace

// The running log. Every field is covered by log_state::lock.
struct log_context {
    uint32_t level = kDefaultLevel;
    char line[1024] = {};  // prefix and message of the line being written
    char dir[kNameMax + 1] = {};
    char name[kNameMax + 1] = {};
    char path[358] = {};  // "<dir>/<name>.log", built by the first line written
};

namespace {

struct log_state {
    // Serialises every line, the cleaner's rename and the context's
    // lifetime: a writer can never see a context being freed.
    std::mutex lock;
    std::unique_ptr<log_context> ctx;  // covered by lock; null = logging off

    // The running log's level, kept in step with ctx->level under `lock`:
    // a line above it is skipped before the lock is taken, so a thread that
    // only logs debug lines (the netlink receive thread in a flood of
    // reports) never waits while another one writes a line to the file.
    std::atomic<uint32_t> level{kDefaultLevel};
    std::atomic<int> disabled{0};
    std::atomic<int> console{0};
    std::atomic<int64_t> clean_period_ms{60000};

    // Held by init, release and free so that two lifecycle calls never
    // overlap; the cleaner never takes it.
    std::mutex lifecycle;
    std::thread cleaner;  // covered by lifecycle

    std::mutex cleaner_lock;
    std::condition_variable cleaner_wake;
    bool cleaner_stop = false;  // covered by cleaner_lock

    void stop_cleaner() {
        if (!cleaner.joinable()) return;
        {
            std::lock_guard<std::mutex> guard(cleaner_lock);
            cleaner_stop = true;
        }
        cleaner_wake.notify_all();
        cleaner.join();
    }

    ~log_state() { stop_cleaner(); }
};

log_state state;

// "YYYYmmdd HH:MM:SS" in local time, or "--:--:--".
void time_stamp(char (&out)[18]) {
    time_t now = time(nullptr);
    struct tm tm_now;
    if (!localtime_r(&now, &tm_now) || strftime(out, sizeof out, "%Y%m%d %H:%M:%S", &tm_now) == 0)
        snprintf(out, sizeof out, "--:--:--");
}

// The four characters of `file` printed in a line: those before the last
// '.' when that lies beyond position 4, the first four when it lies at 0-4,
// and the last four when there is no '.' or the path is under 5 characters.
const char* short_name(const char* file) {
    if (!file) return "";
    size_t len = strlen(file);
    const char* dot = strrchr(file, '.');
    if (dot && len >= 5) return dot - file <= 4 ? file : dot - 4;
    return len < 4 ? file : file + len - 4;
}

// Opens the log file for one line or dump; the caller holds state.lock.
// Reopening for every line lets a rename or deletion take effect at once.
file_ptr open_log(log_context* ctx) {
    snprintf(ctx->path, sizeof ctx->path, "%s/%s.log", ctx->dir, ctx->name);
    file_ptr fp(fopen(ctx->path, "a"));
    if (!fp) fprintf(stderr, "failed to open log file %s! (%s,%s)\n", ctx->path, ctx->dir, ctx->name);
    return fp;
}

// The one level writer: `level` is the writer's number, 0 for "G".
void write_line(uint32_t level, const char* file, int line, const char* fmt, va_list ap) {
    if (state.disabled.load() || !fmt || level > state.level.load(std::memory_order_relaxed)) return;
    std::lock_guard<std::mutex> guard(state.lock);
    log_context* ctx = state.ctx.get();
    if (!ctx || ctx->level < level) return;
    file_ptr fp = open_log(ctx);
    if (!fp) return;
    char stamp[18];
    time_stamp(stamp);
    int prefix = snprintf(ctx->line, sizeof ctx->line, "%s %.4s/%03d[%s] ", stamp,
                          short_name(file), line, kTags[level]);
    if (prefix > 0 && static_cast<size_t>(prefix) < sizeof ctx->line)
        vsnprintf(ctx->line + prefix, sizeof ctx->line - prefix, fmt, ap);
    fprintf(fp.get(), "%s\r\n", ctx->line);
    if (state.console.load()) {
        printf("%s\r\n", ctx->line);
        fflush(stdout);
    }
}

// Moves the file aside to "<path>.bk" once it holds more than kMaxSize
// bytes; only one backup is kept.
void rotate_if_full() {
    std::string path;
    {
        std::lock_guard<std::mutex> guard(state.lock);
        if (!state.ctx) return;
        path = state.ctx->path;
    }
    struct stat st;
    if (path.empty() || stat(path.c_str(), &st) != 0 || st.st_size <= kMaxSize) return;
    std::string backup = path + ".bk";
    unlink(backup.c_str());  // one backup generation only
    bool renamed;
    {
        std::lock_guard<std::mutex> guard(state.lock);
        renamed = rename(path.c_str(), backup.c_str()) == 0;
        if (!renamed) unlink(path.c_str());  // better no log than an unbounded one
    }
    if (renamed)
        LOG_D("Backup %s to %s\r\n", path.c_str(), backup.c_str());
    else
        LOG_D("Backup failed, %s removed\r\n", path.c_str());
}

void cleaner_main(std::chrono::milliseconds period) {
    LOG_D("Start log cleaner ...");
    std::unique_lock<std::mutex> guard(state.cleaner_lock);
    while (!state.cleaner_stop) {
        guard.unlock();
        rotate_if_full();
        guard.lock();
        state.cleaner_wake.wait_for(guard, period, [] { return state.cleaner_stop; });
    }
}

void start_cleaner() {
    {
        std::lock_guard<std::mutex> guard(state.cleaner_lock);
        state.cleaner_stop = false;
    }
    try {
        state.cleaner = std::thread(cleaner_main,
                                    std::chrono::milliseconds(state.clean_period_ms.load()));
    } catch (const std::system_error&) {
        LOG_E("Failed to create clean log thread");
    }
}

// log_free without the lifecycle lock.
void free_locked() {
    LOG_D("log_free");
    state.stop_cleaner();
    std::lock_guard<std::mutex> guard(state.lock);
    state.ctx.reset();
}

void release_locked() {
    LOG_D("log_release");
    free_locked();
}

}  // namespace

void log_init(const char* dir, const char* name) {
    std::lock_guard<std::mutex> life(state.lifecycle);
    release_locked();
    if (!dir || !name) return;
    dir_make_chain(dir);
    std::unique_ptr<log_context> ctx(new (std::nothrow) log_context);
    if (!ctx) return;
    snprintf(ctx->dir, sizeof ctx->dir, "%.*s", static_cast<int>(kNameMax), dir);
    snprintf(ctx->name, sizeof ctx->name, "%.*s", static_cast<int>(kNameMax), name);
    {
        std::lock_guard<std::mutex> guard(state.lock);
        state.level = ctx->level;
        state.ctx = std::move(ctx);
    }
    state.disabled = 0;
    state.console = 0;
    start_cleaner();
}

void log_release() {
    std::lock_guard<std::mutex> life(state.lifecycle);
    release_locked();
}

void log_free() {
    std::lock_guard<std::mutex> life(state.lifecycle);
    free_locked();
}

void log_set_level(uint32_t level) {
    std::lock_guard<std::mutex> guard(state.lock);
    if (!state.ctx) return;
    state.ctx->level = level;
    state.level = level;
}

void log_set(int enabled, int console) {
    state.disabled = !enabled;
    state.console = console;
}

log_context* log_get() {
    std::lock_guard<std::mutex> guard(state.lock);
    return state.ctx.get();
}

void log_set_clean_interval(std::chrono::milliseconds period) {
    state.clean_period_ms = std::max<int64_t>(1, period.count());
}

// The eight writers differ only in their level number.
#define ZOR_LEVEL_WRITER(fn, level)                                \
    void fn(const char* file, int line, const char* fmt, ...) {   \
        va_list ap;                                               \
        va_start(ap, fmt);                                        \
        write_line(level, file, line, fmt, ap);                   \
        va_end(ap);                                               \
    }
ZOR_LEVEL_WRITER(log_g, 0)
ZOR_LEVEL_WRITER(log_a, 1)
ZOR_LEVEL_WRITER(log_c, 2)
ZOR_LEVEL_WRITER(log_e, 3)
ZOR_LEVEL_WRITER(log_w, 4)
ZOR_LEVEL_WRITER(log_n, 5)
ZOR_LEVEL_WRITER(log_i, 6)
ZOR_LEVEL_WRITER(log_d, 7)
#undef ZOR_LEVEL_WRITER

namespace {

// Opens the file for a dump or string list and writes its "stamp [T] "
// prefix, T from level & 7; `body` writes the rest. log_set does not apply.
template <class Body>
void write_tagged(uint32_t level, Body body) {
    std::lock_guard<std::mutex> guard(state.lock);
    log_context* ctx = state.ctx.get();
    if (!ctx || level > ctx->level) return;
    file_ptr fp = open_log(ctx);
    if (!fp) return;
    char stamp[18];
    time_stamp(stamp);
    fprintf(fp.get(), "%s [%s] ", stamp, kTags[level & 7]);
    body(fp.get());
}

}  // namespace

// Title and dump end in LF only, unlike the level writers' CR LF.
void log_hex(uint32_t level, const char* title, const void* data, size_t len) {
    write_tagged(level, [&](FILE* fp) {
        fprintf(fp, "%s\n", title ? title : "");
        hexdump(fp, data, std::min(len, kDumpMax));
    });
}

void log_strings(uint32_t level, int count, const char* const* strings) {
    if (count <= 0 || !strings) return;
    write_tagged(level, [&](FILE* fp) {
        for (int i = 0; i < count; ++i) fprintf(fp, " %s", strings[i] ? strings[i] : "");
        fputc('\n', fp);
    });
}

// Offsets are decimal on purpose; a short last line is padded so that its
// text column lines up with the full lines above.
void hexdump(FILE* stream, const void* data, size_t len) {
    if (!stream || !data) return;
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    len = std::min(len, kDumpMax);
    for (size_t offset = 0; offset < len; offset += 16) {
        size_t n = std::min<size_t>(16, len - offset);
        fprintf(stream, "%04d: ", static_cast<int>(offset));
        for (size_t i = 0; i < n; ++i) fprintf(stream, "%02x ", bytes[offset + i]);
        if (n == 16)
            fputs("    ", stream);
        else
            fprintf(stream, "%*c    ", static_cast<int>((16 - n) * 3), ' ');
        for (size_t i = 0; i < n; ++i) {
            unsigned char c = bytes[offset + i];
            fputc(isprint(c) ? c : '.', stream);
        }
        fputc('\n', stream);
    }
}
