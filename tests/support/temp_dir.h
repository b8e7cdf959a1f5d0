// A private temporary directory for one test, removed with everything in it
// when the object goes out of scope.
#pragma once

#include <string>

namespace zor_test {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    // path() + "/" + name
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // Writes `text` to file(name) and returns that path.
    std::string write(const std::string& name, const std::string& text) const;

private:
    std::string path_;
};

// Writes `text` to `path`, replacing what was there.
void write_file(const std::string& path, const std::string& text);

// The whole content of a file ("" when it cannot be read).
std::string read_file(const std::string& path);

}  // namespace zor_test
