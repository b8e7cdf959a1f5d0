#include "log.h"

#include "util/c_ptr.h"
#include "util/clock.h"
#include "util/dir_chain.h"
#include "util/timing.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
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
constexpr mode_t kFileMode = 0640;  // log file and its backup: never world-readable
constexpr size_t kLineMax = 1024;   // a level-writer line with its NUL

// The system log: ident (a literal, so it outlives every syslog call) and
// the priority of each level writer, by its number. "G" lines must always
// appear but are no emergency (LOG_EMERG goes to every terminal): notices.
constexpr const char* kSyslogIdent = "zor_service";
constexpr int kSyslogPriority[8] = {LOG_NOTICE, LOG_ALERT,   LOG_CRIT, LOG_ERR,
                                    LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_DEBUG};

}  // namespace

// The running log. Every field is covered by log_state::lock.
struct log_context {
    uint32_t level = kDefaultLevel;
    char dir[kNameMax + 1] = {};
    char name[kNameMax + 1] = {};
    char path[358] = {};  // "<dir>/<name>.log", built by the first line written
    bool link_reported = false;  // the refusal of a link in the file's place was printed
};

namespace {

struct log_state {
    // Serialises every line, the cleaner's rename and the context's
    // lifetime: a writer can never see a context being freed.
    std::mutex lock;
    std::unique_ptr<log_context> ctx;  // covered by lock; null = no log file
    // Between openlog and closelog: level-writer lines go to syslog(3) too,
    // with or without a file. Covered by lock.
    bool syslog_open = false;

    // The running log's level, kept in step with ctx->level under `lock`
    // (the threshold of syslog lines too):
    // a line above it is skipped before the lock is taken, so a thread that
    // only logs debug lines (the netlink receive thread in a flood of
    // reports) never waits while another one writes a line to the file.
    std::atomic<uint32_t> level{kDefaultLevel};
    std::atomic<int> disabled{0};
    std::atomic<int> console{0};

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
    const time_t now = static_cast<time_t>(clock_now());
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

// Opens <path> for appending without following a link in its place. A file
// the log makes gets kFileMode whatever the umask; an existing one is used
// only when it is a regular file with one name (not a hard link planted to
// some other file). -1 with errno set otherwise.
int open_append(const char* path) {
    const int flags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
    int fd = open(path, flags | O_CREAT | O_EXCL, kFileMode);
    if (fd >= 0) {
        if (fchmod(fd, kFileMode) != 0) {
            int err = errno;
            close(fd);
            errno = err;
            return -1;
        }
        return fd;
    }
    if (errno != EEXIST) return -1;
    fd = open(path, flags);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1) {
        close(fd);
        errno = EPERM;
        return -1;
    }
    return fd;
}

// Opens the log file for one line or dump; the caller holds state.lock.
// Reopening for every line lets a rename or deletion take effect at once.
file_ptr open_log(log_context* ctx) {
    snprintf(ctx->path, sizeof ctx->path, "%s/%s.log", ctx->dir, ctx->name);
    int fd = open_append(ctx->path);
    file_ptr fp(fd >= 0 ? fdopen(fd, "a") : nullptr);
    if (!fp) {
        if (fd >= 0) {
            close(fd);
        } else if (errno == ELOOP) {
            // Said once: every line would repeat it.
            if (!ctx->link_reported)
                fprintf(stderr, "log file %s is a symbolic link: not followed, nothing is written to it\n",
                        ctx->path);
            ctx->link_reported = true;
            return fp;
        }
        fprintf(stderr, "failed to open log file %s! (%s,%s)\n", ctx->path, ctx->dir, ctx->name);
        return fp;
    }
    ctx->link_reported = false;
    return fp;
}

// The message part of a line being built: bytes go in while they fit
// (one byte is kept for the NUL); once one does not, the rest is cut.
struct line_writer {
    char* out;
    size_t cap;
    size_t at = 0;
    bool full = false;

