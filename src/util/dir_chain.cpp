#include "util/dir_chain.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>

namespace {

// A directory this call makes gets exactly kDirMode, whatever the umask;
// one that exists already is left as it is.
void make_one(const char* path) {
    if (mkdir(path, kDirMode) == 0) chmod(path, kDirMode);
}

}  // namespace

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
        make_one(buf);
        buf[i] = '/';
    }
    make_one(buf);
}
