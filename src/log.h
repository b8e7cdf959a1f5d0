// Logging: one process-wide log file <dir>/<name>.log, written a line at a
// time by eight level writers, plus a cleaner thread that rotates the file to
// <file>.bk once it grows past 1 MiB. Any thread may log; every writer holds
// the module's mutex from opening the file to closing it, so lines never
// interleave, and the file is reopened for every line so that a rotation or
// an outside deletion takes effect at the next one. Before log_init() or
// log_set_syslog(1), and after log_release(), every writer is a no-op. The lifecycle calls (init,
// release, free) may come from any thread but are meant for the main one.
//
// A level-writer line is "YYYYmmdd HH:MM:SS name/LLL[T] message" + CR LF,
// cut at 1023 characters; `name` is four characters of the source path
// (those before its extension), LLL the line number with at least three
// digits, T the level tag: G (always), A 1, C 2, E 3, W 4, N 5, I 6, D 7.
// A writer writes when the level is at least its number (default 6).
//
// The message text of a call is written as it stands, but what its
// conversions bring in (texts from the network, the kernel, files and the
// command socket) never carries a control byte into the file: each one is
// shown as \xHH, so one call is one line.
//
// The file is never opened through a symbolic link; one the log makes gets
// mode 0640 whatever the umask, and the directories it makes are 0750.
//
// With log_set_syslog(1) every level-writer line also goes to syslog(3),
// with or without a file: ident "zor_service" with the pid, facility daemon,
// the priority from the writer (G notice, A alert, C crit, E err, W warning,
// N notice, I info, D debug), the text the file gets after its time stamp
// (syslog stamps records itself), without trailing line ends and with any
// other control byte of the format text as a blank. The same threshold and
// log_set apply. Dumps and string lists stay in the file.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#define ZOR_PRINTF(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))

struct log_context;

// Starts logging into <dir>/<name>.log, creating missing directories. A
// running log is released first. Starts the cleaner thread.
void log_init(const char* dir, const char* name);
// Logs "log_release" (D), then does log_free. Safe twice and before init.
void log_release();
// Logs "log_free" (D), stops and joins the cleaner (it has nothing left to
// do without a context), frees the context and closes the syslog copy.
// Safe twice and before init.
void log_free();
// The threshold of the file and of the syslog copy. log_init sets it back
// to 6.
void log_set_level(uint32_t level);
// 1: opens the syslog copy (openlog once); 0: closes it (closelog). A
// running copy survives log_init, so a log file can be started again
// without losing it; log_release and log_free close it.
void log_set_syslog(int enabled);
// enabled = 0 silences the eight level writers; console = 1 mirrors every
// level-writer line to standard output.
void log_set(int enabled, int console);
log_context* log_get();

// The level writers. `file` is the caller's source path, `line` its line.
// log_set(0, ...) silences all of them, "G" included.
void log_g(const char* file, int line, const char* fmt, ...) ZOR_PRINTF(3, 4);
void log_a(const char* file, int line, const char* fmt, ...) ZOR_PRINTF(3, 4);
void log_c(const char* file, int line, const char* fmt, ...) ZOR_PRINTF(3, 4);
void log_e(const char* file, int line, const char* fmt, ...) ZOR_PRINTF(3, 4);
void log_w(const char* file, int line, const char* fmt, ...) ZOR_PRINTF(3, 4);
void log_n(const char* file, int line, const char* fmt, ...) ZOR_PRINTF(3, 4);
void log_i(const char* file, int line, const char* fmt, ...) ZOR_PRINTF(3, 4);
void log_d(const char* file, int line, const char* fmt, ...) ZOR_PRINTF(3, 4);

// A title line "stamp [T] title" and a hex dump of at most 2048 bytes of
// `data`, written when `level` is at most the threshold (T from level & 7);
// log_set does not silence it. Lines end in LF only.
void log_hex(uint32_t level, const char* title, const void* data, size_t len);
// One line "stamp [T] " followed by " string" for each of `count` strings;
// the same level rule as log_hex.
void log_strings(uint32_t level, int count, const char* const* strings);
// The dump format itself: 16 bytes a line, "%04d: " decimal offsets, "%02x "
// bytes, four blanks, then the bytes as text ('.' for unprintable ones).
// At most 2048 bytes; nothing for null or 0.
void hexdump(FILE* stream, const void* data, size_t len);

// The formatting of the level writers: printf's conversions (flags, width,
// precision, '*', the length modifiers; %n is ignored), with every byte
// below 0x20 and 0x7F that a conversion brings in shown as \xHH. Bytes of
// `fmt` itself are copied unchanged. Cut to fit `cap` (never half an
// escape), always NUL-terminated.
void log_format(char* out, size_t cap, const char* fmt, va_list ap);
// `text` with its control bytes shown as \xHH, cut to fit `cap`.
void log_format_text(char* out, size_t cap, const char* text);

// Call-site macros: every message carries the file and line it came from.
#define LOG_G(...) log_g(__FILE__, __LINE__, __VA_ARGS__)
#define LOG_A(...) log_a(__FILE__, __LINE__, __VA_ARGS__)
#define LOG_C(...) log_c(__FILE__, __LINE__, __VA_ARGS__)
#define LOG_E(...) log_e(__FILE__, __LINE__, __VA_ARGS__)
#define LOG_W(...) log_w(__FILE__, __LINE__, __VA_ARGS__)
#define LOG_N(...) log_n(__FILE__, __LINE__, __VA_ARGS__)
#define LOG_I(...) log_i(__FILE__, __LINE__, __VA_ARGS__)
#define LOG_D(...) log_d(__FILE__, __LINE__, __VA_ARGS__)
