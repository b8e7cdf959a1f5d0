#include "test_util.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <locale>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "log.h"

namespace zor_test {

namespace {

// libstdc++'s ctype<char> fills its narrow() table one character at a time
// on first use, writing without a lock. std::regex narrows every character it
// compiles and matches, and the simulators' HTTP threads parse with it while
// a test thread compiles its own patterns: two unguarded writes of the same
// byte. Filling the whole table here, before any test starts a thread, leaves
// only reads for later.
const bool narrow_table_filled = [] {
    const auto& ctype = std::use_facet<std::ctype<char>>(std::locale());
    for (int c = 0; c < 256; ++c) ctype.narrow(static_cast<char>(c), '\0');
    return true;
}();

}  // namespace

temp_dir::temp_dir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/zor_test.XXXXXX";
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
    path_ = pattern;
}

temp_dir::~temp_dir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string temp_dir::file(const std::string& name) const { return path_ + "/" + name; }

bool eventually(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
}

std::vector<std::string> program_argv(const std::string& path) {
    std::vector<std::string> words;
    std::istringstream emulator(ZOR_TEST_EMULATOR);
    for (std::string w; emulator >> w;) words.push_back(w);
    words.push_back(path);
    return words;
}

std::string program_shell(const std::string& path) {
    std::string emulator = ZOR_TEST_EMULATOR;
    return (emulator.empty() ? "" : emulator + " ") + "'" + path + "'";
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return "";
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

bool write_file(const std::string& path, const std::string& contents) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
    return static_cast<bool>(out.flush());
}

bool file_exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

log_capture::log_capture(unsigned level) {
    log_init(dir_.path().c_str(), "test");
    log_set_level(level);
}

log_capture::~log_capture() { log_release(); }

std::string log_capture::log_path() const { return dir_.file("test.log"); }

std::vector<std::string> log_capture::lines() const {
    std::vector<std::string> out;
    std::istringstream in(read_file(log_path()));
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        out.push_back(line);
    }
    return out;
}

bool log_capture::contains(const std::string& text) const {
    for (const std::string& line : lines())
        if (line.find(text) != std::string::npos) return true;
    return false;
}

}  // namespace zor_test
