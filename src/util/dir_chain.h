// Creates a directory together with its missing parents, the way the service
// prepares its run-time and log directories: parents are private (0700), the
// directory itself 0755 (both before the umask). Errors of mkdir are ignored:
// whoever uses the directory next reports what is wrong.
#pragma once

// Does nothing when `path` exists. Otherwise works on at most its first 255
// characters, ignoring one trailing '/'.
void dir_make_chain(const char* path);
