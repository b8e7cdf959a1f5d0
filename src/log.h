// Logging: one process-wide log file <dir>/<name>.log, written a line at a
// time by eight level writers, plus a cleaner thread that rotates the file to
// <file>.bk once it grows past 1 MiB. Any thread may log; every writer holds
// the context mutex from opening the file to closing it, so lines never
// interleave. Before log_init() and after log_release() every writer is a
// no-op.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#define ZOR_PRINTF(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))

struct log_context;

// Starts logging into <dir>/<name>.log, creating missing directories. A
// running log is released first. Starts the cleaner thread.
void log_init(const char* dir, const char* name);
// Stops and joins the cleaner, then frees the context. Safe twice.
void log_release();
// Closes the file and frees the context without touching the cleaner.
void log_free();
void log_set_level(uint32_t level);
// enabled = 0 silences the eight level writers; console = 1 mirrors every
// level-writer line to standard output.
void log_set(int enabled, int console);
log_context* log_get();

// Period of the cleaner's size check (60 s in the product; tests shorten it).
// Takes effect for cleaners started afterwards.
void log_set_clean_interval(std::chrono::milliseconds period);

// The level writers. `file` is the caller's source path, `line` its line.
void log_g(const char* file, int line, const char* fmt, ...) ZOR_PRINTF(3, 4);
void log_a(const char* file, int line, const char* fmt, ...) ZOR_PRINTF(3, 4);
void log_c(const char* file, int line, const char* fmt, ...) ZOR_PRINTF(3, 4);
void log_e(const char* file, int line, const char* fmt, ...) ZOR_PRINTF(3, 4);
void log_w(const char* file, int line, const char* fmt, ...) ZOR_PRINTF(3, 4);
void log_n(const char* file, int line, const char* fmt, ...) ZOR_PRINTF(3, 4);
void log_i(const char* file, int line, const char* fmt, ...) ZOR_PRINTF(3, 4);
void log_d(const char* file, int line, const char* fmt, ...) ZOR_PRINTF(3, 4);

// A title line and a hex dump of at most 2048 bytes of `data`.
void log_hex(uint32_t level, const char* title, const void* data, size_t len);
// One line made of `count` strings.
void log_strings(uint32_t level, int count, const char* const* strings);
// The dump format itself: 16 bytes a line, decimal offsets, text column.
void hexdump(FILE* stream, const void* data, size_t len);

// Call-site macros: every message carries the file and line it came from.
#define LOG_G(...) log_g(__FILE__, __LINE__, __VA_ARGS__)
#define LOG_A(...) log_a(__FILE__, __LINE__, __VA_ARGS__)
#define LOG_C(...) log_c(__FILE__, __LINE__, __VA_ARGS__)
#define LOG_E(...) log_e(__FILE__, __LINE__, __VA_ARGS__)
#define LOG_W(...) log_w(__FILE__, __LINE__, __VA_ARGS__)
#define LOG_N(...) log_n(__FILE__, __LINE__, __VA_ARGS__)
#define LOG_I(...) log_i(__FILE__, __LINE__, __VA_ARGS__)
#define LOG_D(...) log_d(__FILE__, __LINE__, __VA_ARGS__)
