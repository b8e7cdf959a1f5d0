#include "util/dir_chain.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace {

// A directory this call makes gets exactly kDirMode, whatever the umask;
// one that exists already is left as it is. True when this call made it.
bool make_one(const char* path) {
    if (mkdir(path, kDirMode) != 0) return false;
    chmod(path, kDirMode);
    return true;
}

}  // namespace

void dir_make_chain(const char* path, std::optional<gid_t> group) {
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
    if (!make_one(buf) || !group) return;
    // On failure the directory stays the service's group alone, and members
    // of `group` cannot reach the socket: the command server logs the group.
    if (chown(buf, static_cast<uid_t>(-1), *group) != 0) return;
}
