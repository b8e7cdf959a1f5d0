// Creates a directory together with its missing parents, the way the service
// prepares its run-time and log directories: every directory it makes is
// 0750 (owner and group only), whatever the umask. Errors of mkdir are
// ignored: whoever uses the directory next reports what is wrong.
#pragma once

#include <sys/types.h>

inline constexpr mode_t kDirMode = 0750;

// Does nothing when `path` exists. Otherwise works on at most its first 255
// characters, ignoring one trailing '/'.
void dir_make_chain(const char* path);
