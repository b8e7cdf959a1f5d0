// The recording shell of the simulated world for floods. The world's own
// recording shell (tools/world/world_sh.cpp) runs every control-file line in
// the real shell under a lock, which keeps every line the kernel module would
// have received but costs two programs per line. Under a flood of tens of
// thousands of reports a second that cost would be what is measured, so this
// shell, given to world.sh with -s, keeps only the record:
//
//  - LINE ("/bin/sh -c LINE") is appended to /proc/world/commands.log with
//    one write, bytes below 0x20 and 0x7F as \xHH, exactly as world_sh does
//    (a line longer than 4096 bytes is cut and marked "\...");
//  - a line that writes the control file ends there, status 0: nothing is
//    run, and ctrl.log stays empty;
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
        if (strncmp(line, guard, sizeof guard - 1) == 0 && len >= tlen && strcmp(line + len - tlen, tail) == 0) return 0;
    }
    execv("/proc/world/real-sh", argv);
    fprintf(stderr, "flood_sh: cannot run /proc/world/real-sh: %s\n", strerror(errno));
    return 127;
}
