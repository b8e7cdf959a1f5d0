// Runs the zorctl binary as a child process and parses its JSON output.
#pragma once

#include <cjson/cJSON.h>

#include <memory>
#include <string>
#include <vector>

struct zorctl_result {
    int status = -1;  // exit status, -1 when it did not exit normally
    std::string out;
    std::string err;
};

// Runs zorctl with `args`, in `cwd` when given, and collects both streams.
zorctl_result run_zorctl(const std::vector<std::string>& args, const std::string& cwd = "");

struct json_deleter {
    void operator()(cJSON* j) const { cJSON_Delete(j); }
};
using json_ptr = std::unique_ptr<cJSON, json_deleter>;

// The one JSON object zorctl printed; null unless the output is exactly one
// object and a newline.
json_ptr parse_one_object(const std::string& out);
// A member's text, or "<absent>".
std::string json_str(const cJSON* j, const char* key);
// A boolean member as 1 or 0, or -1 when absent or not a boolean.
int json_bool(const cJSON* j, const char* key);
// A number member, or -1 when absent or not a number.
double json_num(const cJSON* j, const char* key);
