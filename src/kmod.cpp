#include "kmod.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "log.h"
#include "main.h"
#include "qmxsrv_ctx.h"
#include "util/cmd_runner.h"
#include "zor_ctrl.h"

namespace {

constexpr size_t kPieceSize = 512;  // every piece of a command line is cut to fit

void append_piece(std::string& out, const char* fmt, ...) ZOR_PRINTF(2, 3);
void append_piece(std::string& out, const char* fmt, ...) {
    char piece[kPieceSize];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(piece, sizeof piece, fmt, ap);
    va_end(ap);
    out += piece;
}

// Root and interface names go into the line unquoted: anything the shell
// would read as more than a word is refused.
bool shell_word_safe(const char* s) {
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(s); *p; ++p) {
        if (!isalnum(*p) && !strchr("._-/+,:@%~", *p)) return false;
    }
    return true;
}

int count_names(const char* list) {
    int n = 1;
    for (const char* p = list; *p; ++p) n += *p == ',';
    return n;
}

std::string build_insmod_line(const char* root) {
    std::string cmd;
    append_piece(cmd, "[ ! -f %s ] && ", ZOR_CTRL_FILE);
    append_piece(cmd, "insmod %s/zor.ko ", root);
    if (ifwan) append_piece(cmd, "ifwan=%s ifwan_num=%d ", ifwan, count_names(ifwan));
    append_piece(cmd, "qos=%d pc=%d cloud=%d ", qos, pc, cloud);
    if (flows > 0) append_piece(cmd, "flows=%d ", flows);
    if (caches > 0) append_piece(cmd, "caches=%d ", caches);
    if (router_mode >= 0) append_piece(cmd, "router_mode=%d ", router_mode);
    return cmd;
}

}  // namespace

std::optional<std::string> run_capture(const char* cmd) {
    std::optional<std::string> out = cmd_capture(cmd ? cmd : "");
    if (!out || out->empty()) return std::nullopt;
    size_t end = out->find('\n');
    end = end == std::string::npos ? out->size() : end + 1;
    out->resize(std::min(end, kPieceSize - 1));
    return out;
}

int module_loaded(const char* name) {
    char cmd[kPieceSize];
    snprintf(cmd, sizeof cmd, "lsmod | grep -w ^%s", name);
    return run_capture(cmd) ? 1 : 0;
}

int module_unload(const char* name) {
    char cmd[kPieceSize];
    snprintf(cmd, sizeof cmd, "rmmod %s > /dev/null 2>&1", name);
    return cmd_run(cmd);
}

void kmod_load() {
    if (module_loaded("zor_service")) return;
    const char* root = qmxsrv_ctx.root ? qmxsrv_ctx.root->c_str() : "";
    if (!shell_word_safe(root) || (ifwan && !shell_word_safe(ifwan))) {
        LOG_E("Refused to load kernel module: unsafe root \"%s\" or ifwan \"%s\"", root, ifwan ? ifwan : "");
        return;
    }
    std::string cmd = build_insmod_line(root);
    cmd_run(cmd);
    LOG_I("Start kernel module: %s", cmd.c_str());
}

void kmod_unload_modules() {
    for (const char* name : {"zor", "qmxc"}) {
        if (module_loaded(name)) module_unload(name);
    }
}
