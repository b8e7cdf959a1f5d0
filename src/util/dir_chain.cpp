#include "util/dir_chain.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>

void dir_make_chain(const char* path) {
    struct stat st;
    if (!path || stat(path, &st) == 0) return;
    char buf[256];
    snprintf(buf, sizeof buf, "%s", path);
    size_t len = strlen(buf);
    if (len > 0 && buf[len - 1] == '/') buf[--len] = '\0';
    // From the second character on, so that a leading '/' names no prefix.
    for (size_t i = 1; i < len; ++i) {
        if (buf[i] != '/') continue;
        buf[i] = '\0';
        mkdir(buf, 0700);
        buf[i] = '/';
    }
    mkdir(buf, 0755);
}
