#include "support/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace corvo::test {

namespace {

[[noreturn]] void fail(const std::string& what, const std::string& path) {
    throw std::runtime_error(what + " " + path + ": " + std::generic_category().message(errno));
}

}  // namespace

std::string read_file(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) fail("cannot open", path);
    std::string text;
    char piece[65536];
    ssize_t got;
    while ((got = ::read(fd, piece, sizeof piece)) > 0) text.append(piece, static_cast<std::size_t>(got));
    const int error = errno;
    ::close(fd);
    errno = error;
    if (got < 0) fail("cannot read", path);
    return text;
}

void write_file(const std::string& path, std::string_view text) {
    const auto parent = std::filesystem::path(path).parent_path();
    if (!parent.empty()) std::filesystem::create_directories(parent);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) fail("cannot open", path);
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int error = errno;
    ::close(fd);
    errno = error;
    if (!written) fail("cannot write", path);
}

TempDir::TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "corvo-test.XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) fail("cannot make", name);
    path_ = name;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace corvo::test
