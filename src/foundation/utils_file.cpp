#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>

#include "corvosetup/utils.h"
#include "foundation/fd.h"
#include "foundation/guard.h"

namespace {

corvo::UniqueFd open_file(const std::string& path, int flags) {
    int fd = -1;
    do {
        fd = ::open(path.c_str(), flags | O_CLOEXEC, 0666);
    } while (fd < 0 && errno == EINTR);
    return corvo::UniqueFd(fd);
}

ssize_t read_some(int fd, char* to, std::size_t size) {
    ssize_t got = -1;
    do {
        got = ::read(fd, to, size);
    } while (got < 0 && errno == EINTR);
    return got;
}

bool is_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// The first word of a file; empty when it has none or cannot be read.
std::string first_word(int fd) {
    std::string word;
    char piece[256];
    for (ssize_t got = 0; (got = read_some(fd, piece, sizeof piece)) > 0;) {
        for (const char* at = piece; at != piece + got; ++at) {
            if (!is_blank(*at))
                word.push_back(*at);
            else if (!word.empty())
                return word;
        }
    }
    return word;
}

struct CloseDir {
    void operator()(DIR* dir) const { ::closedir(dir); }
};

}  // namespace

bool does_file_exist(std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

int read_value(std::string path, std::string& value) {
    return corvo::guarded([&]() -> int {
        const auto file = open_file(path, O_RDONLY);
        if (!file) return corvo::kNotOpened;
        std::string word = first_word(file.get());
        if (!word.empty()) value = std::move(word);
        return corvo::kOk;
    });
}

int write_value(std::string path, std::string value) {
    return corvo::guarded([&]() -> int {
        const auto file = open_file(path, O_WRONLY | O_CREAT | O_TRUNC);
        if (!file) return corvo::kNotOpened;
        // The whole value in one write, as kernel files want it. A value that the kernel refuses is the
        // caller's to notice by reading it back: only the open is reported.
        for (std::size_t done = 0; done < value.size();) {
            const ssize_t wrote = ::write(file.get(), value.data() + done, value.size() - done);
            if (wrote < 0 && errno == EINTR) continue;
            if (wrote <= 0) break;
            done += static_cast<std::size_t>(wrote);
        }
        return corvo::kOk;
    });
}

int write_value(std::string path, int value) {
    return corvo::guarded([&] { return write_value(path, std::to_string(value)); });
}

int list_dir(std::string path, std::vector<std::string>& names) {
    return corvo::guarded([&]() -> int {
        const std::unique_ptr<DIR, CloseDir> dir(::opendir(path.c_str()));
        if (!dir) return corvo::kNoDirectory;
        while (const dirent* entry = ::readdir(dir.get()))
            if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
        return corvo::kOk;
    });
}
