// The recording shell of the simulated world for floods in the shell channel
// (ctrl_shell = 1). The world's own recording shell (tools/world/world_sh.cpp)
// runs every control-file line in the real shell, which costs two programs
// per line. Under a flood of tens of thousands of reports a second that cost
// would be what is measured, so this shell, given to world.sh with -s, runs
// no control-file line:
//
//  - LINE ("/bin/sh -c LINE") is appended to /proc/world/commands.log with
//    one write, bytes below 0x20 and 0x7F as \xHH, exactly as world_sh does
//    (a line longer than 4096 bytes is cut and marked "\...");
//  - a line that writes the control file (the shell channel's guarded echo)
//    runs nothing: its text, with the shell's escapes undone, is appended
//    with its newline to /proc/zor/ctrl when that exists, as the real shell
//    would have written it, and the status is 0;
//  - any other line (the module tools at start-up and shutdown) runs in the
//    real shell at /proc/world/real-sh.
//
// Linked statically and free of C++ runtime set-up, so that starting it costs
// as little as a program start can.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
    static const char guard[] = "[ -f /proc/zor/ctrl ] && echo \"", tail[] = "\" > /proc/zor/ctrl";
    if (argc >= 3 && strcmp(argv[1], "-c") == 0) {
        const char* line = argv[2];
        static char rec[4096 * 4 + 8];
        size_t out = 0, i = 0;
        for (; line[i] != '\0' && i < 4096; ++i) {
            unsigned char c = static_cast<unsigned char>(line[i]);
            if (c < 0x20 || c == 0x7F) out += static_cast<size_t>(snprintf(rec + out, 5, "\\x%02x", c));
            else rec[out++] = static_cast<char>(c);
        }
        if (line[i] != '\0') out += static_cast<size_t>(snprintf(rec + out, 5, "\\..."));
        rec[out++] = '\n';
        int fd = open("/proc/world/commands.log", O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        if (fd >= 0 && write(fd, rec, out) < 0) perror("flood_sh: commands.log");
        if (fd >= 0) close(fd);
        const size_t len = strlen(line), tlen = sizeof tail - 1;
        const size_t glen = sizeof guard - 1;
        if (strncmp(line, guard, glen) == 0 && len >= glen + tlen && strcmp(line + len - tlen, tail) == 0) {
            static char text[4096 + 2];
            size_t n = 0;
            for (size_t k = glen; k < len - tlen && n < 4096; ++k) {
                if (line[k] == '\\' && k + 1 < len - tlen) ++k;
                text[n++] = line[k];
            }
            text[n++] = '\n';
            int ctrl = open("/proc/zor/ctrl", O_WRONLY | O_APPEND | O_CLOEXEC);
            if (ctrl >= 0 && write(ctrl, text, n) < 0) perror("flood_sh: /proc/zor/ctrl");
            if (ctrl >= 0) close(ctrl);
            return 0;
        }
    }
    execv("/proc/world/real-sh", argv);
    fprintf(stderr, "flood_sh: cannot run /proc/world/real-sh: %s\n", strerror(errno));
    return 127;
}
