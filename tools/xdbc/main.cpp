// xdbc: builds, inspects and queries category files.
//
//   xdbc build [--fold-case] [--anchored] [--suffix-unit N] SOURCE OUT.xdb
//   xdbc dump FILE
//   xdbc match FILE domain NAME
//   xdbc match FILE ipv4 ADDRESS
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "xac.h"
#include "xdb.h"
#include "xdbc.h"

namespace {

constexpr int kExitUsage = 2;
constexpr int kExitNoLoad = 2;

int usage() {
    std::fputs("usage: xdbc build [--fold-case] [--anchored] [--suffix-unit N] SOURCE OUT.xdb\n"
               "       xdbc dump FILE\n"
               "       xdbc match FILE domain NAME\n"
               "       xdbc match FILE ipv4 ADDRESS\n",
               stderr);
    return kExitUsage;
}

bool read_file(const char* path, std::string& data) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    data.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

int cmd_build(int argc, char** argv) {
    xdbc::options opt;
    int i = 2;
    for (; i < argc && std::strncmp(argv[i], "--", 2) == 0; ++i) {
        if (std::strcmp(argv[i], "--fold-case") == 0) {
            opt.fold_case = true;
        } else if (std::strcmp(argv[i], "--anchored") == 0) {
            opt.anchored = true;
        } else if (std::strcmp(argv[i], "--suffix-unit") == 0 && i + 1 < argc && argv[i + 1][0] >= '0' &&
                   argv[i + 1][0] <= '7' && argv[i + 1][1] == '\0') {
            opt.suffix_unit = static_cast<uint32_t>(argv[++i][0] - '0');
        } else {
            std::fprintf(stderr, "xdbc: bad option %s (--suffix-unit takes 0 to 7)\n", argv[i]);
            return kExitUsage;
        }
    }
    if (argc - i != 2) return usage();
    const char* source = argv[i];
    const std::string out_path = argv[i + 1];

    std::string text;
    if (!read_file(source, text)) {
        std::fprintf(stderr, "xdbc: cannot read %s\n", source);
        return 1;
    }
    std::vector<xdbc::rule> rules;
    std::vector<std::string> warnings;
    xdbc::compiled out;
    std::string error;
    if (!xdbc::parse_source(text, rules, error) || !xdbc::build(opt, rules, out, error, warnings)) {
        std::fprintf(stderr, "xdbc: %s: %s\n", source, error.c_str());
        return 1;
    }
    for (const std::string& w : warnings) std::fprintf(stderr, "xdbc: %s: warning: %s\n", source, w.c_str());

    // Written beside the target and renamed, so a reader never sees half a file.
    const std::string tmp = out_path + ".tmp";
    {
        std::ofstream f(tmp, std::ios::binary | std::ios::trunc);
        f.write(reinterpret_cast<const char*>(out.file.data()), static_cast<std::streamsize>(out.file.size()));
        f.close();
        if (!f) {
            std::fprintf(stderr, "xdbc: cannot write %s\n", tmp.c_str());
            std::remove(tmp.c_str());
            return 1;
        }
    }
    if (std::rename(tmp.c_str(), out_path.c_str()) != 0) {
        std::fprintf(stderr, "xdbc: cannot write %s\n", out_path.c_str());
        std::remove(tmp.c_str());
        return 1;
    }
    std::printf("%s: %zu rules, %u records, %u states, %u table words, %u hash slots, %zu bytes\n", out_path.c_str(),
                rules.size(), out.records, out.states, out.trans_words, out.hash_slots, out.file.size());
    return 0;
}

uint32_t be32(const std::string& d, size_t at) { return xdb_be32(reinterpret_cast<const uint8_t*>(d.data()) + at); }

// Prints what the headers say, even for a file the loader refuses.
int cmd_dump(const char* path) {
    std::string d;
    if (!read_file(path, d)) {
        std::fprintf(stderr, "xdbc: cannot read %s\n", path);
        return 1;
    }
    std::printf("file size:         %zu bytes\n", d.size());
    if (d.size() < XDB_BLOCK_HEADER_SIZE + XAC_HEADER_SIZE) {
        std::printf("too short for the xac headers\n");
        return 1;
    }
    const size_t h = XDB_BLOCK_HEADER_SIZE;
    const uint8_t a = static_cast<uint8_t>(d[h + XAC_FLAGS_A_AT]), b = static_cast<uint8_t>(d[h + XAC_FLAGS_B_AT]);
    const uint32_t T = be32(d, h + XAC_TRANS_COUNT_AT), H = be32(d, h + XAC_HASH_SLOTS_AT),
                   N = be32(d, h + XAC_PATTERN_COUNT_AT), S = be32(d, h + XAC_SUFFIX_SIZE_AT),
                   P = be32(d, h + XAC_POSTFIX_SIZE_AT);
    int alphabet = 0;
    uint32_t seen[65536 / 32] = {};
    for (int c = 0; c < 256; ++c) {
        const uint32_t sym = xdb_be16(reinterpret_cast<const uint8_t*>(d.data()) + h + XAC_SYMBOLS_AT + 2 * c);
        if (sym && !(seen[sym / 32] & 1u << (sym % 32))) {
            seen[sym / 32] |= 1u << (sym % 32);
            ++alphabet;
        }
    }
    std::printf("block type:        %u\n", static_cast<uint8_t>(d[XDB_BLOCK_TYPE_AT]));
    std::printf("magic:             0x%02X%02X\n", static_cast<uint8_t>(d[h + XAC_MAGIC_AT]),
                static_cast<uint8_t>(d[h + XAC_MAGIC_AT + 1]));
    std::printf("flags:             A=0x%02X B=0x%02X\n", a, b);
    std::printf("anchored:          %s\n", (a & XAC_A_ANCHORED) ? "yes" : "no");
    std::printf("pattern tables:    %s\n", (a & XAC_A_TABLES) ? "yes" : "no");
    std::printf("suffix unit:       %u\n", static_cast<unsigned>(xac_suffix_unit(a, b)));
    std::printf("alphabet:          %d symbols\n", alphabet);
    std::printf("check mask:        0x%08X\n", be32(d, h + XAC_CHECK_MASK_AT));
    std::printf("state shift:       %u\n", be32(d, h + XAC_STATE_SHIFT_AT) & XAC_STATE_SHIFT_BITS);
    std::printf("transitions (T):   %u words, %llu bytes\n", T, 4ull * T);
    std::printf("output hash (H):   %u slots, modulus %u, %llu bytes\n", H, be32(d, h + XAC_HASH_MODULUS_AT), 8ull * H);
    std::printf("patterns (N):      %u records, %llu bytes\n", N, 8ull * (uint64_t{N} + 1));
    std::printf("suffix table (S):  %u bytes\n", S);
    std::printf("postfix table (P): %u bytes\n", P);

    uint64_t at = h + XAC_HEADER_SIZE + 4 * (uint64_t{T} + 2 * uint64_t{H});
    if (a & XAC_A_TABLES) at += 8 * (uint64_t{N} + 1) + P + S;
    if (at + XDB_BLOCK_HEADER_SIZE <= d.size() && d[at + XDB_BLOCK_TYPE_AT] == XDB_BLOCK_PREFILTER) {
        const uint32_t size = be32(d, at + XDB_BLOCK_SIZE_AT);
        std::printf("ip prefilter:      %u bytes, first octets:", size);
        for (uint32_t v = 0; v < 256 && v / 8 < size; ++v) {
            const uint8_t octet = static_cast<uint8_t>(v);
            const uint64_t byte = at + XDB_BLOCK_HEADER_SIZE + xdb_prefilter_byte(octet);
            if (byte < d.size() && (static_cast<uint8_t>(d[byte]) & xdb_prefilter_bit(octet))) std::printf(" %u", v);
        }
        std::printf("\n");
    } else {
        std::printf("ip prefilter:      none\n");
    }
    std::fflush(stdout);
    const bool loads = xdb_load_mem(d.data(), d.size()) != nullptr;
    std::printf("loads:             %s\n", loads ? "yes" : "no");
    return 0;
}

void print_match(const xdb_match& m) {
    std::printf("id=%u group=%u sub=%u end=%u len=%d\n", m.id, (m.id >> 8) & 0xFF, m.id & 0xFF, m.end, m.len);
}

int cmd_match(const char* path, const char* kind, const char* key) {
    const bool domain = std::strcmp(kind, "domain") == 0;
    if (!domain && std::strcmp(kind, "ipv4") != 0) return usage();
    category_db_ptr db = xdb_load(path);
    if (!db) return kExitNoLoad;
    const std::optional<xdb_match> m =
        domain ? category_db_match_domain(db.get(), key, std::strlen(key)) : category_db_match_ipv4(db.get(), key);
    if (m) {
        print_match(*m);
    } else {
        std::printf("no match\n");
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage();
    const std::string cmd = argv[1];
    if (cmd == "build") return cmd_build(argc, argv);
    if (cmd == "dump" && argc == 3) return cmd_dump(argv[2]);
    if (cmd == "match" && argc == 5) return cmd_match(argv[2], argv[3], argv[4]);
    return usage();
}
