// Creates a directory together with its missing parents, the way the service
// prepares its run-time and log directories: every directory it makes is
// 0750 (owner and group only), whatever the umask. Errors of mkdir are
// ignored: whoever uses the directory next reports what is wrong.
#pragma once

#include <sys/types.h>

#include <optional>

inline constexpr mode_t kDirMode = 0750;

// Does nothing when `path` exists. Otherwise works on at most its first 255
// characters, ignoring one trailing '/'. With `group`, the last directory,
// once this call has made it, belongs to that group, so its members can
// reach what the service puts inside (the command socket); directories that
// existed before are never changed.
void dir_make_chain(const char* path, std::optional<gid_t> group = std::nullopt);
