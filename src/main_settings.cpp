#include "main.h"

#include <cstdio>
#include <cstdlib>

int32_t router_mode = 0;
int32_t caches = 0;
int32_t flows = 0;
const char* ifwan = nullptr;
int32_t cloud = 0;
int32_t pc = 0;
int32_t qos = 0;

void main_settings_reset() {
    router_mode = caches = flows = cloud = pc = qos = 0;
    ifwan = nullptr;
}

void service_alloc_failed() {
    fputs("malloc() failed\n", stderr);
    exit(1);
}
