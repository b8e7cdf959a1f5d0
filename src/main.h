// Process-wide settings taken from the command line by the entry routine
// (src/main.cpp) and read by the kernel module loader (kmod.h). They are
// written once on the initial thread before any other thread exists and are
// read-only afterwards.
#pragma once

#include <cstdint>

extern int32_t router_mode;  // -r, atoi; 0 when not given
extern int32_t caches;       // -c, clamped to 2000..20000; 0 when not given
extern int32_t flows;        // -f; 0 when not given
extern const char* ifwan;    // -w, the argument itself (comma-separated names); null when not given
extern int32_t cloud;        // -m; 0 when not given
extern int32_t pc;           // -p; 0 when not given
extern int32_t qos;          // -q; 0 when not given

// Puts every setting back to its start value (zero or null).
void main_settings_reset();

// The allocation-failure exit: "malloc() failed\n" on standard error, status 1.
[[noreturn]] void service_alloc_failed();