    void raw(const char* p, size_t n) {
        if (full || at + n >= cap) {
            full = true;  // never half an escape
            return;
        }
        memcpy(out + at, p, n);
        at += n;
    }
    // A byte of a text from outside: a control byte as the four characters \xHH.
    void shown(unsigned char c) {
        if (c < 0x20 || c == 0x7F) {
            char esc[5];
            snprintf(esc, sizeof esc, "\\x%02X", c);
            raw(esc, 4);
        } else {
            raw(reinterpret_cast<const char*>(&c), 1);
        }
    }
};

// One conversion of the format: its text with '*' widths filled in.
struct conversion {
    char text[48];
    size_t len = 0;
    bool left = false;
    int width = -1;
    int precision = -1;
    char length[3] = {};
    char conv = 0;
};

// Reads the conversion after a '%' at fmt[*i] (flags, width, precision,
// length, conversion letter), taking '*' values from `ap`.
bool parse_conversion(const char* fmt, size_t* i, va_list& ap, conversion* c) {
    auto put = [c](const char* t) {
        size_t n = strlen(t);
        if (c->len + n >= sizeof c->text) return false;
        memcpy(c->text + c->len, t, n + 1);
        c->len += n;
        return true;
    };
    char one[2] = {0, 0};
    put("%");
    while (fmt[*i] && strchr("-+ #0'", fmt[*i])) {
        if (fmt[*i] == '-') c->left = true;
        one[0] = fmt[(*i)++];
        put(one);
    }
    char num[16];
    if (fmt[*i] == '*') {
        ++*i;
        c->width = va_arg(ap, int);
        if (c->width < 0) {
            c->left = true;
            put("-");
            c->width = -c->width;
        }
        snprintf(num, sizeof num, "%d", c->width);
        put(num);
    } else {
        int w = 0;
        bool any = false;
        while (isdigit(static_cast<unsigned char>(fmt[*i]))) {
            w = std::min(w * 10 + (fmt[*i] - '0'), 4096);
            one[0] = fmt[(*i)++];
            put(one);
            any = true;
        }
        if (any) c->width = w;
    }
    if (fmt[*i] == '.') {
        ++*i;
        int p = 0;
        if (fmt[*i] == '*') {
            ++*i;
            p = va_arg(ap, int);
        } else {
            while (isdigit(static_cast<unsigned char>(fmt[*i]))) p = std::min(p * 10 + (fmt[(*i)++] - '0'), 1 << 20);
        }
        if (p >= 0) {
            c->precision = p;
            snprintf(num, sizeof num, ".%d", p);
            put(num);
        }
    }
    size_t l = 0;
    while (fmt[*i] && strchr("hlLqjzt", fmt[*i]) && l < 2) c->length[l++] = fmt[(*i)++];
    put(c->length);
    c->conv = fmt[*i];
    if (c->conv == '\0') return false;
    ++*i;
    one[0] = c->conv;
    return put(one);
}

// Formats one non-text conversion with snprintf, taking its argument from
// `ap` by the conversion's type.
int format_value(char* out, size_t cap, const conversion& c, va_list& ap) {
    const std::string_view len(c.length);
    switch (c.conv) {
        case 'd': case 'i':
            if (len == "hh" || len == "h" || len.empty()) return snprintf(out, cap, c.text, va_arg(ap, int));
            if (len == "l") return snprintf(out, cap, c.text, va_arg(ap, long));
            if (len == "ll" || len == "q") return snprintf(out, cap, c.text, va_arg(ap, long long));
            if (len == "z") return snprintf(out, cap, c.text, va_arg(ap, ssize_t));
            if (len == "j") return snprintf(out, cap, c.text, va_arg(ap, intmax_t));
            if (len == "t") return snprintf(out, cap, c.text, va_arg(ap, ptrdiff_t));
            return -1;
        case 'u': case 'o': case 'x': case 'X':
            if (len == "hh" || len == "h" || len.empty()) return snprintf(out, cap, c.text, va_arg(ap, unsigned));
            if (len == "l") return snprintf(out, cap, c.text, va_arg(ap, unsigned long));
            if (len == "ll" || len == "q") return snprintf(out, cap, c.text, va_arg(ap, unsigned long long));
            if (len == "z") return snprintf(out, cap, c.text, va_arg(ap, size_t));
            if (len == "j") return snprintf(out, cap, c.text, va_arg(ap, uintmax_t));
            if (len == "t") return snprintf(out, cap, c.text, va_arg(ap, ptrdiff_t));
            return -1;
        case 'e': case 'E': case 'f': case 'F': case 'g': case 'G': case 'a': case 'A':
            if (len == "L") return snprintf(out, cap, c.text, va_arg(ap, long double));
            return snprintf(out, cap, c.text, va_arg(ap, double));
        case 'p': return snprintf(out, cap, c.text, va_arg(ap, void*));
        default: return -1;
    }
}

// Appends `text` (at most `max` bytes of it, stopping at its NUL) padded to
// the conversion's width, each control byte shown as \xHH.
void put_text(line_writer& w, const char* text, size_t max, const conversion& c) {
    if (!text) text = "(null)";
    size_t shown = 0;
    for (size_t k = 0; k < max && text[k]; ++k) {
        const unsigned char b = static_cast<unsigned char>(text[k]);
        shown += (b < 0x20 || b == 0x7F) ? 4 : 1;
    }
    const size_t pad = c.width > 0 && static_cast<size_t>(c.width) > shown ? c.width - shown : 0;
    if (!c.left)
        for (size_t k = 0; k < pad; ++k) w.raw(" ", 1);
    for (size_t k = 0; k < max && text[k]; ++k) w.shown(static_cast<unsigned char>(text[k]));
    if (c.left)
        for (size_t k = 0; k < pad; ++k) w.raw(" ", 1);
}

}  // namespace

