// What the tests of this area share: a kernel value as a text, and directories of the test's own in the
// kernel's places.
#pragma once

#include <sys/mount.h>

#include <stdexcept>
#include <string>

#include "support/files.h"

namespace corvo::test {

inline std::string value_of(const std::string& path) {
    std::string text = read_file(path);
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

// A directory of the kernel's that the test fills itself.
class Replaced {
public:
    explicit Replaced(std::string path) : path_(std::move(path)) {
        if (::mount("tmpfs", path_.c_str(), "tmpfs", 0, nullptr) != 0)
            throw std::runtime_error("mount " + path_);
    }
    ~Replaced() { ::umount2(path_.c_str(), MNT_DETACH); }
    Replaced(const Replaced&) = delete;
    Replaced& operator=(const Replaced&) = delete;

private:
    std::string path_;
};

}  // namespace corvo::test
