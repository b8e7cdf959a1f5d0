// Runs the zorctl binary as a child process.
#pragma once

#include <string>
#include <vector>

struct zorctl_result {
    int status = -1;  // exit status, -1 when it did not exit normally
    std::string out;
    std::string err;
};

// Runs zorctl with `args`, in `cwd` when given, and collects both streams.
zorctl_result run_zorctl(const std::vector<std::string>& args, const std::string& cwd = "");