void log_format(char* out, size_t cap, const char* fmt, va_list ap_in) {
    if (!out || cap == 0) return;
    out[0] = '\0';
    if (!fmt) return;
    va_list ap;
    va_copy(ap, ap_in);
    line_writer w{out, cap};
    for (size_t i = 0; fmt[i] && !w.full;) {
        if (fmt[i] != '%') {
            w.raw(fmt + i++, 1);  // the message text itself stays as written
            continue;
        }
        ++i;
        if (fmt[i] == '%') {
            w.raw("%", 1);
            ++i;
            continue;
        }
        conversion c;
        if (!parse_conversion(fmt, &i, ap, &c)) break;
        if (c.conv == 's') {
            const char* text = va_arg(ap, const char*);
            put_text(w, text, c.precision >= 0 ? static_cast<size_t>(c.precision) : SIZE_MAX, c);
        } else if (c.conv == 'c') {
            const char ch = static_cast<char>(va_arg(ap, int));
            put_text(w, &ch, 1, c);
        } else if (c.conv == 'n') {
            (void)va_arg(ap, int*);  // never written through
        } else {
            char value[512];
            int n = format_value(value, sizeof value, c, ap);
            if (n < 0) break;  // an unknown conversion: stop before misreading arguments
            for (size_t k = 0; k < sizeof value && value[k]; ++k) w.shown(static_cast<unsigned char>(value[k]));
        }
    }
    out[w.at] = '\0';
    va_end(ap);
}

namespace {

// The syslog copy of a line, `text` being the line after its time stamp
// (syslog adds its own): the line ends some formats carry are dropped, and
// any other control byte of the service's own format text becomes a blank,
// so one call is one record. What conversions brought in is already shown
// as \xHH. The caller holds state.lock.
void send_syslog(uint32_t level, char* text) {
    size_t n = strlen(text);
    while (n > 0 && (text[n - 1] == '\r' || text[n - 1] == '\n')) text[--n] = '\0';
    for (size_t i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == 0x7F) text[i] = ' ';
    }
    syslog(kSyslogPriority[level & 7], "%s", text);
}

// The one level writer: `level` is the writer's number, 0 for "G".
void write_line(uint32_t level, const char* file, int line, const char* fmt, va_list ap) {
    if (state.disabled.load() || !fmt || level > state.level.load(std::memory_order_relaxed)) return;
    std::lock_guard<std::mutex> guard(state.lock);
    log_context* ctx = state.ctx.get();
    const bool to_file = ctx && ctx->level >= level;
    if (!to_file && !state.syslog_open) return;
    char text[kLineMax];
    char stamp[18];
    time_stamp(stamp);
    const int stamp_len = snprintf(text, sizeof text, "%s ", stamp);
    int prefix = snprintf(text + stamp_len, sizeof text - stamp_len, "%.4s/%03d[%s] ", short_name(file), line,
                          kTags[level]);
    if (prefix > 0 && static_cast<size_t>(stamp_len + prefix) < sizeof text)
        log_format(text + stamp_len + prefix, sizeof text - stamp_len - prefix, fmt, ap);
    if (to_file) {
        if (file_ptr fp = open_log(ctx)) {
            fprintf(fp.get(), "%s\r\n", text);
            if (state.console.load()) {
                printf("%s\r\n", text);
                fflush(stdout);
            }
        }
    }
    if (state.syslog_open) send_syslog(level, text + stamp_len);
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
    if (path.empty() || lstat(path.c_str(), &st) != 0 || st.st_size <= kMaxSize) return;
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
        state.cleaner = std::thread(cleaner_main, timing_get().log_clean);
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
    log_set_syslog(0);
}

void log_free() {
    std::lock_guard<std::mutex> life(state.lifecycle);
    free_locked();
    log_set_syslog(0);
}

void log_set_level(uint32_t level) {
    std::lock_guard<std::mutex> guard(state.lock);
    if (state.ctx) state.ctx->level = level;
    state.level = level;
}

void log_set_syslog(int enabled) {
    std::lock_guard<std::mutex> guard(state.lock);
    if (enabled && !state.syslog_open)
        openlog(kSyslogIdent, LOG_PID, LOG_DAEMON);
    else if (!enabled && state.syslog_open)
        closelog();
    state.syslog_open = enabled != 0;
}

void log_set(int enabled, int console) {
    state.disabled = !enabled;
    state.console = console;
}

log_context* log_get() {
    std::lock_guard<std::mutex> guard(state.lock);
    return state.ctx.get();
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

void log_format_text(char* out, size_t cap, const char* text) {
    if (!out || cap == 0) return;
    line_writer w{out, cap};
    for (const char* p = text ? text : ""; *p && !w.full; ++p) w.shown(static_cast<unsigned char>(*p));
    out[w.at] = '\0';
}

// Title and dump end in LF only, unlike the level writers' CR LF.
void log_hex(uint32_t level, const char* title, const void* data, size_t len) {
    write_tagged(level, [&](FILE* fp) {
        char shown[1024];
        log_format_text(shown, sizeof shown, title ? title : "");
        fprintf(fp, "%s\n", shown);
        hexdump(fp, data, std::min(len, kDumpMax));
    });
}

void log_strings(uint32_t level, int count, const char* const* strings) {
    if (count <= 0 || !strings) return;
    write_tagged(level, [&](FILE* fp) {
        for (int i = 0; i < count; ++i) {
            char shown[1024];
            log_format_text(shown, sizeof shown, strings[i] ? strings[i] : "");
            fprintf(fp, " %s", shown);
        }
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
