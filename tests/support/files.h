// Files of the tests: read, write, throw away.
//
// Usable in every tier. All functions throw std::runtime_error with the path and the reason when they fail,
// which gtest reports as a failure of the test.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace corvo::test {

std::string read_file(const std::string& path);

// Writes `text` in place of what `path` holds; the file is created, missing parent directories too. A file
// that is there keeps its inode, as condition files and sysctls need it.
void write_file(const std::string& path, std::string_view text);

// A directory of its own under the temporary directory, removed with all it holds.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

private:
    std::string path_;
};

}  // namespace corvo::test
