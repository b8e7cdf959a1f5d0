// kernsim: plays the kernel module from user space. Announces the
// "zor_notify" family to the service and sends it event records, valid or
// malformed, from the command line or a script file. See docs/kernsim.md.
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "kernsim_script.h"
#include "kernsim_send.h"

namespace {

void usage(FILE* out) {
    std::fputs(
        "usage: kernsim -p PORT [-f FAMILY_ID] [-n COUNT] [-r RATE] [-w SECONDS] [-L] [-v]\n"
        "               [-s SCRIPT | COMMAND [; COMMAND]...]\n"
        "  -p PORT       destination port id: the service's process id\n"
        "  -f FAMILY_ID  family id announced and used by events (default 40)\n"
        "  -n COUNT      run the commands COUNT times; {n} in a text is the round\n"
        "  -r RATE       at most RATE datagrams per second\n"
        "  -w SECONDS    wait up to SECONDS for the service's socket to appear\n"
        "  -s SCRIPT     read commands from SCRIPT ('-' for standard input)\n"
        "  -L            lossy, like the kernel: never wait for room in the service's\n"
        "                receive queue; count and drop what it refuses\n"
        "  -v            print every datagram sent\n"
        "commands: announce, domain TEXT, addr TEXT, event, wake, raw HEX, sleep MS\n",
        out);
}

bool to_number(const char* text, unsigned long max, unsigned long& out) {
    errno = 0;
    char* end = nullptr;
    unsigned long v = std::strtoul(text, &end, 0);
    if (errno || end == text || *end || text[0] == '-' || v > max) return false;
    out = v;
    return true;
}

void trace(const std::vector<uint8_t>& msg) {
    auto v = ks_peek(msg);
    if (!v) {
        std::printf("sent %zu bytes\n", msg.size());
    } else {
        std::printf("sent %zu bytes: nlmsg_len=%" PRIu32 " type=%u cmd=%u", msg.size(), v->nlmsg_len,
                    v->nlmsg_type, v->genl_cmd);
        if (msg.size() >= 36 && v->nlmsg_type != KS_GENL_ID_CTRL) {
            uint32_t w[3];
            std::memcpy(w, &msg[24], sizeof w);
            std::printf(" flags=0x%x data_type=%u data_len=%u", w[0], w[1], w[2]);
        }
        std::printf("\n");
    }
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    ks_run_opts opts;
    const char* script = nullptr;
    bool verbose = false;
    bool lossy = false;
    long lost = 0;
    unsigned long v = 0;
    bool have_port = false;
    int opt;
    while ((opt = getopt(argc, argv, "+p:f:n:r:w:s:Lvh")) != -1) {
        switch (opt) {
            case 'p':
                if (!to_number(optarg, UINT32_MAX, v) || v == 0) {
                    std::fprintf(stderr, "kernsim: bad port '%s'\n", optarg);
                    return 2;
                }
                opts.port = static_cast<uint32_t>(v);
                have_port = true;
                break;
            case 'f':
                if (!to_number(optarg, UINT16_MAX, v)) {
                    std::fprintf(stderr, "kernsim: bad family id '%s'\n", optarg);
                    return 2;
                }
                opts.family_id = static_cast<uint16_t>(v);
                break;
            case 'n':
                if (!to_number(optarg, 100000000, v)) {
                    std::fprintf(stderr, "kernsim: bad count '%s'\n", optarg);
                    return 2;
                }
                opts.count = static_cast<unsigned>(v);
                break;
            case 'r': {
                char* end = nullptr;
                opts.rate = std::strtod(optarg, &end);
                if (end == optarg || *end || !(opts.rate >= 0) || opts.rate > 1e7) {
                    std::fprintf(stderr, "kernsim: bad rate '%s'\n", optarg);
                    return 2;
                }
                break;
            }
            case 'w':
                if (!to_number(optarg, 3600, v)) {
                    std::fprintf(stderr, "kernsim: bad wait '%s'\n", optarg);
                    return 2;
                }
                opts.wait = std::chrono::seconds(v);
                break;
            case 's':
                script = optarg;
                break;
            case 'L':
                lossy = true;
                break;
            case 'v':
                verbose = true;
                break;
            case 'h':
                usage(stdout);
                return 0;
            default:
                usage(stderr);
                return 2;
        }
    }
    if (!have_port) {
        std::fputs("kernsim: -p PORT is required\n", stderr);
        usage(stderr);
        return 2;
    }

    std::vector<ks_command> commands;
    std::string err;
    bool parsed = false;
    if (script) {
        if (optind < argc) {
            std::fputs("kernsim: give either -s SCRIPT or commands, not both\n", stderr);
            return 2;
        }
        if (std::string(script) == "-") {
            parsed = ks_parse_script(std::cin, "stdin", commands, err);
        } else {
            std::ifstream in(script);
            if (!in) {
                std::fprintf(stderr, "kernsim: cannot open %s\n", script);
                return 2;
            }
            parsed = ks_parse_script(in, script, commands, err);
        }
    } else {
        parsed = ks_parse_words(std::vector<std::string>(argv + optind, argv + argc), commands, err);
    }
    if (!parsed) {
        std::fprintf(stderr, "kernsim: %s\n", err.c_str());
        return 2;
    }
    if (commands.empty()) {
        std::fputs("kernsim: nothing to send\n", stderr);
        usage(stderr);
        return 2;
    }

    ks_sender sender;
    if (!sender.open(err)) {
        std::fprintf(stderr, "kernsim: %s\n", err.c_str());
        return 1;
    }
    if (verbose) opts.on_sent = trace;
    if (lossy) opts.lost = &lost;
    long sent = ks_run(commands, opts, sender, err);
    if (sent < 0) {
        std::fprintf(stderr, "kernsim: %s\n", err.c_str());
        return 1;
    }
    // One line a script can read: what went out and what the full queue refused.
    if (lossy) std::printf("kernsim: sent %ld, lost %ld\n", sent, lost);
    return 0;
}
