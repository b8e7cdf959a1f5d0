// Creates a directory together with its missing parents, the way the service
// prepares its run-time and log directories: parents are private (0700), the
// directory itself 0755 (both before the umask). Errors of mkdir are ignored:
// whoever uses the directory next reports what is wrong.
#pragma once

// Works on at most the first 255 characters of `path`; one trailing '/' is
// ignored. Does nothing more than mkdir calls; an existing path is left as is.
void dir_make_chain(const char* path);
