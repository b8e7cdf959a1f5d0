#include "util/group_id.h"

#include <grp.h>

#include <cerrno>

#include <vector>

std::optional<gid_t> group_id(const char* name) {
    if (!name || !*name) return std::nullopt;
    // Large groups list many members; the first size is enough for most.
    for (size_t size = 4096; size <= 16384; size *= 2) {
        std::vector<char> buf(size);
        group g{};
        group* found = nullptr;
        int rc = getgrnam_r(name, &g, buf.data(), buf.size(), &found);
        if (rc == ERANGE) continue;
        if (rc != 0 || !found) return std::nullopt;
        return found->gr_gid;
    }
    return std::nullopt;
}
