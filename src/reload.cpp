#include "reload.h"

#include <mutex>

#include "log.h"
#include "pctrl/pctrl_scheduler.h"
#include "qmxsrv_ctx.h"
#include "xdb.h"

namespace {

// SIGHUP on the main thread and the command on the command thread may meet.
std::mutex reload_lock;

// The loader's lines as one: line ends become blanks, the last one goes.
std::string one_line(const std::string& lines) {
    std::string out;
    for (char c : lines) out += c == '\n' ? ' ' : c;
    while (!out.empty() && out.back() == ' ') out.pop_back();
    return out;
}

}  // namespace

reload_result service_reload(const char* origin, std::string* message) {
    std::lock_guard<std::mutex> serial(reload_lock);
    message->clear();
    LOG_I("Reload (%s)", origin);
    int rc = 0;
    if (const std::optional<std::string>& path = qmxsrv_ctx.xdb) {
        std::string lines;
        rc = xdb_reload(path->c_str(), &lines);
        *message = one_line(lines);
        if (rc == 0 && message->empty()) {
            LOG_I("Reload: category file %s in force", path->c_str());
        } else if (rc == 0) {
            LOG_W("Reload: category file %s in force: %s", path->c_str(), message->c_str());
            message->clear();
        } else {
            LOG_E("Reload: category file %s not loaded, the previous one stays: %s", path->c_str(),
                  message->c_str());
        }
    }
    reload_result result = rc == 0 ? reload_result::done : reload_result::category_kept;
    if (qmxsrv_ctx.pctrl_enabled.load() != 0 && !pctrl_reapply_rules()) {
        const std::string rules = qmxsrv_ctx_pc_rule();
        LOG_E("Reload: rule file %s not read, the kernel's rules stay as they were", rules.c_str());
        if (result == reload_result::done) {
            result = reload_result::rules_not_read;
            *message = "rule file " + rules + " not read (the service log says why)";
        }
    }
    if (result != reload_result::done) {
        // The reply carries it: outside bytes shown as the log shows them.
        char shown[256];
        log_format_text(shown, sizeof shown, message->c_str());
        *message = shown;
    }
    return result;
}
