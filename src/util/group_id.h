// Group names to ids, the way the service resolves its configured ipc_group:
// through the reentrant lookup with a bounded buffer, so no thread shares
// libc's static group record. Callable from any thread.
#pragma once

#include <sys/types.h>

#include <optional>

// The id of group `name`; nullopt when `name` is null or empty, when no such
// group exists, or when its entry does not fit 16 KiB.
std::optional<gid_t> group_id(const char* name);
