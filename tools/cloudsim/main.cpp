// cloudsim: runs the cloud simulator until SIGINT or SIGTERM.
#include <getopt.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "cloudsim.h"

namespace {

std::atomic<bool> stop_requested{false};

void on_signal(int) {
    stop_requested = true;
}

void usage(FILE* out) {
    fputs("usage: cloudsim [-p port] [-b address] [-n nodes] [-c categories] [-s script]\n"
          "                [-l request-log] [-C cert-out] [-P port-file]\n"
          "  -p  port to listen on (default 0: any free port)\n"
          "  -b  address to listen on (default 127.0.0.1)\n"
          "  -n  number of virtual category servers (default 3)\n"
          "  -c  category table: \"<name> <group> <sub_group> [ttl_hours]\" per line\n"
          "  -s  script file run at start-up (see docs/cloudsim.md)\n"
          "  -l  append one line per request to this file\n"
          "  -C  write the generated certificate (PEM) to this file\n"
          "  -P  write the port number to this file once listening\n",
          out);
}

bool write_file(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
    return static_cast<bool>(out.flush());
}

}  // namespace

int main(int argc, char** argv) {
    cloudsim::options opts;
    std::string script_file, cert_out, port_file;
    for (int c; (c = getopt(argc, argv, "p:b:n:c:s:l:C:P:h")) != -1;) {
        switch (c) {
        case 'p': opts.port = atoi(optarg); break;
        case 'b': opts.bind = optarg; break;
        case 'n': opts.nodes = atoi(optarg); break;
        case 'c': opts.categories_file = optarg; break;
        case 's': script_file = optarg; break;
        case 'l': opts.log_file = optarg; break;
        case 'C': cert_out = optarg; break;
        case 'P': port_file = optarg; break;
        case 'h': usage(stdout); return 0;
        default: usage(stderr); return 2;
        }
    }

    cloudsim::simulator sim(opts);
    if (!script_file.empty()) {
        std::ifstream in(script_file);
        std::stringstream text;
        text << in.rdbuf();
        std::string error;
        if (!in || !sim.apply(text.str(), &error)) {
            fprintf(stderr, "cloudsim: %s: %s\n", script_file.c_str(), in ? error.c_str() : "cannot read");
            return 1;
        }
    }
    std::string error;
    if (!sim.start(&error)) {
        fprintf(stderr, "cloudsim: %s\n", error.c_str());
        return 1;
    }
    if (!cert_out.empty() && !write_file(cert_out, sim.certificate_pem())) {
        fprintf(stderr, "cloudsim: cannot write %s\n", cert_out.c_str());
        return 1;
    }
    if (!port_file.empty() && !write_file(port_file, std::to_string(sim.port()) + "\n")) {
        fprintf(stderr, "cloudsim: cannot write %s\n", port_file.c_str());
        return 1;
    }
    printf("cloudsim: listening on https://%s (server = %s), %d nodes: %s ... %s\n",
           sim.address().c_str(), sim.address().c_str(), opts.nodes, sim.node_url(0).c_str(),
           sim.node_url(opts.nodes - 1).c_str());
    fflush(stdout);

    struct sigaction sa = {};
    sa.sa_handler = on_signal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    while (!stop_requested) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    sim.stop();
    return 0;
}
