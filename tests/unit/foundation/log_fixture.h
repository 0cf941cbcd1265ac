// A log of the test's own, and what stands in it.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "corvosetup/log.h"

// A directory that goes with the test.
class TempDir {
public:
    TempDir() {
        std::string form = (std::filesystem::temp_directory_path() / "corvo-test.XXXXXX").string();
        path_ = ::mkdtemp(form.data());
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

inline std::string content_of(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void put(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

inline std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t at = 0;
    while (at < text.size()) {
        auto end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

// A line without its time: "[ERROR] message". Lines that do not begin with a level and a time stay as they
// are.
inline std::string without_time(const std::string& line) {
    const auto level_end = line.find("] ");
    const auto time_end = line.find(" >>> ");
    if (line.empty() || line[0] != '[' || level_end == std::string::npos || time_end == std::string::npos)
        return line;
    return line.substr(0, level_end + 2) + line.substr(time_end + 5);
}

inline int open_descriptors() {
    int count = 0;
    DIR* dir = ::opendir("/proc/self/fd");
    while (::readdir(dir) != nullptr) ++count;
    ::closedir(dir);
    return count;
}

class LogFixture : public ::testing::Test {
protected:
    LogFixture() : log_path_(dir_ / "corvo.log") {
        reopen_setup_logger(log_path_);
        forget_lines();
    }
    ~LogFixture() override {
        max_log_size = 5242880;
        setup_logger.close();
    }

    void forget_lines() { std::filesystem::resize_file(log_path_, 0); }
    std::string log_text() const { return content_of(log_path_); }
    // What was logged since the start of the test, without the times.
    std::vector<std::string> lines() const {
        auto all = split_lines(log_text());
        for (auto& line : all) line = without_time(line);
        return all;
    }

    TempDir dir_;
    std::string log_path_;
};

using Lines = std::vector<std::string>;
