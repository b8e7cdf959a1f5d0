#include "ctrl_capture.h"

#include "ctrl_text.h"
#include "qmxsrv_ctx.h"
#include "zor_ctrl.h"

ctrl_capture::ctrl_capture(channel ch, std::function<int(const std::string&)> hook)
    : ch_(ch), file_(dir_.file("ctrl")), rec_(std::move(hook)) {
    zor_test::write_file(file_, "");
    zor_ctrl_set_file(file_);
    qmxsrv_ctx.ctrl_shell = ch == shell ? 1 : 0;
}

ctrl_capture::~ctrl_capture() {
    qmxsrv_ctx.ctrl_shell = 0;
    zor_ctrl_set_file("");
}

std::vector<std::string> ctrl_capture::lines() const {
    std::vector<std::string> out;
    if (ch_ == shell) {
        for (const std::string& line : rec_.lines()) {
            if (line.find(file_) == std::string::npos) continue;  // not a control command
            auto text = zor_test::ctrl_text_of_line(line, file_);
            out.push_back(text ? *text : "<bad line> " + line);
        }
        return out;
    }
    const std::string all = zor_test::read_file(file_);
    for (size_t at = 0; at < all.size();) {
        size_t end = all.find('\n', at);
        if (end == std::string::npos) {
            out.push_back(all.substr(at) + "<no newline>");
            break;
        }
        out.push_back(all.substr(at, end - at));
        at = end + 1;
    }
    return out;
}

bool ctrl_capture::wait_for(std::string_view needle, size_t n, std::chrono::milliseconds timeout) const {
    return zor_test::eventually([&] { return count_with(needle) >= n; }, timeout);
}

void ctrl_capture::clear() {
    rec_.clear();
    zor_test::write_file(file_, "");
}
