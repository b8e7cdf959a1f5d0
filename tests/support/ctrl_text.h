// Test helper without dependencies (the fuzz targets use it too): the text a
// shell-channel line sends into the kernel module's control file, i.e. the
// inverse of zor_ctrl_shell_line().
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zor_test {

// The text that `line` echoes into `ctrl_file`, with the shell's escapes
// inside the double quotes undone; nullopt when `line` is not exactly
// `[ -f FILE ] && echo "TEXT" > FILE` with TEXT a well-formed quoted word.
inline std::optional<std::string> ctrl_text_of_line(std::string_view line, std::string_view ctrl_file) {
    const std::string head = "[ -f " + std::string(ctrl_file) + " ] && echo \"";
    const std::string tail = "\" > " + std::string(ctrl_file);
    if (line.size() < head.size() + tail.size() || line.substr(0, head.size()) != head ||
        line.substr(line.size() - tail.size()) != tail)
        return std::nullopt;
    const std::string_view quoted = line.substr(head.size(), line.size() - head.size() - tail.size());
    std::string text;
    for (size_t i = 0; i < quoted.size(); ++i) {
        char c = quoted[i];
        if (c == '\\') {
            if (i + 1 == quoted.size()) return std::nullopt;
            c = quoted[++i];
            if (c != '\\' && c != '"' && c != '$' && c != '`') return std::nullopt;
        } else if (c == '"' || c == '$' || c == '`') {
            return std::nullopt;  // would end the word or expand
        }
        text += c;
    }
    return text;
}

}  // namespace zor_test
